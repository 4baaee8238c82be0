#include "ESGService_Proxy.h"

#include "ESGMarshal.h"
#include "IPCS/EIIPCConnection.h"
#include "IPCS/ESGMessageBuffer.h"
#include "JsonText.h"
#include "Log.h"

namespace {

/// The service's verdict on a call, from the text of its answer.
bool ParseReturnValue(const std::string& replyText) {
  Json::Value reply;
  if (!json::Parse(replyText, reply)) {
    ESG_LOGE("Fail to parse json return value\n");
    return false;
  }
  return reply["ret"].asBool();
}

// The arguments and the outputs of the fragment operations; a result refers to what it was made
// from.

auto WholeOf(const std::string& globalServiceId, bool bb) {
  return [&globalServiceId, bb](Json::Value& arguments) {
    ESGMarshal::BBToJson(bb, arguments);
    ESGMarshal::global_service_id_ToJson(globalServiceId, arguments);
  };
}

auto RangeOf(const std::string& globalServiceId, bool bb, unsigned int startTime,
             unsigned int duration) {
  return [whole = WholeOf(globalServiceId, bb), startTime, duration](Json::Value& arguments) {
    whole(arguments);
    ESGMarshal::StartTimeToJson(startTime, arguments);
    ESGMarshal::DurationToJson(duration, arguments);
  };
}

auto SavingOf(const std::string& globalServiceId, bool bb, const std::string& path) {
  return [whole = WholeOf(globalServiceId, bb), &path](Json::Value& arguments) {
    ESGMarshal::PathToJson(path, arguments);
    whole(arguments);
  };
}

auto XmlTo(std::string& xmlFragment) {
  return [&xmlFragment](Json::Value& reply) { return ESGMarshal::JsonToXml(reply, xmlFragment); };
}

bool NoOutput(Json::Value& /*reply*/) { return true; }

}  // namespace

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
  EIIPCConnection* processWide = EIIPCConnection::GetInstance();
  EIIPCConnection* connection = m_pConnection != nullptr ? m_pConnection : processWide;
  ESGMessageBuffer request;
  ESGMessageBuffer response;
  // The buffer only reads what it appends.
  request.PushConcatenated(arguments.size(), const_cast<char*>(arguments.data()));
  if (connection != nullptr) {
    const std::string destination("com.velmora.ESGCallListener");
    if (connection->Call(destination, method, request, response) == -1) {
      ESG_LOGE("Fail to communicate using d-bus\n");
      return false;
    }
  }
  const char* bytes = response.GetAsCStr(0);
  reply.assign(bytes != nullptr ? bytes : "", response.GetBufferSize());
  return true;
}

bool ESGService_Proxy::RemoteCallWithJsonArguments(const char* method, const Json::Value& arguments,
                                                   Json::Value& reply) {
  std::string replyText;
  if (!RemoteCallWithStringArguments(method, json::ToText(arguments), replyText)) {
    return false;
  }
  if (!ESGMarshal::ParseToJson(replyText, reply)) {
    ESG_LOGE("Fail to parse json data\n");
    return false;
  }
  return true;
}

/// What every operation does: its arguments, one call, the service's verdict, its output.
///
/// `marshal` puts the arguments into the object that is sent; `take` takes the output out of the
/// reply and is called only when the service succeeded.
template <typename Marshal, typename Take>
bool ESGService_Proxy::m_Perform(const char* operation, Marshal marshal, Take take) {
  Json::Value arguments;
  Json::Value reply;
  marshal(arguments);
  if (!RemoteCallWithJsonArguments(operation, arguments, reply)) {
    return false;
  }
  if (!ParseReturnValue(json::ToText(reply))) {
    return false;
  }
  return take(reply);
}

bool ESGService_Proxy::GetPresentProgram(const std::string& globalServiceId,
                                         FCESGProgramInfo& program) {
  ESG_LOGI("Invoked: globalServiceId=%s \n", globalServiceId.c_str());
  return m_Perform(
      __func__,
      [&](Json::Value& arguments) {
        ESGMarshal::global_service_id_ToJson(globalServiceId, arguments);
      },
      [&](Json::Value& reply) { return ESGMarshal::JsonToESGProgramInfo(reply, program); });
}

