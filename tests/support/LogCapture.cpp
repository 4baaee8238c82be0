#include "LogCapture.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "Platform.h"
#include "Threads.h"

namespace esg::test::log_capture {
namespace {

/// Never destroyed: the destructors of the library's static objects write to the log.
Shared<std::vector<Line>>& TheLines() {
  static auto& lines = *new Shared<std::vector<Line>>;
  return lines;
}

void Add(Line line) {
  std::fputs(line.text.c_str(), stderr);
  TheLines().With([&](auto& lines) { lines.push_back(std::move(line)); });
}

}  // namespace

std::vector<Line> Lines() {
  return TheLines().With([](auto& lines) { return lines; });
}

int Count(std::string_view part) {
  return TheLines().With([part](auto& lines) {
    return static_cast<int>(std::count_if(lines.begin(), lines.end(), [part](const Line& line) {
      return line.text.find(part) != std::string::npos;
    }));
  });
}

void Clear() {
  TheLines().With([](auto& lines) { lines.clear(); });
}

}  // namespace esg::test::log_capture

using esg::test::log_capture::Line;

int __dlog_print(int /*logBuffer*/, int priority, const char* tag, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  char* text = nullptr;
  const int size = vasprintf(&text, format, arguments);
  va_end(arguments);
  Line line{priority, tag, std::string(text, static_cast<std::size_t>(size)), {}};
  std::free(text);
  const std::size_t prefix = line.text.find(" > ");
  line.message = prefix == std::string::npos ? line.text : line.text.substr(prefix + 3);
  esg::test::log_capture::Add(std::move(line));
  return 0;
}

void _FCAssert(const char* expression, const char* sourcePath, int /*line*/) {
  esg::test::log_capture::Add(
      {0, "assert", std::string("Broken: ") + sourcePath + ": " + expression + "\n", {}});
}
