#include "Interleave.h"

#include <time.h>

#include <algorithm>
#include <functional>
#include <numeric>
#include <random>

namespace {

using Samples = std::vector<double>;

struct Measured {
  Samples wall;
  Samples cpu;
};

double Seconds(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

double Quantile(const Samples& sorted, double fraction) {
  const double position = fraction * static_cast<double>(sorted.size() - 1);
  const auto below = static_cast<std::size_t>(position);
  const std::size_t above = std::min(below + 1, sorted.size() - 1);
  return sorted[below] + (position - static_cast<double>(below)) * (sorted[above] - sorted[below]);
}

void Count(benchmark::State& state, const std::string& name, Samples samples) {
  std::sort(samples.begin(), samples.end());
  state.counters[name] = Quantile(samples, 0.5);
  state.counters[name + " spread"] = (Quantile(samples, 0.75) - Quantile(samples, 0.25)) / 2;
}

Samples Quotients(const Samples& dividends, const Samples& divisors) {
  Samples quotients(dividends.size());
  std::transform(dividends.begin(), dividends.end(), divisors.begin(), quotients.begin(),
                 std::divides<>());
  return quotients;
}

void Measure(const Contender& contender, Sample sample, Measured& measured) {
  const double wall = Seconds(CLOCK_MONOTONIC);
  const double cpu = Seconds(CLOCK_PROCESS_CPUTIME_ID);
  for (int i = 0; i < sample.runs; ++i) {
    contender.run();
  }
  const int operations = sample.runs * sample.operations;
  measured.cpu.push_back((Seconds(CLOCK_PROCESS_CPUTIME_ID) - cpu) / operations);
  measured.wall.push_back((Seconds(CLOCK_MONOTONIC) - wall) / operations);
}

}  // namespace

void Interleave(benchmark::State& state, Sample sample, const std::vector<Contender>& contenders) {
  for (const Contender& contender : contenders) {
    contender.run();  // opens connections, and has the service prepare its text
  }
  std::vector<Measured> measured(contenders.size());
  std::vector<std::size_t> order(contenders.size());
  std::iota(order.begin(), order.end(), 0);
  std::mt19937 random;  // unseeded: the same orders in every run
  for ([[maybe_unused]] auto round : state) {
    std::shuffle(order.begin(), order.end(), random);
    for (const std::size_t i : order) {
      Measure(contenders[i], sample, measured[i]);
    }
  }
  for (std::size_t i = 0; i < contenders.size(); ++i) {
    const std::string& name = contenders[i].name;
    Count(state, name + " wall", measured[i].wall);
    Count(state, name + " cpu", measured[i].cpu);
    if (i != 0) {
      const std::string pair = contenders[0].name + "/" + name;
      Count(state, pair + " wall", Quotients(measured[0].wall, measured[i].wall));
      Count(state, pair + " cpu", Quotients(measured[0].cpu, measured[i].cpu));
    }
  }
}
