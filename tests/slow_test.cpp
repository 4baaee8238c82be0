#include "BusTest.h"
#include "ESGAPI.h"
#include "ESGEMSProxy.h"
#include "ESGFailure.h"
#include "IPCS/ECIPCClient.h"
#include "IPCS/ECIPCConnection.h"
#include "IPCS/ECNativeConnection.h"
#include "Requests.h"

// Tests that wait for a time limit: 25 seconds for a reply, 60 for a bus.

namespace {

using namespace esg::test;
using TimeLimit = OnBus;
using TimeLimitWithoutBus = testing::Test;

constexpr int kNoAnswer = static_cast<int>(ESGFailureReason::NoAnswer);

TEST_F(TimeLimitWithoutBus, AClientEndsItsProcessAfterSixtyPauses) {
  EXPECT_DEATH(Connection(),
               "^(ECIPCConnection.cpp: m_Connect\\([0-9]+\\) > Called\n"
               "[^\n]*Failed to connect[^\n]*\n){61}"
               "[^\n]*include_internal/IPCS/ECIPCConnection:[0-9]+:[^\n]*Assertion "
               "`m_pConnection' failed.\n");
}

TEST_F(TimeLimit, CallsWithoutReplyEndTogetherAndKeepTheirPlacesUntilALateReply) {
  constexpr int kCallers = kMaxOutstanding + 5;
  Service service;
  RawPeer other;
  const Stopwatch stopwatch;
  std::vector<std::future<Answer>> callers;
  for (int i = 0; i < kCallers; ++i) {
    callers.push_back(CallInThread("held", std::to_string(i)));
    EXPECT_TRUE(service.Peer().WaitForCalls(std::min(i + 1, kMaxOutstanding)));
  }
  const long started = stopwatch.Milliseconds();
  EXPECT_EQ(callers[0].get(), kFailure);
  EXPECT_GE(stopwatch.Milliseconds(), 25000);
  auto queued = CallInThread("echo", "queued");  // gets its turn when the others give up
  for (int i = 1; i < kCallers; ++i) {
    EXPECT_EQ(callers[static_cast<std::size_t>(i)].get(), kFailure);
  }
  EXPECT_EQ(queued.get(), (Answer{1, "queued"}));
  EXPECT_LT(stopwatch.Milliseconds(), started + 40000);  // not its own 25 s after theirs
  EXPECT_EQ(log_capture::Count(
                "Error.NoReply]: Did not receive a reply. Possible causes include: the remote "
                "application did not send a reply, the message bus security policy blocked the "
                "reply, the reply timeout expired, or the network connection was broken.\n"),
            kCallers);
  EXPECT_EQ(log_capture::Count("calls were given up; the bus counts them until "), 1);
  // Two at a time are still sent.
  const int sent = service.Peer().Calls() - 1;
  callers.clear();
  for (int i = 0; i < 3; ++i) {
    callers.push_back(CallInThread("held", "own"));
  }
  EXPECT_TRUE(service.Peer().WaitForCalls(sent + 3));
  EXPECT_NE(other.Call(MakeCall(kService, "echo", "sentinel")), nullptr);
  EXPECT_EQ(service.Peer().Calls(), sent + 4);
  // Late replies, which nobody waits for, make room.
  for (int i = 0; i < sent; ++i) {
    EXPECT_NE(service.Release(), "own");
  }
  EXPECT_TRUE(service.Peer().WaitForCalls(sent + 5));
  for (std::size_t i = 0; i < callers.size(); ++i) {
    EXPECT_EQ(service.Release(), "own");
  }
  for (auto& caller : callers) {
    EXPECT_EQ(caller.get(), (Answer{1, "own"}));
  }
}

TEST_F(TimeLimit, AStoppedBusFailsWhatWaitsForItAndNothingElse) {
  const GuideService guide;
  const Service echo;
  ECNativeConnection native;
  ASSERT_TRUE(native.Start("com.velmora.Own", nullptr));
  IESGEMS& proxy = *ESGEMSProxy::GetInstance(&Connection(), nullptr);
  EXPECT_EQ(proxy.SubscribeSignal(5) + proxy.SubscribeSignal(6), 0);
  EXPECT_EQ(Call("echo", "before"), (Answer{1, "before"}));
  TheEmitter();
  ECIPCClient::GetInstance();
  auto connection = std::make_unique<ECIPCConnection>();

  TestBus().Pause();
  Stopwatch stopwatch;
  ESGMessageBuffer payload = Payload("x");
  EXPECT_TRUE(TheEmitter().Send(5, payload));
  EXPECT_TRUE(ECIPCClient::GetInstance()->Send(5, payload));
  EXPECT_TRUE(ESGAsync::Cancel(Ask("cancelled")));
  Ask("late");
  EXPECT_LT(stopwatch.Milliseconds(), 5000);

  const std::function<bool()> operations[] = {
      [] { return Call("echo", "") != kFailure; },
      [] { return Connection().AddMatchRule(7); },
      [] { return Connection().RemoveMatchRule(7); },
      [&] { return proxy.SubscribeSignal(7) == 0; },
      [&] { return proxy.UnsubscribeSignal(6) == 0; },
      [&] { return native.Start("com.velmora.Own", nullptr); },
      [] {
        FCESGProgramInfo program;
        const bool isFound = ESGAPI::GetESGServiceAPI()->GetPresentProgram("id", program);
        EXPECT_EQ(ESGLastFailure().reason, ESGFailureReason::NoAnswer);
        return isFound;
      },
  };
  auto threads = Threads(static_cast<int>(std::size(operations)), [&](int i) {
    const Stopwatch own;
    EXPECT_FALSE(operations[i]()) << i;
    EXPECT_GE(own.Milliseconds(), 24900) << i;
    EXPECT_LT(own.Milliseconds(), 40000) << i;
  });
  // Opening a connection waits for as long as the bus is stopped.
  auto opening = std::async([] { return ECIPCConnection().GetConnectionId(); });
  const GSourceFunc tick = [](gpointer data) -> gboolean {
    auto& sinceLast = *static_cast<Stopwatch*>(data);
    EXPECT_LT(sinceLast.Milliseconds(), 5000) << "something blocks the main loop";
    sinceLast = Stopwatch();
    return G_SOURCE_CONTINUE;
  };
  stopwatch = Stopwatch();
  const guint timer = g_timeout_add(10, tick, &stopwatch);
  IterateUntil(1);
  g_source_remove(timer);
  EXPECT_EQ(results, Titles(1, std::to_string(kNoAnswer)));
  EXPECT_EQ(Trace::count, 0);
  Join(threads);
  auto closing = std::async([&connection] { connection.reset(); });
  EXPECT_EQ(closing.wait_for(std::chrono::seconds(5)), std::future_status::ready);

  TestBus().Resume();
  EXPECT_NE(opening.get(), "");
  EXPECT_EQ(Call("echo", "after"), (Answer{1, "after"}));
  EXPECT_TRUE(native.Start("com.velmora.Own", nullptr));
  EXPECT_EQ(proxy.SubscribeSignal(8), 0);
}

}  // namespace
