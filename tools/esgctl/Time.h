#ifndef ESGCTL_TIME_H
#define ESGCTL_TIME_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/Time.h"

namespace esgctl {

using esg::tools::Seconds;

inline constexpr Seconds kMinute = 60;
inline constexpr Seconds kHour = 60 * kMinute;
inline constexpr Seconds kDay = 24 * kHour;
inline constexpr Seconds kWeek = 7 * kDay;

/// What a record's time counts from: 1970, or 1900 as in the broadcast.
enum class Epoch { Unix, Ntp };

/// Turns the 32-bit times of records into Unix time and back.
///
/// NTP seconds in 32 bits start again in February 2036. A record's time is therefore read as the
/// one nearest to the present of all that it may stand for, at most 68 years off.
class Clock {
 public:
  Clock(Epoch epoch, Seconds now) : m_epoch(epoch), m_now(now) {}

  Seconds Now() const { return m_now; }
  void SetNow(Seconds now) { m_now = now; }
  Seconds FromRecord(std::uint32_t time) const;
  /// A usage failure for a time that a record cannot hold.
  std::uint32_t ToRecord(Seconds time) const;

 private:
  Epoch m_epoch;
  Seconds m_now;
};

/// The forms of a time that people write. Seconds may follow a time of day, and a zone ("Z",
/// "+02:00"); without one it is local. A weekday is the next one, today included.
inline constexpr char kTimeForms[] =
    "now, today, tonight, yesterday, 20:00, 8pm, 2026-05-01, \"2026-05-01 20:00\", "
    "\"tomorrow 6am\", \"friday 20:00\", +2h, -30m or Unix seconds";
inline constexpr char kDurationForms[] = "90m, 6h, 1h30m, 2d, 1w or seconds";

/// A point in time as people write it.
struct Moment {
  Seconds time = 0;
  bool timeOfDay = false;  ///< only a time of day was given; today's was taken
};

/// Raises a usage failure if the text is not a time.
Moment ParseMoment(const std::string& written, Seconds now);

/// "90m", "1h30m", "2d", "1w", or seconds.
Seconds ParseDuration(const std::string& text);

/// From `from` up to, but not including, `to`.
struct TimeRange {
  Seconds from = 0;
  Seconds to = 0;
};

/// What --from, --to and --for say; empty texts where they were not given. Without an end the range
/// is `length` long. An end that is only a time of day, at or before the start, is that of the next
/// day.
TimeRange ParseRange(const std::string& from, const std::string& to, const std::string& length,
                     Seconds defaultLength, Seconds now);

/// The range in pieces of at most a day; none crosses the end of the record's 32 bits.
std::vector<TimeRange> Pieces(const Clock& clock, const TimeRange& range);

/// The present, in whole seconds.
Seconds PresentTime();

/// How far local time is ahead of UTC.
Seconds LocalOffset(Seconds time);

/// Local time as "2026-05-01 20:00"; the second form without the date. Seconds show unless they are
/// 0.
std::string FormatDateTime(Seconds time);
std::string FormatTimeOfDay(Seconds time);
/// Local time by a strftime pattern.
std::string FormatTime(Seconds time, const char* pattern);

/// "from 2026-05-01 20:00 to 2026-05-01 21:00".
std::string FormatRange(const TimeRange& range);

/// "0:30", or with seconds "0:00:30".
std::string FormatDuration(Seconds duration);

}  // namespace esgctl

#endif
