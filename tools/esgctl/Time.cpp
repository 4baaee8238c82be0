#include "Time.h"

#include <glib.h>

#include <algorithm>
#include <cctype>
#include <memory>
#include <regex>

#include "Status.h"
#include "TextWidth.h"

namespace esgctl {
namespace {

constexpr Seconds kEra = Seconds{1} << 32;
constexpr Seconds kMinute = 60;
constexpr Seconds kHour = 60 * kMinute;
constexpr Seconds kDay = 24 * kHour;
constexpr Seconds kWeek = 7 * kDay;

struct Release {
  void operator()(GDateTime* time) const { g_date_time_unref(time); }
  void operator()(GTimeZone* zone) const { g_time_zone_unref(zone); }
};
using DateTime = std::unique_ptr<GDateTime, Release>;
using TimeZone = std::unique_ptr<GTimeZone, Release>;

DateTime Local(Seconds time) { return DateTime(g_date_time_new_from_unix_local(time)); }

std::string Format(GDateTime* time, const char* pattern) {
  char* const text = time == nullptr ? nullptr : g_date_time_format(time, pattern);
  std::string result = text == nullptr ? "?" : text;
  g_free(text);
  return result;
}

std::string Normalized(const std::string& text) {
  std::string result(Trimmed(text));
  std::transform(result.begin(), result.end(), result.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return result;
}

/// The calendar day that a word or a date names; without one, today.
std::string DayOf(const std::string& word, Seconds now) {
  const int offset = word == "yesterday" ? -1 : word == "tomorrow" ? 1 : 0;
  if (offset == 0 && !word.empty() && word != "today") {
    return word;
  }
  const DateTime day(g_date_time_add_days(Local(now).get(), offset));
  return Format(day.get(), "%Y-%m-%d");
}

std::optional<Moment> ParseCalendar(const std::string& text, Seconds now) {
  static const std::regex pattern(
      "(?:(today|tomorrow|yesterday|\\d{4}-\\d{2}-\\d{2})(?: {1,9}|t|$))?"
      "(?:(\\d{1,2}):(\\d{2})(?::(\\d{2}))?(z|[+-]\\d{2}(?::?\\d{2})?)?)?");
  std::smatch parts;
  if (text.empty() || !std::regex_match(text, parts, pattern)) {
    return std::nullopt;
  }
  const auto number = [&parts](int i) {
    const std::string digits = parts.str(static_cast<std::size_t>(i));
    return std::string(2 - std::min<std::size_t>(2, digits.size()), '0') + digits;
  };
  std::string zone = parts.str(5);
  std::replace(zone.begin(), zone.end(), 'z', 'Z');
  const std::string iso =
      DayOf(parts.str(1), now) + 'T' + number(2) + ':' + number(3) + ':' + number(4) + zone;
  const TimeZone local(g_time_zone_new_local());
  const DateTime time(g_date_time_new_from_iso8601(iso.c_str(), local.get()));
  if (time == nullptr) {
    return std::nullopt;
  }
  return Moment{g_date_time_to_unix(time.get()), !parts[1].matched};
}

std::optional<Seconds> TryDuration(const std::string& text) {
  static const std::regex pattern(
      R"((?:(\d{1,4})w)?(?:(\d{1,5})d)?(?:(\d{1,6})h)?(?:(\d{1,8})m(?:in)?)?(?:(\d{1,10})s?)?)");
  static constexpr Seconds kUnits[] = {kWeek, kDay, kHour, kMinute, 1};
  std::smatch parts;
  if (text.empty() || !std::regex_match(text, parts, pattern)) {
    return std::nullopt;
  }
  Seconds sum = 0;
  for (std::size_t i = 1; i < parts.size(); ++i) {
    sum += parts[i].matched ? std::stoll(parts.str(i)) * kUnits[i - 1] : 0;
  }
  return sum;
}

}  // namespace

Seconds Clock::FromRecord(std::uint32_t time) const {
  if (m_epoch == Epoch::Unix) {
    return time;
  }
  return esg::tools::UnixFromNtp(time, m_now);
}

std::uint32_t Clock::ToRecord(Seconds time) const {
  const bool fits = m_epoch == Epoch::Unix
                        ? time >= 0 && time < kEra
                        : time > m_now - kEra / 2 && time <= m_now + kEra / 2 - 1;
  if (!fits) {
    throw Failure(kUsage, "This time is too far away for the guide: " + FormatDateTime(time));
  }
  return m_epoch == Epoch::Unix ? static_cast<std::uint32_t>(time) : esg::tools::NtpFromUnix(time);
}

Moment ParseMoment(const std::string& written, Seconds now) {
  static const std::regex digits("\\d{1,12}");
  const std::string text = Normalized(written);
  if (text == "now") {
    return {now, false};
  }
  if (std::regex_match(text, digits)) {
    return {std::stoll(text), false};
  }
  if (!text.empty() && (text[0] == '+' || text[0] == '-')) {
    if (const auto offset = TryDuration(text.substr(1))) {
      return {text[0] == '+' ? now + *offset : now - *offset, false};
    }
  } else if (const auto moment = ParseCalendar(text, now)) {
    return *moment;
  }
  throw Failure(kUsage, "\"" + written +
                            "\" is no time. Write now, 20:00, 2026-05-01, \"2026-05-01 20:00\", "
                            "\"tomorrow 06:00\", +2h or Unix seconds.");
}

Seconds ParseDuration(const std::string& text) {
  if (const auto duration = TryDuration(Normalized(text))) {
    return *duration;
  }
  throw Failure(kUsage,
                "\"" + text + "\" is no length of time. Write 90m, 6h, 1h30m, 2d or seconds.");
}

TimeRange ParseRange(const std::string& from, const std::string& to, const std::string& length,
                     Seconds defaultLength, Seconds now) {
  if (!to.empty() && !length.empty()) {
    throw Failure(kUsage, "--to and --for say the same thing; give one of them.");
  }
  TimeRange range;
  range.from = from.empty() ? now : ParseMoment(from, now).time;
  if (to.empty()) {
    range.to = range.from + (length.empty() ? defaultLength : ParseDuration(length));
  } else {
    const Moment end = ParseMoment(to, now);
    range.to = end.time;
    // By the calendar: a day may have 23 or 25 hours.
    const DateTime today = Local(end.time);
    for (Seconds days = (range.from - end.time) / kDay; end.timeOfDay && range.to <= range.from;
         ++days) {
      const DateTime later(g_date_time_add_days(today.get(), static_cast<int>(days)));
      if (later == nullptr) {
        break;  // behind the calendar's end
      }
      range.to = g_date_time_to_unix(later.get());
    }
  }
  if (range.to <= range.from) {
    throw Failure(kUsage, "The time range is empty: it ends at " + FormatDateTime(range.to) +
                              " and begins at " + FormatDateTime(range.from) + ".");
  }
  return range;
}

std::vector<Piece> Pieces(const Clock& clock, const TimeRange& range) {
  std::vector<Piece> pieces;
  for (Seconds at = range.from; at < range.to;) {
    const std::uint32_t start = clock.ToRecord(at);
    const Seconds length = std::min({kDay, range.to - at, kEra - static_cast<Seconds>(start)});
    pieces.push_back({start, static_cast<std::uint32_t>(length)});
    at += length;
  }
  return pieces;
}

std::string FormatTime(Seconds time, const char* pattern) {
  return Format(Local(time).get(), pattern);
}

std::string FormatDateTime(Seconds time) {
  return FormatTime(time, "%Y-%m-%d ") + FormatTimeOfDay(time);
}

std::string FormatTimeOfDay(Seconds time) {
  return FormatTime(time, time % kMinute == 0 ? "%H:%M" : "%H:%M:%S");
}

std::string FormatDuration(Seconds duration) {
  const auto twoDigits = [](Seconds value) {
    const std::string digits = std::to_string(value);
    return digits.size() < 2 ? "0" + digits : digits;
  };
  std::string text = std::to_string(duration / kHour) + ':' + twoDigits(duration % kHour / kMinute);
  if (duration % kMinute != 0) {
    text += ':' + twoDigits(duration % kMinute);
  }
  return text;
}

}  // namespace esgctl
