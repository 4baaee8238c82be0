#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <memory>

#include "Harness.h"
#include "LogCapture.h"
#include "PrivateBus.h"
#include "Service.h"

namespace {

using esg::internal::MessagePtr;

const Answer kFailure{-1, ""};

std::future<Answer> CallInThread(const char* method, const std::string& payload = "") {
  return std::async(std::launch::async, [=] { return Call(method, payload); });
}

TEST(Threads, AQuickCallDoesNotWaitForASlowOne) {
  Service service;
  auto slow = CallInThread("slow", "1");
  ASSERT_TRUE(service.Peer().WaitForCalls(1));
  long best = 1000;
  for (int i = 0; i < 10; ++i) {
    const Stopwatch stopwatch;
    EXPECT_EQ(Call("echo", "quick"), (Answer{1, "quick"}));
    best = std::min(best, stopwatch.Milliseconds());
  }
  EXPECT_LT(best, 50);
  // The one that reads for all gets its answer; another has to go on reading.
  auto second = CallInThread("slow", "2");
  auto third = CallInThread("slow", std::string(8UL << 20, '3'));
  ASSERT_TRUE(service.Peer().WaitForCalls(13));
  service.Release();
  EXPECT_EQ(slow.get(), (Answer{1, "1"}));
  EXPECT_EQ(Call("echo", "between"), (Answer{1, "between"}));
  service.Release();
  service.Release();
  EXPECT_EQ(second.get(), (Answer{1, "2"}));
  EXPECT_EQ(third.get().second.size(), 8UL << 20);
}

/// How libdbus's own blocking call names the failure of a call that nobody answers, and says it.
std::string OwnWordsForNoReply() {
  esg::internal::Error error;
  DBusConnection* connection = OpenBus(error).release();
  const MessagePtr call = MakeCall(kService, "mute", "");
  const MessagePtr reply(
      dbus_connection_send_with_reply_and_block(connection, call.get(), 1, &error));
  esg::internal::ConnectionPtr(connection).reset();
  return std::string("[Error name: ") + error.name + "]: " + error.message + "\n";
}

TEST(ThreadsSlow, CallersOfAMuteServiceComeBackTogetherAndLateRepliesReachNobody) {
  Service service;
  const std::string words = OwnWordsForNoReply();
  service.Release();
  const Stopwatch stopwatch;
  auto callers = Threads(5, [](int) { EXPECT_EQ(Call("mute", "late"), kFailure); });
  Join(callers);
  EXPECT_GE(stopwatch.Milliseconds(), 24900);
  EXPECT_LT(stopwatch.Milliseconds(), 26000);
  EXPECT_EQ(log_capture::Count("> [com.velmora.Test:mute] Error answer received " + words), 5);
  auto next = CallInThread("mute", "own");
  for (int i = 0; i < 5; ++i) {
    service.Release();
  }
  EXPECT_EQ(Call("echo", "fresh"), (Answer{1, "fresh"}));
  service.Release();
  EXPECT_EQ(next.get(), (Answer{1, "own"}));
}

TEST(Threads, AllCallersComeBackAtOnceWhenTheBusDies) {
  Service service;
  auto callers = Threads(8, [](int) { EXPECT_EQ(Call("mute", ""), kFailure); });
  EXPECT_TRUE(service.Peer().WaitForCalls(8));
  const Stopwatch stopwatch;
  TestBus().Kill();
  Join(callers);
  EXPECT_EQ(log_capture::Count("Error name: org.freedesktop.DBus.Error.Disconnected]: Connection "
                               "was disconnected before a reply was received\n"),
            8);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(Call("echo", ""), kFailure);
  }
  EXPECT_EQ(log_capture::Count("> pending == NULL \n"), 3);
  EXPECT_LT(stopwatch.Milliseconds(), 500);
}

