#ifndef GUIDE_SPAN_H
#define GUIDE_SPAN_H

#include <cstdint>

namespace esg::guide {

/// A half-open range of time, in NTP seconds.
///
/// 32 bits of NTP seconds run out in February 2036 and start again at 0, so times are points on a
/// circle: differences are taken modulo 2^32, and a range may cross the end of the era.
struct Span {
  std::uint32_t start = 0;
  std::uint32_t duration = 0;
};

inline bool operator==(const Span& a, const Span& b) {
  return a.start == b.start && a.duration == b.duration;
}

inline bool Contains(const Span& span, std::uint32_t moment) {
  return moment - span.start < span.duration;
}

/// Whether the two have a moment in common; an empty range has none with any.
inline bool Overlap(const Span& a, const Span& b) {
  return a.duration != 0 && b.duration != 0 && (Contains(a, b.start) || Contains(b, a.start));
}

/// The order of two times. Those with the highest bit (1968 to 2036) come before those without
/// (2036 to 2104).
inline std::uint64_t InOrder(std::uint32_t time) {
  constexpr std::uint64_t kEra = std::uint64_t{1} << 32;
  return time < kEra / 2 ? time + kEra : time;
}

}  // namespace esg::guide

#endif
