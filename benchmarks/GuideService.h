#ifndef BENCHMARKS_GUIDE_SERVICE_H
#define BENCHMARKS_GUIDE_SERVICE_H

#include <string>

namespace guide {

/// Fills a folder with the guide of one service with 10,000 programmes, which the benchmark
/// GuideList asks a guide service for.
void WriteLongGuide(const std::string& folder);

/// Starts a guide service on a guide of 100 services, 14 days and 100,800 programmes, written into
/// `folder`, and gives it another one. Prints how long it took to be ready (seconds), its memory,
/// its memory at most while it read the new guide (MiB) and the longest query meanwhile (seconds).
void MeasureScale(const std::string& program, const std::string& folder);

}  // namespace guide

#endif
