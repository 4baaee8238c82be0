#include "ESGService_Proxy.h"

#include "ESGMarshal.h"
#include "IPCS/EIIPCConnection.h"
#include "IPCS/ESGMessageBuffer.h"
#include "Log.h"
#include "Operations.h"

namespace json = esg::json;
namespace failure = esg::failure;
namespace operations = esg::operations;

namespace {

Json::Value WholeOf(const std::string& globalServiceId, bool bb) {
  Json::Value arguments;
  ESGMarshal::BBToJson(bb, arguments);
  ESGMarshal::global_service_id_ToJson(globalServiceId, arguments);
  return arguments;
}

Json::Value RangeOf(const std::string& globalServiceId, bool bb, unsigned int startTime,
                    unsigned int duration) {
  Json::Value arguments = WholeOf(globalServiceId, bb);
  ESGMarshal::StartTimeToJson(startTime, arguments);
  ESGMarshal::DurationToJson(duration, arguments);
  return arguments;
}

Json::Value SavingOf(const std::string& globalServiceId, bool bb, const std::string& path) {
  Json::Value arguments = WholeOf(globalServiceId, bb);
  ESGMarshal::PathToJson(path, arguments);
  return arguments;
}

bool NoOutput(Json::Value& /*reply*/, operations::Nothing& /*result*/) { return true; }

}  // namespace

