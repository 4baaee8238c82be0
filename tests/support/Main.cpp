#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "ChildProgram.h"
#include "PrivateBus.h"

namespace {

using esg::test::ChildProgram;

/// Runs each test in its own process, as ctest does: a process has one set of connections and one
/// log, and libdbus reads the bus address once. Returns the number of tests that fail.
int RunEach() {
  int failures = 0;
  const testing::UnitTest& all = *testing::UnitTest::GetInstance();
  for (int i = 0; i < all.total_test_suite_count(); ++i) {
    const testing::TestSuite& suite = *all.GetTestSuite(i);
    for (int k = 0; k < suite.total_test_count(); ++k) {
      const std::string name = std::string(suite.name()) + "." + suite.GetTestInfo(k)->name();
      ChildProgram test({"/proc/self/exe", "--gtest_brief=1", "--gtest_filter=" + name},
                        STDOUT_FILENO);
      const bool hasFailed = test.Wait() != 0;
      std::printf("%s %s\n", hasFailed ? "FAILED" : "passed", name.c_str());
      failures += hasFailed ? 1 : 0;
    }
  }
  return failures;
}

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  if (testing::FLAGS_gtest_filter == "*" && !testing::FLAGS_gtest_list_tests) {
    return RunEach() == 0 ? 0 : 1;
  }
  esg::test::TestBus();
  return RUN_ALL_TESTS();
}
