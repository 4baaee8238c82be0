#include "Source.h"

#include <ctime>
#include <utility>

namespace esg::guide {

Source::Source(const Folder& folder, bool today, Report report)
    : m_folder(folder), m_today(today), m_report(std::move(report)) {}

std::shared_ptr<const Guide> Source::Read(unsigned int threads) {
  const Files known = m_guide ? m_guide->Read() : Files();
  Files files = m_folder.Read(known, threads);
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
