#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <functional>
#include <future>

#include "ESGEMSProxy.h"
#include "Harness.h"
#include "IPCS/ECIPCConnection.h"
#include "LogCapture.h"
#include "PrivateBus.h"
#include "Service.h"

namespace {

using esg::internal::MessagePtr;

const Answer kFailure{-1, ""};
constexpr char kGivenUp[] = "calls were given up; the bus counts them until ";
constexpr int kRequestLimit = kSanitized ? 1000 : 200;  // milliseconds

EIIPCConnection& Connection() { return *EIIPCConnection::GetInstance(); }

std::future<Answer> CallInThread(const char* method, const std::string& payload) {
  return std::async(std::launch::async, [=] { return Call(method, payload); });
}

bool Runs(pid_t thread) {
  std::string state;
  std::ifstream("/proc/self/task/" + std::to_string(thread) + "/stat") >> state >> state >> state;
  return state == "R";
}

/// Calls that the service holds back, numbered. Each is made when the caller before sleeps, and
/// still does after a while, when it does not wait for a mutex.
std::vector<std::future<Answer>> HeldCalls(int count) {
  Connection();
  RawPeer peer;
  std::vector<std::future<Answer>> callers;
  for (int i = 0; i < count; ++i) {
    std::atomic<pid_t> id{0};
    callers.push_back(std::async(std::launch::async, [&id, i] {
      id = gettid();
      return Call("held", std::to_string(i));
    }));
    for (int seen = 0; seen < 2; seen += id == 0 || Runs(id) ? 0 : 1) {
      peer.Sync();
    }
  }
  return callers;
}

/// What answers `call` wrongly, and large.
MessagePtr WrongReply(const MessagePtr& call, const std::string& payload) {
  MessagePtr reply(dbus_message_new_method_return(call.get()));
  const char* bytes = payload.data();
  dbus_message_append_args(reply.get(), DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &bytes,
                           static_cast<int>(payload.size()), DBUS_TYPE_INVALID);
  return reply;
}

TEST(Waiting, CallersThatKeepLargeAnswersDoNotStopTheOthers) {
  const std::string large(31UL << 20, 'x');  // libdbus stops reading when 63 MiB are alive
  const std::string wrong = "> IPCS: Message has wrong arguments: ay";
  Service service;
  std::vector<std::future<Answer>> callers;
  callers.reserve(36);
  for (int i = 0; i < 4; ++i) {
    callers.push_back(CallInThread("held", ""));
  }
  {
    const log_capture::Hold hold(wrong);
    for (int i = 0; i < 3; ++i) {
      service.Peer().Send(WrongReply(service.NextCall(), large));
    }
    ASSERT_TRUE(log_capture::WaitFor(wrong, 3));
    service.Release(large.size());
    callers.push_back(CallInThread("echo", "small"));
    ASSERT_TRUE(service.Peer().WaitForCalls(5));
  }
  const Stopwatch stopwatch;
  std::size_t sum = 0;
  for (auto& caller : callers) {
    sum += caller.get().second.size();
  }
  EXPECT_EQ(sum, large.size() + 5);
  EXPECT_LT(stopwatch.Milliseconds(), 10000);
}

TEST(Waiting, CallsBeyondWhatTheBusLetsWaitTakeTheirTurn) {
  constexpr int kCallers = 300;  // the bus lets 128 wait
  Service service;
  auto callers = HeldCalls(kCallers);
  EXPECT_TRUE(service.Peer().WaitForCalls(100));
  for (int i = 0; i < kCallers; ++i) {
    ASSERT_TRUE(service.Peer().WaitForCalls(i + 1));
    EXPECT_EQ(service.Release(), std::to_string(i));
    EXPECT_EQ(callers[static_cast<std::size_t>(i)].get(), (Answer{1, std::to_string(i)}));
  }
}

TEST(WaitingSlow, CallsThatGaveUpKeepTheirPlaceUntilALateAnswer) {
  constexpr int kCallers = 125;
  Service service;
  RawPeer other;
  const Stopwatch stopwatch;
  auto callers = HeldCalls(kCallers);
  const long started = stopwatch.Milliseconds();
  EXPECT_EQ(callers[0].get(), kFailure);
  EXPECT_GE(stopwatch.Milliseconds(), 25000);
  auto queued = CallInThread("echo", "queued");  // has nobody to make room but those who give up
  for (int i = 1; i < kCallers; ++i) {
    EXPECT_EQ(callers[static_cast<std::size_t>(i)].get(), kFailure);
  }
  EXPECT_EQ(queued.get(), (Answer{1, "queued"}));
  EXPECT_LT(stopwatch.Milliseconds(), started + 40000);  // not its own 25 s after theirs
  EXPECT_EQ(log_capture::Count("Error.NoReply]: Did not receive a reply. "), kCallers);
  EXPECT_EQ(log_capture::Count(kGivenUp), 1);
  const int sent = service.Peer().Calls() - 1;
  // Two at a time still come through.
  EXPECT_EQ(Call("echo", "good"), (Answer{1, "good"}));
  callers = HeldCalls(3);
  EXPECT_NE(other.Call(MakeCall(kService, "echo", "sentinel")), nullptr);
  EXPECT_EQ(service.Peer().Calls(), sent + 5);
  // Late answers, which reach nobody, make room.
  for (int i = 0; i < sent; ++i) {
    service.Release();
  }
  EXPECT_TRUE(service.Peer().WaitForCalls(sent + 6));
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(service.Release(), std::to_string(i));
    EXPECT_EQ(callers[static_cast<std::size_t>(i)].get(), (Answer{1, std::to_string(i)}));
  }
}

