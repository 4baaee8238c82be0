#include "ESGFailure.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "Failure.h"

namespace failure = esg::failure;

namespace {

using Reason = ESGFailureReason;
using esg::internal::CallFailure;

struct NamedError {
  std::string_view name;  ///< without the common prefix; a final dot matches all names below it
  Reason reason;
};
constexpr std::string_view kErrors = "org.freedesktop.DBus.Error.";
constexpr std::array<NamedError, 9> kNamedErrors = {{
    {"Disconnected", Reason::NoBus},
    {"NoServer", Reason::NoBus},
    {"ServiceUnknown", Reason::NoService},
    {"NameHasNoOwner", Reason::NoService},
    {"Spawn.", Reason::NoService},
    {"NoReply", Reason::NoAnswer},
    {"Timeout", Reason::NoAnswer},
    {"TimedOut", Reason::NoAnswer},
    {"AccessDenied", Reason::AccessDenied},
}};

Reason ReasonOfError(const CallFailure& call) {
  std::string_view name = call.name;
  if (name.substr(0, kErrors.size()) != kErrors) {
    return Reason::ServiceError;
  }
  name.remove_prefix(kErrors.size());
  if (name == "LimitsExceeded") {  // from the bus: too many calls without a reply; from a service:
                                   // too large a reply
    return call.isFromBus ? Reason::NoAnswer : Reason::TooLarge;
  }
  const auto* const found =
      std::find_if(kNamedErrors.begin(), kNamedErrors.end(), [name](const NamedError& each) {
        return each.name == name ||
               (each.name.back() == '.' && name.substr(0, each.name.size()) == each.name);
      });
  return found != kNamedErrors.end() ? found->reason : Reason::ServiceError;
}

}  // namespace

namespace esg::failure {

Note& Last() {
  thread_local Note note{Reason::None, {}};
  return note;
}

ESGFailureReason ReasonOf(const CallFailure& call) {
  switch (call.kind) {
    case CallFailure::Kind::Unknown:
    case CallFailure::Kind::NotSent:
      return Reason::NoAnswer;
    case CallFailure::Kind::NoBus:
      return Reason::NoBus;
    case CallFailure::Kind::TooLarge:
      return Reason::TooLarge;
    case CallFailure::Kind::Error:
      return ReasonOfError(call);
    case CallFailure::Kind::Unreadable:
      return Reason::Unreadable;
    case CallFailure::Kind::Result:
      return Reason::ServiceError;
  }
  return Reason::NoAnswer;
}

ESGFailure ToFailure(const Note& note) { return {note.reason, note.call.name, note.call.text}; }

}  // namespace esg::failure

ESGFailure ESGLastFailure() { return failure::ToFailure(failure::Last()); }

const char* ESGFailureText(ESGFailureReason reason) {
  switch (reason) {
    case Reason::None:
      return "The operation succeeded.";
    case Reason::NotFound:
      return "The guide service found nothing, or refused.";
    case Reason::NoBus:
      return "There is no connection to the system bus.";
    case Reason::NoService:
      return "The guide service is not running and cannot be started.";
    case Reason::NoAnswer:
      return "The guide service does not respond.";
    case Reason::AccessDenied:
      return "Access to the guide service is denied.";
    case Reason::TooLarge:
      return "The request or the answer is too large for the bus.";
    case Reason::ServiceError:
      return "The guide service reported an error.";
    case Reason::Unreadable:
      return "The answer of the guide service cannot be read.";
  }
  return "The reason is unknown.";
}
