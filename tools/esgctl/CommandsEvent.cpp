// watch, emit

#include <IPCS/ECIPCManager.h>
#include <IPCS/ESGMessageBuffer.h>

#include <array>
#include <cstdint>
#include <limits>

#include "Bus.h"
#include "Commands.h"
#include "Watch.h"

namespace esgctl {
namespace {

/// Broadcasts, as the service does.
class Emitter : public ECIPCManager {
 public:
  bool Send(int number, ESGMessageBuffer& payload) override {
    return m_Send("", Event, number, payload);
  }
};

using Parameters = std::array<std::optional<std::int32_t>, 3>;

Status Emit(int event, const Parameters& parameters) {
  const Bus bus;  // the emitter would wait a minute for one
  ESGMessageBuffer payload;
  for (const auto& parameter : parameters) {
    if (parameter) {
      payload.PushInt(*parameter);
    }
  }
  static Emitter emitter;  // its connection stays when it is destroyed
  if (!emitter.Send(event, payload)) {
    throw Failure(kOther, "The event cannot be sent; --verbose shows why.");
  }
  return kFound;
}

}  // namespace

void AddEventCommands(CLI::App& app, Session& session) {
  const auto request = std::make_shared<WatchRequest>();
  CLI::App& watch = *app.add_subcommand("watch", "Print events, one line each, as they come");
  watch.add_option("EVENT", request->events, "Numbers of events")->required();
  watch.add_option("--count", request->count, "End after so many events")
      ->check(CLI::Range(1U, std::numeric_limits<unsigned int>::max()));
  watch.add_flag("--json", request->json, "One JSON object a line");
  watch.callback([&session, request] { session.command = [request] { return Watch(*request); }; });

  struct Emission {
    int event = 0;
    Parameters parameters;
  };
  const auto emission = std::make_shared<Emission>();
  CLI::App& emit = *app.add_subcommand("emit", "Broadcast an event as the service does");
  emit.add_option("EVENT", emission->event, "The event's number")->required();
  emit.add_option("P1", emission->parameters[0], "What comes with it; else the event is empty");
  emit.add_option("P2", emission->parameters[1]);
  emit.add_option("P3", emission->parameters[2]);
  emit.callback([&session, emission] {
    session.command = [emission] { return Emit(emission->event, emission->parameters); };
  });
}

}  // namespace esgctl
