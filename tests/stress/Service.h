#ifndef TESTS_STRESS_SERVICE_H
#define TESTS_STRESS_SERVICE_H

#include <cstdint>

namespace stress {

/// Answers calls, and sends events, until the process is killed.
[[noreturn]] void Serve(std::uint64_t seed);

}  // namespace stress

#endif
