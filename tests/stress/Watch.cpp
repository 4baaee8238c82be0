#include <pthread.h>
#include <sys/prctl.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <set>
#include <thread>

#include "Platform.h"
#include "Stress.h"

namespace stress {
namespace {

/// Trivial: the library logs to the very end of a thread.
thread_local char lastError[512];

/// Never destroyed: threads run to the very end of the process.
struct Tasks {
  std::mutex mutex;
  std::condition_variable more;
  std::set<const Task*> all;
};
Tasks& TheTasks() {
  static auto& tasks = *new Tasks;
  return tasks;
}

void OnCrash(int signal) { Fault(signal == SIGABRT ? "aborted" : "crashed"); }

void WatchTasks() {
  Tasks& tasks = TheTasks();
  for (std::unique_lock<std::mutex> lock(tasks.mutex);;) {
    const auto first = std::min_element(
        tasks.all.begin(), tasks.all.end(),
        [](const Task* left, const Task* right) { return left->Rest() < right->Rest(); });
    if (first == tasks.all.end()) {
      tasks.more.wait(lock);
    } else if ((*first)->Rest() >= 0) {
      tasks.more.wait_for(lock, std::chrono::milliseconds((*first)->Rest() + 1));
    } else {
      const std::string text = "has not ended: " + (*first)->Text();
      const pid_t process = (*first)->Process();
      lock.unlock();
      Fault(text, process);
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

void Fault(const std::string& text, pid_t process) {
  char line[1024];
  const int size = std::snprintf(line, sizeof line, "FAULT %d %s", process, text.c_str());
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

std::string_view LastError() { return lastError; }

void ForgetError() { lastError[0] = '\0'; }

Task::Task(std::string what, long limitMilliseconds, pid_t process)
    : m_what(std::move(what)), m_limit(limitMilliseconds), m_process(process) {
  const std::lock_guard<std::mutex> lock(TheTasks().mutex);
  TheTasks().all.insert(this);
  TheTasks().more.notify_one();
}

Task::~Task() {
  const std::lock_guard<std::mutex> lock(TheTasks().mutex);
  TheTasks().all.erase(this);
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
