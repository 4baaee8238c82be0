#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

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

Titles Repeat(int count, int reason) {
  return Titles(static_cast<std::size_t>(count), std::to_string(reason));
}

// The client's connection ends its process; the service's ends report and go on. All three at once.
TEST_F(TimeLimitWithoutBus, ConnectingEndsAfterSixtyPauses) {
  const Stopwatch stopwatch;
  std::FILE* output = std::tmpfile();
  dbus_threads_init_default();  // both threads would do it, which libdbus allows
  const pid_t child = fork();
  if (child == 0) {
    dup2(fileno(output), STDERR_FILENO);
    log_capture::Echo();
    Connection();
    _exit(0);
  }
  auto threads = Threads(2, [](int which) {
    ESGMessageBuffer payload;
    if (which == 0) {
      EXPECT_TRUE(ECIPCBroadcaster().Send(5, payload));
    } else {
      EXPECT_FALSE(ECNativeConnection().Start(kService, nullptr));
    }
  });
  Join(threads);
  EXPECT_GE(stopwatch.Milliseconds(), 60000);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
  std::string said(1UL << 16, '\0');
  std::rewind(output);
  said.resize(std::fread(said.data(), 1, said.size(), output));
  EXPECT_THAT(said, testing::MatchesRegex(
                        "(ECIPCConnection.cpp: m_Connect\\([0-9]+\\) > Called\n"
                        "[^\n]*Failed to connect[^\n]*\n){61}"
                        "[^\n]*include_internal/IPCS/ECIPCConnection:[0-9]+:[^\n]*Assertion "
                        "`m_pConnection' failed.\n"));
  EXPECT_EQ(log_capture::Count("ECIPCManager.cpp: m_Connect"), 61);
  EXPECT_EQ(log_capture::Count("ECNativeConnection.cpp: Start"), 60 + 1);
  EXPECT_EQ(log_capture::Count("> ASSERT!, Func:ECIPCManager\n"), 1);
  EXPECT_EQ(log_capture::Count("> ASSERT!, Func:Start\n"), 1);
  EXPECT_THAT(log_capture::Assertions(), testing::SizeIs(2));
  for (const auto& assertion : log_capture::Assertions()) {
    EXPECT_EQ(assertion.expression, "m_pConnection");
    EXPECT_THAT(assertion.source, testing::StartsWith("include_internal/IPCS/EC"));
  }
}

/// Numbered calls that the service holds back, each made when the one before has arrived there.
std::vector<std::future<Answer>> HeldCalls(Service& service, int count) {
  std::vector<std::future<Answer>> callers;
  const int before = service.Peer().Calls();
  for (int i = 0; i < count; ++i) {
    callers.push_back(CallInThread("held", std::to_string(i)));
    EXPECT_TRUE(i >= 119 || service.Peer().WaitForCalls(before + i + 1));
  }
  return callers;
}

TEST_F(TimeLimit, CallsThatGaveUpEndTogetherAndKeepTheirPlacesUntilALateAnswer) {
  constexpr int kCallers = 125;
  Service service;
  RawPeer other;
  const Stopwatch stopwatch;
  auto callers = HeldCalls(service, kCallers);
  const long started = stopwatch.Milliseconds();
  EXPECT_EQ(callers[0].get(), kFailure);
  EXPECT_GE(stopwatch.Milliseconds(), 25000);
  auto queued = CallInThread("echo", "queued");  // only those who give up make room for it
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
  const int sent = service.Peer().Calls() - 1;
  // Two at a time still come through.
  EXPECT_EQ(Call("echo", "good"), (Answer{1, "good"}));
  callers.clear();
  for (int i = 0; i < 3; ++i) {
    callers.push_back(CallInThread("held", "own"));
  }
  EXPECT_TRUE(service.Peer().WaitForCalls(sent + 4));
  EXPECT_NE(other.Call(MakeCall(kService, "echo", "sentinel")), nullptr);
  EXPECT_EQ(service.Peer().Calls(), sent + 5);
  // Late replies, which have no receiver, make room.
  for (int i = 0; i < sent; ++i) {
    EXPECT_NE(service.Release(), "own");
  }
  EXPECT_TRUE(service.Peer().WaitForCalls(sent + 6));
  for (std::size_t i = 0; i < callers.size(); ++i) {
    EXPECT_EQ(service.Release(), "own");
  }
  for (auto& caller : callers) {
    EXPECT_EQ(caller.get(), (Answer{1, "own"}));
  }
}

