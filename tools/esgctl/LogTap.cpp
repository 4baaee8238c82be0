#include "LogTap.h"

#include <glib.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "TextWidth.h"

namespace {

constexpr int kErrorPriority = 6;
constexpr std::size_t kMostLines = 16;

std::atomic<bool> verbose{false};
std::mutex mutex;
std::vector<std::string> errors;

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the platform's name.
extern "C" __attribute__((visibility("default"), format(printf, 4, 5))) int __dlog_print(
    int logBuffer, int priority, const char* tag, const char* format, ...);

extern "C" int __dlog_print(int, int priority, const char* tag, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  char* const text = g_strchomp(g_strdup_vprintf(format, arguments));
  va_end(arguments);
  if (verbose) {
    std::fprintf(stderr, "%s %d %s\n", tag, priority, esgctl::Printable(text).c_str());
  }
  if (priority >= kErrorPriority) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (errors.size() < kMostLines) {
      errors.emplace_back(text);
    }
  }
  g_free(text);
  return 0;
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace esgctl::log_tap {

void SetVerbose(bool wanted) { verbose = wanted; }

void Clear() {
  const std::lock_guard<std::mutex> lock(mutex);
  errors.clear();
}

std::vector<std::string> Errors() {
  const std::lock_guard<std::mutex> lock(mutex);
  return errors;
}

}  // namespace esgctl::log_tap
