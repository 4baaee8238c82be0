#ifndef ESGCTL_WATCH_H
#define ESGCTL_WATCH_H

#include <vector>

#include "Status.h"

namespace esgctl {

struct WatchRequest {
  std::vector<int> events;
  unsigned int count = 0;  ///< 0: no end
  bool json = false;
};

/// Prints events until there have been enough, SIGINT or SIGTERM comes, whoever reads the output
/// goes, or the bus goes (kAway). A service that goes and comes back is no reason to end.
Status Watch(const WatchRequest& request);

}  // namespace esgctl

#endif