TEST_F(TimeLimit, LateRequestsOfALoopThatDoesNotRunStopNoCallerThatBlocks) {
  const GuideService guide;
  const Stopwatch stopwatch;
  Ask(kMaxOutstanding, "held");
  IESGService* service = ESGAPI::GetESGServiceAPI();
  FCESGProgramInfo program;
  service->GetPresentProgram("blocking", program);  // its time limit is theirs
  EXPECT_TRUE(service->GetPresentProgram("blocking", program));
  IterateUntil(kMaxOutstanding);
  EXPECT_GE(stopwatch.Milliseconds(), 25000);
  EXPECT_EQ(results, Repeat(kMaxOutstanding, kNoAnswer));
  Ask("good");
  IterateUntil(kMaxOutstanding + 1);
  EXPECT_EQ(results.back(), "good");
}

TEST_F(TimeLimit, ManyLateRequestsEndTogether) {
  constexpr int kCount = 30000;
  const GuideService guide;
  Ask(kCount, "held");
  IterateUntil(1);
  const Stopwatch stopwatch;
  IterateUntil(kCount);
  EXPECT_LT(stopwatch.Milliseconds(), kSanitized ? 60000 : 10000);
  EXPECT_EQ(results, Repeat(kCount, kNoAnswer));
}

/// Every operation on connections that a bus has stopped serving.
TEST_F(TimeLimit, AStoppedBusFailsWhatWaitsForItAndNothingElse) {
  const GuideService guide;
  const Service echo;
  IESGService& service = *ESGAPI::GetESGServiceAPI();
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
  ESGAsync::GetProgramList("id", 0, 1, [](const ESGFailure& failure, const ESGProgramMap&) {
    results.push_back(std::to_string(static_cast<int>(failure.reason)));
  });
  Ask("late");
  EXPECT_LT(stopwatch.Milliseconds(), 5000);

  std::string id = "id";
  const auto query = [&](auto ask) -> std::function<bool()> {
    return [&service, ask, id]() mutable {
      FCESGProgramInfo program;
      std::string xml;
      const bool isFound = ask(service, id, program, xml);
      EXPECT_EQ(ESGLastFailure().reason, ESGFailureReason::NoAnswer);
      return isFound;
    };
  };
  const std::function<bool()> operations[] = {
      [] { return Call("echo", "") != kFailure; },
      [] { return Connection().AddMatchRule(7); },
      [] { return Connection().RemoveMatchRule(7); },
      [&] { return proxy.SubscribeSignal(7) == 0; },
      [&] { return proxy.UnsubscribeSignal(6) == 0; },
      [&] { return native.Start("com.velmora.Own", nullptr); },
      query([](auto& s, auto& i, auto& p, auto&) { return s.GetPresentProgram(i, p); }),
      query([](auto& s, auto& i, auto& p, auto&) { return s.GetProgramItem(i, "c", 0, p); }),
      query([](auto& s, auto&, auto& p, auto&) {
        return s.GetProgram(p, eRelative_Position_Next, p);
      }),
      query([](auto& s, auto& i, auto&, auto&) {
        ESGProgramMap programs;
        return s.GetProgramList(i, 0, 1, programs);
      }),
      query([](auto& s, auto& i, auto&, auto& x) { return s.GetServiceFragment(x, i, true); }),
      query(
          [](auto& s, auto& i, auto&, auto& x) { return s.GetScheduleFragment(x, i, 0, 1, true); }),
      query(
          [](auto& s, auto& i, auto&, auto& x) { return s.GetContentFragment(x, i, 0, 1, true); }),
      query([](auto& s, auto& i, auto&, auto&) { return s.SaveServiceFragment("p", i, true); }),
      query([](auto& s, auto& i, auto&, auto&) { return s.SaveScheduleFragment("p", i, true); }),
      query([](auto& s, auto& i, auto&, auto&) { return s.SaveContentFragment("p", i, true); }),
  };
  auto threads = Threads(static_cast<int>(std::size(operations)), [&](int i) {
    const Stopwatch own;
    EXPECT_FALSE(operations[i]()) << i;
    EXPECT_GE(own.Milliseconds(), 24900) << i;
    EXPECT_LT(own.Milliseconds(), 40000) << i;
  });
  // A connection is waited for as long as the bus takes.
  auto opening = std::async([] { return ECIPCConnection().GetConnectionId(); });
  const GSourceFunc tick = [](gpointer data) -> gboolean {
    auto& sinceLast = *static_cast<Stopwatch*>(data);
    EXPECT_LT(sinceLast.Milliseconds(), 5000) << "something holds the main loop up";
    sinceLast = Stopwatch();
    return G_SOURCE_CONTINUE;
  };
  stopwatch = Stopwatch();
  const guint timer = g_timeout_add(10, tick, &stopwatch);
  IterateUntil(2);
  g_source_remove(timer);
  EXPECT_EQ(results, Repeat(2, kNoAnswer));
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
