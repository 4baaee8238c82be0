#include "IPCS/internal/Wire.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "IPCS/internal/Handles.h"
#include "Log.h"

namespace esg::internal {
namespace {

/// The default limit of a system bus for the size of a message.
constexpr unsigned long kMaxMessage = 32UL * 1024 * 1024;
/// More than any message needs besides its first argument and its payload.
constexpr unsigned long kAmpleHeader = 4096;

/// The size that the bus compares with its limit; 0 if there is no memory.
unsigned long SizeOf(DBusMessage* message) {
  char* bytes = nullptr;
  int size = 0;
  dbus_message_marshal(message, &bytes, &size);
  dbus_free(bytes);
  return static_cast<unsigned long>(size);
}

Written Write(DBusMessage* message, int headType, const void* head, unsigned long headSize,
              const ESGMessageBuffer& payload) {
  const char* bytes = payload.GetAsCStr(0);
  const auto length = static_cast<int>(payload.GetBufferSize());
  unsigned long total = headSize + payload.GetBufferSize();
  if (total <= kMaxMessage) {
    if (dbus_message_append_args(message, headType, head, DBUS_TYPE_INT32, &length, DBUS_TYPE_ARRAY,
                                 DBUS_TYPE_BYTE, &bytes, length, DBUS_TYPE_INVALID) == FALSE) {
      return Written::Failed;
    }
    total = total > kMaxMessage - kAmpleHeader ? SizeOf(message) : total;
  }
  if (total > kMaxMessage) {
    ESG_LOGE("A message of %lu bytes is larger than the bus takes\n", total);
    return Written::TooLarge;
  }
  return Written::Done;
}

/// `types` are the types of the three arguments.
Read ReadBody(DBusMessage* message, const char* types, void* head, std::string_view& payload) {
  const char* signature = dbus_message_get_signature(message);
  int length = 0;
  char* bytes = nullptr;
  int size = 0;
  if (*signature == '\0') {
    return Read::Empty;
  }
  // Checks the signature first, so that no message is read in part.
  if (std::strncmp(signature, types, std::strlen(types)) != 0 ||
      dbus_message_get_args(message, nullptr, types[0], head, DBUS_TYPE_INT32, &length,
                            DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &bytes, &size,
                            DBUS_TYPE_INVALID) == FALSE) {
    return Read::Wrong;
  }
  payload = {bytes, static_cast<std::size_t>(size)};
  return Read::Done;
}

Read ReadBody(DBusMessage* message, const char* types, void* head, ESGMessageBuffer& payload) {
  std::string_view bytes;
  const Read read = ReadBody(message, types, head, bytes);
  Append(bytes, payload);
  return read;
}

}  // namespace

void Append(std::string_view bytes, ESGMessageBuffer& payload) {
  payload.PushConcatenated(bytes.size(), const_cast<char*>(bytes.data()));  // it only reads them
}

Written WriteCall(DBusMessage* message, const char* method, const ESGMessageBuffer& payload) {
  if (method == nullptr || dbus_validate_utf8(method, nullptr) == FALSE) {
    ESG_LOGE("The text is not UTF-8\n");
    return Written::Failed;
  }
  return Write(message, DBUS_TYPE_STRING, &method, std::strlen(method), payload);
}

Written WriteReply(DBusMessage* message, int result, const ESGMessageBuffer& payload) {
  return Write(message, DBUS_TYPE_INT32, &result, sizeof(result), payload);
}

Written WriteSignal(DBusMessage* message, int number, const ESGMessageBuffer& payload) {
  char text[15];
  std::snprintf(text, sizeof(text), "%d", number);
  return WriteCall(message, text, payload);
}

Read ReadCall(DBusMessage* message, const char*& method, ESGMessageBuffer& payload) {
  return ReadBody(message, "siay", &method, payload);
}

Read ReadReply(DBusMessage* message, int& result, std::string_view& payload) {
  return ReadBody(message, "iiay", &result, payload);
}

Read ReadSignal(DBusMessage* message, int& number, ESGMessageBuffer& payload) {
  const char* text = nullptr;
  const Read read = ReadBody(message, "siay", &text, payload);
  number = read == Read::Done ? static_cast<int>(std::strtol(text, nullptr, 10)) : number;
  return read;
}

}  // namespace esg::internal
