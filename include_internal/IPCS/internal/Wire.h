#ifndef IPCS_INTERNAL_WIRE_H
#define IPCS_INTERNAL_WIRE_H

#include <dbus/dbus.h>

#include <string_view>

#include "IPCS/EIIPCConnection.h"
#include "IPCS/ESGMessageBuffer.h"

/// The layout of every message, for the caller, the listener, the emitter and the receiver.
///
///     call    method name (s)        length (i)  payload (ay)
///     reply   result (i)             length (i)  payload (ay)
///     signal  number in decimal (s)  length (i)  payload (ay)
///
/// The length repeats that of the array, which readers use. Arguments after these three are
/// ignored.
namespace esg::internal {

inline constexpr char kCallPath[] = "/com/velmora/Object";
inline constexpr char kCallMember[] = "MethodCall";
inline constexpr char kSignalPath[] = "/com/velmora/ESG/IPCS";
inline constexpr char kSignalInterface[] = "com.velmora.ESG.Signal";

/// The member name of a type of signal; "Unknown" for an invalid value.
inline const char* MemberName(eECIPCMessageType type) {
  return type == Event ? "Event" : type == Data ? "Data" : "Unknown";
}

/// TooLarge: the bus would disconnect the sender. Failed: no memory, or text that is not UTF-8. The
/// log has the reason unless it is a lack of memory.
enum class Written { Done, TooLarge, Failed };

/// Appends a body to a new message. Its payload is the first bytes of `payload`, as many as are
/// unread.
Written WriteCall(DBusMessage* message, const char* method, const ESGMessageBuffer& payload);
Written WriteReply(DBusMessage* message, int result, const ESGMessageBuffer& payload);
Written WriteSignal(DBusMessage* message, int number, const ESGMessageBuffer& payload);

/// Empty: the message has no arguments. Wrong: it has other arguments, and nothing was read.
enum class Read { Done, Empty, Wrong };

/// Reads a body: its first argument and its bytes, which are appended to a buffer. A method and a
/// view are valid as long as the message.
Read ReadCall(DBusMessage* message, const char*& method, ESGMessageBuffer& payload);
Read ReadReply(DBusMessage* message, int& result, std::string_view& payload);
Read ReadSignal(DBusMessage* message, int& number, ESGMessageBuffer& payload);
void Append(std::string_view bytes, ESGMessageBuffer& payload);

}  // namespace esg::internal

#endif
