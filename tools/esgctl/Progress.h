#ifndef ESGCTL_PROGRESS_H
#define ESGCTL_PROGRESS_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace esgctl {

/// A line on standard error, where that is a terminal, for work that takes longer than a second. It
/// is gone when the object is. A thread of its own keeps it alive while a question blocks.
class Progress {
 public:
  Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  ~Progress();

  /// What is being done, and how much of it is done.
  void Report(const std::string& what, std::size_t done = 0, std::size_t total = 0);

 private:
  void Run();

  std::mutex m_mutex;  // guards what follows
  std::condition_variable m_changed;
  std::string m_text;
  bool m_ended = false;
  std::thread m_thread;
};

}  // namespace esgctl

#endif
