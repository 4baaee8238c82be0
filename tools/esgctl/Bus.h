#ifndef ESGCTL_BUS_H
#define ESGCTL_BUS_H

#include <gio/gio.h>

#include <memory>

#include "Failure.h"

namespace esgctl {

/// A connection of our own to the system bus, to know how things stand there before the library is
/// used: its first query waits for a bus for up to a minute, and ends the process when none comes.
class Bus {
 public:
  /// Connects, with time limits at each step. Status::Away where that fails.
  Bus();

  /// Status::Away where the service is not running and the bus cannot start it.
  void RequireService() const;

  /// Why a question failed, by how things stand now: a failure of status Away if the bus or the
  /// service has gone, nothing if both are there.
  std::unique_ptr<Failure> WhatIsAway() const;

  GDBusConnection* Connection() const { return m_connection.get(); }

 private:
  struct Release {
    void operator()(GDBusConnection* connection) const { g_object_unref(connection); }
  };

  std::unique_ptr<GDBusConnection, Release> m_connection;
};

}  // namespace esgctl

#endif
