// A minimal guide service: minimal_service SECONDS
//
// Replies to GetPresentProgram for every broadcast service with a programme that changes every
// SECONDS seconds, and emits event 5 at each change.

#include <ESGMarshal.h>
#include <FCESGProgramInfo.h>
#include <IESGService.h>
#include <IPCS/ECIPCBroadcaster.h>
#include <IPCS/ECNativeConnection.h>
#include <IPCS/ESGMessageBuffer.h>
#include <IPCS/IESGCallListener.h>
#include <glib.h>
#include <json/json.h>

#include <cstdlib>
#include <ctime>
#include <exception>
#include <iostream>
#include <string>

namespace {

constexpr int kPresentProgramChanged = 5;
constexpr unsigned int kUnixToNtp = 2208988800;

class Guide : public IESGCallListener {
 public:
  explicit Guide(unsigned int seconds) { m_program.SetDuration(seconds); }

  /// Starts the next programme.
  void Advance() {
    ++m_count;
    m_program.SetTitle("Programme " + std::to_string(m_count));
    m_program.SetEventID("programme-" + std::to_string(m_count));
    m_program.SetStartTime(static_cast<unsigned int>(std::time(nullptr) + kUnixToNtp));
    m_events.Send(kPresentProgramChanged, m_count, 0, 0);
  }

  bool OnMethodCall(const char* method, ESGMessageBuffer& in, ESGMessageBuffer& out) override {
    Json::Value reply;
    try {
      reply = Answer(method, {in.GetAsCStr(0), in.GetFullBufferSize()});
    } catch (const std::exception& badRequest) {
      std::cerr << method << ": " << badRequest.what() << '\n';
      reply = Json::objectValue;
    }
    const bool found = reply.isMember("ret");
    reply["ret"] = found;
    std::string text = Json::writeString(Json::StreamWriterBuilder(), reply);
    out.PushConcatenated(text.size(), text.data());
    return found;
  }

 private:
  /// Returns the members of the reply; "ret" only if the query was successful.
  Json::Value Answer(const std::string& method, std::string request) const {
    Json::Value arguments;
    Json::Value reply(Json::objectValue);
    if (method == "GetPresentProgram" && ESGMarshal::ParseToJson(request, arguments)) {
      std::string serviceId;
      ESGMarshal::JsonTo_global_service_id(arguments, serviceId);
      ESGMarshal::ESGProgramInfoToJson(m_program, reply);
      reply["globalServiceId"] = serviceId;
      reply["ret"] = true;
    }
    return reply;
  }

  ECIPCBroadcaster m_events;
  FCESGProgramInfo m_program;
  int m_count = 0;
};

gboolean OnTimer(void* guide) {
  static_cast<Guide*>(guide)->Advance();
  return G_SOURCE_CONTINUE;
}

}  // namespace

int main(int argc, char** argv) {
  const int seconds = argc == 2 ? std::atoi(argv[1]) : 0;
  if (seconds < 1) {
    std::cerr << "usage: minimal_service SECONDS\n";
    return 2;
  }
  Guide guide(static_cast<unsigned int>(seconds));
  guide.Advance();
  ECNativeConnection connection;
  if (!connection.Start(kESGServiceName, &guide)) {
    return 1;
  }
  g_timeout_add_seconds(static_cast<unsigned int>(seconds), OnTimer, &guide);
  std::cout << "ready" << std::endl;
  g_main_loop_run(g_main_loop_new(nullptr, FALSE));  // until the program is interrupted
}
