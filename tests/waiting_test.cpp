#include <dlfcn.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdarg>

#include "BusTest.h"
#include "ESGEMSProxy.h"

// What gets in the way of threads that wait for the bus.

namespace {

using namespace esg::test;
using Waiting = OnBus;
using WaitingWithoutBus = testing::Test;

constexpr int kRequestLimit = kSanitized ? 1000 : 500;  // milliseconds

/// How many dispatches are still to fail.
std::atomic<int> failing{0};

/// Runs where this thread has read the arguments of a message.
thread_local void (*onRead)() = nullptr;

}  // namespace

/// Takes the place of libdbus's own, for the library and for dbus-glib.
extern "C" DBusDispatchStatus dbus_connection_dispatch(DBusConnection* connection) {
  static const auto real = reinterpret_cast<decltype(&dbus_connection_dispatch)>(
      dlsym(RTLD_NEXT, "dbus_connection_dispatch"));
  if (failing > 0 &&
      dbus_connection_get_dispatch_status(connection) == DBUS_DISPATCH_DATA_REMAINS &&
      failing.fetch_sub(1) > 0) {
    return DBUS_DISPATCH_NEED_MEMORY;
  }
  return real(connection);
}

/// Likewise.
extern "C" dbus_bool_t dbus_message_get_args(DBusMessage* message, DBusError* error, int first,
                                             ...) {
  va_list arguments;
  va_start(arguments, first);
  const dbus_bool_t result = dbus_message_get_args_valist(message, error, first, arguments);
  va_end(arguments);
  if (onRead != nullptr) {
    onRead();
  }
  return result;
}

