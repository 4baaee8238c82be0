#ifndef TESTS_HARNESS_H
#define TESTS_HARNESS_H

#include <glib.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "IPCS/ECIPCBroadcaster.h"
#include "IPCS/ESGMessageBuffer.h"
#include "RawPeer.h"

/// What the tests of the bus have in common.

#if defined(__has_feature)
inline constexpr bool kThreadSanitized = __has_feature(thread_sanitizer);
/// Its allocator's locks may be held by another thread when a process forks.
inline constexpr bool kForksSafely = !__has_feature(address_sanitizer);
inline constexpr bool kSanitized = kThreadSanitized || !kForksSafely;
#else
inline constexpr bool kThreadSanitized = false;
inline constexpr bool kForksSafely = true;
inline constexpr bool kSanitized = false;
#endif

inline constexpr char kService[] = "com.velmora.Test";

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
      throw std::runtime_error("nothing came");
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

/// Runs the default main context on a thread of its own.
class MainLoopThread {
 public:
  MainLoopThread();
  ~MainLoopThread();
  MainLoopThread(const MainLoopThread&) = delete;
  MainLoopThread& operator=(const MainLoopThread&) = delete;

 private:
  GMainLoop* m_loop;
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
void Join(std::vector<std::thread>& threads);

class Stopwatch {
 public:
  long Milliseconds() const;

 private:
  std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};

ESGMessageBuffer Payload(std::string bytes);
std::string Bytes(const ESGMessageBuffer& buffer);

/// Result and payload of a call through the process-wide connection.
using Answer = std::pair<int, std::string>;
Answer Call(const char* method, const std::string& payload,
            const std::string& destination = kService);

/// An emitter's connection is closed at its end but stays, so there is one for all.
ECIPCBroadcaster& TheEmitter();

/// Appends made-up values of the types of `signature`; each array gets as many elements.
esg::internal::MessagePtr WithBody(esg::internal::MessagePtr message, const std::string& signature,
                                   int elements = 1);

/// Signatures, and sizes of arrays in them, that are not the protocol's, whose own begins with
/// `head`.
std::vector<std::pair<std::string, int>> WrongBodies(const std::string& head);
/// Signatures that are the protocol's and go on after it.
std::vector<std::string> LongerBodies(const std::string& head);

/// How many bytes of payload a message may have that is this one without any, for the bus to take
/// it. And whether the bus takes a message: it drops the connection that sends one too large.
std::size_t LargestPayload(DBusMessage* message);
bool BusTakes(esg::internal::MessagePtr message);

int OpenDescriptors();
long ResidentKiB();

#endif
