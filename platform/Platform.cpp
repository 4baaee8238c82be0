// The stand-ins. Messages go to standard error, one line each, with the journal's prefix if
// standard error is connected to it. ESG_LOG=error|info|debug|none selects messages; the default is
// error.

#include "Platform.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

namespace {

struct Severity {
  const char* word;  ///< its name in ESG_LOG, which selects it and anything more severe
  int lowest;
  char letter;
  char journal;
};

constexpr Severity kError{"error", ESG_LOG_PRIORITY_ERROR, 'E', '3'};
constexpr Severity kInfo{"info", ESG_LOG_PRIORITY_INFO, 'I', '6'};
constexpr Severity kDebug{"debug", 0, 'D', '7'};
/// A broken invariant, which is reported even with ESG_LOG=none.
constexpr Severity kBroken{"none", INT_MAX, 'A', '2'};

const Severity& SeverityOf(int priority) {
  return priority >= kError.lowest ? kError : priority >= kInfo.lowest ? kInfo : kDebug;
}

int ThresholdFromEnvironment() {
  const char* wanted = std::getenv("ESG_LOG");
  for (const Severity* severity : {&kInfo, &kDebug, &kBroken}) {
    if (wanted != nullptr && std::strcmp(wanted, severity->word) == 0) {
      return severity->lowest;
    }
  }
  return kError.lowest;
}

/// systemd identifies the stream that it connected to the journal by device and inode.
bool JournalFromEnvironment() {
  const char* stream = std::getenv("JOURNAL_STREAM");
  unsigned long long device = 0;
  unsigned long long inode = 0;
  struct stat actual {};
  return stream != nullptr && std::sscanf(stream, "%llu:%llu", &device, &inode) == 2 &&
         fstat(STDERR_FILENO, &actual) == 0 && actual.st_dev == device && actual.st_ino == inode;
}

/// One line in a buffer of fixed size. A pipe accepts a write of up to 4096 bytes as one unit, so
/// lines of several threads and processes do not mix.
class Line {
 public:
  explicit Line(const Severity& severity) {
    static const bool journal = JournalFromEnvironment();
    if (journal) {
      Append("<%c>", severity.journal);
    }
    Append("%c/", severity.letter);
  }

  __attribute__((format(printf, 2, 3))) void Append(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    AppendV(format, arguments);
    va_end(arguments);
  }

  __attribute__((format(printf, 2, 0))) void AppendV(const char* format, va_list arguments) {
    const std::size_t room = kCapacity - m_size;
    const int length = std::vsnprintf(m_text + m_size, room, format, arguments);
    if (length < 0) {
      Append("(no text for \"%s\")", format);
    } else if (static_cast<std::size_t>(length) < room) {
      m_size += static_cast<std::size_t>(length);
    } else {
      m_size = kCapacity - 1;
      m_truncated = true;
    }
  }

  void Write() {
    Trim();
    Disarm();
    if (m_truncated) {
      std::memcpy(m_text + m_size, kEllipsis, sizeof(kEllipsis) - 1);
      m_size += sizeof(kEllipsis) - 1;
    }
    m_text[m_size++] = '\n';
    const char* rest = m_text;
    while (m_size > 0) {
      const ssize_t written = write(STDERR_FILENO, rest, m_size);
      if (written < 0) {
        if (errno == EINTR) {
          continue;
        }
        return;
      }
      rest += written;
      m_size -= static_cast<std::size_t>(written);
    }
  }

 private:
  /// Removes trailing newlines, or the last character if truncation has split it.
  void Trim() {
    if (!m_truncated) {
      while (m_size > 0 && m_text[m_size - 1] == '\n') {
        --m_size;
      }
      return;
    }
    std::size_t lead = m_size;
    while (lead > 0 && m_size - lead < 4 && (At(lead - 1) & 0xC0U) == 0x80U) {
      --lead;
    }
    if (lead > 0 && At(lead - 1) >= 0xC0U) {
      m_size = lead - 1;
    }
  }

  /// Replaces control characters: foreign text must not start a line or control the terminal.
  void Disarm() {
    for (std::size_t i = 0; i < m_size; ++i) {
      if (At(i) < 0x20U || At(i) == 0x7FU) {
        m_text[i] = ' ';
      } else if (At(i) == 0xC2U && i + 1 < m_size && At(i + 1) >= 0x80U && At(i + 1) < 0xA0U) {
        m_text[i] = m_text[i + 1] = ' ';
      }
    }
  }

  unsigned char At(std::size_t i) const { return static_cast<unsigned char>(m_text[i]); }

  static constexpr char kEllipsis[] = "...";
  static constexpr std::size_t kCapacity = 4096 - sizeof(kEllipsis);

  char m_text[kCapacity + sizeof(kEllipsis)];
  std::size_t m_size = 0;
  bool m_truncated = false;
};

/// Restores errno for the caller.
class ErrnoGuard {
 public:
  ErrnoGuard() = default;
  ~ErrnoGuard() { errno = m_saved; }
  ErrnoGuard(const ErrnoGuard&) = delete;
  ErrnoGuard& operator=(const ErrnoGuard&) = delete;

 private:
  const int m_saved = errno;
};

}  // namespace

int __dlog_print(int /*logBuffer*/, int priority, const char* tag, const char* format, ...) {
  static const int threshold = ThresholdFromEnvironment();
  if (priority < threshold) {
    return 0;
  }
  const ErrnoGuard guard;
  Line line(SeverityOf(priority));
  line.Append("%s: ", tag != nullptr ? tag : "");
  va_list arguments;
  va_start(arguments, format);
  line.AppendV(format, arguments);
  va_end(arguments);
  line.Write();
  return 0;
}

void _FCAssert(const char* expression, const char* sourcePath, int line) {
  const ErrnoGuard guard;
  Line text(kBroken);
  text.Append("esg: %s:%d: broken invariant: %s", sourcePath, line, expression);
  text.Write();
}
