#include <benchmark/benchmark.h>

#include <fstream>
#include <iostream>
#include <string>

#include "Bare.h"
#include "GuideService.h"
#include "Queries.h"
#include "Service.h"

namespace {

/// The peak resident size of this process so far, in kilobytes.
void PrintPeak() {
  std::ifstream status("/proc/self/status");
  for (std::string name; status >> name && name != "VmHWM:";) {
  }
  unsigned long kilobytes = 0;
  bare::Require(static_cast<bool>(status >> kilobytes), "no VmHWM");
  std::cout << kilobytes << '\n';
}

}  // namespace

/// esg-client-bench --serve bare|listener: a service.
/// esg-client-bench --peak library|floor: the memory that one list of 10,000 programmes takes.
/// esg-client-bench --guide DIR: the guide for the benchmark of the guide service.
/// esg-client-bench --scale PROGRAM DIR: that service with a large guide.
/// Otherwise the benchmarks, with Google Benchmark's own options.
int main(int argc, char** argv) {
  const std::string command = argc >= 3 ? argv[1] : "";
  if (command == "--serve") {
    std::string(argv[2]) == "bare" ? service::RunBare() : service::RunListener();
  }
  if (command == "--peak") {
    QueryOnce(argv[2], 10000);
    PrintPeak();
    return 0;
  }
  if (command == "--guide") {
    guide::WriteLongGuide(argv[2]);
    return 0;
  }
  if (command == "--scale" && argc == 4) {
    guide::MeasureScale(argv[2], argv[3]);
    return 0;
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
