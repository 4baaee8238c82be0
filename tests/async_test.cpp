#include <gtest/gtest.h>
#include <json/json.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ESGAPI.h"
#include "ESGAsync.h"
#include "Harness.h"
#include "IESGService.h"
#include "LogCapture.h"
#include "PrivateBus.h"
#include "RawPeer.h"

namespace {

using esg::internal::MessagePtr;

constexpr int kMaxOutstanding = 120;

/// A guide service in which each service shows itself; an id that begins with "held" is answered
/// when it is told to, "large" with 20 MiB.
class GuideService {
 public:
  int Calls() { return m_peer.Calls(); }
  bool WaitForCalls(int count) { return m_peer.WaitForCalls(count); }
  void Hold(int count) {
    for (int i = 0; i < count; ++i) {
      m_calls.push_back(m_held.Next());
    }
  }
  /// Answers a call that Hold() has counted.
  void Release(std::size_t index) { m_peer.Send(Answer(m_calls[index].get())); }

 private:
  static std::string Id(DBusMessage* call) {
    Json::Value arguments;
    std::istringstream(ReadBody(call).bytes) >> arguments;
    return arguments["global_service_id"].asString();
  }
  static MessagePtr Answer(DBusMessage* call) {
    const std::string id = Id(call);
    const std::string title = id == "large" ? std::string(20U << 20U, 'x') : id;
    return MakeReply(call, 1, R"({"ret":true,"title":")" + title + "\"}");
  }
  MessagePtr Serve(DBusMessage* call) {
    if (Id(call).rfind("held", 0) != 0) {
      return Answer(call);
    }
    m_held.Put(MessagePtr(dbus_message_ref(call)));
    return nullptr;
  }

  Inbox<MessagePtr> m_held;
  std::vector<MessagePtr> m_calls;
  RawPeer m_peer{kESGServiceName, [this](DBusMessage* call) { return Serve(call); }};
};

/// What came back, in order: titles, or reasons as numbers.
std::vector<std::string> results;
const std::thread::id kMainThread = std::this_thread::get_id();

/// Counts the callbacks that exist, and that all end on the main thread.
struct Trace {
  Trace() { ++count; }
  Trace(const Trace&) = delete;
  Trace& operator=(const Trace&) = delete;
  ~Trace() {
    EXPECT_EQ(std::this_thread::get_id(), kMainThread);
    --count;
  }
  static std::atomic<int> count;
};
std::atomic<int> Trace::count{0};

ESGAsync::Identifier Ask(
    const std::string& id, std::function<void()> then = [] {}) {
  auto trace = std::make_shared<Trace>();
  return ESGAsync::GetPresentProgram(id, [trace = std::move(trace), then = std::move(then)](
                                             const ESGFailure& failure,
                                             const FCESGProgramInfo& program) {
    EXPECT_EQ(std::this_thread::get_id(), kMainThread);
    results.push_back(failure ? std::to_string(static_cast<int>(failure.reason)) : program.Title());
    then();
  });
}

void IterateUntil(const std::function<bool()>& condition) {
  while (!condition()) {
    g_main_context_iteration(nullptr, TRUE);
  }
}
void IterateUntil(std::size_t count) {
  IterateUntil([count] { return results.size() >= count; });
}

using Titles = std::vector<std::string>;
Titles Repeat(int count, const std::string& title) {
  return Titles(static_cast<std::size_t>(count), title);
}

TEST(Async, AnswersComeInTheirOrderOnTheMainThread) {
  GuideService guide;
  for (const char* id : {"held a", "held b", "held c"}) {
    Ask(id);
  }
  std::thread([] { Ask("held d"); }).join();
  EXPECT_EQ(Trace::count, 4);
  guide.Hold(4);
  for (const std::size_t index : {1U, 3U, 2U, 0U}) {
    guide.Release(index);
  }
  IterateUntil(4);
  EXPECT_EQ(results, (Titles{"held b", "held d", "held c", "held a"}));
  EXPECT_EQ(Trace::count, 0);
}

