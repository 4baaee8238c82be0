#include "Output.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "Status.h"

namespace esgctl {
namespace {

constexpr int kUsualWidth = 80;
constexpr int kWidest = 10000;

int output = STDOUT_FILENO;

std::string_view Variable(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? std::string_view() : std::string_view(value);
}

bool Colour(const OutputOptions& options) {
  if (options.colour == "auto") {
    return OutputIsTerminal() && Variable("NO_COLOR").empty() && Variable("TERM") != "dumb";
  }
  return options.colour == "always";
}

Failure OutputFailure() {
  return {kOther, std::string("The output cannot be written: ") + std::strerror(errno)};
}

}  // namespace

int TerminalWidth(int descriptor) {
  const int columns = std::atoi(std::string(Variable("COLUMNS")).c_str());
  if (columns > 0 && columns < kWidest) {
    return columns;
  }
  winsize size = {};
  if (ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
    return size.ws_col;
  }
  return kUsualWidth;
}

bool OutputIsTerminal() { return isatty(STDOUT_FILENO) != 0; }

Style TableStyle(const OutputOptions& options) {
  const int natural = OutputIsTerminal() ? TerminalWidth(STDOUT_FILENO) : 0;
  return {options.width > 0 ? static_cast<int>(options.width) : natural, Colour(options)};
}

Style GridStyle(const OutputOptions& options) {
  return {options.width > 0 ? static_cast<int>(options.width) : TerminalWidth(STDOUT_FILENO),
          Colour(options)};
}

void ReserveStandardDescriptors() {
  int descriptor = 0;
  while (descriptor <= STDERR_FILENO) {
    // Not for writing: output that was closed is an error still.
    descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) {
      return;
    }
  }
  close(descriptor);
}

int KeepOutput() {
  const int kept = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (kept < 0 || nowhere < 0 || dup2(nowhere, STDOUT_FILENO) < 0) {
    throw OutputFailure();
  }
  close(nowhere);
  output = kept;
  return output;
}

void Print(const std::string& text) {
  std::string_view rest = text;
  while (!rest.empty()) {
    const ssize_t written = write(output, rest.data(), rest.size());
    if (written >= 0) {
      rest.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EPIPE) {
      throw ClosedPipe();
    } else if (errno == EAGAIN) {
      pollfd ready = {output, POLLOUT, 0};
      poll(&ready, 1, -1);
    } else if (errno != EINTR) {
      throw OutputFailure();
    }
  }
}

}  // namespace esgctl
