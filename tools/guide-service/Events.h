#ifndef GUIDE_EVENTS_H
#define GUIDE_EVENTS_H

#include <IPCS/ECIPCManager.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace esg::guide {

/// The numbers of the events that the service emits.
enum EventNumber : int {
  /// The guide is another one than before. Its three integers: a number that grows by one with each
  /// change, beginning with 1 for the guide read at the start; the services; the programmes.
  kGuideChanged = 5,
};

/// An event that is to be emitted by hand.
struct EventOrder {
  int number = 0;
  std::vector<int> data;  ///< nothing or three integers
};

/// Reads "NUMBER" or "NUMBER P1 P2 P3", decimal; empty for anything else.
std::optional<EventOrder> ParseEventOrder(const std::string& line);

/// Broadcasts events.
class EventEmitter : public ECIPCManager {
 public:
  bool Send(int number, ESGMessageBuffer& payload) override;
  bool Send(const EventOrder& event);
};

}  // namespace esg::guide

#endif
