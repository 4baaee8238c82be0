#include <gtest/gtest.h>

#include <algorithm>
#include <future>

#include "Harness.h"
#include "IPCS/ECIPCConnection.h"
#include "LogCapture.h"
#include "PrivateBus.h"

namespace {

using esg::internal::MessagePtr;

/// What one event may take, in milliseconds: a tenth of a second, with slack for a busy machine.
constexpr long kLongest = kSanitized ? 1000 : 600;
constexpr long kBestOfTen = 150;

long MillisecondsToSend(int number, ESGMessageBuffer& payload, const std::string& to = "") {
  const Stopwatch stopwatch;
  TheEmitter().m_Send(to, Event, number, payload);
  return stopwatch.Milliseconds();
}

/// Sends small events until `peer` has its next one, and returns that.
MessagePtr SendUntilSeen(RawPeer& peer, int number, const std::string& to = "") {
  ESGMessageBuffer small;
  auto seen = std::async(std::launch::async, [&peer] { return peer.NextSignal(); });
  while (seen.wait_for(std::chrono::milliseconds(10)) != std::future_status::ready) {
    EXPECT_LT(MillisecondsToSend(number, small, to), kLongest);
  }
  return seen.get();
}

TEST(Emitter, GoesOnWhenABusThatStoodStillDoes) {
  RawPeer peer;
  peer.AddMatch("type='signal',arg0='2'");
  ESGMessageBuffer large = Payload(std::string(8UL << 20, 'x'));
  ESGMessageBuffer small;
  TheEmitter();
  TestBus().Pause();
  long best = kLongest;
  for (int i = 0; i < 10; ++i) {
    best = std::min(best, MillisecondsToSend(1, large));
  }
  EXPECT_LT(best, kBestOfTen);
  TestBus().Resume();
  EXPECT_NE(SendUntilSeen(peer, 2), nullptr);
  EXPECT_TRUE(TheEmitter().Send(2, small));
}

TEST(Emitter, DoesNotWaitForABusThatTakesSlowly) {
  RawPeer peer;
  peer.AddMatch("type='signal',arg0='1'");
  ESGMessageBuffer large = Payload(std::string(31UL << 20, 'x'));
  TheEmitter();
  std::promise<void> sent;
  const auto brake = std::async(std::launch::async, [done = sent.get_future()] {
    for (auto pause = std::future_status::timeout; pause == std::future_status::timeout;) {
      TestBus().Pause();
      pause = done.wait_for(std::chrono::milliseconds(60));
      TestBus().Resume();
      done.wait_for(std::chrono::milliseconds(1));
    }
  });
  EXPECT_LT(MillisecondsToSend(1, large), kLongest);
  sent.set_value();
  brake.wait();
  const MessagePtr seen = SendUntilSeen(peer, 2);
  ASSERT_NE(seen, nullptr);
  EXPECT_EQ(ReadBody(seen.get()).bytes, Bytes(large));
}

TEST(Emitter, KeepsNothingForABusThatIsDead) {
  ESGMessageBuffer large = Payload(std::string(1UL << 20, 'x'));
  TheEmitter();
  TestBus().Kill();
  const long before = ResidentKiB();
  const Stopwatch stopwatch;
  for (int i = 0; i < 200; ++i) {
    MillisecondsToSend(1, large);
  }
  EXPECT_LT(stopwatch.Milliseconds(), kSanitized ? 5000 : 1000);
  if (!kSanitized) {  // which keep what is freed
    EXPECT_LT(ResidentKiB(), before + 8L * 1024);
  }
}

MessagePtr Ping(const char* destination) {
  return MessagePtr(dbus_message_new_method_call(destination, "/", DBUS_INTERFACE_PEER, "Ping"));
}

TEST(Emitter, DropsWhatOthersSendToIt) {
  RawPeer peer;
  const std::string& to = peer.UniqueName();
  ESGMessageBuffer small;
  ESGMessageBuffer large = Payload(std::string(8UL << 20, 'x'));
  MillisecondsToSend(1, small, to);
  MessagePtr seen = peer.NextSignal();
  ASSERT_NE(seen, nullptr);
  const dbus_uint32_t serial = peer.Send(Ping(dbus_message_get_sender(seen.get())));
  // The bus has passed it on when it has answered this.
  EXPECT_NE(peer.Call(Ping(DBUS_SERVICE_DBUS)), nullptr);
  MillisecondsToSend(2, large, to);
  seen = SendUntilSeen(peer, 3, to);
  // An answer would arrive before this.
  MillisecondsToSend(4, small, to);
  while (seen != nullptr && ReadBody(seen.get()).text != "4") {
    seen = peer.NextSignal();
  }
  EXPECT_NE(seen, nullptr);
  EXPECT_EQ(peer.Answer(serial), nullptr);
}

struct ExposedConnection : ECIPCConnection {
  using ECIPCConnection::m_Connect;
};

TEST(Reconnecting, FailsWithoutABusAndLeavesOneConnectionWithOne) {
  static auto& events = *new Inbox<int>;
  ExposedConnection connection;
  ECIPCManager& emitter = TheEmitter();
  const int descriptors = OpenDescriptors();
  TestBus().Kill();
  for (int i = 1; i <= 2; ++i) {
    EXPECT_FALSE(connection.m_Connect());
    EXPECT_FALSE(emitter.m_Connect());
    EXPECT_EQ(log_capture::Count("> Failed to connect to the D-BUS daemon: "), 2 * i);
  }
  TestBus().Start();
  EXPECT_TRUE(connection.m_Connect());
  EXPECT_TRUE(emitter.m_Connect());
  EXPECT_EQ(OpenDescriptors(), descriptors);
  connection.SetEventCallbackFunction(
      [](int number, ESGMessageBuffer& /*payload*/) { events.Put(number); });
  connection.SetGMainLoop(nullptr);
  const MainLoopThread loop;
  ESGMessageBuffer payload;
  for (const int number : {1, 2, 3}) {
    EXPECT_TRUE(emitter.m_Send(connection.GetConnectionId(), Event, number, payload));
  }
  for (const int number : {1, 2, 3}) {
    EXPECT_EQ(events.Next(), number);
  }
  EXPECT_STREQ(emitter.m_ConvertMsgTypeToString(Data), "Data");
}

}  // namespace
