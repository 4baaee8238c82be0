#include "Platform.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>

namespace {

/// Expects that `what` writes `text` to standard error if ESG_LOG is `level`.
void ExpectWritten(const char* level, const std::function<void()>& what, const std::string& text) {
  const auto run = [&] {
    unsetenv("JOURNAL_STREAM");
    setenv("ESG_LOG", level, 1);
    what();
    std::exit(0);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), testing::Eq(text));
}

TEST(PlatformLog, WritesWhatTheEnvironmentAsksFor) {
  const auto oneOfEach = [] {
    __dlog_print(ESG_LOG_BUFFER_MAIN, ESG_LOG_PRIORITY_ERROR, "esg", "e%d\n", 1);
    __dlog_print(ESG_LOG_BUFFER_MAIN, ESG_LOG_PRIORITY_INFO, "esg", "%s", "i");
    _FCAssert("a > b", "src/x.cpp", 7);
  };
  const std::string broken = "A/esg: src/x.cpp:7: broken invariant: a > b\n";
  ExpectWritten("no such", oneOfEach, "E/esg: e1\n" + broken);
  ExpectWritten("info", oneOfEach, "E/esg: e1\nI/esg: i\n" + broken);
  ExpectWritten("none", oneOfEach, broken);
}

TEST(PlatformLog, MakesEveryMessageOneHarmlessLine) {
  const std::string full(4095 - std::string("<3>E/esg: \n").size(), 'x');
  const std::pair<std::string, std::string> cases[] = {
      {"end\n\n", "end"},
      {"a\nE/esg: forged\r\x1b[2J\x7f\t.", "a E/esg: forged  [2J  ."},
      {"\xC2\x9B[m caf\xC3\xA9 \xE7\x95\xAA", "  [m caf\xC3\xA9 \xE7\x95\xAA"},
      {full, full},
      {full + "yz", full + "..."},
      {full.substr(2) + "\xE7\x95\xAA\xE7\x95\xAA", full.substr(2) + "..."},
  };
  for (const auto& [message, line] : cases) {
    const auto write = [text = message] {
      __dlog_print(ESG_LOG_BUFFER_MAIN, ESG_LOG_PRIORITY_ERROR, "esg", "%s", text.c_str());
    };
    ExpectWritten("error", write, "E/esg: " + line + "\n");
  }
}

}  // namespace
