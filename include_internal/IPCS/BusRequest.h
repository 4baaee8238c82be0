#ifndef IPCS_BUS_REQUEST_H
#define IPCS_BUS_REQUEST_H

#include "DBusHandles.h"

namespace ipcs {

/// A call of one of the bus's own methods, with arguments as dbus_message_append_args takes them;
/// null where there is no memory.
template <typename... Arguments>
MessagePtr NewBusRequest(const char* method, Arguments... arguments) {
  MessagePtr request(
      dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, method));
  if (request != nullptr &&
      dbus_message_append_args(request.get(), arguments..., DBUS_TYPE_INVALID) == FALSE) {
    request.reset();
  }
  return request;
}

/// Sends a request to the bus and waits for the answer. On failure null, with `error` set; a
/// request that is null is one.
///
/// libdbus crashes when the bus goes while two threads use a connection and one of them waits for
/// an answer. So where another thread runs the connection's main context, that one sends and
/// receives, and the caller only waits; unless a callback keeps the context busy, which may be
/// waiting for this very thread.
MessagePtr AskBus(DBusConnection* connection, const MessagePtr& request, DBusError* error);

}  // namespace ipcs

#endif
