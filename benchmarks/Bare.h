#ifndef BENCHMARKS_BARE_H
#define BENCHMARKS_BARE_H

#include <dbus/dbus.h>

#include <string_view>

#include "IESGService.h"
#include "IPCS/internal/Handles.h"

/// The protocol directly on libdbus: the baseline for the library, and the service that replies.
namespace bare {

/// Ends the process with a message when `done` is false.
void Require(bool done, const char* what);

/// A private connection to the system bus.
DBusConnection* Open();

esg::internal::MessagePtr NewCall(const char* service, const char* method,
                                  std::string_view payload);
esg::internal::MessagePtr NewReply(DBusMessage* call, std::string_view payload);
esg::internal::MessagePtr NewEvent(int event, std::string_view payload);

/// The bytes of a call, a reply or a signal; valid as long as the message.
std::string_view Payload(DBusMessage* message);
/// The first argument of a call or a signal.
const char* Text(DBusMessage* message);

/// Makes one call to the service: sends, blocks, returns the reply.
esg::internal::MessagePtr Call(DBusConnection* connection, const char* method,
                               std::string_view payload);

}  // namespace bare

#endif
