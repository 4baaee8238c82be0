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
/// The counters "NAME wall" and "NAME cpu" are the times of one operation in seconds; the CPU time
/// is that of the whole process. "FIRST/NAME wall" and "FIRST/NAME cpu" are the ratios within a
/// round. Each counter is a median. A counter whose name ends in "spread" is half the interquartile
/// range.
void Interleave(benchmark::State& state, Sample sample, const std::vector<Contender>& contenders);

#endif
