#include "BusTest.h"

namespace {

using namespace esg::test;

struct Way {
  const char* name;  ///< An argument of the program process_end, or the path of another program.
  int runs;
  bool hasEvents;
  int callLines;  ///< How many calls fail with their line.
  friend void PrintTo(const Way& way, std::ostream* out) { *out << way.name; }
};

int CountIn(const std::string& text, const std::string& part) {
  int count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

/// Runs a program that ends in some way while this process replies to its calls and sends it
/// events. The program ends with status 0 where all went as it must.
class ProcessEnd : public OnBus, public testing::WithParamInterface<Way> {
 protected:
  void TearDown() override {
    m_isDone = true;
    Join(m_sender);
  }

  void SendEvents() {
    m_peer.AddMatch("type='signal',interface='com.velmora.ESG.Signal',arg0='5'");
    m_sender = Threads(1, [&](int) {
      for (int i = 0; !m_isDone; ++i) {
        m_peer.Send(MakeSignal("Event", 5, Integers({1, 2, 3})));
        if (i >= 100) {  // under way at any time
          m_peer.NextSignal();
        }
      }
    });
  }

 private:
  const Service m_service;
  RawPeer m_peer;
  std::atomic<bool> m_isDone{false};
  std::vector<std::thread> m_sender;
};

TEST_P(ProcessEnd, LeavesNothingHangingOrBroken) {
  const Way& way = GetParam();
  const std::string name = way.name;
  if (name == "Fork" && !kForksSafely) {
    GTEST_SKIP() << "the address sanitizer does not support this fork";
  }
  if (way.hasEvents) {
    SendEvents();
  }
  setenv("MALLOC_PERTURB_", "170", 1);  // what is freed is overwritten
  for (int i = 0; i <= way.runs / (kSanitized ? 10 : 1) && !HasFailure(); ++i) {
    ChildProgram program(
        {name == "Unload" ? UNLOAD : PROCESS_END, name == "Unload" ? LIBRARY : name},
        ChildProgram::kPipe, ChildProgram::kPipe);
    const ChildProgram::Result end = program.End();
    EXPECT_EQ(end.status, 0) << "run " << i << ":\n" << end.errors;
    EXPECT_EQ(way.callLines < 0 ? -1 : CountIn(end.errors, "ECIPCConnection.cpp: Call("),
              way.callLines)
        << end.errors;
  }
}

constexpr int kAnyNumber = -1;
INSTANTIATE_TEST_SUITE_P(, ProcessEnd,
                         testing::Values(Way{"ReturnInCalls", 100, false, kAnyNumber},
                                         Way{"ExitInCalls", 100, false, kAnyNumber},
                                         Way{"ReturnInEvents", 200, true, 0},
                                         Way{"ReturnInRequests", 50, false, kAnyNumber},
                                         Way{"ThrowInRequest", 0, false, kAnyNumber},
                                         Way{"RequestInAtExit", 0, false, kAnyNumber},
                                         Way{"RequestAfterTheEnd", 0, false, kAnyNumber},
                                         Way{"ReturnWhileListenerIsBusy", 0, false, kAnyNumber},
                                         Way{"DeleteWhileCallbackIsBusy", 5, true, 0},
                                         Way{"CallAfterTheEnd", 0, false, 3},
                                         Way{"Fork", 0, false, 10}, Way{"Unload", 20, true, 0}),
                         [](const auto& way) { return way.param.name; });

}  // namespace
