#include "common/Descriptors.h"

#include <fcntl.h>
#include <unistd.h>

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

}  // namespace esg::tools
