#include "IPCS/Wire.h"

#include <cstring>

#include "Log.h"

namespace wire {
namespace {

// A system bus as shipped takes messages of 32 MiB. What the header of a message takes of that is
// bounded: the names in it are at most 255 bytes each.
constexpr unsigned long kMaximumMessage = 32UL * 1024 * 1024;
constexpr unsigned long kMaximumHeader = 4096;

Written WriteBody(DBusMessage* message, int headType, const void* head, unsigned long headSize,
                  const ESGMessageBuffer& payload) {
  const unsigned int size = payload.GetBufferSize();
  if (headSize + size > kMaximumMessage - kMaximumHeader) {
    ESG_LOGE("A message of %lu bytes is larger than the bus takes\n", headSize + size);
    return Written::TooLarge;
  }
  const auto length = static_cast<dbus_int32_t>(size);
  const char* bytes = payload.GetAsCStr(0);

  DBusMessageIter body;
  DBusMessageIter array = DBUS_MESSAGE_ITER_INIT_CLOSED;
  dbus_message_iter_init_append(message, &body);
  const bool done =
      dbus_message_iter_append_basic(&body, headType, head) != FALSE &&
      dbus_message_iter_append_basic(&body, DBUS_TYPE_INT32, &length) != FALSE &&
      dbus_message_iter_open_container(&body, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE_AS_STRING, &array) !=
          FALSE &&
      dbus_message_iter_append_fixed_array(&array, DBUS_TYPE_BYTE, &bytes, length) != FALSE &&
      dbus_message_iter_close_container(&body, &array) != FALSE;
  if (!done) {
    dbus_message_iter_abandon_container_if_open(&body, &array);
  }
  return done ? Written::Done : Written::Failed;
}

Read ReadBody(DBusMessage* message, const char* signature, void* head, ESGMessageBuffer& payload) {
  DBusMessageIter body;
  if (dbus_message_iter_init(message, &body) == FALSE) {
    return Read::Empty;
  }
  if (dbus_message_has_signature(message, signature) == FALSE) {
    return Read::Wrong;
  }
  dbus_message_iter_get_basic(&body, head);
  dbus_message_iter_next(&body);
  dbus_message_iter_next(&body);

  DBusMessageIter array;
  char* bytes = nullptr;
  int size = 0;
  dbus_message_iter_recurse(&body, &array);
  dbus_message_iter_get_fixed_array(&array, &bytes, &size);
  payload.PushConcatenated(static_cast<unsigned long>(size), bytes);
  return Read::Done;
}

}  // namespace

const char* MemberName(eECIPCMessageType type) {
  switch (type) {
    case Event:
      return "Event";
    case Data:
      return "Data";
  }
  return "Unknown";
}

Written Write(DBusMessage* message, Text head, const ESGMessageBuffer& payload) {
  if (head == nullptr || dbus_validate_utf8(head, nullptr) == FALSE) {
    ESG_LOGE("The text is not UTF-8\n");
    return Written::Failed;
  }
  return WriteBody(message, DBUS_TYPE_STRING, &head, std::strlen(head), payload);
}

Written Write(DBusMessage* message, Number head, const ESGMessageBuffer& payload) {
  return WriteBody(message, DBUS_TYPE_INT32, &head, sizeof(head), payload);
}

Read ReadBody(DBusMessage* message, Text& head, ESGMessageBuffer& payload) {
  return ReadBody(message, "siay", &head, payload);
}

Read ReadBody(DBusMessage* message, Number& head, ESGMessageBuffer& payload) {
  return ReadBody(message, "iiay", &head, payload);
}

}  // namespace wire
