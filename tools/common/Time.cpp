#include "common/Time.h"

namespace esg::tools {

std::uint32_t NtpFromUnix(Seconds time) { return static_cast<std::uint32_t>(time - kNtpRollover); }

Seconds UnixFromNtp(std::uint32_t ntp, Seconds near) {
  return near + static_cast<std::int32_t>(ntp - NtpFromUnix(near));
}

}  // namespace esg::tools
