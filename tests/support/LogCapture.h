#ifndef TESTS_LOG_CAPTURE_H
#define TESTS_LOG_CAPTURE_H

#include <string>
#include <string_view>
#include <vector>

/// The platform's log and assertion routine in a test: they remember what they are told.
namespace esg::test::log_capture {

struct Line {
  int priority;
  std::string tag;
  std::string text;     ///< All of it.
  std::string message;  ///< What follows file, function and line.
};

std::vector<Line> Lines();
/// How many lines have this in their text.
int Count(std::string_view part);
/// Waits until that many lines have it; false after ten seconds.
bool WaitFor(std::string_view part, int count = 1);

struct Assertion {
  std::string expression;
  std::string source;
};
std::vector<Assertion> Assertions();

void Clear();

/// Writes what comes from now on to standard error as well, for a test of a process that ends.
void Echo();

}  // namespace esg::test::log_capture

#endif
