#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

#include "LogCapture.h"
#include "PrivateBus.h"

namespace {

/// Has the bus there before a test, and tells what was logged when one fails.
class Surroundings : public testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo& test) override {
    PrivateBus& bus = TestBus();
    if (!bus.Runs() && std::strstr(test.test_suite_name(), "NoBus") == nullptr) {
      bus.Start();
    }
  }

  void OnTestEnd(const testing::TestInfo& test) override {
    if (test.result()->Failed()) {
      for (const log_capture::Line& line : log_capture::Lines()) {
        std::fprintf(stderr, "log %d: %s\n", line.priority, line.text.c_str());
      }
    }
  }
};

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  testing::UnitTest::GetInstance()->listeners().Append(new Surroundings);
  return RUN_ALL_TESTS();
}
