#ifndef ESGCTL_WATCH_H
#define ESGCTL_WATCH_H

#include <IESGEMS.h>

#include <functional>
#include <string>
#include <vector>

#include "Guide.h"

namespace esgctl {

/// Waits for events until SIGINT or SIGTERM arrives, the reader of the output goes, or the bus is
/// lost (status kAway). Continues when the service stops and starts again.
class Watcher {
 public:
  /// Called for each event. Must not throw.
  using Handler = std::function<void(Watcher& self, int event, const ESGEventData& data)>;

  Watcher(esg::tools::Bus& bus, const std::vector<int>& events, Handler handler);
  Watcher(const Watcher&) = delete;
  Watcher& operator=(const Watcher&) = delete;
  ~Watcher();

  /// Waits for a call of Wake or End, at most `seconds` unless they are 0. False after End.
  bool Wait(unsigned int seconds);
  void Wake() { m_awake = true; }
  void End(int status);
  int Status() const { return m_status; }

 private:
  void SetService(bool there);

  const Handler m_handler;
  std::vector<unsigned int> m_sources;
  unsigned int m_nameWatch = 0;
  int m_status = kFound;
  bool m_ended = false;
  bool m_awake = false;
  bool m_service = true;
};

/// What a command found at some moment.
struct Outcome {
  std::string text;     ///< to print
  std::string nothing;  ///< to say if there is no text
  Seconds changes = 0;  ///< when to look again, because a programme ends; 0: not known
};

/// Prints what `look` finds, and again whenever it has changed, until watching ends.
int Follow(Guide& guide, const std::function<Outcome()>& look);

}  // namespace esgctl

#endif
