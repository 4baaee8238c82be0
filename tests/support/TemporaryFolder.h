#ifndef TESTS_TEMPORARY_FOLDER_H
#define TESTS_TEMPORARY_FOLDER_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

/// A folder of the test's own, removed with this object.
struct TemporaryFolder {
  TemporaryFolder() = default;
  ~TemporaryFolder() { std::filesystem::remove_all(path); }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  /// A file appears whole.
  void Write(const std::string& file, const std::string& text) const {
    std::ofstream(path / "new") << text;
    std::filesystem::rename(path / "new", path / file);
  }

  std::string name = testing::TempDir() + "esg-test-XXXXXX";
  const std::filesystem::path path = mkdtemp(name.data());
};

#endif
