#include "Folder.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>
#include <system_error>
#include <utility>

#include "FileDescriptor.h"

namespace guide {
namespace {

// Returns what kept it from reading, or nothing.
std::string ReadFile(const std::filesystem::path& path, std::string& bytes) {
  // A pipe in the folder must not block.
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  struct stat status {};
  if (!file || ::fstat(file.Get(), &status) != 0) {
    return std::generic_category().message(errno);
  }
  if (!S_ISREG(status.st_mode)) {
    return "not a file";
  }
  // The file may grow meanwhile, so it is the bytes that are counted.
  bytes.resize(std::min(static_cast<std::size_t>(status.st_size), kLargestFragment) + 1);
  std::size_t size = 0;
  for (;;) {
    const ssize_t got = ::read(file.Get(), bytes.data() + size, bytes.size() - size);
    if (got < 0 && errno != EINTR) {
      return std::generic_category().message(errno);
    }
    if (got == 0) {
      break;
    }
    size += got > 0 ? static_cast<std::size_t>(got) : 0;
    if (size > kLargestFragment) {
      return "larger than any fragment";
    }
    if (size == bytes.size()) {
      bytes.resize(std::min(bytes.size() * 2, kLargestFragment + 1));
    }
  }
  bytes.resize(size);
  bytes.shrink_to_fit();
  return size == 0 ? "empty" : "";
}

bool IsFragmentName(const std::filesystem::path& path) {
  const std::string extension = path.extension().string();
  return extension == ".xml" || extension == ".XML";
}

}  // namespace

std::vector<Fragment> LoadFolder(const std::string& path, const Report& report) {
  std::vector<std::filesystem::path> files;
  std::error_code error;
  std::filesystem::directory_iterator folder(path, error);
  if (error) {
    throw std::system_error(error, path);
  }
  for (const auto& entry : folder) {
    std::error_code ignored;
    if (IsFragmentName(entry.path()) && !entry.is_directory(ignored)) {
      files.push_back(entry.path());
    }
  }
  std::sort(files.begin(), files.end());
  std::vector<Fragment> fragments;
  for (const auto& file : files) {
    std::string bytes;
    const std::string name = file.filename().string();
    std::string fault = ReadFile(file, bytes);
    if (!fault.empty()) {
      report(fault.insert(0, name + ": left out: "));
      continue;
    }
    if (auto fragment = ParseFragment(name, std::move(bytes), report)) {
      fragments.push_back(std::move(*fragment));
    }
  }
  return KeepNewest(std::move(fragments), report);
}

std::vector<Fragment> KeepNewest(std::vector<Fragment> fragments, const Report& report) {
  using Key = std::pair<std::size_t, std::string>;
  std::map<Key, std::vector<std::size_t>> kept;
  std::vector<bool> stays(fragments.size(), true);
  for (std::size_t i = 0; i < fragments.size(); ++i) {
    const Fragment& fragment = fragments[i];
    // Fragments without an id can only be told apart by their bytes.
    std::vector<std::size_t>& same = kept[{fragment.body.index(), fragment.id}];
    const auto repeats = [&](std::size_t j) { return fragments[j].bytes == fragment.bytes; };
    const bool known = std::any_of(same.begin(), same.end(), repeats);
    const bool older =
        !fragment.id.empty() && !same.empty() && fragment.version < fragments[same[0]].version;
    if (known || older) {
      stays[i] = false;
      continue;
    }
    if (!fragment.id.empty() && !same.empty()) {
      const bool newer = fragment.version > fragments[same[0]].version;
      const bool sideBySide = std::holds_alternative<ScheduleFragment>(fragment.body);
      if (!newer) {
        report(fragment.file + ": differs from " + fragments[same.back()].file +
               " with the same id and version; " + (sideBySide ? "both are" : "the later is") +
               " kept");
      }
      if (newer || !sideBySide) {
        for (const std::size_t j : same) {
          stays[j] = false;
        }
        same.clear();
      }
    }
    same.push_back(i);
  }
  std::vector<Fragment> result;
  for (std::size_t i = 0; i < fragments.size(); ++i) {
    if (stays[i]) {
      result.push_back(std::move(fragments[i]));
    }
  }
  return result;
}

}  // namespace guide
