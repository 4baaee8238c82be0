#include "Folder.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <system_error>
#include <thread>
#include <unordered_map>

#include "FileDescriptor.h"
#include "Unit.h"

namespace esg::guide {
namespace {

/// The most that all files may be, unpacked.
constexpr std::size_t kMaxGuide = std::size_t{512} << 20;

constexpr std::int64_t kSecond = 1000000000;

std::int64_t Nanoseconds(const std::timespec& time) { return time.tv_sec * kSecond + time.tv_nsec; }

Stamp StampOf(const struct stat& status) {
  return {status.st_ino, static_cast<std::uint64_t>(status.st_size), Nanoseconds(status.st_ctim)};
}

bool IsSame(const Stamp& a, const Stamp& b) {
  return a.node == b.node && a.size == b.size && a.changed == b.changed;
}

/// The clock of a file system is coarse: a file that has just changed can change again and show no
/// other time.
void Distrust(Stamp& stamp) {
  std::timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  if (Nanoseconds(now) - stamp.changed < 2 * kSecond) {
    stamp.changed = 0;
  }
}

std::string Reason(int error) { return std::generic_category().message(error); }

FileDescriptor Open(int folder, const std::string& name, int flags) {
  return FileDescriptor(::openat(folder, name.c_str(), flags | O_RDONLY | O_CLOEXEC));
}

/// Returns why it cannot be read, or nothing.
std::string Load(int folder, const std::string& name, std::string& bytes, Stamp& stamp) {
  // A pipe in the folder must not block.
  const FileDescriptor file = Open(folder, name, O_NONBLOCK);
  struct stat status {};
  if (!file || ::fstat(file.Get(), &status) != 0) {
    return Reason(errno);
  }
  if (!S_ISREG(status.st_mode)) {
    return "not a file";
  }
  stamp = StampOf(status);
  Distrust(stamp);
  bytes.resize(std::min(static_cast<std::size_t>(status.st_size), kMaxFile) + 1);
  std::size_t size = 0;
  for (;;) {
    const ssize_t got = ::read(file.Get(), bytes.data() + size, bytes.size() - size);
    if (got < 0 && errno != EINTR) {
      return Reason(errno);
    }
    if (got == 0) {
      break;
    }
    size += got > 0 ? static_cast<std::size_t>(got) : 0;
    if (size == stamp.size) {
      break;
    }
    if (size > kMaxFile) {
      return "larger than " + std::to_string(kMaxFile >> 20) + " MiB";
    }
    if (size == bytes.size()) {
      bytes.resize(std::min(bytes.size() * 2, kMaxFile + 1));
    }
  }
  bytes.resize(size);
  return size == 0 ? "empty" : "";
}

bool IsFragmentName(std::string_view name) {
  constexpr std::string_view kEnds[] = {".xml", ".XML", ".xml.gz"};
  return std::any_of(std::begin(kEnds), std::end(kEnds), [name](std::string_view end) {
    return name.size() >= end.size() && name.substr(name.size() - end.size()) == end;
  });
}

/// One reading of a folder, by several threads.
class Reading {
 public:
  Reading(int folder, const std::vector<std::string>& names, const Files& known)
      : m_folder(folder), m_names(names), m_known(known), m_files(names.size()) {}

  Files Run(unsigned int threads) {
    std::vector<std::thread> others;
    for (unsigned int i = 1; i < threads; ++i) {
      others.emplace_back([this] { Work(); });
    }
    Work();
    for (std::thread& other : others) {
      other.join();
    }
    return std::move(m_files);
  }

 private:
  void Work() {
    FragmentParser parser;
    std::string bytes;
    for (std::size_t i = m_next++; i < m_names.size(); i = m_next++) {
      const File* known = nullptr;
      const auto found =
          std::lower_bound(m_known.begin(), m_known.end(), m_names[i],
                           [](const auto& file, const auto& name) { return file->name < name; });
      if (found != m_known.end() && (*found)->name == m_names[i]) {
        known = found->get();
        struct stat status {};
        if (::fstatat(m_folder, m_names[i].c_str(), &status, 0) == 0 &&
            IsSame(known->stamp, StampOf(status))) {
          m_files[i] = *found;
          continue;
        }
      }
      m_files[i] = Read(m_names[i], bytes, parser, known);
    }
  }

