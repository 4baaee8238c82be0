#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <clocale>
#include <ctime>
#include <future>
#include <set>

#include "ChildProgram.h"
#include "ESGEMSProxy.h"
#include "Harness.h"
#include "IPCS/ECIPCClient.h"
#include "LogCapture.h"
#include "PrivateBus.h"
#include "TemporaryFolder.h"

namespace {

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
  IESGEMS* proxy = ESGEMSProxy::GetInstance(EIIPCConnection::GetInstance(), callback);
  const std::lock_guard<std::mutex> lock(mutex);
  return **known.insert(proxy).first;
}

TEST(EventsOnTheBus, ArriveInOrderAndAllOfThemInAStorm) {
  constexpr int kEvents = kSanitized ? 20000 : 100000;
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
      const auto add = [] { return EIIPCConnection::GetInstance()->AddMatchRule(9); };
      EXPECT_TRUE(std::async(std::launch::async, add).get());
      sent.get_future().wait();  // all others pile up behind a slow callback
    }
    expected += data.m_param1 == expected && data.m_param3 == -expected ? 1 : 0;
    return 0;
  });
  EXPECT_EQ(proxy.SubscribeSignal(5) + proxy.SubscribeSignal(6), 0);
  const MainLoopThread loop;
  RawPeer peer;
  auto others = Threads(2, [&](int thread) {
    for (int i = 0; i < 500; ++i) {
      EXPECT_EQ(&Proxy(Callback(thread)), &proxy);
      EXPECT_EQ(proxy.SubscribeSignal(7 + thread), 0);
      EXPECT_EQ(proxy.UnsubscribeSignal(7 + thread), 0);
    }
  });
  for (int i = 0; i < kEvents; ++i) {
    peer.Send(MakeSignal("Event", 5, Integers({i, 0, -i})));
  }
  peer.Send(MakeSignal("Event", 6, ""));
  sent.set_value();
  EXPECT_EQ(inOrder.get_future().get(), kEvents);
  Join(others);
}

TEST(EventsOnTheBus, MayHaveTheirProxyReplacedFromInsideTheCallbackAndFromOtherThreads) {
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
  const std::string own = EIIPCConnection::GetInstance()->GetConnectionId();
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

TEST(BusDeath, LeavesTheProcessAliveAndTheLoopQuiet) {
  ESGMessageBuffer payload = Payload("x");
  IESGEMS& proxy = Proxy(Callback(1));
  EXPECT_EQ(proxy.SubscribeSignal(5), 0);
  std::atomic<bool> done{false};
  auto users = Threads(2, [&](int thread) {
    while (!done) {
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
    done = true;
    Join(users);

    const std::clock_t before = std::clock();
    std::promise<void> second;
    const auto onTimer = [](gpointer promise) {
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
  const Stopwatch stopwatch;
  EXPECT_EQ(Call("m", std::string(1 << 20, 'x')), (Answer{-1, ""}));
  EXPECT_EQ(Call("m", ""), (Answer{-1, ""}));
  EXPECT_EQ(log_capture::Count("> pending == NULL \n"), 1);
  EXPECT_LT(stopwatch.Milliseconds(), 500);
  EXPECT_TRUE(ECIPCClient::GetInstance()->Send(5, payload));
}

TEST(Locale, OfTheApplicationChangesNoNumber) {
  const TemporaryFolder folder;
  ChildProgram({"localedef", "-i", "de_DE", "-f", "UTF-8", folder.path / "de_DE.UTF-8"}).Wait();
  setenv("LOCPATH", folder.path.c_str(), 1);
  if (std::setlocale(LC_ALL, "de_DE.UTF-8") == nullptr) {
    GTEST_SKIP() << "no locale with a decimal comma";
  }
  ASSERT_STREQ(std::localeconv()->decimal_point, ",");
  EXPECT_EQ(Proxy(Callback(1)).SubscribeSignal(1234567), 0);
  const MainLoopThread loop;
  ESGMessageBuffer payload = Payload(Integers({-7654321, 0, 1}));
  EXPECT_TRUE(TheEmitter().Send(1234567, payload));
  EXPECT_EQ(Deliveries().Next(), (Delivery{1, 1234567, -7654321, 0, 1}));
}

}  // namespace
