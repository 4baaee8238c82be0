#include "BusTest.h"
#include "ESGAPI.h"
#include "Requests.h"

namespace {

using namespace esg::test;
using Async = OnBus;

void AskAndWait(const char* id, int count = 1) {
  for (int i = 0; i < count; ++i) {
    FCESGProgramInfo program;
    EXPECT_TRUE(ESGAPI::GetESGServiceAPI()->GetPresentProgram(id, program));
    EXPECT_EQ(program.Title(), id);
  }
}

void Release(GuideService& guide, int count) {
  for (int i = 0; i < count; ++i) {
    guide.Release();
  }
}

TEST_F(Async, RepliesAreDeliveredInOrderOfArrivalOnTheMainThread) {
  GuideService guide;
  std::vector<MessagePtr> calls;
  for (const char* id : {"held a", "held b", "held c", "held d"}) {
    std::thread([id] { Ask(id); }).join();
    calls.push_back(guide.NextCall());
  }
  EXPECT_EQ(Trace::count, 4);
  for (const std::size_t index : {1U, 3U, 2U, 0U}) {
    guide.Peer().Send(GuideService::ShowId(calls[index].get(), ReadBody(calls[index].get())));
  }
  IterateUntil(4);
  EXPECT_EQ(results, (Titles{"held b", "held d", "held c", "held a"}));
  EXPECT_EQ(Trace::count, 0);
}

TEST_F(Async, CallersThatBlockAndNestedLoopsGoOnBesideRequests) {
  GuideService guide;
  AskAndWait("blocking");  // threads that create the process-wide object at once may each make one
  std::atomic<bool> isDone{false};
  auto callers = Threads(4, [&](int) {
    while (!isDone) {
      AskAndWait("blocking");
    }
  });
  Ask("first", [&] {
    Ask("second");
    IterateUntil(2);
    AskAndWait("blocking", 10);
  });
  IterateUntil([] { return Trace::count == 0; });
  EXPECT_EQ(results, (Titles{"first", "second"}));
  isDone = true;
  Join(callers);
  // A caller that reads for all finds replies to requests.
  Ask(4, "fourfold");
  AskAndWait("blocking");
  IterateUntil(6);
  EXPECT_EQ(Trace::count, 0);
}

TEST_F(Async, CancelledRequestsAreNotDelivered) {
  GuideService guide;
  const ESGAsync::Identifier sent = Ask("held sent");
  const MessagePtr call = guide.NextCall();
  EXPECT_TRUE(ESGAsync::Cancel(sent));
  EXPECT_FALSE(ESGAsync::Cancel(sent));
  EXPECT_FALSE(ESGAsync::Cancel(0));
  guide.Peer().Send(GuideService::ShowId(call.get(), ReadBody(call.get())));  // to nobody
  // A callback cancels itself, a request whose reply has arrived, and one without a reply.
  ESGAsync::Identifier own = 0;
  ESGAsync::Identifier answered = 0;
  ESGAsync::Identifier open = 0;
  own = Ask("held own", [&] {
    EXPECT_FALSE(ESGAsync::Cancel(own));
    EXPECT_TRUE(ESGAsync::Cancel(answered));
    EXPECT_TRUE(ESGAsync::Cancel(open));
    EXPECT_EQ(Trace::count, 2);  // its own and the last
  });
  answered = Ask("held answered");
  open = Ask("held open");
  Release(guide, 2);
  Ask("last");
  AskAndWait("sentinel");  // reads all replies before the main loop does
  IterateUntil(2);
  EXPECT_EQ(results, (Titles{"held own", "last"}));
  // The main thread destroys the callback that another thread cancels.
  const ESGAsync::Identifier other = Ask("held other");
  std::thread([other] { EXPECT_TRUE(ESGAsync::Cancel(other)); }).join();
  EXPECT_EQ(Trace::count, 1);
  IterateUntil([] { return Trace::count == 0; });
}

TEST_F(Async, RequestsBeyondTheLimitOfTheBusWaitForTheirTurn) {
  GuideService guide;
  RawPeer other;
  const auto ask = [](int count) {
    std::vector<ESGAsync::Identifier> asked(static_cast<std::size_t>(count));
    std::generate(asked.begin(), asked.end(), [] { return Ask("held"); });
    return asked;
  };
  const std::vector<ESGAsync::Identifier> asked = ask(2 * kMaxOutstanding);
  EXPECT_TRUE(guide.Peer().WaitForCalls(kMaxOutstanding));
  EXPECT_NE(other.Call(MakeCall(kESGServiceName, "GetPresentProgram", "{}")), nullptr);
  EXPECT_EQ(guide.Peer().Calls(), kMaxOutstanding + 1);  // and that of the other
  for (std::size_t i = 0; i < asked.size(); i += 2) {    // half of them are sent
    EXPECT_TRUE(ESGAsync::Cancel(asked[i]));
  }
  Release(guide, kMaxOutstanding);
  IterateUntil(kMaxOutstanding / 2);
  Release(guide, kMaxOutstanding / 2);
  IterateUntil(kMaxOutstanding);
  EXPECT_EQ(results, Titles(kMaxOutstanding, "held"));
  EXPECT_EQ(Trace::count, 0);
  EXPECT_EQ(log_capture::Count("calls were given up"), 0);
}

TEST_F(Async, AllRequestsEndInOrderWhenTheBusEnds) {
  auto guide = std::make_unique<GuideService>();
  Ask(kMaxOutstanding + 10, "held");
  EXPECT_TRUE(guide->Peer().WaitForCalls(kMaxOutstanding));
  guide.reset();
  IterateUntil(1);  // the bus replies for the service
  EXPECT_EQ(results[0], "4");
  TestBus().Kill();
  Ask("on its way");
  IterateUntil(kMaxOutstanding + 11);
  bool isDone = false;
  Ask("too late", [&isDone] { isDone = true; });
  EXPECT_FALSE(isDone);
  IterateUntil([&isDone] { return isDone; });
  EXPECT_EQ(Titles(results.end() - 2, results.end()), (Titles{"2", "2"}));
  EXPECT_EQ(Trace::count, 0);
  EXPECT_EQ(log_capture::Count("pending == NULL"), 1);
}

}  // namespace
