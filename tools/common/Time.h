#ifndef ESG_TOOLS_TIME_H
#define ESG_TOOLS_TIME_H

#include <cstdint>

namespace esg::tools {

/// Seconds since 1970, UTC.
using Seconds = std::int64_t;

/// NTP seconds in 32 bits begin again at 0 each 2^32 seconds; this is the first time, in February
/// 2036.
inline constexpr Seconds kNtpRollover = 2085978496;

/// The NTP seconds of a time, in 32 bits.
std::uint32_t NtpFromUnix(Seconds time);

/// Of all times that the NTP seconds may stand for, the one nearest to `near`.
Seconds UnixFromNtp(std::uint32_t ntp, Seconds near);

}  // namespace esg::tools

#endif
