#ifndef TESTS_SANITIZERS_H
#define TESTS_SANITIZERS_H

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#include <sanitizer/lsan_interface.h>
#define ESG_TEST_LEAKS_ALLOWED __lsan::ScopedDisabler
#endif
#endif
#ifndef ESG_TEST_LEAKS_ALLOWED
#define ESG_TEST_LEAKS_ALLOWED int
#endif

namespace esg::test {

/// During its lifetime, a leak is not a fault.
struct LeaksAllowed {
  LeaksAllowed() : guard() {}
  ESG_TEST_LEAKS_ALLOWED guard;
};

#if defined(__has_feature)
inline constexpr bool kThreadSanitized = __has_feature(thread_sanitizer);
inline constexpr bool kSanitized = kThreadSanitized || __has_feature(address_sanitizer);
#else
inline constexpr bool kThreadSanitized = false;
inline constexpr bool kSanitized = false;
#endif

}  // namespace esg::test

#endif
