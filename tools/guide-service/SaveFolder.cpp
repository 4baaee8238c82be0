#include "SaveFolder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "FileDescriptor.h"

namespace esg::guide {
namespace {

std::string Reason(int error) { return std::generic_category().message(error); }

bool WriteAll(int file, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(file, bytes.data(), bytes.size());
    if (written < 0 && errno != EINTR) {
      return false;
    }
    bytes.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
  }
  // Before the reply says that it is saved. Saves are rare, and queries wait for this one.
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

std::string SaveFolder::Save(const std::string& path, const std::string& bytes) const {
  if (m_path.empty()) {
    return "the service was started without a folder to save in (--save-dir)";
  }
  FileDescriptor folder(::open(m_path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!folder) {
    return m_path + ": " + Reason(errno);
  }
  if (path.find('\0') != std::string::npos) {
    return "not a path";
  }
  std::filesystem::path way = path;
  if (way.is_absolute()) {
    std::filesystem::path below = way.lexically_relative(std::filesystem::absolute(m_path));
    if (below.empty() || *below.begin() == "..") {
      below = way.lexically_relative(std::filesystem::canonical(m_path));
    }
    way = below;
  }
  if (!way.has_filename()) {
    return "no file name";
  }
  if (std::any_of(way.begin(), way.end(),
                  [](const auto& part) { return part == "." || part == ".."; })) {
    return "outside the folder to save in";
  }
  for (const std::filesystem::path& part : way.parent_path()) {
    folder = FileDescriptor(
        ::openat(folder.Get(), part.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder) {
      return Reason(errno);
    }
  }
  std::string fault = NoRoom(folder.Get(), bytes.size());
  return fault.empty() ? WriteFile(folder.Get(), way.filename(), bytes) : fault;
}

std::string SaveFolder::NoRoom(int folder, std::size_t size) const {
  // What a file takes up, whatever its size.
  constexpr std::uint64_t kBlock = 4096;
  constexpr std::uint64_t kMebibyte = std::uint64_t{1} << 20;
  const auto blocks = [](std::uint64_t bytes) { return (bytes / kBlock + 1) * kBlock; };
  struct statvfs space {};
  if (::fstatvfs(folder, &space) == 0 &&
      std::uint64_t{space.f_bavail} * space.f_frsize < m_limits.free * kMebibyte + blocks(size)) {
    return "less than " + std::to_string(m_limits.free) + " MiB would stay free on the disk";
  }
  std::uint64_t used = blocks(size);
  std::error_code error;
  std::filesystem::recursive_directory_iterator entries(m_path, error);
  for (; !error && entries != end(entries); entries.increment(error)) {
    std::error_code ignored;
    used += entries->is_regular_file(ignored) ? blocks(entries->file_size(ignored)) : 0;
    if (used > m_limits.quota * kMebibyte) {
      return "the files saved would take more than the quota of " + std::to_string(m_limits.quota) +
             " MiB";
    }
  }
  return error ? m_path + ": " + error.message() : "";
}

}  // namespace esg::guide
