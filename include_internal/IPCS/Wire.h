#ifndef IPCS_WIRE_H
#define IPCS_WIRE_H

#include <dbus/dbus.h>

#include "EIIPCConnection.h"
#include "ESGMessageBuffer.h"

/// The layout of every message, for all four ends: caller, listener, emitter and receiver.
///
///     call    method name (s)  length (i)  payload (ay)
///     reply   result (i)       length (i)  payload (ay)
///     signal  number (s)       length (i)  payload (ay)
///
/// The length repeats the array's own, which is the one that counts.
namespace wire {

inline constexpr char kCallPath[] = "/com/velmora/Object";
inline constexpr char kCallMember[] = "MethodCall";
inline constexpr char kSignalPath[] = "/com/velmora/ESG/IPCS";
inline constexpr char kSignalInterface[] = "com.velmora.ESG.Signal";

/// The signal member of a kind of message; "Unknown" for a value that is none.
const char* MemberName(eECIPCMessageType type);

/// What the first argument is.
using Text = const char*;
using Number = dbus_int32_t;

enum class Written { Done, TooLarge, Failed };

/// Appends a body to a new message. The payload is the first bytes of `payload`, as many as are
/// unread. TooLarge: the bus would drop the connection that sends it. Failed: no memory, or a text
/// that the bus does not carry. The log has the reason where it is not memory.
Written Write(DBusMessage* message, Text head, const ESGMessageBuffer& payload);
Written Write(DBusMessage* message, Number head, const ESGMessageBuffer& payload);

enum class Read { Done, Empty, Wrong };

/// Reads a body: its first argument, which is valid as long as the message, and its bytes, appended
/// to `payload`. Empty: the message has no arguments. Wrong: it has others; nothing is written
/// then.
Read ReadBody(DBusMessage* message, Text& head, ESGMessageBuffer& payload);
Read ReadBody(DBusMessage* message, Number& head, ESGMessageBuffer& payload);

}  // namespace wire

#endif
