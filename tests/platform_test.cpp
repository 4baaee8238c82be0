#include "Platform.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <utility>

namespace {

/// Tells what a process that does `what` writes to its standard error. ESG_LOG is `level`, if it is
/// not null.
void ExpectWritten(const char* level, const std::function<void()>& what,
                   const testing::Matcher<const std::string&>& text, bool isJournal = false) {
  const auto run = [&] {
    struct stat stream {};
    fstat(STDERR_FILENO, &stream);
    const auto inode = isJournal ? stream.st_ino : stream.st_ino + 1;
    const std::string journal = std::to_string(stream.st_dev) + ":" + std::to_string(inode);
    setenv("JOURNAL_STREAM", journal.c_str(), 1);
    level == nullptr ? unsetenv("ESG_LOG") : setenv("ESG_LOG", level, 1);
    what();
    std::exit(0);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), text);
}

void Error(const std::string& message) {
  __dlog_print(ESG_LOG_BUFFER_MAIN, ESG_LOG_PRIORITY_ERROR, "esg", "%s", message.c_str());
}

void OneOfEach() {
  __dlog_print(ESG_LOG_BUFFER_MAIN, ESG_LOG_PRIORITY_ERROR, "esg", "e%d\n", 1);
  __dlog_print(ESG_LOG_BUFFER_MAIN, ESG_LOG_PRIORITY_INFO, "esg", "%s", "i");
  __dlog_print(ESG_LOG_BUFFER_MAIN, 3, "esg", "d");
  _FCAssert("a > b", "src/x.cpp", 7);
}

TEST(PlatformLog, WritesWhatTheEnvironmentAsksFor) {
  const std::string broken = "A/esg: src/x.cpp:7: broken invariant: a > b\n";
  for (const char* level : {static_cast<const char*>(nullptr), "error", "no such"}) {
    ExpectWritten(level, OneOfEach, "E/esg: e1\n" + broken);
  }
  ExpectWritten("info", OneOfEach, "E/esg: e1\nI/esg: i\n" + broken);
  ExpectWritten("debug", OneOfEach, "E/esg: e1\nI/esg: i\nD/esg: d\n" + broken);
  ExpectWritten("none", OneOfEach, broken);
  ExpectWritten("debug", OneOfEach, "<3>E/esg: e1\n<6>I/esg: i\n<7>D/esg: d\n<2>" + broken, true);
}

TEST(PlatformLog, MakesEveryMessageOneHarmlessLine) {
  const std::string full(4095 - std::string("<3>E/esg: \n").size(), 'x');
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},
      {"end\n\n", "end"},
      {"a\nE/esg: forged\r\x1b[2J\x7f\t.", "a E/esg: forged  [2J  ."},
      {"\xC2\x9B[m caf\xC3\xA9 \xE7\x95\xAA", "  [m caf\xC3\xA9 \xE7\x95\xAA"},
      {full, full},
      {full + "yz", full + "..."},
      {full.substr(2) + "\xE7\x95\xAA\xE7\x95\xAA", full.substr(2) + "..."},
  };
  for (const auto& [message, line] : cases) {
    ExpectWritten(
        nullptr, [&text = message] { Error(text); }, "E/esg: " + line + "\n");
  }
}

}  // namespace