TEST(Async, CallersThatBlockAndNestedLoopsGoOnBesideRequests) {
  GuideService guide;
  IESGService* service = ESGAPI::GetESGServiceAPI();
  const auto block = [service](int count) {
    for (int i = 0; i < count; ++i) {
      FCESGProgramInfo program;
      EXPECT_TRUE(service->GetPresentProgram("blocking", program));
      EXPECT_EQ(program.Title(), "blocking");
    }
  };
  std::atomic<bool> isDone{false};
  auto callers = Threads(4, [&](int) {
    while (!isDone) {
      block(1);
    }
  });
  // A callback that waits for another request in a nested loop, and one that blocks.
  Ask("first", [&] {
    Ask("second");
    IterateUntil([] { return results.size() == 2 && results[1] == "second"; });
    block(10);
  });
  IterateUntil(2);
  results.clear();
  for (int i = 0; i < 1000; ++i) {
    Ask(std::to_string(i), [&block, i] { block(i % 100 == 0 ? 1 : 0); });
  }
  IterateUntil(1000);
  for (int i = 0; i < 1000; ++i) {
    EXPECT_EQ(results[static_cast<std::size_t>(i)], std::to_string(i));
  }
  // The caller that reads for all finds answers that the main loop is asked for.
  Ask("held");
  guide.Hold(1);
  guide.Release(0);
  block(1);
  IterateUntil(1001);
  isDone = true;
  Join(callers);
  EXPECT_EQ(Trace::count, 0);
}

TEST(Async, WhatIsCancelledIsNotCalled) {
  GuideService guide;
  const ESGAsync::Identifier sent = Ask("held sent");
  guide.Hold(1);
  EXPECT_TRUE(ESGAsync::Cancel(sent));
  EXPECT_FALSE(ESGAsync::Cancel(sent));
  EXPECT_FALSE(ESGAsync::Cancel(0));
  guide.Release(0);  // reaches nobody
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
  guide.Hold(3);
  guide.Release(1);
  guide.Release(2);
  Ask("last");
  FCESGProgramInfo program;  // reads them all before the main loop does
  EXPECT_TRUE(ESGAPI::GetESGServiceAPI()->GetPresentProgram("sentinel", program));
  IterateUntil(2);
  EXPECT_EQ(results, (Titles{"held own", "last"}));
  // Another thread cancels, and the main thread destroys the callback.
  const ESGAsync::Identifier other = Ask("held other");
  std::thread([other] { EXPECT_TRUE(ESGAsync::Cancel(other)); }).join();
  EXPECT_EQ(Trace::count, 1);
  IterateUntil([] { return Trace::count == 0; });
}

TEST(Async, RequestsBeyondWhatTheBusLetsWaitTakeTheirTurn) {
  GuideService guide;
  RawPeer other;
  ESGAsync::Identifier asked[2 * kMaxOutstanding];
  for (ESGAsync::Identifier& each : asked) {
    each = Ask("held");
  }
  guide.Hold(kMaxOutstanding);
  EXPECT_NE(other.Call(MakeCall(kESGServiceName, "GetPresentProgram", "{}")), nullptr);
  EXPECT_EQ(guide.Calls(), kMaxOutstanding + 1);  // and that one
  for (int i = 0; i < kMaxOutstanding / 2; ++i) {
    EXPECT_TRUE(ESGAsync::Cancel(asked[2 * i]));  // these are sent
    EXPECT_TRUE(ESGAsync::Cancel(asked[kMaxOutstanding + 2 * i]));
  }
  for (std::size_t i = 0; i < kMaxOutstanding; ++i) {
    guide.Release(i);
  }
  IterateUntil(kMaxOutstanding / 2);
  guide.Hold(kMaxOutstanding / 2);
  for (std::size_t i = 0; i < kMaxOutstanding / 2; ++i) {
    guide.Release(kMaxOutstanding + i);
  }
  IterateUntil(kMaxOutstanding);
  EXPECT_EQ(results, Repeat(kMaxOutstanding, "held"));
  EXPECT_EQ(Trace::count, 0);
  EXPECT_EQ(log_capture::Count("calls were given up"), 0);
}