TEST(WaitingNoBus, ABusWithALimitForRepliesEndsCallsItself) {
  PrivateBus bus("", "<limit name=\"reply_timeout\">1000</limit>");
  bus.Start();
  Service service;
  const Stopwatch stopwatch;
  auto callers = HeldCalls(140);
  for (auto& caller : callers) {
    EXPECT_EQ(caller.get(), kFailure);
  }
  EXPECT_GE(stopwatch.Milliseconds(), 1900);  // the last ones have waited for the first
  EXPECT_LT(stopwatch.Milliseconds(), 10000);
  EXPECT_EQ(log_capture::Count("Error.NoReply]: Message did not receive a reply (timeout by "),
            140);
  EXPECT_EQ(log_capture::Count(kGivenUp), 0);
  callers = HeldCalls(100);
  EXPECT_TRUE(service.Peer().WaitForCalls(240));
}

TEST(WaitingNoBus, OnlyAReturnOrAnErrorAnswersACall) {
  PrivateBus bus(R"(
  <policy context="default">
    <allow own="*"/>
    <allow send_destination="*"/>
    <allow send_destination="*" send_requested_reply="false"/>
    <allow receive_sender="*" receive_requested_reply="false"/>
  </policy>)");
  bus.Start();
  Service service;
  auto caller = CallInThread("held", "own");
  const MessagePtr call = service.NextCall();
  const char* name = dbus_message_get_sender(call.get());
  for (const bool isSignal : {true, false}) {
    MessagePtr forged =
        WithBody(isSignal ? MessagePtr(dbus_message_new_signal("/a", "a.B", "C"))
                          : MessagePtr(dbus_message_new_method_call(name, "/a", "a.B", "C")),
                 "iiay");
    dbus_message_set_destination(forged.get(), name);
    dbus_message_set_reply_serial(forged.get(), dbus_message_get_serial(call.get()));
    service.Peer().Send(std::move(forged));
  }
  service.Peer().Send(MakeReply(call.get(), 1, "own"));
  EXPECT_EQ(caller.get(), (Answer{1, "own"}));
}

/// Has `callback` called with every event of this number, in the default main context.
void OnEvent(int number, const std::function<void()>& callback) {
  const auto call = [callback](int, const ESGEventData&) {
    callback();
    return 0;
  };
  EXPECT_EQ(ESGEMSProxy::GetInstance(&Connection(), call)->SubscribeSignal(number), 0);
}

/// Changes match rules; the time that the slower of both ways took.
long ChangeRules() {
  const Stopwatch add;
  EXPECT_TRUE(Connection().AddMatchRule(9));
  const long added = add.Milliseconds();
  const Stopwatch remove;
  EXPECT_TRUE(Connection().RemoveMatchRule(9));
  return std::max(added, remove.Milliseconds());
}

/// Runs the default main context in this thread, with a timer every 10 ms, until `done` or for
/// that many ticks. How many there were, and the longest time between two.
std::pair<int, long> RunLoop(const std::function<bool()>& done, int limit) {
  std::pair<int, long> ticks{0, 0};
  Stopwatch stopwatch;
  const auto tick = [](gpointer count) -> gboolean {
    ++*static_cast<int*>(count);
    return G_SOURCE_CONTINUE;
  };
  const guint timer = g_timeout_add(10, tick, &ticks.first);
  for (int before = 0; !done() && ticks.first < limit; before = ticks.first) {
    g_main_context_iteration(nullptr, TRUE);
    if (ticks.first != before) {
      ticks.second = std::max(ticks.second, stopwatch.Milliseconds());
      stopwatch = Stopwatch();
    }
  }
  g_source_remove(timer);
  return ticks;
}

