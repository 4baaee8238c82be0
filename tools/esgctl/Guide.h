#ifndef ESGCTL_GUIDE_H
#define ESGCTL_GUIDE_H

#include <ESGTypes.h>
#include <FCESGProgramInfo.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Bus.h"
#include "Progress.h"
#include "Time.h"

class IESGService;

namespace esgctl {

/// Questions to the guide service, through the library. What fails ends in a Failure that says why;
/// what the service does not have is an empty result.
class Guide {
 public:
  /// Looks first whether bus and service are there.
  Guide(const Clock& clock, Progress& progress);

  std::optional<FCESGProgramInfo> Present(const std::string& service);
  std::optional<FCESGProgramInfo> Item(const std::string& service, const std::string& contentId,
                                       Seconds start);
  /// The programme before or after the one that is on at `time`, or before or after `time` itself
  /// where nothing is.
  std::optional<FCESGProgramInfo> Neighbour(const std::string& service, std::optional<Seconds> time,
                                            eRelative_Position position);
  /// By start time. Asks for a day at a time, since the service cannot answer more than the bus
  /// carries.
  std::vector<FCESGProgramInfo> List(const std::string& service, const TimeRange& range);

  /// Any one question: true, or false where the service has no answer.
  bool Ask(const std::function<bool(IESGService&)>& question);

 private:
  Clock m_clock;
  Progress& m_progress;
  Bus m_bus;
};

}  // namespace esgctl

#endif
