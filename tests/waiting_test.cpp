#include <dlfcn.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>

#include "BusTest.h"
#include "ESGEMSProxy.h"
#include "IPCS/ECIPCConnection.h"

// What can disturb threads that wait for the bus.

namespace {

using namespace esg::test;
using Waiting = OnBus;
using WaitingWithoutBus = testing::Test;

constexpr int kRequestLimit = kSanitized ? 1000 : 500;  // milliseconds

/// How many more dispatches fail.
std::atomic<int> failing{0};
/// Whether the next dispatch stops, until it may continue.
std::atomic<bool> stopsDispatch{false};
Inbox<int> stopped;
Inbox<int> continues;
/// How many more requests to watch a socket for writing the kernel refuses.
std::atomic<int> refusing{0};
/// Called when this thread has read the arguments of a message.
thread_local void (*onRead)() = nullptr;

}  // namespace

// These functions replace those of libdbus and the C library, for the library as well.

extern "C" DBusDispatchStatus dbus_connection_dispatch(DBusConnection* connection) {
  static const auto real = reinterpret_cast<decltype(&dbus_connection_dispatch)>(
      dlsym(RTLD_NEXT, "dbus_connection_dispatch"));
  if (failing > 0 &&
      dbus_connection_get_dispatch_status(connection) == DBUS_DISPATCH_DATA_REMAINS &&
      failing.fetch_sub(1) > 0) {
    return DBUS_DISPATCH_NEED_MEMORY;
  }
  if (stopsDispatch.exchange(false)) {
    stopped.Put(1);
    continues.Next();
  }
  return real(connection);
}

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

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" int epoll_ctl(int set, int operation, int file, epoll_event* event) noexcept {
  if (operation != EPOLL_CTL_DEL && (event->events & EPOLLOUT) != 0 && refusing.fetch_sub(1) > 0) {
    errno = ENOMEM;
    return -1;
  }
  return static_cast<int>(syscall(SYS_epoll_ctl, set, operation, file, event));
}

namespace {

TEST_F(WaitingWithoutBus, OnlyAReturnOrAnErrorIsTheReplyToACall) {
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
        WithBody(MessagePtr(isSignal ? dbus_message_new_signal("/a", "a.B", "C")
                                     : dbus_message_new_method_call(name, "/a", "a.B", "C")),
                 "iiay");
    dbus_message_set_destination(forged.get(), name);
    dbus_message_set_reply_serial(forged.get(), dbus_message_get_serial(call.get()));
    service.Peer().Send(std::move(forged));
  }
  service.Peer().Send(MakeReply(call.get(), 1, "own"));
  EXPECT_EQ(caller.get(), (Answer{1, "own"}));
}

/// Has `callback` called with every event of number 5, in the default main context.
void OnEvent(const std::function<void(int parameter)>& callback) {
  const auto call = [callback](int, const ESGEventData& data) {
    callback(data.m_param1);
    return 0;
  };
  EXPECT_EQ(ESGEMSProxy::GetInstance(&Connection(), call)->SubscribeSignal(5), 0);
}

/// Adds and removes a match rule. Returns the time that the slower of both took.
long ChangeRules() {
  const Stopwatch add;
  EXPECT_TRUE(Connection().AddMatchRule(9));
  const long added = add.Milliseconds();
  const Stopwatch remove;
  EXPECT_TRUE(Connection().RemoveMatchRule(9));
  return std::max(added, remove.Milliseconds());
}

TEST_F(Waiting, RulesChangeAtOnceWhileEventsWaitAndInNestedLoops) {
  constexpr int kEvents = 120;
  std::promise<void> entered;
  std::promise<void> queued;
  std::promise<long> changed;
  std::atomic<int> events{0};
  Inbox<int> order;
  OnEvent([&](int event) {
    ++events;
    order.Put(event);
    if (event == 0) {
      entered.set_value();
      queued.get_future().wait();
      // A nested loop waits for a thread that changes rules.
      std::atomic<bool> isDone{false};
      auto worker = std::async(std::launch::async, [&isDone] {
        const long time = ChangeRules();
        isDone = true;
        g_main_context_wakeup(nullptr);
        return time;
      });
      IterateUntil([&] { return isDone.load(); });
      EXPECT_EQ(events, 1);  // events are not nested
      changed.set_value(worker.get());
    }
  });
  const MainLoopThread loop;
  RawPeer peer;
  for (int i = 0; i < kEvents; ++i) {
    peer.Send(MakeSignal("Event", 5, Integers({i, 0, 0})));
  }
  peer.Sync();
  entered.get_future().wait();
  EXPECT_LT(ChangeRules(), kRequestLimit);  // while the callback blocks the main context
  EXPECT_EQ(events, 1);
  queued.set_value();
  EXPECT_LT(changed.get_future().get(), kRequestLimit);
  for (int i = 0; i < kEvents; ++i) {
    EXPECT_EQ(order.Next(), i);
  }
}

