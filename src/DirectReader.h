#ifndef SRC_DIRECT_READER_H
#define SRC_DIRECT_READER_H

#include <cstddef>
#include <string>

#include "ESGTypes.h"
#include "FCESGProgramInfo.h"

/// Answers that are read straight from their bytes, without a tree of JSON values.
///
/// It accepts only what cannot be read in two ways: text in which the service reports success, each
/// member is known, there at most once, and of exactly its type and range, and nothing follows. It
/// declines everything else, and what cannot be read at all, for the JSON library to judge.
namespace direct {

/// So many bytes after the text may be looked at; what they are does not matter.
inline constexpr std::size_t kPadding = 64;

/// false when it declines; `result`, which has to be fresh, is then not to be used. Not built in,
/// it always declines.
bool Read(const char* text, std::size_t size, FCESGProgramInfo& result);
bool Read(const char* text, std::size_t size, ESGProgramMap& result);
bool Read(const char* text, std::size_t size, std::string& xmlFragment);

}  // namespace direct

#endif
