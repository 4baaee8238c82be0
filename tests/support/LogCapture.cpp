#include "LogCapture.h"

#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "Platform.h"

namespace esg::test::log_capture {
namespace {

struct State {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<Line> lines;
  std::vector<Assertion> assertions;
  bool echo = false;

  int Count(std::string_view part) const {
    int count = 0;
    for (const Line& line : lines) {
      count += line.text.find(part) != std::string::npos ? 1 : 0;
    }
    return count;
  }
};

/// Never destroyed: the library's own static objects log when they are.
State& TheState() {
  static State& state = *new State;
  return state;
}

/// Does `work` with the state, which it returns the result of.
template <typename Work>
auto Locked(Work work) {
  const std::lock_guard<std::mutex> lock(TheState().mutex);
  return work(TheState());
}

}  // namespace

std::vector<Line> Lines() {
  return Locked([](State& state) { return state.lines; });
}

int Count(std::string_view part) {
  return Locked([part](State& state) { return state.Count(part); });
}

bool WaitFor(std::string_view part, int count) {
  State& state = TheState();
  std::unique_lock<std::mutex> lock(state.mutex);
  return state.changed.wait_for(lock, std::chrono::seconds(20),
                                [&] { return state.Count(part) >= count; });
}

std::vector<Assertion> Assertions() {
  return Locked([](State& state) { return state.assertions; });
}

void Clear() {
  Locked([](State& state) { state.lines.clear(); });
}

void Echo() {
  Locked([](State& state) { state.echo = true; });
}

}  // namespace esg::test::log_capture

using namespace esg::test::log_capture;

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
  Locked([&](State& state) {
    if (state.echo) {
      std::fputs(line.text.c_str(), stderr);
    }
    state.lines.push_back(std::move(line));
    state.changed.notify_all();
  });
  return 0;
}

void _FCAssert(const char* expression, const char* sourcePath, int /*line*/) {
  Locked([&](State& state) { state.assertions.push_back({expression, sourcePath}); });
}
