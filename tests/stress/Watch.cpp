#include "Watch.h"

#include <pthread.h>
#include <sys/prctl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <set>
#include <thread>

#include "Platform.h"

namespace stress {
namespace {

/// Trivial: the library logs to the very end of a thread.
thread_local char lastError[512];

/// Never destroyed: threads run to the very end of the process.
std::mutex& TasksMutex() {
  static auto& mutex = *new std::mutex;
  return mutex;
}
std::condition_variable& MoreTasks() {
  static auto& more = *new std::condition_variable;
  return more;
}
std::set<const Task*>& Tasks() {
  static auto& tasks = *new std::set<const Task*>;
  return tasks;
}

[[noreturn]] void Report(pid_t process, const char* text) {
  char line[1024];
  const int size = std::snprintf(line, sizeof line, "FAULT %d %s", process, text);
  const std::size_t length = std::min(static_cast<std::size_t>(size), sizeof line - 1);
  line[length] = '\n';
  static std::atomic<bool> isReported{false};
  if (!isReported.exchange(true)) {
    static_cast<void>(write(STDOUT_FILENO, line, length + 1));
  }
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  for (;;) {
    pause();
  }
}

void OnCrash(int signal) { Report(getpid(), signal == SIGABRT ? "aborted" : "crashed"); }

void WatchTasks() {
  for (std::unique_lock<std::mutex> lock(TasksMutex());;) {
    const auto first = std::min_element(
        Tasks().begin(), Tasks().end(),
        [](const Task* left, const Task* right) { return left->Rest() < right->Rest(); });
    if (first == Tasks().end()) {
      MoreTasks().wait(lock);
    } else if ((*first)->Rest() >= 0) {
      MoreTasks().wait_for(lock, std::chrono::milliseconds((*first)->Rest() + 1));
    } else {
      const std::string text = "has not ended: " + (*first)->Text();
      const pid_t process = (*first)->Process();
      lock.unlock();
      Report(process, text.c_str());
    }
  }
}

}  // namespace

void StartWatch() {
  prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);  // for the debugger
  for (const int signal : {SIGSEGV, SIGBUS, SIGABRT, SIGFPE, SIGILL}) {
    std::signal(signal, &OnCrash);
  }
  std::thread(&WatchTasks).detach();
}

void Fault(const std::string& text, pid_t process) { Report(process, text.c_str()); }

std::string_view LastError() { return lastError; }

void ForgetError() { lastError[0] = '\0'; }

Task::Task(std::string what, long limitMilliseconds, pid_t process)
    : m_what(std::move(what)), m_limit(limitMilliseconds), m_process(process) {
  const std::lock_guard<std::mutex> lock(TasksMutex());
  Tasks().insert(this);
  MoreTasks().notify_one();
}

Task::~Task() {
  const std::lock_guard<std::mutex> lock(TasksMutex());
  Tasks().erase(this);
}

std::string Task::Text() const {
  return m_what + ", after " + std::to_string(Milliseconds()) + " ms of " + std::to_string(m_limit);
}

}  // namespace stress

// They take the place of the platform's.

int __dlog_print(int /*logBuffer*/, int priority, const char* /*tag*/, const char* format, ...) {
  if (priority >= ESG_LOG_PRIORITY_ERROR) {
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(stress::lastError, sizeof stress::lastError, format, arguments);
    va_end(arguments);
  }
  return 0;
}

void _FCAssert(const char* expression, const char* /*sourcePath*/, int /*line*/) {
  stress::Fault(std::string("broken invariant: ") + expression);
}
