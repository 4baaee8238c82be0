#ifndef GUIDE_FOLDER_H
#define GUIDE_FOLDER_H

#include <string>
#include <vector>

#include "Fragment.h"

namespace guide {

/// Larger files are no fragments of a guide, and their text would not fit into an answer.
inline constexpr std::size_t kLargestFragment = std::size_t{4} << 20;

/// Reads the fragments in the files *.xml of the folder `path`, in the order of their names;
/// folders in it are left alone. What cannot be read is left out with a line to `report`. Raises
/// std::system_error where the folder itself cannot be read.
std::vector<Fragment> LoadFolder(const std::string& path, const Report& report);

/// Of fragments of one kind and id only those of the highest version stay; of those that are the
/// same byte for byte, the first. Where a Service or Content differs from one of the same version,
/// the later takes its place, with a line to `report`; Schedules that differ stay side by side, so
/// that none of their programmes is lost. The order stays.
std::vector<Fragment> KeepNewest(std::vector<Fragment> fragments, const Report& report);

}  // namespace guide

#endif
