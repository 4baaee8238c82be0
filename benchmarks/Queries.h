#ifndef BENCHMARKS_QUERIES_H
#define BENCHMARKS_QUERIES_H

#include <string>

/// One list by "library", "later", "sd-bus" or "floor", in a process that does nothing else.
void QueryOnce(const std::string& contender, unsigned int programmes);

#endif
