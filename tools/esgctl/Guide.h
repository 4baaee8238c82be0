#ifndef ESGCTL_GUIDE_H
#define ESGCTL_GUIDE_H

#include <ESGAsync.h>
#include <FCESGProgramInfo.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Services.h"
#include "Status.h"
#include "Time.h"
#include "common/Bus.h"

namespace esgctl {

using Programs = std::vector<FCESGProgramInfo>;

/// Connects to the system bus. Raises a Failure of status kAway that says what to do if that fails.
esg::tools::Bus ConnectToBus();

/// Questions to the guide service, all of a kind under way at once. What the service does not have
/// is an empty result; whatever else fails ends in a Failure that says why. Meanwhile the default
/// main context runs, and after a second a line on the terminal shows the progress.
class Guide {
 public:
  /// Connects, and starts the service if the bus can. Raises a Failure of status kAway otherwise.
  explicit Guide(const Clock& clock);

  /// Sets the present.
  void SetClock(const Clock& clock) { m_clock = clock; }
  esg::tools::Bus& Bus() { return m_bus; }

  using Done = std::function<void(const ESGFailure&)>;
  /// Asks `count` questions at once; `ask(i, callback)` asks one. The results are in the same
  /// order. If answers are merely Welcome, an error or an unreadable answer counts as none.
  enum class Need { All, Welcome };
  template <typename Result, typename Question>
  std::vector<std::optional<Result>> Ask(std::size_t count, Question ask, Need need = Need::All) {
    std::vector<std::optional<Result>> results(count);
    Wait(
        count,
        [&](std::size_t i, const Done& done) {
          return ask(i, [&results, i, done](const ESGFailure& failure, Result result) {
            if (!failure) {
              results[i] = std::move(result);
            }
            done(failure);
          });
        },
        need);
    return results;
  }

  /// What is on now, on each service.
  std::vector<std::optional<FCESGProgramInfo>> Present(const std::vector<std::string>& services);
  /// The programme before or after the one that is on at `time` on each service, or before or after
  /// `time` itself where nothing is.
  std::vector<std::optional<FCESGProgramInfo>> Neighbours(const std::vector<std::string>& services,
                                                          std::optional<Seconds> time,
                                                          eRelative_Position position);
  /// The programmes of each service, by start. Asks for a day at a time, since the service cannot
  /// answer more than the bus carries.
  std::vector<Programs> Lists(const std::vector<std::string>& services, const TimeRange& range);
  /// Adds numbers and names that are missing; whether any were.
  bool Complete(std::vector<Service>& services);
  /// The Service fragments; empty texts where there are none.
  std::vector<std::string> ServiceFragments(const std::vector<std::string>& services);
  /// The Content fragment of each programme of a service; empty texts where there are none.
  struct Showing {
    const std::string& service;
    const FCESGProgramInfo& program;
  };
  std::vector<std::string> ContentFragments(const std::vector<Showing>& showings);

  /// Explains why a service has nothing in a time range: it is unknown, its guide has ended or
  /// starts later, or there is a gap. `what` is the first sentence.
  Failure Explain(const std::string& what, const Service& service, const TimeRange& range);

 private:
  void RequireService() const;
  template <typename Question>
  std::vector<std::string> Fragments(std::size_t count, Question question);
  void Wait(std::size_t count,
            const std::function<ESGAsync::Identifier(std::size_t, const Done&)>& ask, Need need);
  Failure Diagnosis(const ESGFailure& failure) const;

  Clock m_clock;
  esg::tools::Bus m_bus;
};

}  // namespace esgctl

#endif
