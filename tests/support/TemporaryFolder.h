#ifndef TESTS_TEMPORARY_FOLDER_H
#define TESTS_TEMPORARY_FOLDER_H

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace esg::test {

/// A folder that is removed with this object.
struct TemporaryFolder {
  TemporaryFolder() = default;
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  /// Readers never see a part of the file.
  void Write(const std::string& file, const std::string& text) const {
    std::ofstream(path / "new") << text;
    std::filesystem::rename(path / "new", path / file);
  }

  std::string name = std::filesystem::temp_directory_path() / "esg-test-XXXXXX";
  const std::filesystem::path path = mkdtemp(name.data());
};

}  // namespace esg::test

#endif
