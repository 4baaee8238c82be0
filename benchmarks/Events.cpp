#include <benchmark/benchmark.h>
#include <dbus/dbus-glib-lowlevel.h>
#include <glib.h>

#include <cstdlib>
#include <string>

#include "Bare.h"
#include "ESGEMSProxy.h"
#include "IPCS/ECIPCBroadcaster.h"
#include "IPCS/EIIPCConnection.h"
#include "IPCS/ESGMessageBuffer.h"
#include "IPCS/internal/Wire.h"
#include "Interleave.h"

namespace {

constexpr int kLibraryEvent = 5;
constexpr int kBareEvent = 6;

int received = 0;

/// Runs the default main context until that many events have arrived.
void Receive(int events) {
  while (received < events) {
    g_main_context_iteration(nullptr, TRUE);
  }
  received = 0;
}

DBusHandlerResult OnMessage(DBusConnection* /*connection*/, DBusMessage* message, void* /*data*/) {
  if (dbus_message_is_signal(message, esg::internal::kSignalInterface, "Event") == FALSE ||
      dbus_message_has_signature(message, "siay") == FALSE) {
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  }
  constexpr int kDecimal = 10;
  benchmark::DoNotOptimize(std::strtol(bare::Text(message), nullptr, kDecimal));
  int parameters[3];
  bare::Require(bare::Payload(message).copy(reinterpret_cast<char*>(parameters),
                                            sizeof(parameters)) == sizeof(parameters),
                "a short event");
  benchmark::DoNotOptimize(parameters);
  ++received;
  return DBUS_HANDLER_RESULT_HANDLED;
}

/// Both receivers on the same main context, each with its own subscription.
DBusConnection* Subscribe() {
  static DBusConnection* connection = [] {
    ESGEMSProxy::GetInstance(EIIPCConnection::GetInstance(), [](int, const ESGEventData&) {
      return ++received;
    })->SubscribeSignal(kLibraryEvent);
    DBusConnection* opened = bare::Open();
    const std::string rule = std::string("type='signal',interface='") +
                             esg::internal::kSignalInterface + "',member='Event',arg0='" +
                             std::to_string(kBareEvent) + "'";
    dbus_bus_add_match(opened, rule.c_str(), nullptr);
    dbus_connection_flush(opened);
    dbus_connection_add_filter(opened, &OnMessage, nullptr, nullptr);
    dbus_connection_setup_with_g_main(opened, nullptr);
    return opened;
  }();
  return connection;
}

void Flood(benchmark::State& state) {
  constexpr int kEvents = 10000;
  Subscribe();
  DBusConnection* connection = bare::Open();
  const auto flood = [connection](int event) {
    const int order[] = {event, kEvents};
    const esg::internal::MessagePtr call = bare::NewCall(
        kESGServiceName, "Flood", {reinterpret_cast<const char*>(order), sizeof(order)});
    dbus_message_set_no_reply(call.get(), TRUE);
    dbus_connection_send(connection, call.get(), nullptr);
    dbus_connection_flush(connection);
    Receive(kEvents);
  };
  Interleave(state, {1, kEvents},
             {{"library", [=] { flood(kLibraryEvent); }}, {"libdbus", [=] { flood(kBareEvent); }}});
  esg::internal::ConnectionPtr(connection).reset();
}
BENCHMARK(Flood)->Iterations(7)->UseRealTime();

/// From emit to callback, one event at a time.
void Delay(benchmark::State& state) {
  Subscribe();
  static ECIPCBroadcaster broadcaster;
  static DBusConnection* emitter = bare::Open();
  const int parameters[] = {1, 2, 3};
  const auto library = [&] {
    ESGMessageBuffer payload;
    for (const int parameter : parameters) {
      payload.PushInt(parameter);
    }
    broadcaster.Send(kLibraryEvent, payload);
    Receive(1);
  };
  const auto libdbus = [&] {
    const std::string_view payload(reinterpret_cast<const char*>(parameters), sizeof(parameters));
    dbus_connection_send(emitter, bare::NewEvent(kBareEvent, payload).get(), nullptr);
    dbus_connection_flush(emitter);
    Receive(1);
  };
  Interleave(state, {500, 1}, {{"library", library}, {"libdbus", libdbus}});
}
BENCHMARK(Delay)->Iterations(7)->UseRealTime();

}  // namespace