namespace esg::operations {

Operation<FCESGProgramInfo> GetPresentProgram(const std::string& globalServiceId) {
  ESG_LOGI("Invoked: globalServiceId=%s \n", globalServiceId.c_str());
  Json::Value arguments;
  ESGMarshal::global_service_id_ToJson(globalServiceId, arguments);
  return {__func__, std::move(arguments), &ESGMarshal::JsonToESGProgramInfo};
}

Operation<ESGProgramMap> GetProgramList(const std::string& globalServiceId, unsigned int startTime,
                                        unsigned int duration) {
  ESG_LOGI("Invoked: globalServiceId=%s  startTime=%u  duration=%u\n", globalServiceId.c_str(),
           startTime, duration);
  Json::Value arguments;
  ESGMarshal::StartTimeToJson(startTime, arguments);
  ESGMarshal::DurationToJson(duration, arguments);
  ESGMarshal::global_service_id_ToJson(globalServiceId, arguments);
  return {__func__, std::move(arguments), &ESGMarshal::JsonToESGProgramMap};
}

Operation<FCESGProgramInfo> GetProgram(const FCESGProgramInfo& program,
                                       eRelative_Position position) {
  Json::Value arguments;
  ESGMarshal::ESGProgramInfoToJson(program, arguments);
  ESGMarshal::eRelative_PositionToJson(position, arguments);
  return {__func__, std::move(arguments), &ESGMarshal::JsonToESGProgramInfo};
}

Operation<FCESGProgramInfo> GetProgramItem(const std::string& globalServiceId,
                                           const std::string& contentId, unsigned int startTime) {
  // The log shows the time as a signed number.
  ESG_LOGI("Invoked: global_service_id=%s  contentId = %s  startTime=%d\n", globalServiceId.c_str(),
           contentId.c_str(), static_cast<int>(startTime));
  Json::Value arguments;
  ESGMarshal::global_service_id_ToJson(globalServiceId, arguments);
  ESGMarshal::ContentIdToJson(contentId, arguments);
  ESGMarshal::StartTimeToJson(startTime, arguments);
  return {__func__, std::move(arguments), &ESGMarshal::JsonToESGProgramInfo};
}

Operation<std::string> GetScheduleFragment(const std::string& globalServiceId,
                                           unsigned int startTime, unsigned int duration, bool bb) {
  ESG_LOGI("%s\n", globalServiceId.c_str());
  return {__func__, RangeOf(globalServiceId, bb, startTime, duration), &ESGMarshal::JsonToXml};
}

Operation<std::string> GetServiceFragment(const std::string& globalServiceId, bool bb) {
  ESG_LOGI("%s\n", globalServiceId.c_str());
  return {__func__, WholeOf(globalServiceId, bb), &ESGMarshal::JsonToXml};
}

Operation<std::string> GetContentFragment(const std::string& globalServiceId,
                                          unsigned int startTime, unsigned int duration, bool bb) {
  ESG_LOGI("%s\n", globalServiceId.c_str());
  return {__func__, RangeOf(globalServiceId, bb, startTime, duration), &ESGMarshal::JsonToXml};
}

Operation<Nothing> SaveContentFragment(const std::string& path, const std::string& globalServiceId,
                                       bool bb) {
  ESG_LOGI("%s\n", globalServiceId.c_str());
  return {__func__, SavingOf(globalServiceId, bb, path), &NoOutput};
}

Operation<Nothing> SaveScheduleFragment(const std::string& path, const std::string& globalServiceId,
                                        bool bb) {
  ESG_LOGI("%s\n", globalServiceId.c_str());
  return {__func__, SavingOf(globalServiceId, bb, path), &NoOutput};
}

Operation<Nothing> SaveServiceFragment(const std::string& path, const std::string& globalServiceId,
                                       bool bb) {
  ESG_LOGI("%s\n", globalServiceId.c_str());
  return {__func__, SavingOf(globalServiceId, bb, path), &NoOutput};
}

std::string_view PayloadOf(const ESGMessageBuffer& response) {
  return {response.GetAsCStr(0), response.GetBufferSize()};
}

bool RemoteCallWithStringArguments(int called, std::string_view payload, std::string& reply,
                                   failure::Note& note) {
  if (called == -1) {
    ESG_LOGE("Fail to communicate using d-bus\n");
    note.reason = failure::ReasonOf(note.call);
    return false;
  }
  reply.assign(payload);
  return true;
}

bool RemoteCallWithJsonArguments(std::string& replyText, Json::Value& reply) {
  if (!ESGMarshal::ParseToJson(replyText, reply)) {
    ESG_LOGE("Fail to parse json data\n");
    return false;
  }
  return true;
}

bool ParseReturnValue(const std::string& replyText, failure::Note& note) {
  const auto reader = json::NewReader();
  if (reader == nullptr) {
    return false;
  }
  Json::Value reply;
  if (!json::Parse(*reader, replyText, reply)) {
    ESG_LOGE("Fail to parse json return value\n");
    return false;
  }
  return IsSuccess(reply, note);
}

bool IsSuccess(Json::Value& reply, failure::Note& note) {
  const Json::Value& verdict = reply["ret"];
  const bool isSuccess = verdict.asBool();
  if (!isSuccess && !verdict.isNull()) {
    note.reason = ESGFailureReason::NotFound;
  }
  return isSuccess;
}

int Call(EIIPCConnection* connection, const char* method, const std::string& arguments,
         ESGMessageBuffer& response) {
  failure::Note& note = failure::Last();
  note = failure::Note();
  esg::internal::CallFailure& failed = esg::internal::LastCallFailure();
  failed = esg::internal::CallFailure();
  EIIPCConnection* processWide = EIIPCConnection::GetInstance();
  connection = connection != nullptr ? connection : processWide;
  ESGMessageBuffer request;
  // PushConcatenated only reads what it appends.
  request.PushConcatenated(arguments.size(), const_cast<char*>(arguments.data()));
  const int called =
      connection != nullptr ? connection->Call(kESGServiceName, method, request, response) : 0;
  note.call = failed;
  return called;
}

}  // namespace esg::operations

std::atomic<ESGService_Proxy*> ESGService_Proxy::m_Instance{nullptr};

ESGService_Proxy::ESGService_Proxy() : ESGService_Proxy(nullptr) {}

ESGService_Proxy::ESGService_Proxy(EIIPCConnection* connection) : m_pConnection(connection) {}

ESGService_Proxy::~ESGService_Proxy() = default;

