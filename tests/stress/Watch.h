#ifndef TESTS_STRESS_WATCH_H
#define TESTS_STRESS_WATCH_H

#include <unistd.h>

#include <string>
#include <string_view>

#include "Harness.h"

namespace stress {

/// From now on a crash and a task that takes too long are faults.
void StartWatch();

/// Tells the supervisor, and leaves the process as it is for it to look at `process`.
[[noreturn]] void Fault(const std::string& text, pid_t process = getpid());

/// The error that this thread has logged last; and forgets it.
std::string_view LastError();
void ForgetError();

/// What has to be over within a time, on this thread or in another process.
class Task {
 public:
  Task(std::string what, long limitMilliseconds, pid_t process = getpid());
  ~Task();
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;

  /// Milliseconds to its limit.
  long Rest() const { return m_limit - m_stopwatch.Milliseconds(); }
  long Milliseconds() const { return m_stopwatch.Milliseconds(); }
  std::string Text() const;
  pid_t Process() const { return m_process; }

 private:
  const std::string m_what;
  const long m_limit;
  const pid_t m_process;
  const Stopwatch m_stopwatch;
};

}  // namespace stress

#endif