TEST(Threads, AServiceMayGoInTheMiddleOfACallAndComeBack) {
  auto service = std::make_unique<Service>();
  auto call = CallInThread("mute");
  ASSERT_TRUE(service->Peer().WaitForCalls(1));
  const Stopwatch stopwatch;
  service->Peer().Stop();
  EXPECT_EQ(call.get(), kFailure);
  EXPECT_EQ(log_capture::Count("org.freedesktop.DBus.Error.NoReply]: Message recipient "
                               "disconnected from message bus without replying\n"),
            1);
  EXPECT_EQ(Call("echo", ""), kFailure);
  EXPECT_LT(stopwatch.Milliseconds(), 500);
  service.reset();
  service = std::make_unique<Service>();
  EXPECT_EQ(Call("echo", "again"), (Answer{1, "again"}));
}

TEST(Threads, FiftyRestartsUnderLoadMixNothingUp) {
  std::atomic<bool> done{false};
  auto callers = Threads(4, [&](int thread) {
    for (int i = 0; !done; ++i) {
      const std::string payload = std::to_string(thread) + ":" + std::to_string(i);
      const Answer answer = Call("echo", payload);
      EXPECT_TRUE(answer == kFailure || answer == Answer(1, payload)) << payload;
    }
  });
  for (int restart = 0; restart < 50; ++restart) {
    Service service;
    EXPECT_EQ(Call("echo", "up"), (Answer{1, "up"}));
    EXPECT_TRUE(service.Peer().WaitForCalls(5));
  }
  done = true;
  Join(callers);
}

/// In another process, of another user where that can be: sends 100 signals of 1 MiB to the name
/// that it reads from `input`, and ends with status 0 when the bus has taken them.
[[noreturn]] void Flood(int input) {
  char name[64] = {};
  const bool ready = read(input, name, sizeof(name) - 1) > 0 && (getuid() != 0 || setuid(1) == 0);
  esg::internal::Error error;
  DBusConnection* connection = ready ? OpenBus(error).release() : nullptr;
  for (int i = 0; connection != nullptr && i < 100; ++i) {
    const MessagePtr signal = MakeSignal("Event", i, std::string(1UL << 20, 'f'), name);
    dbus_connection_send(connection, signal.get(), nullptr);
    dbus_connection_flush(connection);
  }
  _exit(connection != nullptr && dbus_bus_name_has_owner(connection, name, nullptr) != FALSE ? 0
                                                                                             : 1);
}

TEST(Threads, AFloodWhileNoCallIsMadeIsDroppedByTheNextCall) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const pid_t flooder = fork();
  if (flooder == 0) {
    Flood(ends[0]);
  }
  RawPeer service(kService, [](DBusMessage* call) {
    return MakeReply(call, 1, dbus_message_get_sender(call));
  });
  const std::string victim = Call("m", "").second;
  const long before = ResidentKiB();
  ASSERT_EQ(write(ends[1], victim.data(), victim.size()), static_cast<ssize_t>(victim.size()));
  int status = -1;
  ASSERT_EQ(waitpid(flooder, &status, 0), flooder);
  ASSERT_EQ(status, 0);
  EXPECT_EQ(Call("m", ""), (Answer{1, victim}));
  if (!kSanitized) {  // which keep what is freed
    EXPECT_LT(ResidentKiB(), before + 16L * 1024);
  }
}

TEST(Threads, EightThreadsCallForLongAndLeaveNothingBehind) {
  constexpr int kCalls = kSanitized ? 500 : 10000;
  Service service;
  const auto load = [](int calls) {
    auto callers = Threads(8, [calls](int thread) {
      for (int i = 0; i < calls; ++i) {
        const std::string payload = std::to_string(thread) + ":" + std::to_string(i);
        ASSERT_EQ(Call("echo", payload), (Answer{1, payload}));
      }
    });
    Join(callers);
  };
  load(kCalls / 10);
  const int descriptors = OpenDescriptors();
  const long memory = ResidentKiB();
  load(kCalls);
  EXPECT_EQ(OpenDescriptors(), descriptors);
  if (!kSanitized) {
    EXPECT_LT(ResidentKiB(), memory + 2048);
  }
}

}  // namespace
