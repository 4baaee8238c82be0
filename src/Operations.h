#ifndef SRC_OPERATIONS_H
#define SRC_OPERATIONS_H

#include <json/json.h>

#include <string>
#include <string_view>
#include <type_traits>

#include "DirectReader.h"
#include "ESGTypes.h"
#include "FCESGProgramInfo.h"
#include "Failure.h"
#include "IPCS/ESGMessageBuffer.h"
#include "JsonText.h"

class EIIPCConnection;

/// The ten operations of the service, each defined once for blocking and non-blocking queries.
/// Creating one writes its log line.
namespace esg::operations {

/// The result of an operation without an output.
struct Nothing {};

template <typename Result>
struct Operation {
  const char* name;
  Json::Value arguments;
  /// Reads the output from a reply that reports success.
  bool (*read)(Json::Value& reply, Result& result);
};

Operation<FCESGProgramInfo> GetPresentProgram(const std::string& globalServiceId);
Operation<ESGProgramMap> GetProgramList(const std::string& globalServiceId, unsigned int startTime,
                                        unsigned int duration);
Operation<FCESGProgramInfo> GetProgram(const FCESGProgramInfo& program,
                                       eRelative_Position position);
Operation<FCESGProgramInfo> GetProgramItem(const std::string& globalServiceId,
                                           const std::string& contentId, unsigned int startTime);
Operation<std::string> GetScheduleFragment(const std::string& globalServiceId,
                                           unsigned int startTime, unsigned int duration, bool bb);
Operation<std::string> GetServiceFragment(const std::string& globalServiceId, bool bb);
Operation<std::string> GetContentFragment(const std::string& globalServiceId,
                                          unsigned int startTime, unsigned int duration, bool bb);
Operation<Nothing> SaveContentFragment(const std::string& path, const std::string& globalServiceId,
                                       bool bb);
Operation<Nothing> SaveScheduleFragment(const std::string& path, const std::string& globalServiceId,
                                        bool bb);
Operation<Nothing> SaveServiceFragment(const std::string& path, const std::string& globalServiceId,
                                       bool bb);

// The steps that handle a reply. Their names are the function names in the log lines.

/// The bytes that are valid as long as the buffer does not change.
std::string_view PayloadOf(const ESGMessageBuffer& response);

/// Converts the result of Call() to text; notes the reason if it is a failure.
bool RemoteCallWithStringArguments(int called, std::string_view payload, std::string& reply,
                                   failure::Note& note);
bool RemoteCallWithJsonArguments(std::string& replyText, Json::Value& reply);
/// Reads `ret` from the text of a reply.
bool ParseReturnValue(const std::string& replyText, failure::Note& note);
/// Reads `ret` from a parsed reply; notes the reason if the service found nothing.
bool IsSuccess(Json::Value& reply, failure::Note& note);

/// Reads `ret` and the output of a parsed reply. Does not catch exceptions of the JSON library.
template <typename Result>
bool ReadOutput(bool (*read)(Json::Value& reply, Result& result), Json::Value& reply,
                Result& result, failure::Note& note) {
  if (!ParseReturnValue(json::ToText(reply), note) || !read(reply, result)) {
    return false;
  }
  note.reason = ESGFailureReason::None;
  return true;
}

/// Reads a reply in one pass, for queries that may do so.
template <typename Result>
bool ReadReply(bool (*read)(Json::Value& reply, Result& result), int called,
               std::string_view payload, Result& result, failure::Note& note) {
  if constexpr (!std::is_same_v<Result, Nothing>) {
    if (called != -1 && direct::Read(payload, result)) {
      note.reason = ESGFailureReason::None;
      return true;
    }
    result = Result();
  }
  std::string text;
  Json::Value reply;
  if (!RemoteCallWithStringArguments(called, payload, text, note) ||
      !RemoteCallWithJsonArguments(text, reply) || !IsSuccess(reply, note) ||
      !read(reply, result)) {
    return false;
  }
  note.reason = ESGFailureReason::None;
  return true;
}

/// Makes one call through `connection`, null for the process-wide one; notes why it fails.
int Call(EIIPCConnection* connection, const char* method, const std::string& arguments,
         ESGMessageBuffer& response);

/// Performs a blocking operation that reads its reply in one pass. `result` must be a new object.
template <typename Result>
bool AskDirectly(const Operation<Result>& operation, Result& result) {
  ESGMessageBuffer response;
  const int called = Call(nullptr, operation.name, json::ToText(operation.arguments), response);
  return ReadReply(operation.read, called, PayloadOf(response), result, failure::Last());
}

}  // namespace esg::operations

#endif