TEST_F(WaitingWithoutBus, RequestsFailProperlyWhenTheBusEnds) {
  constexpr int kRuns = kSanitized ? 16 : 96;
  const std::string error = "> Error while adding match rule: Connection ";
  for (int run = 0; run < kRuns && !HasFailure(); ++run) {
    const int threads = 1 + run / 2 % 4;
    TestBus().Start();
    ECIPCConnection connection;
    connection.SetGMainLoop(nullptr);
    const auto loop = run % 2 == 0 ? std::make_unique<MainLoopThread>() : nullptr;
    Shared<int> started;
    auto workers = Threads(threads, [&](int thread) {
      EXPECT_TRUE(connection.AddMatchRule(thread));
      started.With([](int& count) { ++count; });
      while (connection.RemoveMatchRule(thread) && connection.AddMatchRule(thread)) {
      }
    });
    EXPECT_TRUE(started.WaitUntil([threads](int count) { return count == threads; }));
    TestBus().Kill();
    Join(workers);
    EXPECT_FALSE(connection.AddMatchRule(1));
    const int closed = log_capture::Count(error + "is closed\n\n");
    EXPECT_GE(closed, 1);
    EXPECT_EQ(closed + log_capture::Count(error + "was disconnected before a reply was received"),
              threads + 1);
    log_capture::Clear();
  }
}

TEST_F(Waiting, ADispatchWithoutMemoryIsRepeatedSoon) {
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
  const MainLoopThread loop;
  quickly("event", [&] {
    service.Peer().Send(MakeSignal("Event", 5, "", Connection().GetConnectionId()));
    return events.Next() == 5;
  });
}

TEST_F(Waiting, ACancelledCallerDoesNotAffectTheOthers) {
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

/// libdbus stops reading while 63 MiB of messages are alive. It goes on in the thread that releases
/// one of them. Until then it keeps what it has already read.
TEST_F(Waiting, CallersThatKeepLargeRepliesDoNotBlockTheOthers) {
  // All but the last stay just below that limit.
  const std::vector<std::size_t> sizes = {31UL << 20, 31UL << 20, (1UL << 20) - 1276, 1500};
  static Shared<std::size_t> reading;
  static Inbox<int> proceeds;
  Service service;
  auto small = CallInThread("held", "small");
  const MessagePtr smallCall = service.NextCall();
  auto callers = Threads(static_cast<int>(sizes.size()), [](int) {
    onRead = [] {
      reading.With([](auto& count) { ++count; });
      proceeds.Next();
    };
    Call("held", "kept");
  });
  const auto areReading = [](std::size_t count) {
    return reading.WaitUntil([count](std::size_t now) { return now == count; });
  };
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    const MessagePtr call = service.NextCall();
    if (i + 1 == sizes.size()) {
      EXPECT_TRUE(areReading(i));
      stopsDispatch = true;
      service.Peer().Send(MakeSignal("Event", 1, "", dbus_message_get_sender(call.get())));
      stopped.Next();  // the reader, which will read the last two replies at once
    }
    service.Peer().Send(MakeReply(call.get(), 1, std::string(sizes[i], 'x')));
  }
  service.Peer().Send(MakeReply(smallCall.get(), 1, "small"));
  service.Peer().Sync();
  continues.Put(1);
  EXPECT_TRUE(areReading(sizes.size()));
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    proceeds.Put(1);
  }
  Join(callers);
  // At once, not only when its time limit makes the caller look again.
  EXPECT_EQ(small.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(small.get(), (Answer{1, "small"}));
}

TEST_F(Waiting, ACallIsSentAlthoughTheKernelRefusesToWatchItsSocketForAWhile) {
  Connection();
  refusing = 6;
  EXPECT_EQ(Call("m", std::string(8UL << 20, 'x'), "com.velmora.Nobody"), kFailure);
  EXPECT_LT(refusing, 6);
  EXPECT_EQ(log_capture::Count("[Error name: org.freedesktop.DBus.Error.ServiceUnknown]"), 1);
}

}  // namespace
