#include "common/Program.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "common/Text.h"

namespace esg::tools {

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

void Report(std::string_view program, std::string_view message) {
  std::string margin = std::string(program) + ": ";
  std::string text;
  for (bool more = true; more;) {
    const std::size_t end = message.find('\n');
    text += margin + Printable(message.substr(0, end)) + '\n';
    margin.assign(margin.size(), ' ');
    more = end != std::string_view::npos;
    message.remove_prefix(more ? end + 1 : 0);
  }
  // std::cerr would say nothing more after a line that a full disk has refused.
  std::fwrite(text.data(), 1, text.size(), stderr);
}

}  // namespace esg::tools
