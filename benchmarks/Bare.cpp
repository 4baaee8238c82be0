#include "Bare.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "IPCS/internal/Wire.h"

namespace bare {
namespace {

void Append(DBusMessage* message, int headType, const void* head, std::string_view payload) {
  const auto size = static_cast<dbus_int32_t>(payload.size());
  const char* bytes = payload.data();
  DBusMessageIter body;
  DBusMessageIter array;
  dbus_message_iter_init_append(message, &body);
  dbus_message_iter_append_basic(&body, headType, head);
  dbus_message_iter_append_basic(&body, DBUS_TYPE_INT32, &size);
  dbus_message_iter_open_container(&body, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE_AS_STRING, &array);
  dbus_message_iter_append_fixed_array(&array, DBUS_TYPE_BYTE, &bytes, size);
  dbus_message_iter_close_container(&body, &array);
}

}  // namespace

void Require(bool done, const char* what) {
  if (!done) {
    std::fprintf(stderr, "esg-client-bench: %s\n", what);
    std::exit(1);
  }
}

DBusConnection* Open() {
  dbus_threads_init_default();
  DBusConnection* connection = dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr);
  Require(connection != nullptr, "no bus");
  return connection;
}

esg::internal::MessagePtr NewCall(const char* service, const char* method,
                                  std::string_view payload) {
  esg::internal::MessagePtr call(dbus_message_new_method_call(service, esg::internal::kCallPath,
                                                              service, esg::internal::kCallMember));
  Append(call.get(), DBUS_TYPE_STRING, &method, payload);
  return call;
}

esg::internal::MessagePtr NewReply(DBusMessage* call, std::string_view payload) {
  esg::internal::MessagePtr reply(dbus_message_new_method_return(call));
  const dbus_int32_t result = 1;
  Append(reply.get(), DBUS_TYPE_INT32, &result, payload);
  return reply;
}

esg::internal::MessagePtr NewEvent(int event, std::string_view payload) {
  esg::internal::MessagePtr signal(dbus_message_new_signal(
      esg::internal::kSignalPath, esg::internal::kSignalInterface, "Event"));
  const std::string number = std::to_string(event);
  const char* text = number.c_str();
  Append(signal.get(), DBUS_TYPE_STRING, &text, payload);
  return signal;
}

std::string_view Payload(DBusMessage* message) {
  DBusMessageIter body;
  DBusMessageIter array;
  const char* bytes = nullptr;
  int size = 0;
  dbus_message_iter_init(message, &body);
  dbus_message_iter_next(&body);
  dbus_message_iter_next(&body);
  dbus_message_iter_recurse(&body, &array);
  dbus_message_iter_get_fixed_array(&array, &bytes, &size);
  return {bytes, static_cast<std::size_t>(size)};
}

const char* Text(DBusMessage* message) {
  DBusMessageIter body;
  const char* text = nullptr;
  dbus_message_iter_init(message, &body);
  dbus_message_iter_get_basic(&body, &text);
  return text;
}

esg::internal::MessagePtr Call(DBusConnection* connection, const char* method,
                               std::string_view payload) {
  const esg::internal::MessagePtr call = NewCall(kESGServiceName, method, payload);
  DBusPendingCall* sent = nullptr;
  dbus_connection_send_with_reply(connection, call.get(), &sent, DBUS_TIMEOUT_USE_DEFAULT);
  const std::unique_ptr<DBusPendingCall, decltype(&dbus_pending_call_unref)> pending(
      sent, &dbus_pending_call_unref);
  dbus_pending_call_block(pending.get());
  esg::internal::MessagePtr reply(dbus_pending_call_steal_reply(pending.get()));
  Require(dbus_message_has_signature(reply.get(), "iiay") != FALSE, "no answer");
  return reply;
}

}  // namespace bare
