#ifndef IPCS_INTERNAL_HANDLES_H
#define IPCS_INTERNAL_HANDLES_H

#include <dbus/dbus.h>
#include <glib.h>
#include <pthread.h>
#include <unistd.h>

#include <memory>
#include <string>

/// Owners of the handles of libdbus, GLib and the kernel; only they release handles.
namespace esg::internal {

struct HandleRelease {
  void operator()(DBusMessage* message) const { dbus_message_unref(message); }
  /// A private connection has one owner, which closes it before it gives up its reference.
  void operator()(DBusConnection* connection) const {
    dbus_connection_close(connection);
    dbus_connection_unref(connection);
  }
  void operator()(GSource* source) const {
    g_source_destroy(source);
    g_source_unref(source);
  }
};
using MessagePtr = std::unique_ptr<DBusMessage, HandleRelease>;
using ConnectionPtr = std::unique_ptr<DBusConnection, HandleRelease>;
using SourcePtr = std::unique_ptr<GSource, HandleRelease>;

struct FileDescriptor {
  explicit FileDescriptor(int opened) : number(opened) {}
  FileDescriptor(FileDescriptor&&) = delete;
  ~FileDescriptor() { close(number); }
  const int number;
};

/// Disables cancellation of its thread during its lifetime.
class NoCancel {
 public:
  NoCancel() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_before); }
  NoCancel(NoCancel&&) = delete;
  ~NoCancel() { pthread_setcancelstate(m_before, nullptr); }

 private:
  int m_before = PTHREAD_CANCEL_DISABLE;
};

/// The error of one call: libdbus ends the process if a call gets an error that is already set.
struct Error : DBusError {
  Error() { dbus_error_init(this); }
  Error(Error&&) = delete;
  ~Error() { dbus_error_free(this); }
  bool IsSet() const { return dbus_error_is_set(this) != FALSE; }
};

/// Whether libdbus accepts a text as a bus name; sets `error`, which may be null, if not.
inline bool IsBusName(const std::string& name, DBusError* error = nullptr) {
  const bool hasNul = name.find('\0') != std::string::npos;
  return dbus_validate_bus_name(hasNul ? "" : name.c_str(), error) != FALSE;
}

}  // namespace esg::internal

#endif
