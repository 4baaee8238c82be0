#ifndef IPCS_INTERNAL_CALLS_H
#define IPCS_INTERNAL_CALLS_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

class ESGMessageBuffer;

/// Calls for the library's own code, in addition to EIIPCConnection::Call.
namespace esg::internal {

/// Why a call failed. It has no destructor: static objects may call until the process has ended.
struct CallFailure {
  enum class Kind {
    Unknown,     ///< in a connection that is not the library's own
    NotSent,     ///< no memory
    NoBus,       ///< no bus, or the bus was lost
    TooLarge,    ///< more than the bus accepts
    Error,       ///< an error reply: see the fields below
    Unreadable,  ///< a reply with other arguments
    Result,      ///< -1 from the service itself
  };
  Kind kind = Kind::Unknown;
  bool isFromBus = false;
  char name[256] = "";
  char text[512] = "";
};
/// The failure of the calling thread's last blocking call or added match rule, if it failed.
CallFailure& LastCallFailure();

/// The bytes of a reply, in the message that was received.
struct Payload {
  std::string_view bytes;
  std::shared_ptr<void> owner;
};

/// Makes a call on the process-wide connection, which it creates if necessary, and does not wait
/// for the reply. `done` gets the result and the failure of Call(). It runs, and is destroyed, on
/// the thread of the default main context, never inside this function.
///
/// Returns 0 in a process that was forked from that of the connection, and calls nothing.
using CallDone = std::function<void(int result, Payload& payload, const CallFailure& failure)>;
std::uint64_t CallLater(const std::string& destination, const char* method,
                        const ESGMessageBuffer& in, CallDone done);
/// Returns false if the call has ended or was cancelled before.
bool CancelCall(std::uint64_t number);

}  // namespace esg::internal

#endif
