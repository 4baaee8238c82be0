#ifndef SRC_DIRECT_READER_H
#define SRC_DIRECT_READER_H

#include <cstddef>
#include <string>
#include <string_view>

#include "ESGTypes.h"
#include "FCESGProgramInfo.h"

/// Answers that are read straight from their bytes, without a tree of JSON values.
///
/// It accepts only what cannot be read in two ways: text in which the service reports success, each
/// member is known, there at most once, and of exactly its type and range, and nothing follows. It
/// declines everything else, and what cannot be read at all, for the JSON library to judge.
namespace direct {

/// false when it declines; `result`, which has to be fresh, is then not to be used. Not built in,
/// it always declines.
bool Read(std::string_view text, FCESGProgramInfo& result);
bool Read(std::string_view text, ESGProgramMap& result);
bool Read(std::string_view text, std::string& xmlFragment);

/// Read() of a long list, no more than `piece` bytes at a time. It also declines a list that does
/// not come apart.
bool ReadInPieces(std::string_view text, ESGProgramMap& result, std::size_t piece);

}  // namespace direct

#endif
