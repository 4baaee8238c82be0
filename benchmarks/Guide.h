#ifndef BENCHMARKS_GUIDE_H
#define BENCHMARKS_GUIDE_H

#include <string>

/// Guides of any size, the same in every run.
namespace guide {

inline constexpr char kServiceId[] = "urn:example:service:7";

/// The reply to GetProgramList with that many programmes, each with an icon, a preview and texts
/// of 200 characters.
std::string List(unsigned int programmes);
/// The reply to GetPresentProgram.
std::string Present();

}  // namespace guide

#endif
