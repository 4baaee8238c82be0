#ifndef GUIDE_SAVE_FOLDER_H
#define GUIDE_SAVE_FOLDER_H

#include <string>
#include <vector>

#include "FileDescriptor.h"

namespace guide {

/// The folder below which clients may have fragments saved.
///
/// A path is taken from this folder on; an absolute one has to begin with the folder's own path.
/// Its components are walked one by one from the folder that was opened at the start: "..",
/// symbolic links and folders that do not exist are refused, and nothing that happens to the path
/// meanwhile leads elsewhere.
class SaveFolder {
 public:
  /// Without a folder: every save is refused.
  SaveFolder() = default;
  /// Raises std::system_error where `path` is not a folder.
  explicit SaveFolder(const std::string& path);

  /// Writes `bytes` to `path`, which holds its old content or the whole of the new at any moment.
  /// Returns what kept it from that, or nothing.
  std::string Save(const std::string& path, const std::string& bytes) const;

 private:
  FileDescriptor m_folder;
  std::vector<std::string> m_paths;  ///< the folder's, as it was named and as it really is
};

}  // namespace guide

#endif