ESGService_Proxy* ESGService_Proxy::Instance() {
  if (m_Instance == nullptr) {
    m_Instance = new ESGService_Proxy();
  }
  return m_Instance;
}

bool ESGService_Proxy::RemoteCallWithStringArguments(const char* method,
                                                     const std::string& arguments,
                                                     std::string& reply) {
  ESGMessageBuffer response;
  const int called = operations::Call(m_pConnection, method, arguments, response);
  return operations::RemoteCallWithStringArguments(called, operations::PayloadOf(response), reply,
                                                   failure::Last());
}

bool ESGService_Proxy::RemoteCallWithJsonArguments(const char* method, const Json::Value& arguments,
                                                   Json::Value& reply) {
  std::string replyText;
  return RemoteCallWithStringArguments(method, json::ToText(arguments), replyText) &&
         operations::RemoteCallWithJsonArguments(replyText, reply);
}

/// Performs an operation: writes its arguments, makes one call, checks `ret`, reads its output.
template <typename Result>
bool ESGService_Proxy::m_Perform(const operations::Operation<Result>& operation, Result& result) {
  Json::Value reply;  // the bytes of the reply have been freed when it is complete
  return RemoteCallWithJsonArguments(operation.name, operation.arguments, reply) &&
         operations::ReadOutput(operation.read, reply, result, failure::Last());
}

bool ESGService_Proxy::GetPresentProgram(const std::string& globalServiceId,
                                         FCESGProgramInfo& program) {
  return m_Perform(operations::GetPresentProgram(globalServiceId), program);
}

bool ESGService_Proxy::GetProgramList(const std::string& globalServiceId, unsigned int startTime,
                                      unsigned int duration,
                                      std::map<unsigned int, FCESGProgramInfo>& programs) {
  return m_Perform(operations::GetProgramList(globalServiceId, startTime, duration), programs);
}

bool ESGService_Proxy::GetProgram(const FCESGProgramInfo& program, eRelative_Position position,
                                  FCESGProgramInfo& result) {
  return m_Perform(operations::GetProgram(program, position), result);
}

bool ESGService_Proxy::GetProgramItem(const std::string& globalServiceId,
                                      const std::string& contentId, unsigned int startTime,
                                      FCESGProgramInfo& program) {
  return m_Perform(operations::GetProgramItem(globalServiceId, contentId, startTime), program);
}

bool ESGService_Proxy::GetScheduleFragment(std::string& xmlFragment, std::string& globalServiceId,
                                           unsigned int startTime, unsigned int duration, bool bb) {
  return m_Perform(operations::GetScheduleFragment(globalServiceId, startTime, duration, bb),
                   xmlFragment);
}

bool ESGService_Proxy::GetServiceFragment(std::string& xmlFragment, std::string& globalServiceId,
                                          bool bb) {
  return m_Perform(operations::GetServiceFragment(globalServiceId, bb), xmlFragment);
}

bool ESGService_Proxy::GetContentFragment(std::string& xmlFragment, std::string& globalServiceId,
                                          unsigned int startTime, unsigned int duration, bool bb) {
  return m_Perform(operations::GetContentFragment(globalServiceId, startTime, duration, bb),
                   xmlFragment);
}

bool ESGService_Proxy::SaveContentFragment(const std::string& path,
                                           const std::string& globalServiceId, bool bb) {
  operations::Nothing nothing;
  return m_Perform(operations::SaveContentFragment(path, globalServiceId, bb), nothing);
}

bool ESGService_Proxy::SaveScheduleFragment(const std::string& path,
                                            const std::string& globalServiceId, bool bb) {
  operations::Nothing nothing;
  return m_Perform(operations::SaveScheduleFragment(path, globalServiceId, bb), nothing);
}

bool ESGService_Proxy::SaveServiceFragment(const std::string& path,
                                           const std::string& globalServiceId, bool bb) {
  operations::Nothing nothing;
  return m_Perform(operations::SaveServiceFragment(path, globalServiceId, bb), nothing);
}
