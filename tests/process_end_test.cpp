#include <regex>

#include "BusTest.h"

namespace {

using namespace esg::test;

/// Runs the program process_end while this process replies to its calls and sends it events.
class ProcessEnd : public OnBus {
 public:
  ~ProcessEnd() override {
    m_isDone = true;
    Join(m_sender);
  }

 protected:
  ProcessEnd() {
    m_peer.AddMatch("type='signal',interface='com.velmora.ESG.Signal',arg0='5'");
    m_sender = Threads(1, [&](int) {
      for (int i = 0; !m_isDone; ++i) {
        m_peer.Send(MakeSignal("Event", 5, Integers({1, 2, 3})));
        if (i >= 100) {  // a hundred are always on their way
          m_peer.NextSignal();
        }
      }
    });
  }
  /// Expects that the program ends well, in each of some runs. Returns what it writes in the last.
  static std::string Run(const std::string& way, int runs = 1) {
    setenv("MALLOC_PERTURB_", "170", 1);  // overwrites memory that is freed
    ChildProgram::Result end;
    for (int i = 0; i < runs && !HasFailure(); ++i) {
      ChildProgram program({PROCESS_END, way}, ChildProgram::kPipe, ChildProgram::kPipe);
      end = program.End();
      EXPECT_EQ(end.status, 0) << way << ", run " << i << ":\n" << end.errors;
    }
    return end.errors;
  }

 private:
  const Service m_service;
  RawPeer m_peer;
  std::atomic<bool> m_isDone{false};
  std::vector<std::thread> m_sender;
};

TEST_F(ProcessEnd, LeavesNothingHangingOrBroken) {
  Run("ReturnInUse", kSanitized ? 5 : 20);
  Run("ReturnWhileListenerIsBusy");
  const std::string log = Run("UseAfterTheEnd");
  const std::regex failure("Call\\([0-9]+\\) > pending == NULL");
  EXPECT_EQ(
      std::distance(std::sregex_iterator(log.begin(), log.end(), failure), std::sregex_iterator()),
      3);
}

TEST(Library, IsNeverUnloaded) {
  // The main loop, and threads that end, may still run its code.
  EXPECT_THAT(ChildProgram({"readelf", "--dynamic", LIBRARY}).End().output,
              testing::HasSubstr("NODELETE"));
}

}  // namespace
