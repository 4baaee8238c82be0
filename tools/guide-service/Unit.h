#ifndef GUIDE_UNIT_H
#define GUIDE_UNIT_H

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace esg::guide {

/// The most that a file may be, as stored and unpacked.
inline constexpr std::size_t kMaxFile = std::size_t{64} << 20;

/// Whether the bytes start as gzip does.
bool IsGzip(std::string_view bytes);

/// Replaces gzip-compressed bytes by what they unpack to. Returns what is wrong, or nothing: where
/// they are cut off or damaged, what could be unpacked stays; where they unpack to more than
/// kMaxFile, nothing does.
std::string Unpack(std::string& bytes);

/// Where the XML text of a fragment stands in a delivery unit.
struct Part {
  std::size_t offset;
  std::size_t size;
};

/// Finds the Service, Content and Schedule fragments of an unpacked delivery unit; other kinds and
/// encodings are passed over. Only places where a fragment can start are believed, whatever the
/// unit's table says; a line to `report` tells of the others. False where the bytes are not a unit.
bool Divide(std::string_view unit, std::vector<Part>& parts,
            const std::function<void(const std::string& line)>& report);

}  // namespace esg::guide

#endif