TEST(Waiting, ANestedLoopMayWaitForAThreadThatChangesRules) {
  std::future<long> worker;
  std::promise<bool> nested;
  OnEvent(5, [&] {
    worker = std::async(std::launch::async, &ChangeRules);
    const auto done = [&] {
      return worker.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    };
    RunLoop(done, 1000);
    nested.set_value(done());
  });
  const MainLoopThread loop;
  RawPeer peer;
  peer.Send(MakeSignal("Event", 5, ""));
  EXPECT_TRUE(nested.get_future().get());
  EXPECT_LT(worker.get(), kRequestLimit);
}

TEST(Waiting, AThreadThatChangesRulesOvertakesTheEventsThatWait) {
  constexpr int kEvents = 120;
  std::atomic<int> events{0};
  std::promise<void> entered;
  std::promise<void> queued;
  std::promise<void> changed;
  auto waitsLong = changed.get_future();
  OnEvent(5, [&] {
    if (++events == 1) {
      entered.set_value();
      queued.get_future().wait();
    }
    waitsLong.wait_for(std::chrono::milliseconds(50));
  });
  const MainLoopThread loop;
  RawPeer peer;
  for (int i = 0; i < kEvents; ++i) {
    peer.Send(MakeSignal("Event", 5, ""));
  }
  peer.Sync();
  entered.get_future().wait();
  queued.set_value();
  EXPECT_LT(ChangeRules(), kRequestLimit);
  EXPECT_LT(events, kEvents / 2);
  changed.set_value();
}

TEST(Waiting, TheMainLoopGoesOnWhileABusThatStandsStillKeepsAThread) {
  Connection().SetGMainLoop(nullptr);
  std::atomic<int> rounds{0};
  std::atomic<bool> done{false};
  auto workers = Threads(2, [&](int) {
    for (; !done; ++rounds) {
      ChangeRules();
    }
  });
  while (rounds < 10) {
    std::this_thread::yield();
  }
  TestBus().Pause();
  const auto [ticks, longest] = RunLoop([] { return false; }, 50);
  done = true;
  TestBus().Resume();
  Join(workers);
  EXPECT_EQ(ticks, 50);
  EXPECT_LT(longest, kRequestLimit);
}

TEST(Waiting, AConnectionClosesWhileABusThatStandsStillKeepsAnotherOneFromOpening) {
  auto connection = std::make_unique<ECIPCConnection>();
  TestBus().Pause();
  std::atomic<pid_t> id{0};
  auto opening = std::async(std::launch::async, [&id] {
    id = gettid();
    const ECIPCConnection other;
  });
  while (id == 0 || Runs(id)) {
    std::this_thread::yield();
  }
  auto closing = std::async(std::launch::async, [&connection] { connection.reset(); });
  EXPECT_EQ(closing.wait_for(std::chrono::seconds(2)), std::future_status::ready);
  TestBus().Resume();
}

/// In a process of its own: threads change rules until the bus goes, with the main loop running or
/// not. Writes to `ready` when they do; ends with the number of those whose request was under way.
[[noreturn]] void ChangeRulesToTheEnd(int threads, bool loops, int ready) {
  static const std::string kError = "> Error while adding match rule: ";
  Connection().SetGMainLoop(nullptr);
  auto loop = loops ? std::make_unique<MainLoopThread>() : nullptr;
  std::atomic<int> started{0};
  auto workers = Threads(threads, [&](int thread) {
    bool first = true;
    while (Connection().AddMatchRule(thread) && Connection().RemoveMatchRule(thread)) {
      if (std::exchange(first, false) && ++started == threads) {
        static_cast<void>(write(ready, "", 1));
      }
    }
  });
  Join(workers);
  loop.reset();
  const int underWay =
      log_capture::Count(kError + "Connection was disconnected before a reply was received\n\n");
  const int closed = log_capture::Count(kError + "Connection is closed\n\n");
  const bool isLost = !Connection().RemoveMatchRule(1) &&
                      log_capture::Count(kError + "Connection is closed\n\n") == closed + 1;
  _exit(underWay + closed == threads && isLost ? underWay : 100);
}

TEST(WaitingNoBus, RequestsFailInOrderWhenTheBusGoes) {
  constexpr int kRuns = kSanitized ? 16 : 96;
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  int underWay = 0;
  for (int run = 0; run < kRuns && !HasFailure(); ++run) {
    TestBus().Start();
    const pid_t child = fork();
    if (child == 0) {
      ChangeRulesToTheEnd(1 + run / 2 % 4, run % 2 == 0, ends[1]);
    }
    char byte = 0;
    EXPECT_EQ(read(ends[0], &byte, 1), 1);
    TestBus().Kill();
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) <= 4) << status << " in run " << run;
    underWay += WEXITSTATUS(status);
  }
  EXPECT_GE(underWay, 1);  // of those that fail, some were sent before the end
}

}  // namespace
