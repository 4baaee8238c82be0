#ifndef IPCS_DBUS_HANDLES_H
#define IPCS_DBUS_HANDLES_H

#include <dbus/dbus.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

/// Owners of what libdbus hands out by reference or wants freed; nothing else releases these.
namespace ipcs {

struct MessageRelease {
  void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using MessagePtr = std::unique_ptr<DBusMessage, MessageRelease>;

struct PendingCallRelease {
  void operator()(DBusPendingCall* call) const { dbus_pending_call_unref(call); }
};
using PendingCallPtr = std::unique_ptr<DBusPendingCall, PendingCallRelease>;

struct ConnectionRelease {
  void operator()(DBusConnection* connection) const { dbus_connection_unref(connection); }
};
using ConnectionPtr = std::unique_ptr<DBusConnection, ConnectionRelease>;

/// One error of one call: libdbus ends the process when an error that is already set is passed in.
class Error {
 public:
  Error() { dbus_error_init(&m_error); }
  Error(const Error&) = delete;
  Error& operator=(const Error&) = delete;
  ~Error() { dbus_error_free(&m_error); }

  DBusError* Out() { return &m_error; }
  bool IsSet() const { return dbus_error_is_set(&m_error) != FALSE; }
  const char* Text() const { return m_error.message; }

 private:
  DBusError m_error;
};

/// A private connection to the system bus whose loss does not end the process; null with `error`
/// set on failure. Close it before the last reference goes.
inline DBusConnection* OpenSystemBus(Error& error) {
  DBusConnection* connection = dbus_bus_get_private(DBUS_BUS_SYSTEM, error.Out());
  if (connection != nullptr) {
    dbus_connection_set_exit_on_disconnect(connection, FALSE);
  }
  return connection;
}

/// Closes a private connection and gives up one reference to it.
inline void CloseAndRelease(DBusConnection* connection) {
  dbus_connection_close(connection);
  ConnectionPtr(connection).reset();
}

/// Whether libdbus accepts a text as a bus name; sets `error`, which may be null, where it does
/// not.
inline bool IsBusName(const std::string& name, DBusError* error = nullptr) {
  if (name.find('\0') != std::string::npos) {
    dbus_set_error_const(error, DBUS_ERROR_INVALID_ARGS, "Bus name has a NUL in it");
    return false;
  }
  return dbus_validate_bus_name(name.c_str(), error) != FALSE;
}

/// Calls `connect` until it succeeds: 61 times at most, one second apart.
template <typename Connect>
void ConnectWithRetries(Connect connect) {
  constexpr int kRetries = 60;
  for (int retry = 0; !connect() && retry < kRetries; ++retry) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
  }
}

}  // namespace ipcs

#endif
