#include <benchmark/benchmark.h>

#include <functional>
#include <thread>
#include <vector>

#include "Bare.h"
#include "IPCS/EIIPCConnection.h"
#include "IPCS/ESGMessageBuffer.h"
#include "Interleave.h"
#include "Service.h"

namespace {

constexpr char kSmall[] = "a small call";
constexpr int kCalls = 1600;

void CallLibrary() {
  ESGMessageBuffer in;
  ESGMessageBuffer out;
  in.PushConcatenated(sizeof(kSmall), const_cast<char*>(kSmall));
  bare::Require(EIIPCConnection::GetInstance()->Call(kESGServiceName, "Echo", in, out) == 1 &&
                    out.GetFullBufferSize() == sizeof(kSmall),
                "no echo for the library");
}

void CallBare(DBusConnection* connection) {
  const esg::internal::MessagePtr reply = bare::Call(connection, "Echo", {kSmall, sizeof(kSmall)});
  bare::Require(bare::Payload(reply.get()).size() == sizeof(kSmall), "no echo");
}

void CallFromThreads(long threads, const std::function<void()>& call) {
  std::vector<std::thread> callers;
  for (long i = 0; i < threads; ++i) {
    callers.emplace_back([&call, threads] {
      for (long j = 0; j < kCalls / threads; ++j) {
        call();
      }
    });
  }
  for (std::thread& caller : callers) {
    caller.join();
  }
}

void Threads(benchmark::State& state) {
  static DBusConnection* connection = bare::Open();
  const long threads = state.range(0);
  Interleave(state, {1, kCalls},
             {{"library", [=] { CallFromThreads(threads, &CallLibrary); }},
              {"libdbus", [=] { CallFromThreads(threads, [] { CallBare(connection); }); }}});
}
BENCHMARK(Threads)->Arg(1)->Arg(2)->Arg(4)->Arg(8)->Iterations(9)->UseRealTime();

/// Keeps a service busy: as many outstanding calls as the bus allows without a stall.
void Saturate(DBusConnection* connection, const char* service, int calls) {
  constexpr int kWindow = 32;
  int sent = 0;
  int answered = 0;
  while (answered < calls) {
    for (; sent < calls && sent - answered < kWindow; ++sent) {
      dbus_connection_send(connection,
                           bare::NewCall(service, "Echo", {kSmall, sizeof(kSmall)}).get(), nullptr);
    }
    dbus_connection_read_write(connection, -1);
    while (const esg::internal::MessagePtr reply{dbus_connection_pop_message(connection)}) {
      answered += dbus_message_get_type(reply.get()) == DBUS_MESSAGE_TYPE_METHOD_RETURN ? 1 : 0;
      bare::Require(dbus_message_get_type(reply.get()) != DBUS_MESSAGE_TYPE_ERROR, "no answer");
    }
  }
}

void Answers(benchmark::State& state) {
  constexpr int kAnswers = 3000;
  DBusConnection* connection = bare::Open();
  Interleave(state, {1, kAnswers},
             {{"library", [=] { Saturate(connection, service::kListener, kAnswers); }},
              {"libdbus", [=] { Saturate(connection, kESGServiceName, kAnswers); }}});
  esg::internal::ConnectionPtr(connection).reset();
}
BENCHMARK(Answers)->Iterations(7)->UseRealTime();

}  // namespace
