#include "Time.h"

#include <glib.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <regex>

#include "Output.h"
#include "Text.h"

namespace esgctl {
namespace {

constexpr Seconds kEra = Seconds{1} << 32;
constexpr int kTonight = 20;  // o'clock

/// Local time; null beyond the calendar's end.
GDateTime* Local(Seconds time) { return g_date_time_new_from_unix_local(time); }

std::string Normalized(const std::string& text) {
  g_autofree char* lower = g_ascii_strdown(text.c_str(), -1);
  return std::string(Trimmed(lower));
}

/// How many days from today the day is that a word means; Monday is day 1.
std::optional<int> DaysFromToday(const std::string& word, int today) {
  static constexpr std::string_view kNames[] = {"monday", "tuesday",  "wednesday", "thursday",
                                                "friday", "saturday", "sunday"};
  if (word == "yesterday" || word == "tomorrow") {
    return word == "tomorrow" ? 1 : -1;
  }
  if (word.empty() || word == "today" || word == "tonight") {
    return 0;
  }
  for (int day = 1; day <= 7; ++day) {
    if (kNames[day - 1].substr(0, std::max<std::size_t>(3, word.size())) == word) {
      return (day - today + 7) % 7;
    }
  }
  return std::nullopt;
}

/// A day, a time of day, or both: "tonight", "fri 8pm", "2026-05-01T20:00:30+02:00".
std::optional<Moment> ParseCalendar(const std::string& text, Seconds now) {
  static const std::regex pattern(
      "(?:([a-z]{3,9}|\\d{4}-\\d{2}-\\d{2})(?: {1,9}|t|$))?"
      "(?:(\\d{1,2})(?::(\\d{2})(?::(\\d{2}))?)?( ?[ap]m)?(z|[+-]\\d{2}(?::?\\d{2})?)?)?");
  std::smatch parts;
  if (text.empty() || text.size() > 40 || !std::regex_match(text, parts, pattern)) {
    return std::nullopt;
  }
  const std::string day = parts.str(1);
  const std::string half = parts.str(5);
  // A number alone is a time of day only with "am" or "pm".
  if (parts[2].matched && !parts[3].matched && half.empty()) {
    return std::nullopt;
  }
  g_autoptr(GDateTime) today = Local(now);
  g_autoptr(GDateTime) date = nullptr;
  std::string iso = day;
  if (day.empty() || std::isdigit(static_cast<unsigned char>(day[0])) == 0) {
    const auto days = DaysFromToday(day, g_date_time_get_day_of_week(today));
    if (!days) {
      return std::nullopt;
    }
    date = g_date_time_add_days(today, *days);
    iso = FormatTime(g_date_time_to_unix(date), "%Y-%m-%d");
  }
  const auto number = [&](std::size_t i) { return std::atoi(parts.str(i).c_str()); };
  int hour = day == "tonight" && !parts[2].matched ? kTonight : number(2);
  if (!half.empty()) {
    if (hour < 1 || hour > 12) {
      return std::nullopt;
    }
    hour = hour % 12 + (half[half.size() - 2] == 'p' ? 12 : 0);
  }
  char time[32];
  g_snprintf(time, sizeof time, "T%02d:%02d:%02d", hour, number(3), number(4));
  std::string zone = parts.str(6);
  std::replace(zone.begin(), zone.end(), 'z', 'Z');
  g_autoptr(GTimeZone) local = g_time_zone_new_local();
  g_autoptr(GDateTime) moment = g_date_time_new_from_iso8601((iso + time + zone).c_str(), local);
  if (moment == nullptr) {
    return std::nullopt;
  }
  return Moment{g_date_time_to_unix(moment), !parts[1].matched};
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
  return m_epoch == Epoch::Unix ? Seconds{time} : esg::tools::UnixFromNtp(time, m_now);
}

std::uint32_t Clock::ToRecord(Seconds time) const {
  const std::uint32_t record =
      m_epoch == Epoch::Unix ? static_cast<std::uint32_t>(time) : esg::tools::NtpFromUnix(time);
  if (FromRecord(record) != time) {
    throw Failure(kUsage, "This time is too far away for the guide: " + FormatDateTime(time));
  }
  return record;
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
  throw Failure(kUsage, "\"" + written + "\" is not a time. Write " + kTimeForms + '.');
}

Seconds ParseDuration(const std::string& text) {
  if (const auto duration = TryDuration(Normalized(text))) {
    return *duration;
  }
  throw Failure(kUsage, "\"" + text + "\" is not a duration. Write " + kDurationForms + '.');
}

TimeRange ParseRange(const std::string& from, const std::string& to, const std::string& length,
                     Seconds defaultLength, Seconds now) {
  if (!to.empty() && !length.empty()) {
    throw Failure(kUsage, "--to and --for both set the end; give only one of them.");
  }
  TimeRange range;
  range.from = from.empty() ? now : ParseMoment(from, now).time;
  if (to.empty()) {
    range.to = range.from + (length.empty() ? defaultLength : ParseDuration(length));
  } else {
    const Moment end = ParseMoment(to, now);
    range.to = end.time;
    // By the calendar: a day may have 23 or 25 hours.
    g_autoptr(GDateTime) today = Local(end.time);
    for (Seconds days = (range.from - end.time) / kDay; end.timeOfDay && range.to <= range.from;
         ++days) {
      g_autoptr(GDateTime) later = g_date_time_add_days(today, static_cast<int>(days));
      if (later == nullptr) {
        break;  // beyond the calendar's end
      }
      range.to = g_date_time_to_unix(later);
    }
  }
  if (range.to <= range.from) {
    throw Failure(kUsage, "The time range is empty: it ends at " + FormatDateTime(range.to) +
                              " and starts at " + FormatDateTime(range.from) + ".");
  }
  return range;
}

std::vector<TimeRange> Pieces(const Clock& clock, const TimeRange& range) {
  std::vector<TimeRange> pieces;
  for (Seconds at = range.from; at < range.to; at = pieces.back().to) {
    const Seconds eraEnd = at + kEra - Seconds{clock.ToRecord(at)};
    pieces.push_back({at, std::min({at + kDay, range.to, eraEnd})});
  }
  return pieces;
}

Seconds PresentTime() { return g_get_real_time() / G_USEC_PER_SEC; }

Seconds LocalOffset(Seconds time) {
  g_autoptr(GDateTime) local = Local(time);
  return local == nullptr ? 0 : g_date_time_get_utc_offset(local) / G_USEC_PER_SEC;
}

std::string FormatTime(Seconds time, const char* pattern) {
  g_autoptr(GDateTime) local = Local(time);
  g_autofree char* text = local == nullptr ? nullptr : g_date_time_format(local, pattern);
  return text == nullptr ? "?" : text;
}

std::string FormatDateTime(Seconds time) {
  return FormatTime(time, "%Y-%m-%d ") + FormatTimeOfDay(time);
}

std::string FormatTimeOfDay(Seconds time) {
  return FormatTime(time, time % kMinute == 0 ? "%H:%M" : "%H:%M:%S");
}

std::string FormatRange(const TimeRange& range) {
  return "from " + FormatDateTime(range.from) + " to " + FormatDateTime(range.to);
}

std::string FormatDuration(Seconds duration) {
  const auto part = [](Seconds value) { return static_cast<int>(value); };
  g_autofree char* text =
      g_strdup_printf(duration % kMinute == 0 ? "%d:%02d" : "%d:%02d:%02d", part(duration / kHour),
                      part(duration % kHour / kMinute), part(duration % kMinute));
  return text;
}

}  // namespace esgctl