bool ESGService_Proxy::GetProgramList(const std::string& globalServiceId, unsigned int startTime,
                                      unsigned int duration,
                                      std::map<unsigned int, FCESGProgramInfo>& programs) {
  ESG_LOGI("Invoked: globalServiceId=%s  startTime=%u  duration=%u\n", globalServiceId.c_str(),
           startTime, duration);
  return m_Perform(
      __func__,
      [&](Json::Value& arguments) {
        ESGMarshal::StartTimeToJson(startTime, arguments);
        ESGMarshal::DurationToJson(duration, arguments);
        ESGMarshal::global_service_id_ToJson(globalServiceId, arguments);
      },
      [&](Json::Value& reply) { return ESGMarshal::JsonToESGProgramMap(reply, programs); });
}

bool ESGService_Proxy::GetProgram(const FCESGProgramInfo& program, eRelative_Position position,
                                  FCESGProgramInfo& result) {
  return m_Perform(
      __func__,
      [&](Json::Value& arguments) {
        ESGMarshal::ESGProgramInfoToJson(program, arguments);
        ESGMarshal::eRelative_PositionToJson(position, arguments);
      },
      [&](Json::Value& reply) { return ESGMarshal::JsonToESGProgramInfo(reply, result); });
}

bool ESGService_Proxy::GetProgramItem(const std::string& globalServiceId,
                                      const std::string& contentId, unsigned int startTime,
                                      FCESGProgramInfo& program) {
  // The log shows the time signed.
  ESG_LOGI("Invoked: global_service_id=%s  contentId = %s  startTime=%d\n", globalServiceId.c_str(),
           contentId.c_str(), static_cast<int>(startTime));
  return m_Perform(
      __func__,
      [&](Json::Value& arguments) {
        ESGMarshal::global_service_id_ToJson(globalServiceId, arguments);
        ESGMarshal::ContentIdToJson(contentId, arguments);
        ESGMarshal::StartTimeToJson(startTime, arguments);
      },
      [&](Json::Value& reply) { return ESGMarshal::JsonToESGProgramInfo(reply, program); });
}

bool ESGService_Proxy::GetScheduleFragment(std::string& xmlFragment, std::string& globalServiceId,
                                           unsigned int startTime, unsigned int duration, bool bb) {
  ESG_LOGI("%s\n", globalServiceId.c_str());
  return m_Perform(__func__, RangeOf(globalServiceId, bb, startTime, duration), XmlTo(xmlFragment));
}

bool ESGService_Proxy::GetServiceFragment(std::string& xmlFragment, std::string& globalServiceId,
                                          bool bb) {
  ESG_LOGI("%s\n", globalServiceId.c_str());
  return m_Perform(__func__, WholeOf(globalServiceId, bb), XmlTo(xmlFragment));
}

bool ESGService_Proxy::GetContentFragment(std::string& xmlFragment, std::string& globalServiceId,
                                          unsigned int startTime, unsigned int duration, bool bb) {
  ESG_LOGI("%s\n", globalServiceId.c_str());
  return m_Perform(__func__, RangeOf(globalServiceId, bb, startTime, duration), XmlTo(xmlFragment));
}

bool ESGService_Proxy::SaveContentFragment(const std::string& path,
                                           const std::string& globalServiceId, bool bb) {
  ESG_LOGI("%s\n", globalServiceId.c_str());
  return m_Perform(__func__, SavingOf(globalServiceId, bb, path), NoOutput);
}

bool ESGService_Proxy::SaveScheduleFragment(const std::string& path,
                                            const std::string& globalServiceId, bool bb) {
  ESG_LOGI("%s\n", globalServiceId.c_str());
  return m_Perform(__func__, SavingOf(globalServiceId, bb, path), NoOutput);
}

bool ESGService_Proxy::SaveServiceFragment(const std::string& path,
                                           const std::string& globalServiceId, bool bb) {
  ESG_LOGI("%s\n", globalServiceId.c_str());
  return m_Perform(__func__, SavingOf(globalServiceId, bb, path), NoOutput);
}
