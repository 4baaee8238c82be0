#include "LogCapture.h"

#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "Platform.h"

namespace log_capture {
namespace {

struct State {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<Line> lines;
  std::vector<Assertion> assertions;
  bool echo = false;
  std::string held;
};

/// Never destroyed: the library's own static objects log when they are.
State& TheState() {
  static State& state = *new State;
  return state;
}

int CountLocked(const State& state, std::string_view part) {
  int count = 0;
  for (const Line& line : state.lines) {
    count += line.text.find(part) != std::string::npos ? 1 : 0;
  }
  return count;
}

void Remember(Line line) {
  const std::size_t prefix = line.text.find(" > ");
  line.message = prefix == std::string::npos ? line.text : line.text.substr(prefix + 3);
  State& state = TheState();
  std::unique_lock<std::mutex> lock(state.mutex);
  if (state.echo) {
    std::fprintf(stderr, "%s", line.text.c_str());
  }
  state.lines.push_back(line);
  state.changed.notify_all();
  state.changed.wait(
      lock, [&] { return state.held.empty() || line.text.find(state.held) == std::string::npos; });
}

void SetHeld(std::string part) {
  const std::lock_guard<std::mutex> lock(TheState().mutex);
  TheState().held = std::move(part);
  TheState().changed.notify_all();
}

}  // namespace

std::vector<Line> Lines() {
  const std::lock_guard<std::mutex> lock(TheState().mutex);
  return TheState().lines;
}

int Count(std::string_view part) {
  const std::lock_guard<std::mutex> lock(TheState().mutex);
  return CountLocked(TheState(), part);
}

bool WaitFor(std::string_view part, int count) {
  State& state = TheState();
  std::unique_lock<std::mutex> lock(state.mutex);
  return state.changed.wait_for(lock, std::chrono::seconds(10),
                                [&] { return CountLocked(state, part) >= count; });
}

Hold::Hold(std::string part) { SetHeld(std::move(part)); }

Hold::~Hold() { SetHeld(""); }

std::vector<Assertion> Assertions() {
  const std::lock_guard<std::mutex> lock(TheState().mutex);
  return TheState().assertions;
}

void Clear() {
  const std::lock_guard<std::mutex> lock(TheState().mutex);
  TheState().lines.clear();
  TheState().assertions.clear();
}

void Echo() {
  const std::lock_guard<std::mutex> lock(TheState().mutex);
  TheState().echo = true;
}

}  // namespace log_capture

int __dlog_print(int logBuffer, int priority, const char* tag, const char* format, ...) {
  va_list arguments;
  va_list again;
  va_start(arguments, format);
  va_copy(again, arguments);
  const int size = std::vsnprintf(nullptr, 0, format, arguments);
  std::string text(size < 0 ? 0 : static_cast<std::size_t>(size), '\0');
  std::vsnprintf(text.data(), text.size() + 1, format, again);
  va_end(again);
  va_end(arguments);
  log_capture::Remember({logBuffer, priority, tag, std::move(text), {}});
  return 0;
}

void _FCAssert(const char* expression, const char* sourcePath, int /*line*/) {
  log_capture::State& state = log_capture::TheState();
  const std::lock_guard<std::mutex> lock(state.mutex);
  state.assertions.push_back({expression, sourcePath});
  state.changed.notify_all();
}
