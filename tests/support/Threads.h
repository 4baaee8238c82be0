#ifndef TESTS_THREADS_H
#define TESTS_THREADS_H

#include <glib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

namespace esg::test {

/// A value that several threads use. Every use wakes the threads that wait for the value.
template <typename T>
class Shared {
 public:
  explicit Shared(T value = {}) : m_value(std::move(value)) {}

  /// Calls `use` with the value while no other thread has it. Returns the result.
  template <typename Use>
  auto With(Use use) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_used.notify_all();
    return use(m_value);
  }
  /// Waits until the value fulfils `condition`. Returns false when `limit` has passed.
  template <typename Condition>
  bool WaitUntil(Condition condition, std::chrono::milliseconds limit = std::chrono::seconds(30)) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_used.wait_for(lock, limit, [&] { return condition(m_value); });
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_used;
  T m_value;
};

/// Passes values from threads to one other thread.
template <typename T>
class Inbox {
 public:
  void Put(T value) {
    m_values.With([&](auto& values) { values.push_back(std::move(value)); });
  }
  /// The next value. Throws after 30 seconds.
  T Next() {
    if (!m_values.WaitUntil([](const auto& values) { return !values.empty(); })) {
      throw std::runtime_error("no value arrived");
    }
    return m_values.With([](auto& values) {
      T value = std::move(values.front());
      values.pop_front();
      return value;
    });
  }

 private:
  Shared<std::deque<T>> m_values;
};

/// Runs a main context, by default the default one, on this thread until `isDone`.
template <typename Condition>
void IterateUntil(Condition isDone, GMainContext* context = nullptr) {
  while (!isDone()) {
    g_main_context_iteration(context, TRUE);
  }
}

/// Runs a main context, by default the default one, on its own thread.
class MainLoopThread {
 public:
  explicit MainLoopThread(GMainContext* context = nullptr)
      : m_context(context),
        m_thread([this] { IterateUntil([this] { return m_isDone.load(); }, m_context); }) {}
  ~MainLoopThread() {
    m_isDone = true;
    g_main_context_wakeup(m_context);
    m_thread.join();
  }
  MainLoopThread(const MainLoopThread&) = delete;
  MainLoopThread& operator=(const MainLoopThread&) = delete;

 private:
  GMainContext* const m_context;
  std::atomic<bool> m_isDone{false};
  std::thread m_thread;
};

/// Runs `work(0)`, `work(1)`, ... on threads of their own.
template <typename Work>
std::vector<std::thread> Threads(int count, Work work) {
  std::vector<std::thread> threads;
  threads.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) {
    threads.emplace_back(work, i);
  }
  return threads;
}
inline void Join(std::vector<std::thread>& threads) {
  for (std::thread& thread : threads) {
    thread.join();
  }
}

class Stopwatch {
 public:
  long Milliseconds() const {
    const auto elapsed = std::chrono::steady_clock::now() - m_start;
    return static_cast<long>(elapsed / std::chrono::milliseconds(1));
  }

 private:
  std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};

}  // namespace esg::test

#endif
