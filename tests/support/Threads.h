#ifndef TESTS_THREADS_H
#define TESTS_THREADS_H

#include <glib.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

namespace esg::test {

/// Hands values from one thread to another.
template <typename T>
class Inbox {
 public:
  void Put(T value) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_values.push_back(std::move(value));
    m_changed.notify_one();
  }

  /// The next value; throws after 30 seconds.
  T Next() {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_changed.wait_for(lock, std::chrono::seconds(30), [this] { return !m_values.empty(); })) {
      throw std::runtime_error("no value arrived");
    }
    T value = std::move(m_values.front());
    m_values.pop_front();
    return value;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::deque<T> m_values;
};

/// Runs a main context, the default one unless told otherwise, on a thread of its own.
class MainLoopThread {
 public:
  explicit MainLoopThread(GMainContext* context = nullptr)
      : m_loop(g_main_loop_new(context, FALSE)), m_thread([this] { g_main_loop_run(m_loop); }) {}
  ~MainLoopThread() {
    // Quits from inside: a loop that has not started would not notice.
    GSource* source = g_idle_source_new();
    const GSourceFunc quit = [](gpointer loop) -> gboolean {
      g_main_loop_quit(static_cast<GMainLoop*>(loop));
      return G_SOURCE_REMOVE;
    };
    g_source_set_callback(source, quit, m_loop, nullptr);
    g_source_attach(source, g_main_loop_get_context(m_loop));
    g_source_unref(source);
    m_thread.join();
    g_main_loop_unref(m_loop);
  }
  MainLoopThread(const MainLoopThread&) = delete;
  MainLoopThread& operator=(const MainLoopThread&) = delete;

 private:
  GMainLoop* m_loop;
  std::thread m_thread;
};

/// Runs the default main context on this thread until `isDone`.
template <typename Condition>
void IterateUntil(Condition isDone) {
  while (!isDone()) {
    g_main_context_iteration(nullptr, TRUE);
  }
}

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
    using std::chrono::milliseconds;
    const auto elapsed = std::chrono::steady_clock::now() - m_start;
    return static_cast<long>(std::chrono::duration_cast<milliseconds>(elapsed).count());
  }

 private:
  std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};

}  // namespace esg::test

#endif
