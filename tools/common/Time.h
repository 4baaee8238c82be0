#ifndef ESG_TOOLS_TIME_H
#define ESG_TOOLS_TIME_H

#include <cstdint>

namespace esg::tools {

/// Seconds since 1970, UTC.
using Seconds = std::int64_t;

/// When NTP seconds in 32 bits start again at 0, in February 2036 for the first time.
inline constexpr Seconds kNtpRollover = 2085978496;

/// The NTP seconds of a time, in 32 bits.
inline std::uint32_t NtpFromUnix(Seconds time) {
  return static_cast<std::uint32_t>(time - kNtpRollover);
}

/// Of all times that the NTP seconds may stand for, the one nearest to `near`.
inline Seconds UnixFromNtp(std::uint32_t ntp, Seconds near) {
  return near + static_cast<std::int32_t>(ntp - NtpFromUnix(near));
}

}  // namespace esg::tools

#endif
