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

using Received = std::tuple<char, int, std::string>;  // which callback, number, payload

constexpr int kMinimum = std::numeric_limits<int>::min();

/// Never destroyed: the main loop's thread may still use it.
Inbox<Received>& Inbound() {
  static auto& inbox = *new Inbox<Received>;
  return inbox;
}
std::atomic<std::thread::id> deliverer;

template <char callback>
void OnSignal(int number, ESGMessageBuffer& payload) {
  deliverer = std::this_thread::get_id();
  Inbound().Put({callback, number, Bytes(payload)});
}

/// The connection, attached to the default context, with both callbacks.
ECIPCConnection& Receiver() {
  auto& connection = dynamic_cast<ECIPCConnection&>(Connection());
  connection.SetGMainLoop(nullptr);
  connection.SetEventCallbackFunction(&OnSignal<'E'>);
  connection.SetDataCallbackFunction(&OnSignal<'D'>);
  return connection;
}

MessagePtr EmptySignal(const std::string& to, const char* member,
                       const char* interface = "com.velmora.ESG.Signal") {
  MessagePtr signal(dbus_message_new_signal("/any", interface, member));
  dbus_message_set_destination(signal.get(), to.c_str());
  return signal;
}

TEST_F(Signals, GoOnWhileTheConnectionMovesBetweenRunningContexts) {
  ECIPCConnection& connection = Receiver();
  const std::string& id = connection.GetConnectionId();
  GMainContext* context = g_main_context_new();
  {
    const MainLoopThread otherLoop(context);
    const MainLoopThread defaultLoop;
    RawPeer peer;
    for (int i = 0; i < 310; ++i) {
      if (i < 300) {
        connection.SetGMainLoop(i % 2 == 0 ? context : nullptr);
        peer.Send(MakeSignal("Event", i, "", id));
      }
      if (i >= 10) {  // under way at any time
        EXPECT_EQ(Inbound().Next(), Received('E', i - 10, ""));
      }
    }
    std::set<std::thread::id> deliverers;
    for (GMainContext* each : {context, static_cast<GMainContext*>(nullptr), context}) {
      connection.SetGMainLoop(each);
      peer.Send(MakeSignal("Event", 1, "", id));
      Inbound().Next();
      deliverers.insert(deliverer);
    }
    EXPECT_EQ(deliverers.size(), 2U);  // one thread for each context
  }
  // In a context that does not run, a connection leaves nothing behind.
  const int before = OpenDescriptors();
  auto shortLived = std::make_unique<ECIPCConnection>();
  shortLived->SetGMainLoop(context);
  shortLived.reset();
  g_main_context_unref(context);
  EXPECT_LE(OpenDescriptors(), before);
}

GMainContext* otherContext = nullptr;
RawPeer* sender = nullptr;

