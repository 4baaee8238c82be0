#ifndef TESTS_LOG_CAPTURE_H
#define TESTS_LOG_CAPTURE_H

#include <string>
#include <string_view>
#include <vector>

/// The platform's log and assertion routine in a test. They write to standard error, and keep the
/// lines.
namespace esg::test::log_capture {

struct Line {
  int priority;
  std::string tag;  ///< "assert" if it is a broken assertion: "Broken: <source>: <expression>".
  std::string text;
  std::string message;  ///< The text after file, function and line.
};

std::vector<Line> Lines();
/// Returns how many lines contain `part`.
int Count(std::string_view part);
void Clear();

}  // namespace esg::test::log_capture

#endif
