#ifndef TESTS_MESSAGES_H
#define TESTS_MESSAGES_H

#include <dbus/dbus.h>

#include <initializer_list>
#include <string>

#include "IPCS/internal/Handles.h"

/// Messages of the protocol, written and read without the library.
namespace esg::test {

using internal::MessagePtr;

MessagePtr MakeCall(const std::string& destination, const std::string& method,
                    const std::string& bytes);
MessagePtr MakeReply(DBusMessage* call, int result, const std::string& bytes);
MessagePtr MakeSignal(const char* member, int number, const std::string& bytes,
                      const std::string& destination = "");

struct Body {
  std::string text;  ///< The first argument if it is a string,
  int number = 0;    ///< or an integer.
  int length = 0;
  std::string bytes;
};
/// Reads a body "siay" or "iiay". Throws if it is neither.
Body ReadBody(DBusMessage* message);

/// A payload of integers.
std::string Integers(std::initializer_list<int> values);

/// Appends values of the types of `signature`: integers, strings, and arrays of one of them.
MessagePtr WithBody(MessagePtr message, const std::string& signature);

/// How many bytes of payload can be added to a message so that the bus accepts it.
std::size_t LargestPayload(DBusMessage* message);

}  // namespace esg::test

#endif
