#include "Folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <system_error>
#include <thread>
#include <unordered_map>

#include "FileDescriptor.h"
#include "Unit.h"

namespace esg::guide {
namespace {

/// The most that all files may be, unpacked.
constexpr std::size_t kMaxGuide = std::size_t{512} << 20;

/// The most faults of one file that are listed: a delivery unit may have very many bad fragments.
constexpr std::size_t kMaxFaults = 1000;

std::string Reason(int error) { return std::generic_category().message(error); }

Stamp StampOf(const struct stat& status) {
  constexpr std::int64_t kSecond = 1000000000;
  return {status.st_ino, static_cast<std::uint64_t>(status.st_size),
          status.st_ctim.tv_sec * kSecond + status.st_ctim.tv_nsec};
}

bool IsSame(const Stamp& a, const Stamp& b) {
  return a.node == b.node && a.size == b.size && a.changed == b.changed;
}

/// Returns why it cannot be read, or nothing.
std::string Load(int folder, const char* name, std::string& bytes, Stamp& stamp) {
  // A pipe in the folder must not block.
  const FileDescriptor file(::openat(folder, name, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  if (!file || ::fstat(file.Get(), &status) != 0) {
    return Reason(errno);
  }
  if (!S_ISREG(status.st_mode)) {
    return "not a file";
  }
  stamp = StampOf(status);
  // The clock of a file system is coarse: a file that has just changed can change again and show
  // the same time.
  if (std::time(nullptr) - status.st_ctim.tv_sec <= 2) {
    stamp.changed = 0;
  }
  if (stamp.size > kMaxFile) {
    return "larger than " + std::to_string(kMaxFile >> 20) + " MiB";
  }
  // What is added meanwhile is read the next time.
  bytes.resize(static_cast<std::size_t>(stamp.size));
  std::size_t size = 0;
  ssize_t got = 1;
  while (got != 0 && size != bytes.size()) {
    got = ::read(file.Get(), bytes.data() + size, bytes.size() - size);
    if (got < 0 && errno != EINTR) {
      return Reason(errno);
    }
    size += got > 0 ? static_cast<std::size_t>(got) : 0;
  }
  bytes.resize(size);
  return size == 0 ? "empty" : "";
}

bool IsFragmentName(const char* name) {
  return g_str_has_suffix(name, ".xml") != FALSE || g_str_has_suffix(name, ".XML") != FALSE ||
         g_str_has_suffix(name, ".xml.gz") != FALSE;
}

/// How many files a thread takes at a time.
constexpr std::size_t kChunk = 64;

/// One reading of a folder, by several threads.
class Reading {
 public:
  /// Raises std::system_error.
  Reading(const std::string& path, const Files& known)
      : m_known(known), m_folder(::opendir(path.c_str()), &::closedir) {
    errno = m_folder == nullptr ? errno : 0;
    while (const dirent* entry = m_folder ? ::readdir(m_folder.get()) : nullptr) {
      if (entry->d_name[0] != '.' && !IsFolder(*entry)) {
        m_places.push_back(m_texts.Add(entry->d_name));
      }
      errno = 0;
    }
    if (errno != 0) {
      throw std::system_error(errno, std::generic_category(), path);
    }
    std::sort(m_places.begin(), m_places.end(),
              [this](auto a, auto b) { return std::strcmp(Name(a), Name(b)) < 0; });
    m_files.resize(m_places.size());
  }

  Files Run(unsigned int threads) {
    std::vector<std::thread> others;
    for (unsigned int i = 1; i < threads; ++i) {
      try {
        others.emplace_back([this] { Work(); });
      } catch (const std::system_error&) {
        break;  // no more threads are possible
      }
    }
    Work();
    for (std::thread& other : others) {
      other.join();
    }
    return std::move(m_files);
  }

 private:
  bool IsFolder(const dirent& entry) const {
    struct stat status {};
    return entry.d_type != DT_REG &&
           ::fstatat(::dirfd(m_folder.get()), entry.d_name, &status, 0) == 0 &&
           S_ISDIR(status.st_mode);
  }

  const char* Name(std::uint32_t place) const { return m_texts.At(place).data(); }

  void Work() {
    pugi::xml_document document;
    std::string bytes;
    const std::size_t count = m_places.size();
    for (std::size_t begin = 0; (begin = m_next.fetch_add(kChunk)) < count;) {
      for (std::size_t i = begin; i < std::min(begin + kChunk, count); ++i) {
        m_files[i] = Find(Name(m_places[i]), bytes, document);
      }
    }
  }

  std::shared_ptr<const File> Find(const char* name, std::string& bytes,
                                   pugi::xml_document& document) {
    const auto found =
        std::lower_bound(m_known.begin(), m_known.end(), name,
                         [](const auto& file, const char* wanted) { return file->name < wanted; });
    const bool isKnown = found != m_known.end() && (*found)->name == name;
    struct stat status {};
    if (isKnown && ::fstatat(::dirfd(m_folder.get()), name, &status, 0) == 0 &&
        IsSame((*found)->stamp, StampOf(status))) {
      m_weight += (*found)->weight;
      return *found;
    }
    return Read(name, bytes, document, isKnown ? *found : nullptr);
  }

  std::shared_ptr<const File> Read(const char* name, std::string& bytes,
                                   pugi::xml_document& document,
                                   const std::shared_ptr<const File>& known) {
    auto file = std::make_shared<File>();
    file->name = name;
    std::string fault;
    try {
      fault = Load(::dirfd(m_folder.get()), name, bytes, file->stamp);
      if (fault.empty() && (m_total += bytes.size()) > kMaxGuide) {
        fault = "the guide is larger than " + std::to_string(kMaxGuide >> 20) + " MiB";
      }
      if (fault.empty() && known != nullptr && known->hash == Hash(bytes)) {
        known->stamp = file->stamp;  // written again with the same bytes
        m_weight += known->weight;
        return known;
      }
      if (fault.empty()) {
        const std::size_t stored = bytes.size();
        ReadBytes(*file, bytes, document, known.get(), m_weight);
        m_total += bytes.size() - stored;
      }
    } catch (const std::bad_alloc&) {
      fault = "there is not enough memory";
    }
    if (!fault.empty()) {
      file->faults.push_back(file->name + ": left out: " + fault);
      // The reason may go away without a change of the file.
      file->hash = 0;
      file->stamp = {};
    }
    return file;
  }

  const Files& m_known;
  const std::unique_ptr<DIR, int (*)(DIR*)> m_folder;
  IdList m_texts;
  std::vector<std::uint32_t> m_places;  ///< of the names in `m_texts`, sorted
  Files m_files;
  std::atomic<std::size_t> m_next{0};
  std::atomic<std::size_t> m_total{0};
  std::atomic<std::size_t> m_weight{0};
};

void AddFragments(File& file, std::string& bytes, const std::vector<Part>& parts,
                  pugi::xml_document& document, const File* known,
                  std::atomic<std::size_t>& weight) {
  std::unordered_map<std::uint64_t, std::shared_ptr<const Fragment>> same;
  if (known != nullptr) {
    for (const Entry& entry : known->fragments) {
      same[entry.fragment->hash] = entry.fragment;
    }
  }
  std::size_t moreFaults = 0;
  std::size_t tooMany = 0;
  for (const Part& part : parts) {
    char* const text = bytes.data() + part.offset;
    const Report report = [&](const std::string& line) {
      if (file.faults.size() >= kMaxFaults) {
        ++moreFaults;
        return;
      }
      std::string& fault = file.faults.emplace_back(file.name + ": ");
      if (parts.size() > 1) {
        fault.append("fragment ").append(std::to_string(&part - parts.data() + 1)).append(": ");
      }
      fault += line;
    };
    const auto found = same.empty() ? same.end() : same.find(Hash({text, part.size}));
    std::shared_ptr<const Fragment> fragment =
        found == same.end() ? ParseFragment(document, text, part.size, report) : found->second;
    if (fragment == nullptr) {
      continue;
    }
    const std::size_t added = Weight(*fragment);
    if (weight + added > kMaxWeight) {
      ++tooMany;
      continue;
    }
    weight += added;
    file.weight += added;
    file.fragments.push_back({std::move(fragment), part.offset});
  }
  if (moreFaults != 0) {
    file.faults.push_back(file.name + ": " + std::to_string(moreFaults) + " more faults");
  }
  if (tooMany != 0) {
    file.faults.push_back(file.name + ": " + std::to_string(tooMany) +
                          " fragments left out: the guide would take more than " +
                          std::to_string(kMaxWeight >> 20) + " MiB of memory");
    // There may be room for them later, without a change of the file.
    file.hash = 0;
    file.stamp = {};
  }
}

}  // namespace

void ReadBytes(File& file, std::string& bytes, pugi::xml_document& document, const File* known,
               std::atomic<std::size_t>& weight) {
  file.hash = Hash(bytes);
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
  if (ParseDescriptor(bytes, file.units)) {
    return;
  }
  if (IsFragmentName(file.name.c_str())) {
    parts = {{0, bytes.size()}};
  } else if (Divide(bytes, parts, report)) {
    file.isUnit = true;
  } else if (file.faults.empty()) {
    report("not a fragment, a delivery unit or a descriptor, left out");
  }
  AddFragments(file, bytes, parts, document, known, weight);
}

Files ReadFolder(const std::string& path, const Files& known, unsigned int threads) {
  return Reading(path, known).Run(threads);
}

std::string ReadFragment(const std::string& folder, const File& file, const Entry& entry) {
  std::string bytes;
  Stamp stamp;
  if (!Load(AT_FDCWD, (folder + "/" + file.name).c_str(), bytes, stamp).empty()) {
    return {};
  }
  if (IsGzip(bytes)) {
    Unpack(bytes);
  }
  bytes = bytes.size() < entry.offset ? "" : bytes.substr(entry.offset, entry.fragment->size);
  return Hash(bytes) == entry.fragment->hash ? bytes : "";
}

}  // namespace esg::guide
