#ifndef TESTS_STRESS_PERTURB_H
#define TESTS_STRESS_PERTURB_H

#include <cstdint>

namespace stress {

/// From now on threads are delayed at random, at one in `rate` steps that they take with locks,
/// conditions and descriptors; at none where it is 0.
void Perturb(std::uint64_t seed, int rate);

/// From now on this thread takes so long to read an answer, which libdbus keeps meanwhile.
void ReadSlowly(int milliseconds);

}  // namespace stress

#endif
