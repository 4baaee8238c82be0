#ifndef ESGCTL_SHOWING_H
#define ESGCTL_SHOWING_H

#include <FCESGProgramInfo.h>

#include <vector>

#include "Services.h"
#include "Time.h"

namespace esgctl {

/// A programme on a service, in Unix time.
struct Showing {
  const Service* service;
  FCESGProgramInfo program;
  Seconds start = 0;
  Seconds end = 0;

  bool IsOn(Seconds now) const { return start <= now && now < end; }
};

/// What the guide has of one service, by start.
struct Listing {
  const Service* service;
  std::vector<Showing> showings;
};

}  // namespace esgctl

#endif
