#ifndef GUIDE_SOURCE_H
#define GUIDE_SOURCE_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Folder.h"
#include "Guide.h"

namespace esg::guide {

/// The guide of a folder, read on demand. One thread at a time.
class Source {
 public:
  /// `today`: the guide is moved so that it starts today.
  Source(std::string folder, bool today, Report report);

  /// Reads what has changed in the folder. Null where the guide is the same as before. Raises
  /// std::system_error where the folder cannot be read.
  std::shared_ptr<const Guide> Read(unsigned int threads);

  /// Has all faults reported, not just the first hundred of a reading.
  void ReportAll() { m_maxReports = SIZE_MAX; }
  /// How many faults there were in the last reading.
  std::size_t FaultCount() const { return m_faults; }

 private:
  void ReportFault(const std::string& line);

  const std::string m_folder;
  const bool m_today;
  const Report m_report;
  std::size_t m_maxReports = 100;
  std::size_t m_faults = 0;
  std::shared_ptr<const Guide> m_guide;
  // Decided once, so that the guide does not move when it is read again after midnight.
  std::optional<std::uint32_t> m_shift;
};

}  // namespace esg::guide

#endif
