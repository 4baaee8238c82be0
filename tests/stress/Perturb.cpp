#include "Perturb.h"

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

#include "Harness.h"

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

#if defined(__SANITIZE_THREAD__)
#define ESG_INTERCEPTED 1
#elif defined(__has_feature)
#define ESG_INTERCEPTED __has_feature(thread_sanitizer)
#else
#define ESG_INTERCEPTED 0
#endif

// NOLINTBEGIN(bugprone-macro-parentheses,bugprone-reserved-identifier,readability-inconsistent-declaration-parameter-name)
#define ESG_NEXT(name) \
  static const auto next = reinterpret_cast<decltype(&name)>(dlsym(RTLD_NEXT, #name))
#if ESG_INTERCEPTED
#define ESG_DETECTOR(name) extern "C" decltype(name) __interceptor_##name;
#define ESG_REAL(name) constexpr auto next = &__interceptor_##name
/// A process that exits in the middle leaves threads that nobody has joined.
extern "C" const char* __tsan_default_options() { return "report_thread_leaks=0"; }
ESG_DETECTOR(pthread_mutex_lock)
ESG_DETECTOR(pthread_mutex_unlock)
ESG_DETECTOR(pthread_cond_clockwait)
ESG_DETECTOR(pthread_cond_signal)
ESG_DETECTOR(poll)
ESG_DETECTOR(sendmsg)
ESG_DETECTOR(recvmsg)
ESG_DETECTOR(epoll_ctl)
#else
#define ESG_REAL(name) ESG_NEXT(name)
#endif

extern "C" {

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  ESG_REAL(pthread_mutex_lock);
  Delay();
  return next(mutex);
}

int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
  ESG_REAL(pthread_mutex_unlock);
  const int result = next(mutex);
  Delay();
  return result;
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           const timespec* until) {
  ESG_REAL(pthread_cond_clockwait);
  Delay();
  return next(condition, mutex, clock, until);
}

int pthread_cond_signal(pthread_cond_t* condition) noexcept {
  ESG_REAL(pthread_cond_signal);
  Delay();
  return next(condition);
}

int poll(pollfd* descriptors, nfds_t count, int limit) {
  ESG_REAL(poll);
  Delay();
  const int result = next(descriptors, count, limit);
  Delay();
  return result;
}

ssize_t sendmsg(int socket, const msghdr* message, int flags) {
  ESG_REAL(sendmsg);
  Delay();
  return next(socket, message, flags);
}

ssize_t recvmsg(int socket, msghdr* message, int flags) {
  ESG_REAL(recvmsg);
  Delay();
  return next(socket, message, flags);
}

int epoll_ctl(int set, int operation, int descriptor, epoll_event* event) noexcept {
  ESG_REAL(epoll_ctl);
  Delay();
  return next(set, operation, descriptor, event);
}

int eventfd_write(int descriptor, eventfd_t value) {
  ESG_NEXT(eventfd_write);
  Delay();
  const int result = next(descriptor, value);
  Delay();
  return result;
}

/// What the library asks an answer first.
const char* dbus_message_get_signature(DBusMessage* message) {
  ESG_NEXT(dbus_message_get_signature);
  std::this_thread::sleep_for(std::chrono::milliseconds(readingTime));
  return next(message);
}

}  // extern "C"
// NOLINTEND(bugprone-macro-parentheses,bugprone-reserved-identifier,readability-inconsistent-declaration-parameter-name)
