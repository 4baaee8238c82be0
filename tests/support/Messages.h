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
  std::string text;  ///< The first argument where it is a string,
  int number = 0;    ///< where it is an integer.
  int length = 0;
  std::string bytes;
};
/// Reads a body "siay" or "iiay"; throws when it is neither.
Body ReadBody(DBusMessage* message);

/// A payload of integers.
std::string Integers(std::initializer_list<int> values);

/// Appends made-up values of the types of `signature`; each array gets as many elements.
MessagePtr WithBody(MessagePtr message, const std::string& signature, int elements = 1);

/// How many bytes of payload can be added to a message for the bus to take it. And whether the bus
/// takes a message: it drops the connection that sends one too large.
std::size_t LargestPayload(DBusMessage* message);
bool BusTakes(MessagePtr message);

}  // namespace esg::test

#endif
