#include "Messages.h"

#include <stdexcept>

namespace esg::test {
namespace {

MessagePtr Append(MessagePtr message, int type, const void* head, const std::string& bytes) {
  const char* data = bytes.data();
  const int size = static_cast<int>(bytes.size());
  dbus_message_append_args(message.get(), type, head, DBUS_TYPE_INT32, &size, DBUS_TYPE_ARRAY,
                           DBUS_TYPE_BYTE, &data, size, DBUS_TYPE_INVALID);
  return message;
}

}  // namespace

MessagePtr MakeCall(const std::string& destination, const std::string& method,
                    const std::string& bytes) {
  const char* head = method.c_str();
  return Append(MessagePtr(dbus_message_new_method_call(destination.c_str(), "/com/velmora/Object",
                                                        destination.c_str(), "MethodCall")),
                DBUS_TYPE_STRING, &head, bytes);
}

MessagePtr MakeReply(DBusMessage* call, int result, const std::string& bytes) {
  return Append(MessagePtr(dbus_message_new_method_return(call)), DBUS_TYPE_INT32, &result, bytes);
}

MessagePtr MakeSignal(const char* member, int number, const std::string& bytes,
                      const std::string& destination) {
  const std::string text = std::to_string(number);
  const char* head = text.c_str();
  MessagePtr signal = Append(MessagePtr(dbus_message_new_signal("/com/velmora/ESG/IPCS",
                                                                "com.velmora.ESG.Signal", member)),
                             DBUS_TYPE_STRING, &head, bytes);
  if (!destination.empty()) {
    dbus_message_set_destination(signal.get(), destination.c_str());
  }
  return signal;
}

Body ReadBody(DBusMessage* message) {
  Body body;
  const char* text = "";
  const char* data = nullptr;
  int size = 0;
  const bool isText = dbus_message_get_signature(message)[0] == DBUS_TYPE_STRING;
  const void* head = isText ? static_cast<const void*>(&text) : &body.number;
  if (dbus_message_get_args(message, nullptr, isText ? DBUS_TYPE_STRING : DBUS_TYPE_INT32, head,
                            DBUS_TYPE_INT32, &body.length, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &data,
                            &size, DBUS_TYPE_INVALID) == FALSE) {
    throw std::runtime_error(std::string("body is ") + dbus_message_get_signature(message));
  }
  body.text = text;
  body.bytes = std::string(data, data + size);
  return body;
}

std::string Integers(std::initializer_list<int> values) {
  return {reinterpret_cast<const char*>(values.begin()), values.size() * sizeof(int)};
}

MessagePtr WithBody(MessagePtr message, const std::string& signature) {
  const char* text = "5";
  const dbus_uint64_t number = 5;
  DBusMessageIter body;
  DBusMessageIter array;
  dbus_message_iter_init_append(message.get(), &body);
  for (std::size_t i = 0; i < signature.size(); ++i) {
    const bool isArray = signature[i] == DBUS_TYPE_ARRAY;
    if (isArray) {
      const std::string element = signature.substr(++i, 1);
      dbus_message_iter_open_container(&body, DBUS_TYPE_ARRAY, element.c_str(), &array);
    }
    const void* value =
        signature[i] == DBUS_TYPE_STRING ? static_cast<const void*>(&text) : &number;
    dbus_message_iter_append_basic(isArray ? &array : &body, signature[i], value);
    if (isArray) {
      dbus_message_iter_close_container(&body, &array);
    }
  }
  return message;
}

std::size_t LargestPayload(DBusMessage* message) {
  char* bytes = nullptr;
  int size = 0;
  dbus_message_marshal(message, &bytes, &size);
  dbus_free(bytes);
  return (32UL << 20) - static_cast<std::size_t>(size);
}

}  // namespace esg::test