  std::shared_ptr<const File> Read(const std::string& name, std::string& bytes,
                                   FragmentParser& parser, const File* known) {
    auto file = std::make_shared<File>();
    file->name = name;
    try {
      const std::string fault = Load(m_folder, name, bytes, file->stamp);
      if (!fault.empty()) {
        file->faults.push_back(name + ": left out: " + fault);
      } else if ((m_total += bytes.size()) > kMaxGuide) {
        file->faults.push_back(name + ": left out: the guide is larger than " +
                               std::to_string(kMaxGuide >> 20) + " MiB");
      } else {
        const std::size_t stored = bytes.size();
        ReadBytes(*file, bytes, parser, known);
        m_total += bytes.size() - stored;
      }
    } catch (const std::bad_alloc&) {
      file->faults.push_back(name + ": left out: there is not enough memory");
    }
    return file;
  }

  const int m_folder;
  const std::vector<std::string>& m_names;
  const Files& m_known;
  Files m_files;
  std::atomic<std::size_t> m_next{0};
  std::atomic<std::size_t> m_total{0};
};

void AddFragments(File& file, std::string& bytes, const std::vector<Part>& parts,
                  FragmentParser& parser, const File* known) {
  std::unordered_map<std::uint64_t, const Entry*> same;
  for (std::size_t i = 0; known != nullptr && i < known->fragments.size(); ++i) {
    same[known->fragments[i].fragment->hash] = &known->fragments[i];
  }
  std::size_t number = 0;
  for (const Part& part : parts) {
    ++number;
    char* text = bytes.data() + part.offset;
    const Report report = [&](const std::string& line) {
      std::string& fault = file.faults.emplace_back(file.name + ": ");
      fault += parts.size() > 1 ? "fragment " + std::to_string(number) + ": " : "";
      fault += line;
    };
    const auto found = same.empty() ? same.end() : same.find(Hash(text, part.size));
    std::shared_ptr<const Fragment> fragment =
        found == same.end() ? parser.Parse(text, part.size, report) : found->second->fragment;
    if (fragment != nullptr) {
      file.fragments.push_back({std::move(fragment), part.offset});
    }
  }
  file.fragments.shrink_to_fit();
}

}  // namespace

void ReadBytes(File& file, std::string& bytes, FragmentParser& parser, const File* known) {
  file.hash = Hash(bytes.data(), bytes.size());
  if (known != nullptr && known->hash == file.hash) {
    file.isUnit = known->isUnit;
    file.fragments = known->fragments;
    file.units = known->units;
    file.faults = known->faults;
    return;
  }
  const auto report = [&file](const std::string& line) {
    file.faults.push_back(file.name + ": " + line);
  };
  if (IsGzip(bytes)) {
    const std::string fault = Unpack(bytes);
    if (!fault.empty()) {
      report(fault);
    }
  }
  std::vector<Part> parts;
  if (parser.ParseDescriptor(bytes.data(), bytes.size(), file.units)) {
    return;
  }
  if (IsFragmentName(file.name)) {
    parts = {{0, bytes.size()}};
  } else if (Divide(bytes, parts, report)) {
    file.isUnit = true;
  } else if (file.faults.empty()) {
    report("not a fragment, a delivery unit or a descriptor, left out");
  }
  AddFragments(file, bytes, parts, parser, known);
}

Files Folder::Read(const Files& known, unsigned int threads) const {
  const FileDescriptor folder = Open(AT_FDCWD, m_path, O_DIRECTORY);
  std::error_code error(errno, std::generic_category());
  std::vector<std::string> names;
  if (folder) {
    error.clear();
    std::filesystem::directory_iterator entries(m_path, error);
    for (; !error && entries != std::filesystem::directory_iterator(); entries.increment(error)) {
      std::string name = entries->path().filename().string();
      std::error_code ignored;
      if (name[0] != '.' && !entries->is_directory(ignored)) {
        names.push_back(std::move(name));
      }
    }
  }
  if (error) {
    throw std::system_error(error, m_path);
  }
  std::sort(names.begin(), names.end());
  return Reading(folder.Get(), names, known).Run(threads);
}

bool Folder::ReadFragment(const File& file, const Entry& entry, std::string& bytes) const {
  const FileDescriptor folder = Open(AT_FDCWD, m_path, O_DIRECTORY);
  Stamp stamp;
  if (!folder || !Load(folder.Get(), file.name, bytes, stamp).empty()) {
    return false;
  }
  if (IsGzip(bytes)) {
    Unpack(bytes);
  }
  const Fragment& fragment = *entry.fragment;
  bytes = bytes.size() < entry.offset ? "" : bytes.substr(entry.offset, fragment.size);
  return Hash(bytes.data(), bytes.size()) == fragment.hash;
}

}  // namespace esg::guide
