#ifndef ESGCTL_GUIDE_H
#define ESGCTL_GUIDE_H

#include <ESGAsync.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Json.h"
#include "Output.h"
#include "Services.h"
#include "common/Bus.h"

namespace esgctl {

/// Connects to the system bus. Raises a Failure of status kAway that says what to do if that fails.
std::unique_ptr<esg::tools::Bus> ConnectToBus();

/// Questions to the guide service, many of a kind under way at once. What the service does not have
/// is an empty result; whatever else fails ends in a Failure that says why. Meanwhile the default
/// main context runs, and after a second a line on the terminal shows the progress.
///
/// What is returned refers to the services that were asked for.
class Guide {
 public:
  /// The present is that of `clock`.
  explicit Guide(const Clock& clock) : m_clock(clock) {}

  /// The connection to the bus. It is made on first use, and starts the service if the bus can.
  esg::tools::Bus& Bus();

  /// Has the questions that are under way end in a Failure of status kAway.
  void Stop() { m_stopped = true; }

  using Done = std::function<void(const ESGFailure&)>;
  template <typename Callback>
  using Question = std::function<ESGAsync::Identifier(std::size_t, Callback)>;
  /// Asks `count` questions; `ask(i, callback)` asks one. The results are in the same order.
  /// If replies are merely Welcome, an error or an unreadable reply counts as none.
  enum class Need { All, Welcome };
  template <typename Result, typename Asking>
  std::vector<std::optional<Result>> Ask(std::size_t count, Asking ask, Need need = Need::All) {
    std::vector<std::optional<Result>> results(count);
    Wait(count, need, [&](std::size_t i, const Done& done) {
      return ask(i, [&results, i, done](const ESGFailure& failure, Result result) {
        if (!failure) {
          results[i] = std::move(result);
        }
        done(failure);
      });
    });
    return results;
  }

  /// Asks for one programme of each service; the question is as for Ask.
  Listings Programmes(const std::vector<Service>& services,
                      const Question<ESGAsync::ProgramCallback>& question, Need need = Need::All);
  /// The programme that is on at `time` (or now) on each service, or the one before or after it.
  /// Where nothing is on, that is the one before or after the time itself.
  Listings Around(const std::vector<Service>& services, std::optional<Seconds> time,
                  eRelative_Position position);
  /// The wanted programmes of each service, by default all. Asks for a day at a time, since the
  /// service cannot reply with more than the bus carries.
  using Wanted = std::function<bool(const FCESGProgramInfo&)>;
  Listings Lists(const std::vector<Service>& services, const TimeRange& range,
                 const Wanted& wanted = nullptr);
  /// Adds numbers and names that are missing; whether any were.
  bool Complete(std::vector<Service>& services);
  /// What the fragments of the services and of all programmes say; each is asked for once.
  Facts FactsOf(const Listings& listings);

  /// Explains why a service has nothing in a time range: it is unknown, its guide has ended or
  /// starts later, or there is a gap. `what` is the first sentence.
  Failure Explain(const std::string& what, const Service& service, const TimeRange& range);

 private:
  void Wait(std::size_t count, Need need, const Question<const Done&>& ask);
  Showing MakeShowing(const Service& service, FCESGProgramInfo program) const;
  std::vector<Json::Value> AskFacts(std::size_t count,
                                    const Question<ESGAsync::FragmentCallback>& question);
  std::vector<Json::Value> ServiceFacts(const std::vector<const Service*>& services);

  const Clock& m_clock;
  std::unique_ptr<esg::tools::Bus> m_bus;
  bool m_stopped = false;
};

}  // namespace esgctl

#endif
