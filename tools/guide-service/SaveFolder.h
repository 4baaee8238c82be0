#ifndef GUIDE_SAVE_FOLDER_H
#define GUIDE_SAVE_FOLDER_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

namespace esg::guide {

/// In MiB.
struct SaveLimits {
  std::uint64_t quota = 16;  ///< the most that the files in the folder may take up
  std::uint64_t free = 64;   ///< the least that has to stay free on its disk
};

/// The folder below which clients may have fragments saved.
///
/// A path is relative to this folder; an absolute one has to start with the folder's own path. Its
/// components are walked one by one from the opened folder: "..", symbolic links and folders that
/// do not exist are refused, and nothing that happens to the path meanwhile leads elsewhere.
class SaveFolder {
 public:
  /// Without a folder, every save is refused; the folder need not exist yet.
  SaveFolder() = default;
  SaveFolder(std::string path, SaveLimits limits) : m_path(std::move(path)), m_limits(limits) {}

  /// Writes `bytes` to `path`, which holds its old content or the whole of the new at any moment.
  /// Returns why it cannot, or nothing.
  std::string Save(const std::string& path, const std::string& bytes) const;

 private:
  std::string NoRoom(int folder, std::size_t size) const;

  std::string m_path;
  SaveLimits m_limits;
};

}  // namespace esg::guide

#endif
