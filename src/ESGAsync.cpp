#include "ESGAsync.h"

#include <exception>

#include "IESGService.h"
#include "IPCS/EIIPCConnection.h"
#include "IPCS/internal/Calls.h"
#include "Operations.h"

namespace json = esg::json;
namespace failure = esg::failure;
namespace operations = esg::operations;

namespace {

namespace internal = esg::internal;

/// Performs an operation. `deliver` passes the failure and the result to the callback.
template <typename Result, typename Deliver>
ESGAsync::Identifier Perform(const operations::Operation<Result>& operation, Deliver deliver) {
  std::string arguments = json::ToText(operation.arguments);
  ESGMessageBuffer request;
  request.PushConcatenated(arguments.size(), arguments.data());
  auto done = [read = operation.read, deliver = std::move(deliver)](
                  int called, internal::Payload& payload, const internal::CallFailure& failed) {
    failure::Note note;
    note.call = failed;
    Result result;
    bool isRead = false;
    try {
      isRead = operations::ReadReply(read, called, payload.bytes, result, note);
    } catch (const std::exception&) {  // from the JSON library, for a member of the wrong type
    }
    payload.owner.reset();  // the callback may take long
    deliver(failure::ToFailure(note), isRead ? std::move(result) : Result());
  };
  return internal::CallLater(kESGServiceName, operation.name, request, std::move(done));
}

template <typename Result>
ESGAsync::Identifier Ask(const operations::Operation<Result>& operation,
                         std::function<void(const ESGFailure&, Result)> callback) {
  return Perform(operation,
                 [callback = std::move(callback)](const ESGFailure& failure, Result&& result) {
                   if (callback) {
                     callback(failure, std::move(result));
                   }
                 });
}

ESGAsync::Identifier Save(const operations::Operation<operations::Nothing>& operation,
                          ESGAsync::SaveCallback callback) {
  return Perform(operation,
                 [callback = std::move(callback)](const ESGFailure& failure, operations::Nothing) {
                   if (callback) {
                     callback(failure);
                   }
                 });
}

}  // namespace

ESGAsync::Identifier ESGAsync::GetPresentProgram(const std::string& globalServiceId,
                                                 ProgramCallback callback) {
  return Ask(operations::GetPresentProgram(globalServiceId), std::move(callback));
}

ESGAsync::Identifier ESGAsync::GetProgramList(const std::string& globalServiceId,
                                              unsigned int startTime, unsigned int duration,
                                              ProgramListCallback callback) {
  return Ask(operations::GetProgramList(globalServiceId, startTime, duration), std::move(callback));
}

ESGAsync::Identifier ESGAsync::GetProgram(const FCESGProgramInfo& program,
                                          eRelative_Position position, ProgramCallback callback) {
  return Ask(operations::GetProgram(program, position), std::move(callback));
}

ESGAsync::Identifier ESGAsync::GetProgramItem(const std::string& globalServiceId,
                                              const std::string& contentId, unsigned int startTime,
                                              ProgramCallback callback) {
  return Ask(operations::GetProgramItem(globalServiceId, contentId, startTime),
             std::move(callback));
}

ESGAsync::Identifier ESGAsync::GetScheduleFragment(const std::string& globalServiceId,
                                                   unsigned int startTime, unsigned int duration,
                                                   bool bb, FragmentCallback callback) {
  return Ask(operations::GetScheduleFragment(globalServiceId, startTime, duration, bb),
             std::move(callback));
}

ESGAsync::Identifier ESGAsync::GetServiceFragment(const std::string& globalServiceId, bool bb,
                                                  FragmentCallback callback) {
  return Ask(operations::GetServiceFragment(globalServiceId, bb), std::move(callback));
}

ESGAsync::Identifier ESGAsync::GetContentFragment(const std::string& globalServiceId,
                                                  unsigned int startTime, unsigned int duration,
                                                  bool bb, FragmentCallback callback) {
  return Ask(operations::GetContentFragment(globalServiceId, startTime, duration, bb),
             std::move(callback));
}

ESGAsync::Identifier ESGAsync::SaveContentFragment(const std::string& path,
                                                   const std::string& globalServiceId, bool bb,
                                                   SaveCallback callback) {
  return Save(operations::SaveContentFragment(path, globalServiceId, bb), std::move(callback));
}

ESGAsync::Identifier ESGAsync::SaveScheduleFragment(const std::string& path,
                                                    const std::string& globalServiceId, bool bb,
                                                    SaveCallback callback) {
  return Save(operations::SaveScheduleFragment(path, globalServiceId, bb), std::move(callback));
}

ESGAsync::Identifier ESGAsync::SaveServiceFragment(const std::string& path,
                                                   const std::string& globalServiceId, bool bb,
                                                   SaveCallback callback) {
  return Save(operations::SaveServiceFragment(path, globalServiceId, bb), std::move(callback));
}

bool ESGAsync::Cancel(Identifier identifier) { return internal::CancelCall(identifier); }

void ESGAsync::Connect() { EIIPCConnection::GetInstance(); }