TEST(Async, CancellingMakesNoRoomForRequestsThatAreCancelledNext) {
  GuideService guide;
  ESGAsync::Identifier asked[4 * kMaxOutstanding];
  for (ESGAsync::Identifier& each : asked) {
    each = Ask("held");
  }
  for (const ESGAsync::Identifier each : asked) {
    EXPECT_TRUE(ESGAsync::Cancel(each));
  }
  guide.Hold(kMaxOutstanding);
  for (std::size_t i = 0; i < kMaxOutstanding; ++i) {
    guide.Release(i);
  }
  Ask("last");
  IterateUntil(1);
  EXPECT_LE(guide.Calls(), kMaxOutstanding + 10);
}

TEST(Async, LargeAnswersThatWaitForTheMainLoopHoldUpNobody) {
  GuideService guide;
  for (int i = 0; i < 4; ++i) {
    Ask("large");
  }
  FCESGProgramInfo program;  // on the main thread, so that they wait for this query
  EXPECT_TRUE(ESGAPI::GetESGServiceAPI()->GetPresentProgram("blocking", program));
  IterateUntil(4);
}

TEST(Async, ManyRequestsLeaveNothingBehind) {
  GuideService guide;
  const auto batch = [](int count) {
    results.clear();
    log_capture::Clear();
    std::vector<ESGAsync::Identifier> asked(static_cast<std::size_t>(count));
    for (ESGAsync::Identifier& each : asked) {
      each = Ask("x");
    }
    for (std::size_t i = 0; i < asked.size(); i += 2) {
      EXPECT_TRUE(ESGAsync::Cancel(asked[i]));
    }
    IterateUntil([count] {
      return results.size() >= static_cast<std::size_t>(count) / 2 && Trace::count == 0;
    });
  };
  constexpr int kBatch = 5000;
  batch(kBatch);
  const int descriptors = OpenDescriptors();
  const long memory = ResidentKiB();
  for (int i = 0; i < (kSanitized ? 2 : 20); ++i) {
    batch(kBatch);
  }
  EXPECT_EQ(OpenDescriptors(), descriptors);
  if (!kSanitized) {
    EXPECT_LT(ResidentKiB(), memory + 4096);
  }
}

TEST(AsyncNoBus, AllEndInOrderWhenTheBusGoes) {
  TestBus().Start();
  auto guide = std::make_unique<GuideService>();
  for (int i = 0; i < kMaxOutstanding + 10; ++i) {
    Ask("held");
  }
  guide->Hold(kMaxOutstanding);
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

TEST(AsyncSlow, EndAfterTheTimeLimit) {
  GuideService guide;
  const Stopwatch stopwatch;
  for (int i = 0; i < kMaxOutstanding + 10; ++i) {
    Ask("held");
  }
  IterateUntil(kMaxOutstanding + 10);
  EXPECT_GE(stopwatch.Milliseconds(), 25000);
  EXPECT_LT(stopwatch.Milliseconds(), 40000);
  EXPECT_EQ(results, Repeat(kMaxOutstanding + 10, "4"));
  Ask("good");
  IterateUntil(kMaxOutstanding + 11);
  EXPECT_EQ(results.back(), "good");
}

TEST(AsyncSlow, ManyThatAreLateEndTogether) {
  GuideService guide;
  constexpr int kCount = 30000;
  for (int i = 0; i < kCount; ++i) {
    Ask("held");
  }
  IterateUntil(1);
  const Stopwatch stopwatch;
  IterateUntil(kCount);
  EXPECT_LT(stopwatch.Milliseconds(), kSanitized ? 60000 : 10000);
}

TEST(AsyncSlow, LateRequestsOfALoopThatDoesNotRunStopNoCallerThatBlocks) {
  GuideService guide;
  for (int i = 0; i < kMaxOutstanding; ++i) {
    Ask("held");
  }
  IESGService* service = ESGAPI::GetESGServiceAPI();
  FCESGProgramInfo program;
  service->GetPresentProgram("blocking", program);  // its time limit is theirs
  EXPECT_TRUE(service->GetPresentProgram("blocking", program));
  IterateUntil(kMaxOutstanding);
}

}  // namespace
