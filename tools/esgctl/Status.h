#ifndef ESGCTL_STATUS_H
#define ESGCTL_STATUS_H

#include "common/Program.h"

namespace esgctl {

using esg::tools::Failure;

/// The exit statuses of the program.
enum Status : int {
  kFound = 0,
  kOther = 1,
  kUsage = 2,
  kAway = 8,        ///< the service or the bus is not there
  kUnreadable = 9,  ///< the reply cannot be read
  kNotFound = 10,
};

/// The reader of the output has gone.
class ClosedPipe {};

}  // namespace esgctl

#endif
