#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "ChildProgram.h"
#include "Harness.h"
#include "IESGService.h"

namespace {

/// Runs a program that ends in some way while this process serves its calls and sends events.
class ProcessEnd : public testing::Test {
 public:
  ~ProcessEnd() override {
    done = true;
    Join(sender);
  }

 protected:
  ProcessEnd() {
    setenv("MALLOC_PERTURB_", "170", 1);  // what is freed is overwritten
    peer.AddMatch("type='signal',interface='com.velmora.ESG.Signal',arg0='5'");
  }

  /// A number of runs, each of which ends with status 0.
  static void Run(const std::vector<std::string>& command, int runs) {
    for (int i = 0; i < runs && !HasFailure(); ++i) {
      const ChildProgram::Result end = ChildProgram(command, kPipe, kPipe).End();
      EXPECT_EQ(end.status, 0) << command.back() << ", run " << i << ":\n" << end.errors;
    }
  }
  void SendEvents() {
    sender = Threads(1, [&](int) {
      for (int i = 0; !done; ++i) {
        peer.Send(MakeSignal("Event", 5, Integers({1, 2, 3})));
        if (i >= 100) {  // under way at any time
          peer.NextSignal();
        }
      }
    });
  }

  static constexpr int kPipe = ChildProgram::kPipe;
  std::atomic<bool> done{false};
  std::vector<std::thread> sender;
  RawPeer peer;
};

/// With the service that the program calls.
class ProcessEndWithService : public ProcessEnd {
  RawPeer m_service{kService, [](DBusMessage* call) { return MakeReply(call, 1, ""); }};
};

TEST_F(ProcessEndWithService, MayComeInTheMiddleOfCalls) {
  for (const char* way : {"return-in-calls", "exit-in-calls"}) {
    Run({PROCESS_END, way}, kSanitized ? 10 : 100);
  }
}

TEST_F(ProcessEnd, MayComeWhileEventsArrive) {
  SendEvents();
  Run({PROCESS_END, "return-in-events"}, kSanitized ? 20 : 200);
}

TEST_F(ProcessEnd, MayComeInTheMiddleOfRequests) {
  Run({PROCESS_END, "return-in-requests"}, kSanitized ? 10 : 50);
  Run({PROCESS_END, "throw-in-request"}, 1);
}

TEST_F(ProcessEnd, LeavesRequestsTheirAnswersWhileThereIsAConnection) {
  const RawPeer guide(kESGServiceName, [](DBusMessage* call) {
    return MakeReply(call, 1, R"({"ret":true,"xmlFragment":"x"})");
  });
  Run({PROCESS_END, "request-in-atexit"}, 1);
}

TEST_F(ProcessEnd, KeepsRequestsFromTheirCallbacksThoughAnotherIsMade) {
  Run({PROCESS_END, "request-after-the-end"}, 1);
}

TEST_F(ProcessEnd, IsNoMatterToALibraryThatIsUnloadedWhileEventsArrive) {
  SendEvents();
  Run({UNLOAD, LIBRARY}, kSanitized ? 5 : 20);
}

TEST_F(ProcessEnd, DoesNotWaitForAListenerThatIsBusy) {
  ChildProgram program({PROCESS_END, "return-while-listener-is-busy"}, kPipe, kPipe);
  ASSERT_TRUE(program.WaitForLine("ends"));
  const Stopwatch stopwatch;
  const ChildProgram::Result end = program.End();
  EXPECT_EQ(end.status, 0) << end.errors;
  EXPECT_LT(stopwatch.Milliseconds(), kThreadSanitized ? 3000 : 1000);  // it sleeps at the end
}

TEST_F(ProcessEnd, OfAConnectionWhileItsCallbackIsBusy) {
  Run({PROCESS_END, "delete-while-callback-is-busy"}, 5);
}

int CountIn(const std::string& text, const std::string& part) {
  int count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

TEST_F(ProcessEndWithService, LeavesCallsThatFailWithTheirLine) {
  const auto end = ChildProgram({PROCESS_END, "call-after-the-end"}, kPipe, kPipe).End();
  EXPECT_EQ(end.status, 0) << end.errors;
  EXPECT_EQ(CountIn(end.errors, "ECIPCConnection.cpp: Call("), 3) << end.errors;
}

TEST_F(ProcessEnd, OfAForkedChildTouchesNothingOfItsParent) {
  if (!kForksSafely) {
    GTEST_SKIP() << "the address sanitizer does not support this fork";
  }
  const auto end = ChildProgram({PROCESS_END, "fork"}, kPipe, kPipe).End();
  EXPECT_EQ(end.status, 0) << end.errors;
  // The children that use the library.
  EXPECT_EQ(CountIn(end.errors, "ECIPCConnection.cpp: Call("), 10) << end.errors;
  EXPECT_EQ(CountIn(end.errors, "> Error while adding match rule: "), 10) << end.errors;
}

}  // namespace
