#include <dlfcn.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <thread>

#include "Stress.h"

// Functions of the C library, and one of libdbus, that stand in for the real ones, in the whole
// process. A race detector has its own as well, which it has to see called; they exist there alone.

namespace {

std::atomic<std::uint64_t> threadSeed{0};
std::atomic<unsigned int> inverseRate{0};
thread_local std::uint64_t state = 0;
thread_local int readingTime = 0;

/// Never a point of cancellation, which std::this_thread would be.
void Delay() {
  const unsigned int rate = inverseRate.load(std::memory_order_relaxed);
  if (rate == 0) {
    return;
  }
  if (state == 0) {
    state = threadSeed.fetch_add(0x9E3779B97F4A7C15U, std::memory_order_relaxed) | 1U;
  }
  state ^= state << 13U;
  state ^= state >> 7U;
  state ^= state << 17U;
  if ((state >> 32U) % rate != 0) {
    return;
  }
  const auto kind = state % 64;
  if (kind < 40) {
    sched_yield();
    return;
  }
  const auto most = kind < 63 ? 300'000U : 5'000'000U;
  const timespec pause{0, static_cast<long>((state >> 8U) % most)};
  syscall(SYS_nanosleep, &pause, nullptr);
}

}  // namespace

void stress::Perturb(std::uint64_t seed, int rate) {
  threadSeed = seed;
  inverseRate = static_cast<unsigned int>(rate);
}

void stress::ReadSlowly(int milliseconds) { readingTime = milliseconds; }

// NOLINTBEGIN(bugprone-macro-parentheses,bugprone-reserved-identifier,readability-inconsistent-declaration-parameter-name)
#define NEXT(name) \
  static const auto next = reinterpret_cast<decltype(&name)>(dlsym(RTLD_NEXT, #name))
/// A function of the C library that is delayed; `after` is what follows it.
#define STEP(Result, name, parameters, arguments, after) \
  DECLARE(name)                                          \
  extern "C" Result name parameters {                    \
    REAL(name);                                          \
    Delay();                                             \
    const Result result = next arguments;                \
    after;                                               \
    return result;                                       \
  }
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define DECLARE(name) extern "C" decltype(name) __interceptor_##name;
#define REAL(name) constexpr auto next = &__interceptor_##name
/// A process that exits in the middle leaves threads that nobody has joined.
extern "C" const char* __tsan_default_options() { return "report_thread_leaks=0"; }
#endif
#endif
#ifndef REAL
#define DECLARE(name)
#define REAL(name) NEXT(name)
#endif
#define NOTHING static_cast<void>(0)

STEP(int, pthread_mutex_lock, (pthread_mutex_t * mutex) noexcept, (mutex), NOTHING)
STEP(int, pthread_mutex_unlock, (pthread_mutex_t * mutex) noexcept, (mutex), Delay())
STEP(int, pthread_cond_clockwait,
     (pthread_cond_t * condition, pthread_mutex_t* mutex, clockid_t clock, const timespec* until),
     (condition, mutex, clock, until), NOTHING)
STEP(int, pthread_cond_signal, (pthread_cond_t * condition) noexcept, (condition), NOTHING)
STEP(int, poll, (pollfd * descriptors, nfds_t count, int limit), (descriptors, count, limit),
     Delay())
STEP(ssize_t, sendmsg, (int socket, const msghdr* message, int flags), (socket, message, flags),
     NOTHING)
STEP(ssize_t, recvmsg, (int socket, msghdr* message, int flags), (socket, message, flags), NOTHING)
STEP(int, epoll_ctl, (int set, int operation, int descriptor, epoll_event* event) noexcept,
     (set, operation, descriptor, event), NOTHING)
#undef REAL
#undef DECLARE
#define DECLARE(name)
#define REAL(name) NEXT(name)
STEP(int, eventfd_write, (int descriptor, eventfd_t value), (descriptor, value), Delay())

/// What the library asks an answer first.
extern "C" const char* dbus_message_get_signature(DBusMessage* message) {
  NEXT(dbus_message_get_signature);
  std::this_thread::sleep_for(std::chrono::milliseconds(readingTime));
  return next(message);
}
// NOLINTEND(bugprone-macro-parentheses,bugprone-reserved-identifier,readability-inconsistent-declaration-parameter-name)
