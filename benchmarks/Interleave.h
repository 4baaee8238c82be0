#ifndef BENCHMARKS_INTERLEAVE_H
#define BENCHMARKS_INTERLEAVE_H

#include <benchmark/benchmark.h>

#include <functional>
#include <string>
#include <vector>

/// One way to perform the measured operation.
struct Contender {
  std::string name;
  std::function<void()> run;
};

/// How much is measured at a time: enough to make the cost of reading a clock negligible.
struct Sample {
  int runs;
  int operations;  ///< in one run
};

/// Measures the contenders in turn, in a different order in each iteration of the benchmark, so
/// that anything that slows the machine down for a while affects all of them.
///
/// The counters get, per operation, "NAME wall" and "NAME cpu"
/// (of the whole process) in seconds, and of each round's own quotients "FIRST/NAME wall" and
/// "FIRST/NAME cpu". Each is a median and has a counter "... spread" beside it, half the distance
/// between the quartiles.
void Interleave(benchmark::State& state, Sample sample, const std::vector<Contender>& contenders);

#endif
