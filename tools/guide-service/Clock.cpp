#include "Clock.h"

#include <cstdlib>

#include "common/Time.h"

namespace esg::guide {
namespace {

/// The local midnight at the start of the day of `time`, or of the day `days` later.
std::time_t Midnight(std::time_t time, int days) {
  std::tm day{};
  localtime_r(&time, &day);
  day.tm_hour = day.tm_min = day.tm_sec = 0;
  day.tm_mday += days;
  day.tm_isdst = -1;
  return std::mktime(&day);
}

}  // namespace

std::uint64_t Distance(const Span& a, const Span& b) {
  const std::int64_t starts = static_cast<std::int32_t>(b.start - a.start);
  const std::int64_t ends = starts + b.duration - a.duration;
  return static_cast<std::uint64_t>(std::llabs(starts)) +
         static_cast<std::uint64_t>(std::llabs(ends));
}

std::uint32_t ShiftToToday(std::uint32_t first, std::time_t now) {
  const auto start = static_cast<std::time_t>(tools::UnixFromNtp(first, now));
  const std::time_t firstDay = Midnight(start, 0);
  std::time_t shift = Midnight(now, 0) - firstDay;
  if (start + shift > now) {
    shift = Midnight(now, -1) - firstDay;
  }
  return static_cast<std::uint32_t>(shift);
}

}  // namespace esg::guide
