#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>

#include <array>
#include <atomic>
#include <cstdarg>
#include <thread>

#include "Harness.h"
#include "IPCS/EIIPCConnection.h"
#include "LogCapture.h"

// What gets in the way of a thread that waits for the bus.

namespace {

using esg::internal::MessagePtr;

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

TEST(Interruptions, ADispatchWithoutMemoryIsTriedAgainSoon) {
  static auto& events = *new Inbox<int>;
  EIIPCConnection& connection = *EIIPCConnection::GetInstance();
  connection.SetGMainLoop(nullptr);
  connection.SetEventCallbackFunction(
      [](int number, ESGMessageBuffer& /*payload*/) { events.Put(number); });
  RawPeer service(kService, [](DBusMessage* call) { return MakeReply(call, 1, "answer"); });
  EXPECT_EQ(Call("m", ""), (Answer{1, "answer"}));
  const auto quickly = [](const char* what, const std::function<bool()>& work) {
    if (testing::Test::HasFailure()) {
      return;
    }
    failing = 1;
    const Stopwatch stopwatch;
    EXPECT_TRUE(work()) << what;
    EXPECT_LT(stopwatch.Milliseconds(), kSanitized ? 1000 : 500) << what;
    EXPECT_LE(failing.exchange(0), 0) << what;
  };
  quickly("call", [] { return Call("m", "") == Answer(1, "answer"); });
  quickly("request", [&] { return connection.AddMatchRule(5); });
  const MainLoopThread loop;
  quickly("request beside a main loop", [&] { return connection.AddMatchRule(6); });
  quickly("event", [&] {
    service.Send(MakeSignal("Event", 5, "", connection.GetConnectionId()));
    return events.Next() == 5;
  });
}

TEST(Interruptions, ACancelledCallerLeavesTheOthersTheirAnswers) {
  constexpr int kRounds = kSanitized ? 100 : 600;
  constexpr std::size_t kCallers = 3;
  Inbox<MessagePtr> calls;
  RawPeer service(kService, [&](DBusMessage* call) {
    const Body body = ReadBody(call);
    MessagePtr reply = MakeReply(call, 1, body.bytes);
    if (body.text == "wait") {
      calls.Put(std::move(reply));
      return MessagePtr();
    }
    return reply;
  });
  for (std::size_t round = 0; round < kRounds; ++round) {
    std::array<std::thread, kCallers> callers;
    std::array<MessagePtr, kCallers> replies;
    for (std::size_t i = 0; i < kCallers; ++i) {  // the first one reads
      callers[i] = std::thread([round, i] {
        const std::string payload = std::to_string(round) + ":" + std::to_string(i);
        EXPECT_EQ(Call("wait", payload), (Answer{1, payload}));
      });
      replies[i] = calls.Next();
    }
    // The race detector does not survive a cancellation within poll().
    const std::size_t cancelled = kThreadSanitized ? 1 + round % 2 : round % kCallers;
    pthread_cancel(callers[cancelled].native_handle());
    callers[cancelled].join();
    for (MessagePtr& reply : replies) {
      service.Send(std::move(reply));
    }
    for (std::thread& caller : callers) {
      if (caller.joinable()) {
        caller.join();
      }
    }
    EXPECT_EQ(Call("echo", "after"), (Answer{1, "after"}));
  }
}

/// libdbus wants its socket again when the first of three large answers is released.
TEST(Interruptions, ACallerMayBeCancelledWhileItTakesALargeAnswer) {
  constexpr int kCallers = 3;
  const std::string large(31UL << 20, 'x');
  RawPeer service(kService, [&](DBusMessage* call) {
    return MakeReply(call, 1, ReadBody(call).text == "large" ? large : "");
  });
  static std::atomic<int> reading{0};
  EIIPCConnection::GetInstance();
  auto callers = Threads(kCallers, [](int) {
    onRead = [] {
      ++reading;
      while (reading < kCallers) {
        std::this_thread::yield();
      }
      pthread_cancel(pthread_self());
    };
    Call("large", "");
  });
  Join(callers);
  EXPECT_EQ(Call("small", ""), (Answer{1, ""}));
}

TEST(Interruptions, AConnectionWithoutDescriptorsIsAFailureThatIsLogged) {
  if (kSanitized && !kThreadSanitized) {
    GTEST_SKIP() << "The sanitizer needs descriptors of its own";
  }
  ECIPCBroadcaster& emitter = TheEmitter();
  ESGMessageBuffer payload;
  for (const int free : {0, 1, 2, 3}) {
    const DescriptorLimit limit(free);
    EXPECT_FALSE(emitter.m_Connect()) << free;
  }
  EXPECT_EQ(log_capture::Count("> Failed to connect to the D-BUS daemon: "), 4);
  EXPECT_TRUE(emitter.m_Connect());
  EXPECT_TRUE(emitter.Send(1, payload));
}

TEST(Interruptions, DescriptorsOfStrangersAreNotKept) {
  EIIPCConnection& connection = *EIIPCConnection::GetInstance();
  RawPeer stranger;
  for (int i = 0; i < 40; ++i) {
    MessagePtr signal(dbus_message_new_signal("/a", "a.B", "C"));
    dbus_message_set_destination(signal.get(), connection.GetConnectionId().c_str());
    const int file = STDERR_FILENO;
    for (int k = 0; k < 16; ++k) {
      dbus_message_append_args(signal.get(), DBUS_TYPE_UNIX_FD, &file, DBUS_TYPE_INVALID);
    }
    stranger.Send(std::move(signal));
    stranger.Sync();
  }
  const int before = OpenDescriptors();
  const DescriptorLimit limit(200);
  EXPECT_TRUE(connection.AddMatchRule(5));
  EXPECT_EQ(OpenDescriptors(), before);
}

}  // namespace
