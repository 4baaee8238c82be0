#ifndef BENCHMARKS_GUIDE_H
#define BENCHMARKS_GUIDE_H

#include <string>

/// Guides of any size, always the same.
namespace guide {

inline constexpr char kServiceId[] = "urn:example:service:7";

/// The answer to GetProgramList with that many programmes, each with an icon, a preview and texts
/// of 200 characters.
std::string List(unsigned int programmes);
/// The answer to GetPresentProgram.
std::string Present();

}  // namespace guide

#endif
