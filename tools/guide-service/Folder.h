#ifndef GUIDE_FOLDER_H
#define GUIDE_FOLDER_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Fragment.h"

namespace esg::guide {

/// A fragment and its place in the file, unpacked.
struct Entry {
  std::shared_ptr<const Fragment> fragment;
  std::size_t offset = 0;
};

/// What tells that a file is still the same.
struct Stamp {
  std::uint64_t node = 0;
  std::uint64_t size = 0;
  std::int64_t changed = 0;  ///< nanoseconds; 0: changed too recently to tell
};

/// A file of the guide, read.
struct File {
  std::string name;
  /// Only readings of the folder use it, one after the other.
  mutable Stamp stamp;
  std::uint64_t hash = 0;
  std::size_t weight = 0;  ///< of the fragments
  bool isUnit = false;
  std::vector<Entry> fragments;
  std::vector<std::string> units;   ///< those that it lists as current, if it is a descriptor
  std::vector<std::string> faults;  ///< what is wrong with it, a line each
};

using Files = std::vector<std::shared_ptr<const File>>;

/// The most that the fragments of a guide may weigh. The guide before may still be there.
inline constexpr std::size_t kMaxWeight = std::size_t{160} << 20;

/// Reads the bytes of a file: a fragment or a descriptor in XML, or a delivery unit, each plain or
/// gzip-compressed. Fragments that `known` already has are taken from there. What the fragments
/// weigh is added to `weight`; those that would make it too much are left out.
void ReadBytes(File& file, std::string& bytes, pugi::xml_document& document, const File* known,
               std::atomic<std::size_t>& weight);

/// Reads the files of a folder, in the order of their names. Ignores hidden files and the folders
/// in it. Files of `known`, an earlier result, that have not changed are taken from there. Raises
/// std::system_error if the folder itself cannot be read.
Files ReadFolder(const std::string& path, const Files& known, unsigned int threads);

/// The bytes of a fragment; empty where its file has changed since it was read, or is gone.
std::string ReadFragment(const std::string& folder, const File& file, const Entry& entry);

}  // namespace esg::guide

#endif
