#ifndef ESGCTL_BUS_H
#define ESGCTL_BUS_H

#include <memory>

#include "Status.h"
#include "common/Bus.h"

namespace esgctl {

/// A connection of our own to the system bus, to know how things stand there before the library is
/// used: its first query waits for a bus for up to a minute, and ends the process when none comes.
class Bus {
 public:
  /// Connects, with time limits at each step. kAway where that fails.
  Bus();

  /// kAway where the service is not running and the bus cannot start it.
  void RequireService() const;

  /// Why a question failed, by how things stand now: a failure of status kAway if the bus or the
  /// service has gone, nothing if both are there.
  std::unique_ptr<Failure> WhatIsAway() const;

  GDBusConnection* Connection() const { return m_bus.Connection(); }

 private:
  esg::tools::Bus m_bus;
};

}  // namespace esgctl

#endif
