#include <dbus/dbus.h>
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
#include <random>
#include <thread>

#include "Stress.h"

// These functions replace those of the C library, and one of libdbus, in the whole process. The
// thread sanitizer has its own versions of most of them, which must see the calls.

namespace {

std::atomic<unsigned int> threadSeed{0};
std::atomic<unsigned int> inverseRate{0};
thread_local int readingTime = 0;

/// Is never a point of cancellation. std::this_thread::sleep_for() would be one.
void Delay() {
  const unsigned int rate = inverseRate.load(std::memory_order_relaxed);
  if (rate == 0) {
    return;
  }
  thread_local std::minstd_rand random(threadSeed.fetch_add(1));
  if (random() % rate != 0) {
    return;
  }
  const auto kind = random() % 64;
  if (kind < 40) {
    sched_yield();
    return;
  }
  const timespec pause{0, static_cast<long>(random() % (kind < 63 ? 300'000U : 5'000'000U))};
  syscall(SYS_nanosleep, &pause, nullptr);
}

}  // namespace

void esg::test::stress::Perturb(std::uint64_t seed, int rate) {
  threadSeed = static_cast<unsigned int>(seed * 1000);
  inverseRate = static_cast<unsigned int>(rate);
}

void esg::test::stress::ReadSlowly(int milliseconds) { readingTime = milliseconds; }

// NOLINTBEGIN(bugprone-macro-parentheses,bugprone-reserved-identifier,readability-inconsistent-declaration-parameter-name)
#define NEXT(name) \
  static const auto next = reinterpret_cast<decltype(&name)>(dlsym(RTLD_NEXT, #name))
#define DECLARE(name)
#define REAL(name) NEXT(name)
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#undef DECLARE
#define DECLARE(name) extern "C" decltype(name) __interceptor_##name;
#undef REAL
#define REAL(name) constexpr auto next = &__interceptor_##name
/// A process that exits in the middle of its calls leaves threads that nobody has joined.
extern "C" const char* __tsan_default_options() { return "report_thread_leaks=0"; }
#endif
#endif
/// A function with a delay before it, and with `after` following it.
#define STEP(Result, name, parameters, arguments, after) \
  DECLARE(name)                                          \
  extern "C" Result name parameters {                    \
    REAL(name);                                          \
    Delay();                                             \
    const Result result = next arguments;                \
    after;                                               \
    return result;                                       \
  }
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

extern "C" int eventfd_write(int descriptor, eventfd_t value) {
  NEXT(eventfd_write);
  const int result = next(descriptor, value);
  Delay();
  return result;
}

/// What the library asks a reply first.
extern "C" const char* dbus_message_get_signature(DBusMessage* message) {
  NEXT(dbus_message_get_signature);
  std::this_thread::sleep_for(std::chrono::milliseconds(readingTime));
  return next(message);
}
// NOLINTEND(bugprone-macro-parentheses,bugprone-reserved-identifier,readability-inconsistent-declaration-parameter-name)
