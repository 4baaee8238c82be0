#include "SaveFolder.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>

namespace guide {
namespace {

std::string Reason(int error) { return std::generic_category().message(error); }

// The part of `path` behind `folder`, where it is below that.
std::optional<std::string_view> Behind(std::string_view path, std::string_view folder) {
  while (!folder.empty() && folder.back() == '/') {
    folder.remove_suffix(1);
  }
  if (path.substr(0, folder.size()) != folder || path.substr(folder.size(), 1) != "/") {
    return std::nullopt;
  }
  return path.substr(folder.size());
}

bool WriteAll(int file, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(file, bytes.data(), bytes.size());
    if (written < 0 && errno != EINTR) {
      return false;
    }
    bytes.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
  }
  return ::fsync(file) == 0;
}

std::string WriteFile(int folder, const std::string& name, const std::string& bytes) {
  struct stat status {};
  // Renaming would replace a link and not follow it; it is refused all the same, so that nobody
  // takes the link's target for saved.
  if (::fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
      !S_ISREG(status.st_mode)) {
    return "not a file";
  }
  const std::string temporary = ".esg-save-" + std::to_string(::getpid());
  ::unlinkat(folder, temporary.c_str(), 0);
  const FileDescriptor file(::openat(folder, temporary.c_str(),
                                     O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (!file) {
    return Reason(errno);
  }
  if (!WriteAll(file.Get(), bytes) ||
      ::renameat(folder, temporary.c_str(), folder, name.c_str()) != 0) {
    const int error = errno;
    ::unlinkat(folder, temporary.c_str(), 0);
    return Reason(error);
  }
  return {};
}

}  // namespace

SaveFolder::SaveFolder(const std::string& path)
    : m_folder(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {
  if (!m_folder) {
    throw std::system_error(errno, std::generic_category(), path);
  }
  m_paths = {std::filesystem::absolute(path).string(), std::filesystem::canonical(path).string()};
}

std::string SaveFolder::Save(const std::string& path, const std::string& bytes) const {
  if (!m_folder) {
    return "no folder to save in was named at the start";
  }
  if (path.find('\0') != std::string::npos) {
    return "not a path";
  }
  std::string_view rest = path;
  if (!path.empty() && path[0] == '/') {
    auto below = Behind(path, m_paths[0]);
    if (!below) {
      below = Behind(path, m_paths[1]);
    }
    if (!below) {
      return "outside the folder to save in";
    }
    rest = *below;
  }
  FileDescriptor folder(::openat(m_folder.Get(), ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
  for (;;) {
    const std::size_t begin = rest.find_first_not_of('/');
    if (begin == std::string_view::npos) {
      return "no file name";
    }
    rest.remove_prefix(begin);
    const std::size_t end = std::min(rest.find('/'), rest.size());
    const std::string name(rest.substr(0, end));
    rest.remove_prefix(end);
    if (name == "." || name == "..") {
      return "outside the folder to save in";
    }
    if (rest.empty()) {
      return WriteFile(folder.Get(), name, bytes);
    }
    folder = FileDescriptor(
        ::openat(folder.Get(), name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder) {
      return Reason(errno);
    }
  }
}

}  // namespace guide
