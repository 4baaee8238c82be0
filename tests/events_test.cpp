#include <array>
#include <ctime>
#include <limits>
#include <set>

#include "BusTest.h"
#include "ESGEMSProxy.h"
#include "IPCS/ECIPCClient.h"
#include "IPCS/ECIPCConnection.h"

namespace {

using namespace esg::test;
using Signals = OnBus;
using Emitters = OnBus;
using Events = OnBus;

/// Never destroyed: the main loop's thread may still use it.
Inbox<std::pair<int, std::string>>& Received() {
  static auto& inbox = *new Inbox<std::pair<int, std::string>>;
  return inbox;
}

/// Attaches the connection to the default context. Its signals go to `callback`.
void Receive(EIIPCCallback callback) {
  Connection().SetGMainLoop(nullptr);
  Connection().SetEventCallbackFunction(callback);
}

// The connection moves between two contexts that run.
GMainContext* otherContext = nullptr;
std::set<std::thread::id> deliverers;
std::atomic<bool> isInside{false};

void OnSignalThatMoves(int number, ESGMessageBuffer& payload) {
  EXPECT_FALSE(isInside.exchange(true));
  deliverers.insert(std::this_thread::get_id());
  if (number == 0) {  // the next signals are there; gives the other context time to deliver them
    Connection().SetGMainLoop(otherContext);
    for (int i = 0; i < 20; ++i) {
      std::promise<void> turn;
      const GSourceFunc onTurn = [](gpointer promise) -> gboolean {
        static_cast<std::promise<void>*>(promise)->set_value();
        return G_SOURCE_REMOVE;
      };
      g_main_context_invoke_full(otherContext, G_PRIORITY_LOW, onTurn, &turn, nullptr);
      turn.get_future().wait();
    }
  }
  isInside = false;
  Received().Put({number, Bytes(payload)});
}

TEST_F(Signals, ArriveOneAtATimeAndInOrderWhileTheConnectionMovesBetweenContexts) {
  otherContext = g_main_context_new();
  Receive(&OnSignalThatMoves);
  RawPeer peer;
  for (int i = 0; i < 300; ++i) {
    peer.Send(MakeSignal("Event", i, "", Connection().GetConnectionId()));
  }
  peer.Sync();
  {
    const MainLoopThread otherLoop(otherContext);
    const MainLoopThread defaultLoop;
    for (int i = 0; i < 300; ++i) {
      EXPECT_EQ(Received().Next().first, i);
      Connection().SetGMainLoop(i % 2 == 0 ? nullptr : otherContext);
    }
    deliverers.clear();
    for (GMainContext* context : {otherContext, g_main_context_default()}) {
      Connection().SetGMainLoop(context);
      peer.Send(MakeSignal("Event", 300, "", Connection().GetConnectionId()));
      EXPECT_EQ(Received().Next().first, 300);
    }
  }
  EXPECT_EQ(deliverers.size(), 2U);
}

TEST_F(Signals, WithWrongArgumentsAreLoggedAndNotDelivered) {
  RawPeer peer;
  Receive([](int number, ESGMessageBuffer& bytes) { Received().Put({number, Bytes(bytes)}); });
  for (const char* signature : {"s", "iiay", "siai", "siaysai"}) {
    MessagePtr signal(dbus_message_new_signal("/any", "com.velmora.ESG.Signal", "Event"));
    dbus_message_set_destination(signal.get(), Connection().GetConnectionId().c_str());
    peer.Send(WithBody(std::move(signal), signature));
  }
  const MainLoopThread loop;
  EXPECT_EQ(Received().Next(), std::pair(5, std::string("\x05")));  // of the last one
  EXPECT_EQ(log_capture::Count("> Message has wrong arguments: "), 3);
}

TEST_F(Signals, EndTheProcessIfTheyHaveNoArguments) {
  MessagePtr signal(dbus_message_new_signal("/any", "com.velmora.ESG.Signal", "Data"));
  const auto receive = [&signal] {
    RawPeer peer;
    Connection().SetGMainLoop(nullptr);
    dbus_message_set_destination(signal.get(), Connection().GetConnectionId().c_str());
    peer.Send(std::move(signal));
    const MainLoopThread loop;
    Received().Next();
  };
  EXPECT_DEATH(receive(),
               "m_MessageHandler\\([0-9]+\\) > Message has no arguments!\n"
               ".*include_internal/IPCS/ECIPCConnection:[0-9]+: .*Assertion `0' failed");
}

TEST_F(Signals, DoNotArriveOnAConnectionThatIsDeletedWhileItsCallbackRuns) {
  static Inbox<int> busy;
  static Inbox<int> proceeds;
  const MainLoopThread loop;
  RawPeer peer;
  auto deleted = std::make_unique<ECIPCConnection>();
  deleted->SetGMainLoop(nullptr);
  deleted->SetEventCallbackFunction([](int number, ESGMessageBuffer& /*payload*/) {
    busy.Put(number);
    EXPECT_EQ(proceeds.Next(), number);
  });
  Receive([](int number, ESGMessageBuffer& bytes) { Received().Put({number, Bytes(bytes)}); });
  peer.Send(MakeSignal("Event", 1, "", deleted->GetConnectionId()));
  peer.Send(MakeSignal("Event", 2, "", deleted->GetConnectionId()));
  peer.Send(MakeSignal("Event", 3, "", Connection().GetConnectionId()));
  EXPECT_EQ(busy.Next(), 1);
  deleted.reset();
  proceeds.Put(1);
  EXPECT_EQ(Received().Next().first, 3);
}

TEST_F(Emitters, WriteNumberLengthAndBytes) {
  RawPeer peer;
  peer.AddMatch("type='signal',path='/com/velmora/ESG/IPCS',interface='com.velmora.ESG.Signal'");
  constexpr int kMinimum = std::numeric_limits<int>::min();
  const std::tuple<int, int, std::string, unsigned, std::string> signals[] = {
      {Event, 42, Integers({1, 2, 3}), 0, "Event 42 12 " + Integers({1, 2, 3})},
      {Data, 0, "", 0, "Data 0 0 "},
      {7, kMinimum, "abcdef", 4, "Unknown -2147483648 2 ab"},
  };
  for (const auto& [type, number, bytes, popped, expected] : signals) {
    ESGMessageBuffer payload = Payload(bytes);
    delete[] payload.PopConcatenated(popped);
    EXPECT_TRUE(TheEmitter().m_Send("", static_cast<eECIPCMessageType>(type), number, payload));
    const MessagePtr seen = peer.NextSignal();
    const Body body = ReadBody(seen.get());
    EXPECT_EQ(std::string(dbus_message_get_member(seen.get())) + " " + body.text + " " +
                  std::to_string(body.length) + " " + body.bytes,
              expected);
    EXPECT_EQ(dbus_message_get_destination(seen.get()), nullptr);
  }
  ESGMessageBuffer payload = Payload("to myself");
  Receive([](int number, ESGMessageBuffer& bytes) { Received().Put({number, Bytes(bytes)}); });
  EXPECT_TRUE(ECIPCClient::GetInstance()->Send(5, payload));
  const MainLoopThread loop;
  EXPECT_EQ(Received().Next(), std::pair(5, std::string("to myself")));
}

// An event may take 0.1 seconds. One that waits for the bus takes much longer than this, so a busy
// machine does not matter.
constexpr long kLongest = 3000;
constexpr long kBestOfTen = 150;

long MillisecondsToSend(int number, ESGMessageBuffer& payload, const std::string& to = "") {
  const Stopwatch stopwatch;
  TheEmitter().m_Send(to, Event, number, payload);
  return stopwatch.Milliseconds();
}

/// Sends small events, which also send more of what is left, until `peer` gets its next one.
/// Returns the length of that one.
std::size_t SendUntilSeen(RawPeer& peer, int number) {
  ESGMessageBuffer small;
  auto seen = std::async(std::launch::async, [&peer] { return peer.NextSignal(); });
  while (seen.wait_for(std::chrono::milliseconds(10)) != std::future_status::ready) {
    EXPECT_LT(MillisecondsToSend(number, small, peer.UniqueName()), kLongest);
  }
  return ReadBody(seen.get().get()).bytes.size();
}

TEST_F(Emitters, DoNotWaitForABusThatIsSlowOrStoppedAndGoOn) {
  RawPeer peer;
  const std::string& to = peer.UniqueName();
  const std::size_t limit = LargestPayload(MakeSignal("Event", 1, "", to).get());
  ESGMessageBuffer tooLarge = Payload(std::string(limit + 1, 'x'));
  ESGMessageBuffer largest = Payload(std::string(limit, 'x'));
  ESGMessageBuffer large = Payload(std::string(8UL << 20, 'x'));
  EXPECT_FALSE(TheEmitter().m_Send(to, Event, 1, tooLarge));
  EXPECT_FALSE(TheEmitter().m_Send("noDots", Event, 1, large));
  EXPECT_FALSE(TheEmitter().m_Send(std::string("a.b\0", 4), Event, 1, large));
  EXPECT_EQ(log_capture::Count("> Out Of Memory!\n\n"), 3);

  std::promise<void> sent;
  const auto brake = std::async(std::launch::async, [isSent = sent.get_future()] {
    for (auto pause = std::future_status::timeout; pause == std::future_status::timeout;) {
      TestBus().Pause();
      pause = isSent.wait_for(std::chrono::milliseconds(60));
      TestBus().Resume();
      isSent.wait_for(std::chrono::milliseconds(1));
    }
  });
  EXPECT_LT(MillisecondsToSend(2, largest, to), kLongest);
  sent.set_value();
  brake.wait();
  EXPECT_EQ(SendUntilSeen(peer, 3), limit);

  TestBus().Pause();
  long best = kLongest;
  for (int i = 0; i < 10; ++i) {
    best = std::min(best, MillisecondsToSend(4, large));
  }
  EXPECT_LT(best, kBestOfTen);
  TestBus().Resume();
  peer.AddMatch("type='signal',arg0='5'");
  ESGMessageBuffer small;
  bool isSent = false;  // refused while too much is left
  for (const Stopwatch stopwatch; !isSent && stopwatch.Milliseconds() < 10 * kLongest;) {
    isSent = TheEmitter().m_Send("", Event, 5, small);
  }
  EXPECT_TRUE(isSent);
  EXPECT_EQ(SendUntilSeen(peer, 6), 0U);
}

TEST_F(Emitters, DropWhatOthersSendToThem) {
  RawPeer peer;
  ESGMessageBuffer small;
  MillisecondsToSend(1, small, peer.UniqueName());
  const MessagePtr seen = peer.NextSignal();
  const dbus_uint32_t serial = peer.Send(MessagePtr(dbus_message_new_method_call(
      dbus_message_get_sender(seen.get()), "/", DBUS_INTERFACE_PEER, "Ping")));
  peer.Sync();             // the bus has passed it on
  SendUntilSeen(peer, 2);  // reads it
  SendUntilSeen(peer, 3);  // would come after a reply
  EXPECT_EQ(peer.Answer(serial), nullptr);
}

// Events, which are delivered through the proxy.

using Delivery = std::array<int, 5>;  // number of the callback, event, parameters

Inbox<Delivery>& Deliveries() {
  static auto& inbox = *new Inbox<Delivery>;
  return inbox;
}

ESGEventCallback Callback(int id) {
  return [id](int event, const ESGEventData& data) {
    Deliveries().Put({id, event, data.m_param1, data.m_param2, data.m_param3});
    return -1;
  };
}

/// The library forgets the proxy with its last event, and never deletes it.
IESGEMS& Proxy(const ESGEventCallback& callback) {
  const LeaksAllowed leaks;
  return *ESGEMSProxy::GetInstance(&Connection(), callback);
}

TEST_F(Events, HaveAsManyParametersAsTheirPayload) {
  EXPECT_EQ(Proxy(Callback(1)).SubscribeSignal(5), 0);
  const std::string payload = Integers({0x01020304, -5, 6, 7});
  const std::pair<std::size_t, Delivery> rows[] = {{0, {1, 5, -1, -1, -1}},
                                                   {1, {1, 5, 0, 0, 0}},
                                                   {3, {1, 5, 0, 0, 0}},
                                                   {4, {1, 5, 0x01020304, 0, 0}},
                                                   {11, {1, 5, 0x01020304, -5, 0}},
                                                   {12, {1, 5, 0x01020304, -5, 6}},
                                                   {16, {1, 5, 0x01020304, -5, 6}}};
  for (const auto& [size, expected] : rows) {
    ESGMessageBuffer data = Payload(payload.substr(0, size));
    ESGEMSProxy::OnEventReceived(5, data);
    EXPECT_EQ(Deliveries().Next(), expected) << size;
  }
  ESGMessageBuffer tooLong = Payload(payload + "x");
  EXPECT_DEATH(ESGEMSProxy::OnEventReceived(5, tooLong),
               "Assertion `sizeof\\(params\\) >= data.GetFullBufferSize\\(\\)' failed");
  EXPECT_EQ(Proxy(nullptr).SubscribeSignal(6), 0);
  EXPECT_EQ(Proxy(nullptr).UnsubscribeSignal(6), 0);
  EXPECT_EQ(
      log_capture::Count("> Subscribe and UnSubcribe number is different. m_eventList.size :1\n"),
      1);
  EXPECT_EQ(Proxy(nullptr).UnsubscribeSignal(5), 0);
  EXPECT_EQ(log_capture::Count("> Destroy Call back Function\n"), 1);
}

TEST_F(Events, GoToTheCallbackThatTheCallbackBeforeHasSet) {
  RawPeer peer;
  const MainLoopThread loop;
  std::function<ESGEventCallback(int)> replacing = [&](int id) -> ESGEventCallback {
    return [id, &replacing](int number, const ESGEventData& data) {
      EXPECT_EQ(Proxy(nullptr).UnsubscribeSignal(5), 0);
      EXPECT_EQ(Proxy(replacing(id + 1)).SubscribeSignal(5), 0);
      return Callback(id)(number, data);
    };
  };
  EXPECT_EQ(Proxy(replacing(0)).SubscribeSignal(5), 0);
  for (int i = 0; i < 20; ++i) {
    peer.Send(MakeSignal("Event", 5, Integers({i, i, i})));
    EXPECT_EQ(Deliveries().Next(), (Delivery{i, 5, i, i, i}));
  }
}

TEST_F(Events, LeaveTheProcessAliveAndItsLoopIdleWhenTheBusEnds) {
  ESGMessageBuffer payload = Payload("x");
  IESGEMS& proxy = Proxy(Callback(1));
  EXPECT_EQ(proxy.SubscribeSignal(5), 0);
  EXPECT_TRUE(TheEmitter().Send(1, payload));
  {
    const MainLoopThread loop;
    TestBus().Kill();
    EXPECT_EQ(proxy.SubscribeSignal(6), -1);
    const std::clock_t before = std::clock();
    std::promise<void> second;
    const GSourceFunc onTimer = [](gpointer promise) -> gboolean {
      static_cast<std::promise<void>*>(promise)->set_value();
      return G_SOURCE_REMOVE;
    };
    g_timeout_add(1000, onTimer, &second);
    second.get_future().wait();
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 5);
  }
  // Connections stay lost when a bus is there again. An emitter keeps nothing for the lost one.
  TestBus().Start();
  EXPECT_EQ(proxy.SubscribeSignal(5), -1);
  EXPECT_EQ(Call("m", ""), kFailure);
  payload = Payload(std::string(1UL << 20, 'x'));
  const long resident = ResidentKiB();
  for (int i = 0; i < 200; ++i) {
    EXPECT_TRUE(TheEmitter().Send(1, payload));
  }
  if (!kSanitized) {  // sanitizers keep what is freed
    EXPECT_LT(ResidentKiB(), resident + 8L * 1024);
  }
}

}  // namespace
