#include "Source.h"

#include <ctime>
#include <utility>

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

/// What to add to the times of a guide that starts at `first` so that its first day is the day of
/// `now`. Days run from midnight to midnight local time, so programmes keep their place in the day
/// when the clocks change. Where the guide would then start later than `now`, its first day is the
/// day before: there is always something on.
std::uint32_t ShiftToToday(std::uint32_t first, std::time_t now) {
  const auto start = static_cast<std::time_t>(tools::UnixFromNtp(first, now));
  const std::time_t firstDay = Midnight(start, 0);
  std::time_t shift = Midnight(now, 0) - firstDay;
  if (start + shift > now) {
    shift = Midnight(now, -1) - firstDay;
  }
  return static_cast<std::uint32_t>(shift);
}

}  // namespace

Source::Source(std::string folder, bool today, Report report)
    : m_folder(std::move(folder)), m_today(today), m_report(std::move(report)) {}

std::shared_ptr<const Guide> Source::Read(unsigned int threads) {
  const Files known = m_guide ? m_guide->Read() : Files();
  Files files = ReadFolder(m_folder, known, threads);
  if (m_guide && files == known) {
    return nullptr;
  }
  m_faults = 0;
  std::size_t next = 0;
  for (const auto& file : files) {
    while (next < known.size() && known[next]->name < file->name) {
      ++next;
    }
    // A file that is read again is as bad as it was.
    if (next == known.size() || known[next]->name != file->name ||
        known[next]->faults != file->faults) {
      for (const std::string& fault : file->faults) {
        ReportFault(fault);
      }
    }
  }
  if (m_today && !m_shift) {
    if (const auto first = Guide(files, 0, [](const std::string&) {}).First()) {
      m_shift = ShiftToToday(*first, std::time(nullptr));
    }
  }
  std::vector<std::string> faults;
  std::size_t moreFaults = 0;
  const auto keep = [&](const std::string& line) {
    if (faults.size() < m_maxReports) {
      faults.push_back(line);
    } else {
      ++moreFaults;
    }
  };
  auto guide = std::make_shared<const Guide>(std::move(files), m_shift.value_or(0), keep);
  const bool isNew = !m_guide || !m_guide->HasSameFragments(*guide);
  for (std::size_t i = 0; isNew && i < faults.size(); ++i) {
    ReportFault(faults[i]);
  }
  m_faults += isNew ? moreFaults : 0;
  if (m_faults > m_maxReports) {
    m_report(std::to_string(m_faults - m_maxReports) +
             " more faults in the guide; --check lists them all");
  }
  m_guide = std::move(guide);
  return isNew ? m_guide : nullptr;
}

void Source::ReportFault(const std::string& line) {
  if (++m_faults <= m_maxReports) {
    m_report(line);
  }
}

}  // namespace esg::guide
