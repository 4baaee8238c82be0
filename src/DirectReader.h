#ifndef SRC_DIRECT_READER_H
#define SRC_DIRECT_READER_H

#include <cstddef>
#include <string>
#include <string_view>

#include "ESGTypes.h"
#include "FCESGProgramInfo.h"

/// Reads replies directly from their bytes, without a tree of JSON values.
///
/// It accepts only text that can be read in one way only: the service reports success, each member
/// is known, occurs at most once and has exactly its type and range, and nothing follows. It
/// declines all other text, which the JSON library then reads.
namespace esg::direct {

/// Returns false if it declines; do not use `result` then. `result` must be a new object. If it is
/// not built in, it always declines.
bool Read(std::string_view text, FCESGProgramInfo& result);
bool Read(std::string_view text, ESGProgramMap& result);
bool Read(std::string_view text, std::string& xmlFragment);

/// Reads a long list, at most `piece` bytes at a time. Also declines a list that cannot be split.
bool ReadInPieces(std::string_view text, ESGProgramMap& result, std::size_t piece);

}  // namespace esg::direct

#endif
