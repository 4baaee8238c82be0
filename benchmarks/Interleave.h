#ifndef BENCHMARKS_INTERLEAVE_H
#define BENCHMARKS_INTERLEAVE_H

#include <benchmark/benchmark.h>

#include <functional>
#include <string>
#include <vector>

/// One way to do what is measured.
struct Contender {
  std::string name;
  std::function<void()> run;
};

/// How much is measured at a time: enough to be long against what a clock costs.
struct Sample {
  int runs;
  int operations;  ///< in one run
};

/// Measures the contenders in turn, in another order in each of the benchmark's iterations, so that
/// what slows the machine down for a while slows all of them.
///
/// The counters get, per operation, "NAME wall" and "NAME cpu"
/// (of the whole process) in seconds, and of each round's own quotients "FIRST/NAME wall" and
/// "FIRST/NAME cpu". Each is a median and has a counter "... spread" beside it, half the distance
/// between the quartiles.
void Interleave(benchmark::State& state, Sample sample, const std::vector<Contender>& contenders);

#endif
