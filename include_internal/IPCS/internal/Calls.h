#ifndef IPCS_INTERNAL_CALLS_H
#define IPCS_INTERNAL_CALLS_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

class ESGMessageBuffer;

/// What the library's own code needs of calls beyond EIIPCConnection::Call.
namespace esg::internal {

/// Why a call failed. It has no destructor: static objects may call until the
/// very end.
struct CallFailure {
  enum class Kind {
    Unknown,     ///< by a connection of somebody else's
    NotSent,     ///< without memory
    NoBus,       ///< or no more
    TooLarge,    ///< for the bus
    Error,       ///< an error answer: the fields below
    Unreadable,  ///< an answer with other arguments
    Result,      ///< the service's own -1
  };
  Kind kind = Kind::Unknown;
  bool isFromBus = false;
  char name[256] = "";
  char text[512] = "";
};
/// That of the calling thread's last call that blocked, or last match rule, if it failed.
CallFailure& LastCallFailure();

/// The bytes of an answer, where they were received.
struct Payload {
  std::string_view bytes;
  std::shared_ptr<void> owner;
};

/// The same as Call() on the process-wide connection, which is made first, without waiting for the
/// answer. `done` runs, and is destroyed, on the thread of the default main context, never inside
/// this call, with what Call() gives and says.
///
/// 0 in a process that was forked from the connection's own; nothing is called then.
using CallDone = std::function<void(int result, Payload& payload, const CallFailure& failure)>;
std::uint64_t CallLater(const std::string& destination, const char* method,
                        const ESGMessageBuffer& in, CallDone done);
/// false when it was done or cancelled before.
bool CancelCall(std::uint64_t number);

}  // namespace esg::internal

#endif
