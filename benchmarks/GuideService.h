#ifndef BENCHMARKS_GUIDE_SERVICE_H
#define BENCHMARKS_GUIDE_SERVICE_H

#include <string>

namespace guide {

/// Fills a folder with the guide that the benchmark GuideList queries: one service with 10,000
/// programmes.
void WriteLongGuide(const std::string& folder);

/// Starts a guide service on a guide of 100 services, 14 days and 100,800 programmes, written into
/// `folder`, and replaces the guide. Prints the time until the service is ready (seconds), its peak
/// memory until then and while it reads the new guide (MiB), and the longest query meanwhile
/// (seconds).
void MeasureScale(const std::string& program, const std::string& folder);

}  // namespace guide

#endif
