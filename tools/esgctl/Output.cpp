#include "Output.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "common/Text.h"

namespace esgctl {
namespace {

constexpr int kUsualWidth = 80;
constexpr int kWidest = 10000;

int output = STDOUT_FILENO;

std::string Variable(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? "" : value;
}

int TerminalWidth() {
  const int columns = std::atoi(Variable("COLUMNS").c_str());
  if (columns > 0 && columns < kWidest) {
    return columns;
  }
  winsize size = {};
  if (ioctl(output, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
    return size.ws_col;
  }
  return kUsualWidth;
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

bool OutputIsTerminal() { return isatty(output) != 0; }

Style TableStyle(const OutputOptions& options) {
  Style style = GridStyle(options);
  style.width = options.width > 0 || OutputIsTerminal() ? style.width : 0;
  return style;
}

Style GridStyle(const OutputOptions& options) {
  return {options.width > 0 ? static_cast<int>(options.width) : TerminalWidth(), Colour(options)};
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

void Say(const std::string& message) { esg::tools::Report("esgctl", message); }

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