namespace {

TEST_F(WaitingWithoutBus, ABusWithALimitForRepliesEndsCallsItself) {
  PrivateBus bus("", "<limit name=\"reply_timeout\">1000</limit>");
  bus.Start();
  Service service;
  const Stopwatch stopwatch;
  auto callers = Threads(140, [](int) { EXPECT_EQ(Call("held", ""), kFailure); });
  Join(callers);
  EXPECT_GE(stopwatch.Milliseconds(), 1900);  // the last ones have waited for the first
  EXPECT_EQ(log_capture::Count("Error.NoReply]: Message did not receive a reply (timeout by "),
            140);
  EXPECT_EQ(log_capture::Count("calls were given up"), 0);
  EXPECT_EQ(Call("echo", "good"), (Answer{1, "good"}));
}

TEST_F(WaitingWithoutBus, OnlyAReturnOrAnErrorAnswersACall) {
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

/// Has `callback` called with every event of number 5, in the default main context.
void OnEvent(const std::function<void()>& callback) {
  const auto call = [callback](int, const ESGEventData&) {
    callback();
    return 0;
  };
  EXPECT_EQ(ESGEMSProxy::GetInstance(&Connection(), call)->SubscribeSignal(5), 0);
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

TEST_F(Waiting, ANestedLoopMayWaitForAThreadThatChangesRules) {
  std::promise<long> changed;
  OnEvent([&] {
    std::atomic<bool> isDone{false};
    auto worker = std::async(std::launch::async, [&isDone] {
      const long time = ChangeRules();
      isDone = true;
      g_main_context_wakeup(nullptr);
      return time;
    });
    IterateUntil([&] { return isDone.load(); });
    changed.set_value(worker.get());
  });
  const MainLoopThread loop;
  RawPeer peer;
  peer.Send(MakeSignal("Event", 5, ""));
  EXPECT_LT(changed.get_future().get(), kRequestLimit);
}

TEST_F(Waiting, AThreadThatChangesRulesOvertakesTheEventsThatWait) {
  constexpr int kEvents = 120;
  std::atomic<int> events{0};
  std::promise<void> entered;
  std::promise<void> queued;
  std::promise<void> changed;
  auto waitsLong = changed.get_future();
  OnEvent([&] {
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

TEST_F(WaitingWithoutBus, RequestsFailInOrderWhenTheBusGoes) {
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

TEST_F(Waiting, ADispatchWithoutMemoryIsTriedAgainSoon) {
  static auto& events = *new Inbox<int>;
  Connection().SetGMainLoop(nullptr);
  Connection().SetEventCallbackFunction(
      [](int number, ESGMessageBuffer& /*payload*/) { events.Put(number); });
  Service service;
  EXPECT_EQ(Call("echo", "x"), (Answer{1, "x"}));
  const auto quickly = [](const char* what, const std::function<bool()>& work) {
    failing = 1;
    const Stopwatch stopwatch;
    EXPECT_TRUE(work()) << what;
    EXPECT_LT(stopwatch.Milliseconds(), kRequestLimit) << what;
    EXPECT_LE(failing.exchange(0), 0) << what;
  };
  quickly("call", [] { return Call("echo", "x") == Answer(1, "x"); });
  quickly("request", [] { return Connection().AddMatchRule(5); });
  const MainLoopThread loop;
  quickly("request beside a main loop", [] { return Connection().AddMatchRule(6); });
  quickly("event", [&] {
    service.Peer().Send(MakeSignal("Event", 5, "", Connection().GetConnectionId()));
    return events.Next() == 5;
  });
}

TEST_F(Waiting, ACancelledCallerLeavesTheOthersTheirAnswers) {
  constexpr int kRounds = kSanitized ? 100 : 600;
  constexpr std::size_t kCallers = 3;
  Service service;
  for (std::size_t round = 0; round < kRounds; ++round) {
    std::array<std::thread, kCallers> callers;
    std::array<MessagePtr, kCallers> calls;
    for (std::size_t i = 0; i < kCallers; ++i) {  // the first one reads
      callers[i] = std::thread([round, i] {
        const std::string payload = std::to_string(round) + ":" + std::to_string(i);
        EXPECT_EQ(Call("held", payload), (Answer{1, payload}));
      });
      calls[i] = service.NextCall();
    }
    // The race detector does not survive a cancellation within poll().
    const std::size_t cancelled = kThreadSanitized ? 1 + round % 2 : round % kCallers;
    pthread_cancel(callers[cancelled].native_handle());
    callers[cancelled].join();
    for (const MessagePtr& call : calls) {
      service.Peer().Send(MakeReply(call.get(), 1, ReadBody(call.get()).bytes));
    }
    for (std::thread& caller : callers) {
      if (caller.joinable()) {
        caller.join();
      }
    }
    EXPECT_EQ(Call("echo", "after"), (Answer{1, "after"}));
  }
}

/// libdbus stops reading while 63 MiB of messages are alive, and wants its socket again in the
/// thread that releases one of them.
TEST_F(Waiting, CallersThatKeepLargeAnswersOrAreCancelledThenDoNotStopTheOthers) {
  constexpr int kCallers = 3;
  static std::atomic<int> reading;
  static std::atomic<bool> isCancelled;
  static std::atomic<bool> proceeds;
  const std::string large(31UL << 20, 'x');
  Service service([&](DBusMessage* call, const Body& body) {
    return MakeReply(call, 1, body.text == "large" ? large : body.bytes);
  });
  Connection();
  for (const bool cancels : {false, true}) {
    isCancelled = cancels;
    reading = 0;
    proceeds = false;
    auto callers = Threads(kCallers, [](int) {
      onRead = [] {
        ++reading;
        while (!proceeds) {
          std::this_thread::yield();
        }
        if (isCancelled) {
          pthread_cancel(pthread_self());
        }
      };
      Call("large", "");
    });
    while (reading < kCallers) {
      std::this_thread::yield();
    }
    const int calls = service.Peer().Calls();
    auto fourth = CallInThread("large");
    auto small = CallInThread("echo", "small");
    EXPECT_TRUE(service.Peer().WaitForCalls(calls + 2));
    proceeds = true;
    Join(callers);
    EXPECT_EQ(small.get(), (Answer{1, "small"}));
    EXPECT_EQ(fourth.get().second.size(), large.size());
  }
}

/// Lets this process open so many more files at most, until the end of the scope.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(int free) {
    getrlimit(RLIMIT_NOFILE, &m_before);
    const int lowest = dup(STDERR_FILENO);
    close(lowest);
    rlimit limit = m_before;
    limit.rlim_cur = static_cast<rlim_t>(lowest) + static_cast<rlim_t>(free);
    setrlimit(RLIMIT_NOFILE, &limit);
  }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;
  ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &m_before); }

 private:
  rlimit m_before = {};
};

TEST_F(Waiting, AConnectionWithoutDescriptorsIsAFailureThatIsLogged) {
  if (kSanitized && !kThreadSanitized) {
    GTEST_SKIP() << "The sanitizer needs descriptors of its own";
  }
  ESGMessageBuffer payload;
  TheEmitter();
  for (const int free : {0, 1, 2, 3}) {
    const DescriptorLimit limit(free);
    EXPECT_FALSE(TheEmitter().m_Connect()) << free;
  }
  EXPECT_EQ(log_capture::Count("> Failed to connect to the D-BUS daemon: "), 4);
  EXPECT_TRUE(TheEmitter().m_Connect());
  EXPECT_TRUE(TheEmitter().Send(1, payload));
}

TEST_F(Waiting, DescriptorsOfStrangersAreNotKept) {
  Connection();
  RawPeer stranger;
  for (int i = 0; i < 40; ++i) {
    MessagePtr signal(dbus_message_new_signal("/a", "a.B", "C"));
    dbus_message_set_destination(signal.get(), Connection().GetConnectionId().c_str());
    const int file = STDERR_FILENO;
    for (int k = 0; k < 16; ++k) {
      dbus_message_append_args(signal.get(), DBUS_TYPE_UNIX_FD, &file, DBUS_TYPE_INVALID);
    }
    stranger.Send(std::move(signal));
    stranger.Sync();
  }
  const int before = OpenDescriptors();
  const DescriptorLimit limit(200);
  EXPECT_TRUE(Connection().AddMatchRule(5));
  EXPECT_EQ(OpenDescriptors(), before);
}

}  // namespace
