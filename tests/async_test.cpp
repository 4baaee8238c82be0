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

TEST_F(Async, AnswersComeInTheirOrderOnTheMainThread) {
  GuideService guide;
  std::vector<MessagePtr> calls;
  for (const char* id : {"held a", "held b", "held c"}) {
    Ask(id);
    calls.push_back(guide.NextCall());
  }
  std::thread([] { Ask("held d"); }).join();
  calls.push_back(guide.NextCall());
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
  std::atomic<bool> isDone{false};
  auto callers = Threads(4, [&](int) {
    while (!isDone) {
      AskAndWait("blocking");
    }
  });
  // A callback that waits for another request in a nested loop, and one that blocks.
  Ask("first", [&] {
    Ask("second");
    IterateUntil(2);
    AskAndWait("blocking", 10);
  });
  IterateUntil([] { return Trace::count == 0; });
  EXPECT_EQ(results, (Titles{"first", "second"}));
  results.clear();
  for (int i = 0; i < 1000; ++i) {
    Ask(std::to_string(i), [i] { AskAndWait("blocking", i % 100 == 0 ? 1 : 0); });
  }
  IterateUntil(1000);
  for (int i = 0; i < 1000; ++i) {
    EXPECT_EQ(results[static_cast<std::size_t>(i)], std::to_string(i));
  }
  // The caller that reads for all finds replies to requests, which the main loop delivers.
  Ask("held");
  guide.Release();
  AskAndWait("blocking");
  IterateUntil(1001);
  isDone = true;
  Join(callers);
  // So do replies that are large enough to make libdbus stop reading.
  for (int i = 0; i < 4; ++i) {
    Ask("large");
  }
  AskAndWait("blocking");
  IterateUntil(1005);
  EXPECT_EQ(Trace::count, 0);
}

TEST_F(Async, WhatIsCancelledIsNotCalled) {
  GuideService guide;
  const ESGAsync::Identifier sent = Ask("held sent");
  const MessagePtr call = guide.NextCall();
  EXPECT_TRUE(ESGAsync::Cancel(sent));
  EXPECT_FALSE(ESGAsync::Cancel(sent));
  EXPECT_FALSE(ESGAsync::Cancel(0));
  guide.Peer().Send(GuideService::ShowId(call.get(), ReadBody(call.get())));  // reaches nobody
  // A callback cancels itself, one that is answered as well, and one that is not.
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
  guide.Release();
  guide.Release();
  Ask("last");
  AskAndWait("sentinel");  // reads them all before the main loop does
  IterateUntil(2);
  EXPECT_EQ(results, (Titles{"held own", "last"}));
  // Another thread cancels, and the main thread destroys the callback.
  const ESGAsync::Identifier other = Ask("held other");
  std::thread([other] { EXPECT_TRUE(ESGAsync::Cancel(other)); }).join();
  EXPECT_EQ(Trace::count, 1);
  IterateUntil([] { return Trace::count == 0; });
}

TEST_F(Async, RequestsBeyondWhatTheBusLetsWaitTakeTheirTurn) {
  GuideService guide;
  RawPeer other;
  const auto ask = [](int count) {
    std::vector<ESGAsync::Identifier> asked(static_cast<std::size_t>(count));
    for (ESGAsync::Identifier& each : asked) {
      each = Ask("held");
    }
    return asked;
  };
  const auto release = [&guide](int count) {
    for (int i = 0; i < count; ++i) {
      guide.Release();
    }
  };
  std::vector<ESGAsync::Identifier> asked = ask(2 * kMaxOutstanding);
  EXPECT_TRUE(guide.Peer().WaitForCalls(kMaxOutstanding));
  EXPECT_NE(other.Call(MakeCall(kESGServiceName, "GetPresentProgram", "{}")), nullptr);
  EXPECT_EQ(guide.Peer().Calls(), kMaxOutstanding + 1);  // and that one
  for (std::size_t i = 0; i < asked.size(); i += 2) {    // half of them are sent
    EXPECT_TRUE(ESGAsync::Cancel(asked[i]));
  }
  release(kMaxOutstanding);
  IterateUntil(kMaxOutstanding / 2);
  release(kMaxOutstanding / 2);
  IterateUntil(kMaxOutstanding);
  EXPECT_EQ(results, Titles(kMaxOutstanding, "held"));
  EXPECT_EQ(Trace::count, 0);
  EXPECT_EQ(log_capture::Count("calls were given up"), 0);

  // Cancelling makes no room for requests that are cancelled next.
  const int before = guide.Peer().Calls();
  for (const ESGAsync::Identifier each : ask(4 * kMaxOutstanding)) {
    EXPECT_TRUE(ESGAsync::Cancel(each));
  }
  release(kMaxOutstanding);
  Ask("last");
  IterateUntil(kMaxOutstanding + 1);
  EXPECT_LE(guide.Peer().Calls(), before + kMaxOutstanding + 10);
}

TEST_F(Async, ManyRequestsAndCallsLeaveNothingBehind) {
  const GuideService guide;
  const auto batch = [](std::size_t count) {
    results.clear();
    log_capture::Clear();
    auto callers = Threads(8, [](int) { AskAndWait("blocking", 500); });
    std::vector<ESGAsync::Identifier> asked(count);
    for (std::size_t i = 0; i < count; ++i) {
      asked[i] = Ask("x");
    }
    for (std::size_t i = 0; i < count; i += 2) {
      EXPECT_TRUE(ESGAsync::Cancel(asked[i]));
    }
    IterateUntil([&] { return results.size() >= count / 2 && Trace::count == 0; });
    Join(callers);
  };
  batch(5000);
  batch(5000);
  const int descriptors = OpenDescriptors();
  const long memory = ResidentKiB();
  for (int i = 0; i < (kSanitized ? 2 : 20); ++i) {
    batch(5000);
  }
  EXPECT_EQ(OpenDescriptors(), descriptors);
  if (!kSanitized) {  // which keep what is freed
    EXPECT_LT(ResidentKiB(), memory + 8192);
  }
}

TEST_F(Async, AllEndInOrderWhenTheBusGoes) {
  auto guide = std::make_unique<GuideService>();
  Ask(kMaxOutstanding + 10, "held");
  EXPECT_TRUE(guide->Peer().WaitForCalls(kMaxOutstanding));
  guide.reset();
  IterateUntil(1);  // the bus answers for the service
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
