#ifndef GUIDE_FOLDER_H
#define GUIDE_FOLDER_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
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
  Stamp stamp;
  std::uint64_t hash = 0;
  bool isUnit = false;
  std::vector<Entry> fragments;
  std::vector<std::string> units;   ///< those that it lists as current, if it is a descriptor
  std::vector<std::string> faults;  ///< what is wrong with it, a line each
};

using Files = std::vector<std::shared_ptr<const File>>;

/// Reads the bytes of a file: a fragment or a descriptor in XML, or a delivery unit, each plain or
/// gzip-compressed. Fragments that `known` has already are taken from there.
void ReadBytes(File& file, std::string& bytes, FragmentParser& parser, const File* known);

/// A folder of the files of a guide.
class Folder {
 public:
  explicit Folder(std::string path) : m_path(std::move(path)) {}

  const std::string& Path() const { return m_path; }

  /// Reads the files of the folder, in the order of their names. Folders in it and hidden files
  /// are left alone. Files of `known`, an earlier result, that have not changed are taken from
  /// there. Raises std::system_error where the folder itself cannot be read.
  Files Read(const Files& known, unsigned int threads) const;

  /// The bytes of a fragment; false where its file has changed since it was read, or is gone.
  bool ReadFragment(const File& file, const Entry& entry, std::string& bytes) const;

 private:
  const std::string m_path;
};

}  // namespace esg::guide

#endif
