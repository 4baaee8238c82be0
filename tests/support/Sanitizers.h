#ifndef TESTS_SANITIZERS_H
#define TESTS_SANITIZERS_H

namespace esg::test {

#if defined(__has_feature)
inline constexpr bool kThreadSanitized = __has_feature(thread_sanitizer);
/// The locks of its allocator may be held by another thread when a process forks.
inline constexpr bool kForksSafely = !__has_feature(address_sanitizer);
#else
inline constexpr bool kThreadSanitized = false;
inline constexpr bool kForksSafely = true;
#endif
inline constexpr bool kSanitized = kThreadSanitized || !kForksSafely;

}  // namespace esg::test

#endif