/// Moves to another context with the next signal there, and lets that context run.
void OnSignalThatMoves(int number, ESGMessageBuffer& /*payload*/) {
  if (number == 1) {
    sender->Send(MakeSignal("Event", 2, "", Connection().GetConnectionId()));
    sender->Sync();
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
  Inbound().Put({'E', number, ""});
}

TEST_F(Signals, ComeOneAtATimeThoughTheContextChangesMeanwhile) {
  Receiver().SetEventCallbackFunction(&OnSignalThatMoves);
  RawPeer peer;
  sender = &peer;
  otherContext = g_main_context_new();
  const MainLoopThread otherLoop(otherContext);
  const MainLoopThread defaultLoop;
  peer.Send(MakeSignal("Event", 1, "", Connection().GetConnectionId()));
  EXPECT_EQ(Inbound().Next(), Received('E', 1, ""));
  EXPECT_EQ(Inbound().Next(), Received('E', 2, ""));
}

TEST_F(Signals, WithoutArgumentsEndTheProcess) {
  for (const char* member : {"Event", "Data"}) {
    EXPECT_DEATH(
        {
          log_capture::Echo();
          RawPeer peer;
          peer.Send(EmptySignal(Receiver().GetConnectionId(), member));
          const MainLoopThread loop;
          Inbound().Next();
        },
        "m_MessageHandler\\([0-9]+\\) > Message has no arguments!\n"
        ".*include_internal/IPCS/ECIPCConnection:[0-9]+: .*m_MessageHandler.*Assertion `0' failed");
  }
}

TEST_F(Emitters, WriteNumberLengthAndBytes) {
  RawPeer peer;
  peer.AddMatch("type='signal',path='/com/velmora/ESG/IPCS',interface='com.velmora.ESG.Signal'");
  const std::tuple<int, int, std::string, unsigned, std::string> signals[] = {
      {Event, 42, Integers({1, 2, 3}), 0, "Event 42 12 " + Integers({1, 2, 3})},
      {Data, 0, "", 0, "Data 0 0 "},
      {7, -1, "x", 0, "Unknown -1 1 x"},
      {Event, kMinimum, "abcdef", 4, "Event -2147483648 2 ab"},
  };
  for (const auto& [type, number, bytes, popped, expected] : signals) {
    ESGMessageBuffer payload = Payload(bytes);
    delete[] payload.PopConcatenated(popped);
    EXPECT_TRUE(TheEmitter().m_Send("", static_cast<eECIPCMessageType>(type), number, payload));
    const MessagePtr seen = peer.NextSignal();
    ASSERT_NE(seen, nullptr);
    const Body body = ReadBody(seen.get());
    EXPECT_EQ(std::string(dbus_message_get_member(seen.get())) + " " + body.text + " " +
                  std::to_string(body.length) + " " + body.bytes,
              expected);
    EXPECT_EQ(dbus_message_get_destination(seen.get()), nullptr);
  }
  ESGMessageBuffer payload = Payload("to myself");
  Receiver();
  EXPECT_TRUE(ECIPCClient::GetInstance()->Send(5, payload));
  const MainLoopThread loop;
  EXPECT_EQ(Inbound().Next(), Received('E', 5, "to myself"));
}

// Emitters and a bus that does not take what they send. Each event may take 0.1 seconds; one that
// waits for the bus takes very long, so that a busy machine does not matter.
constexpr long kLongest = 3000;
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

TEST_F(Emitters, RefuseWhatTheBusDoesNotTakeAndGoOn) {
  RawPeer peer;
  const std::string& to = peer.UniqueName();
  const std::size_t limit = LargestPayload(MakeSignal("Event", 1, "", to).get());
  ESGMessageBuffer tooLarge = Payload(std::string(limit + 1, 'x'));
  ESGMessageBuffer largest = Payload(std::string(limit, 'x'));
  ESGMessageBuffer large = Payload(std::string(1UL << 20, 'y'));
  EXPECT_FALSE(TheEmitter().m_Send(to, Event, 1, tooLarge));
  for (const std::string& name : {std::string("noDots"), std::string("a.b\0", 4)}) {
    EXPECT_FALSE(TheEmitter().m_Send(name, Event, 1, large));
  }
  EXPECT_EQ(log_capture::Count("> Out Of Memory!\n\n"), 3);
  // Nothing has to follow for it to arrive whole.
  EXPECT_TRUE(TheEmitter().m_Send(to, Event, 2, large));
  MessagePtr seen = peer.NextSignal();
  ASSERT_NE(seen, nullptr);
  EXPECT_EQ(ReadBody(seen.get()).bytes, Bytes(large));
  EXPECT_TRUE(TheEmitter().m_Send(to, Event, 1, largest));
  seen = SendUntilSeen(peer, 3, to);  // each sends more of what is left
  ASSERT_NE(seen, nullptr);
  EXPECT_EQ(ReadBody(seen.get()).bytes.size(), limit);
}

TEST_F(Emitters, DoNotWaitForABusThatIsSlowOrStopped) {
  RawPeer peer;
  peer.AddMatch("type='signal',arg0='1'");
  peer.AddMatch("type='signal',arg0='4'");
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
  MessagePtr seen = SendUntilSeen(peer, 2);
  ASSERT_NE(seen, nullptr);
  EXPECT_EQ(ReadBody(seen.get()).bytes, Bytes(large));

  large = Payload(std::string(8UL << 20, 'x'));
  TestBus().Pause();
  long best = kLongest;
  for (int i = 0; i < 10; ++i) {
    best = std::min(best, MillisecondsToSend(3, large));
  }
  EXPECT_LT(best, kBestOfTen);
  TestBus().Resume();
  EXPECT_NE(SendUntilSeen(peer, 4), nullptr);
}

TEST_F(Emitters, DropWhatOthersSendToThem) {
  RawPeer peer;
  const std::string& to = peer.UniqueName();
  ESGMessageBuffer small;
  ESGMessageBuffer large = Payload(std::string(8UL << 20, 'x'));
  MillisecondsToSend(1, small, to);
  MessagePtr seen = peer.NextSignal();
  ASSERT_NE(seen, nullptr);
  const dbus_uint32_t serial = peer.Send(MessagePtr(dbus_message_new_method_call(
      dbus_message_get_sender(seen.get()), "/", DBUS_INTERFACE_PEER, "Ping")));
  peer.Sync();  // the bus has passed it on
  MillisecondsToSend(2, large, to);
  SendUntilSeen(peer, 3, to);
  MillisecondsToSend(4, small, to);  // an answer would arrive before this
  do {
    seen = peer.NextSignal();
    ASSERT_NE(seen, nullptr);
  } while (ReadBody(seen.get()).text != "4");
  EXPECT_EQ(peer.Answer(serial), nullptr);
}

// Events, which are delivered through the proxy.

using Delivery = std::array<int, 5>;  // which callback, event, parameters

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

/// The proxy, which the library forgets with its last event; a caller does not.
IESGEMS& Proxy(const ESGEventCallback& callback) {
  static std::mutex mutex;
  static auto& known = *new std::set<IESGEMS*>;
  IESGEMS* proxy = ESGEMSProxy::GetInstance(&Connection(), callback);
  const std::lock_guard<std::mutex> lock(mutex);
  return **known.insert(proxy).first;
}

TEST_F(Events, HaveAsManyParametersAsTheirPayload) {
  EXPECT_EQ(Proxy(Callback(1)).SubscribeSignal(5), 0);
  const std::string payload = Integers({0x01020304, -5, 6, 7});
  for (std::size_t size = 0; size <= payload.size(); ++size) {
    ESGMessageBuffer data = Payload(payload.substr(0, size));
    ESGEMSProxy::OnEventReceived(5, data);
    const Delivery expected = size == 0   ? Delivery{1, 5, -1, -1, -1}
                              : size < 4  ? Delivery{1, 5, 0, 0, 0}
                              : size < 8  ? Delivery{1, 5, 0x01020304, 0, 0}
                              : size < 12 ? Delivery{1, 5, 0x01020304, -5, 0}
                                          : Delivery{1, 5, 0x01020304, -5, 6};
    EXPECT_EQ(Deliveries().Next(), expected) << size;
  }
  ESGMessageBuffer tooLong = Payload(payload + "x");
  EXPECT_DEATH(ESGEMSProxy::OnEventReceived(5, tooLong),
               "Assertion `sizeof\\(params\\) >= data.GetFullBufferSize\\(\\)' failed");
  EXPECT_EQ(log_capture::Count("ESGEMSProxy.cpp: OnEventReceived("), 17);
  log_capture::Clear();
  EXPECT_EQ(Proxy(nullptr).SubscribeSignal(6), 0);
  EXPECT_EQ(Proxy(nullptr).UnsubscribeSignal(6), 0);
  EXPECT_EQ(
      log_capture::Count("> Subscribe and UnSubcribe number is different. m_eventList.size :1\n"),
      1);
  EXPECT_EQ(Proxy(nullptr).UnsubscribeSignal(5), 0);
  EXPECT_EQ(log_capture::Count("> Destroy Call back Function\n"), 1);
}

TEST_F(Events, ArriveInOrderAndAllOfThemInAStorm) {
  constexpr int kEvents = 20000;
  std::promise<void> sent;
  std::promise<int> inOrder;
  int expected = 0;
  IESGEMS& proxy = Proxy([&](int number, const ESGEventData& data) {
    if (number == 6) {
      inOrder.set_value(expected);
      return 0;
    }
    if (expected == 0) {
      // It may wait for a thread that subscribes, which then does not wait for the main loop.
      const auto add = [] { return Connection().AddMatchRule(9); };
      EXPECT_TRUE(std::async(std::launch::async, add).get());
      sent.get_future().wait();  // all others pile up behind a slow callback
    }
    expected += data.m_param1 == expected && data.m_param3 == -expected ? 1 : 0;
    return 0;
  });
  EXPECT_EQ(proxy.SubscribeSignal(5) + proxy.SubscribeSignal(6), 0);
  const MainLoopThread loop;
  RawPeer peer;
  for (int i = 0; i < kEvents; ++i) {
    peer.Send(MakeSignal("Event", 5, Integers({i, 0, -i})));
  }
  peer.Send(MakeSignal("Event", 6, ""));
  sent.set_value();
  EXPECT_EQ(inOrder.get_future().get(), kEvents);
}

TEST_F(Events, MayHaveTheirProxyReplacedFromInsideTheCallbackAndFromOtherThreads) {
  constexpr int kEvents = 200;
  RawPeer peer;
  const MainLoopThread loop;
  // From inside: each event comes to the callback that the one before has put in its place.
  std::function<ESGEventCallback(int)> replacing = [&](int id) -> ESGEventCallback {
    return [id, &replacing](int number, const ESGEventData& data) {
      EXPECT_EQ(Proxy(nullptr).UnsubscribeSignal(5), 0);
      EXPECT_EQ(Proxy(replacing(id + 1)).SubscribeSignal(5), 0);
      return Callback(id)(number, data);
    };
  };
  EXPECT_EQ(Proxy(replacing(0)).SubscribeSignal(5), 0);
  for (int i = 0; i < kEvents; ++i) {
    peer.Send(MakeSignal("Event", 5, Integers({i, i, i})));
    EXPECT_EQ(Deliveries().Next(), (Delivery{i, 5, i, i, i}));
  }
  EXPECT_EQ(Proxy(nullptr).UnsubscribeSignal(5), 0);
  // From other threads, while events are under way: each comes whole, to one callback.
  const std::string own = Connection().GetConnectionId();
  std::atomic<int> torn{0};
  auto others = Threads(3, [&](int thread) {
    for (int i = 0; i < kEvents; ++i) {
      const std::string mine(100, static_cast<char>('a' + thread));
      IESGEMS& proxy = Proxy([mine, &torn](int, const ESGEventData& data) {
        torn += data.m_param1 != data.m_param3 || mine != std::string(100, mine[0]) ? 1 : 0;
        return 0;
      });
      proxy.SubscribeSignal(5);
      peer.Send(MakeSignal("Event", 5, Integers({i, 0, i}), own));
      proxy.UnsubscribeSignal(5);
    }
  });
  Join(others);
  EXPECT_EQ(Proxy(Callback(-1)).SubscribeSignal(6), 0);
  peer.Send(MakeSignal("Event", 6, "", own));
  Delivery last{};
  do {
    last = Deliveries().Next();
  } while (last[1] == 5);  // was under way
  EXPECT_EQ(last, (Delivery{-1, 6, -1, -1, -1}));
  EXPECT_EQ(torn, 0);
}

TEST_F(Events, LeaveTheProcessAliveAndItsLoopQuietWhenTheBusDies) {
  ESGMessageBuffer payload = Payload("x");
  IESGEMS& proxy = Proxy(Callback(1));
  EXPECT_EQ(proxy.SubscribeSignal(5), 0);
  std::atomic<bool> isDone{false};
  auto users = Threads(2, [&](int thread) {
    while (!isDone) {
      if (thread == 0) {
        EXPECT_TRUE(TheEmitter().Send(1, payload));
      } else {
        proxy.SubscribeSignal(6);
        proxy.UnsubscribeSignal(6);
      }
    }
  });
  {
    const MainLoopThread loop;
    RawPeer peer;
    peer.AddMatch("type='signal',interface='com.velmora.ESG.Signal',arg0='1'");
    EXPECT_NE(peer.NextSignal(), nullptr);
    TestBus().Kill();
    EXPECT_TRUE(log_capture::WaitFor("> Error while adding match rule: ", 3));
    isDone = true;
    Join(users);

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
  // Without a loop, and with the bus back: this connection stays lost.
  TestBus().Start();
  EXPECT_EQ(proxy.SubscribeSignal(5), -1);
  EXPECT_EQ(Call("m", ""), kFailure);
  EXPECT_TRUE(ECIPCClient::GetInstance()->Send(5, payload));
  // Nothing is kept for a bus that is gone.
  payload = Payload(std::string(1UL << 20, 'x'));
  const long resident = ResidentKiB();
  for (int i = 0; i < 200; ++i) {
    EXPECT_LT(MillisecondsToSend(1, payload), kLongest);
  }
  if (!kSanitized) {  // which keep what is freed
    EXPECT_LT(ResidentKiB(), resident + 8L * 1024);
  }
}

}  // namespace
