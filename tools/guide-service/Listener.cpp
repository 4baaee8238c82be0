#include "Listener.h"

#include <ESGMarshal.h>
#include <IPCS/ESGMessageBuffer.h>
#include <glib.h>
#include <json/reader.h>
#include <json/writer.h>

#include <array>
#include <exception>
#include <stdexcept>
#include <utility>

namespace guide {
namespace {

// Requests are a few hundred bytes. Parsed JSON takes up to 50 times the space of its text.
constexpr std::size_t kLargestRequest = std::size_t{1} << 20;
// The deepest request, the record of a programme with previews, has seven levels.
constexpr int kDeepestRequest = 64;

// The bus drops the connection of whoever sends a message of more than 32 MiB, header included.
constexpr std::size_t kLargestAnswer = (std::size_t{32} << 20) - (std::size_t{64} << 10);

// What a caller sent, made fit for one line of a log.
std::string Quote(const std::string& text) {
  constexpr std::size_t kLongest = 200;
  const std::string start = text.substr(0, kLongest);
  char* escaped = g_strescape(start.c_str(), nullptr);
  std::string quoted = std::string("\"") + escaped + (text.size() > kLongest ? "\"..." : "\"");
  g_free(escaped);
  return quoted;
}

Json::Value ParseRequest(const std::string& text) {
  if (text.size() > kLargestRequest) {
    throw std::invalid_argument("the request is too long");
  }
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  builder["stackLimit"] = kDeepestRequest;
  builder["rejectDupKeys"] = false;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value request;
  if (!reader->parse(text.data(), text.data() + text.size(), &request, nullptr) ||
      !request.isObject()) {
    throw std::invalid_argument("the request is no JSON object");
  }
  return request;
}

std::string ServiceId(Json::Value& request) {
  std::string id;
  ESGMarshal::JsonTo_global_service_id(request, id);
  return id;
}

Span Range(Json::Value& request) {
  Span range;
  ESGMarshal::JsonToStartTime(request, range.start);
  ESGMarshal::JsonToDuration(request, range.duration);
  return range;
}

bool Found(const std::string& service, const Program* program, Json::Value& reply) {
  return program != nullptr &&
         ESGMarshal::ESGProgramInfoToJson(Guide::Record(service, *program), reply);
}

struct Member {
  const char* name;
  bool (Json::Value::*isRight)() const;
};

constexpr Member kService{"global_service_id", &Json::Value::isString};
constexpr Member kStart{"start_time", &Json::Value::isUInt};
constexpr Member kDuration{"duration", &Json::Value::isUInt};
constexpr Member kContent{"ContentId", &Json::Value::isString};
constexpr Member kBB{"BB", &Json::Value::isBool};
constexpr Member kPath{"path", &Json::Value::isString};
constexpr Member kPosition{"eRelative_Position", &Json::Value::isInt};
constexpr Member kRecordService{"globalServiceId", &Json::Value::isString};
constexpr Member kRecordStart{"Start", &Json::Value::isUInt};

}  // namespace

struct GuideListener::Method {
  const char* name;
  bool (GuideListener::*answer)(Json::Value& request, Json::Value& reply);
  std::array<Member, 4> members;
};

const GuideListener::Method GuideListener::kMethods[] = {
    {"GetPresentProgram", &GuideListener::GetPresentProgram, {kService}},
    {"GetProgramList", &GuideListener::GetProgramList, {kService, kStart, kDuration}},
    {"GetProgram", &GuideListener::GetProgram, {kRecordService, kRecordStart, kPosition}},
    {"GetProgramItem", &GuideListener::GetProgramItem, {kService, kContent, kStart}},
    {"GetScheduleFragment",
     &GuideListener::GetScheduleFragment,
     {kBB, kService, kStart, kDuration}},
    {"GetServiceFragment", &GuideListener::GetServiceFragment, {kBB, kService}},
    {"GetContentFragment", &GuideListener::GetContentFragment, {kBB, kService, kStart, kDuration}},
    {"SaveContentFragment", &GuideListener::SaveContentFragment, {kPath, kBB, kService}},
    {"SaveScheduleFragment", &GuideListener::SaveScheduleFragment, {kPath, kBB, kService}},
    {"SaveServiceFragment", &GuideListener::SaveServiceFragment, {kPath, kBB, kService}},
};

GuideListener::GuideListener(std::shared_ptr<const Guide> guide, SaveFolder saves,
                             std::function<std::uint32_t()> now, Report report)
    : m_guide(std::move(guide)),
      m_saves(std::move(saves)),
      m_now(std::move(now)),
      m_report(std::move(report)) {}

bool GuideListener::OnMethodCall(const char* method, ESGMessageBuffer& in, ESGMessageBuffer& out) {
  const char* text = in.GetAsCStr(0);
  bool ret = false;
  std::string answer =
      Answer(method, text == nullptr ? "" : std::string(text, in.GetFullBufferSize()), ret);
  out.PushConcatenated(answer.size(), answer.data());
  return ret;
}

std::string GuideListener::Answer(const std::string& method, const std::string& text, bool& ret) {
  constexpr const char* kNothing = R"({"ret":false})";
  ret = false;
  // The only place where the JSON library's exceptions, or memory running out, are caught.
  try {
    Json::Value reply(Json::objectValue);
    if (!Handle(method, text, reply)) {
      return kNothing;
    }
    reply["ret"] = true;
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    // Bytes that are no UTF-8 pass through; the other form would not bring them back.
    builder["emitUTF8"] = true;
    std::string answer = Json::writeString(builder, reply);
    if (answer.size() > kLargestAnswer) {
      m_report(Quote(method) + ": the answer of " + std::to_string(answer.size()) +
               " bytes is larger than a message may be; ask for less at a time");
      return kNothing;
    }
    ret = true;
    return answer;
  } catch (const std::exception& fault) {
    m_report("bad request " + Quote(method) + " " + Quote(text) + ": " + Quote(fault.what()));
    return kNothing;
  }
}

bool GuideListener::Handle(const std::string& name, const std::string& text, Json::Value& reply) {
  for (const Method& method : kMethods) {
    if (name != method.name) {
      continue;
    }
    Json::Value request = ParseRequest(text);
    for (const Member& member : method.members) {
      if (member.name != nullptr && !(request[member.name].*member.isRight)()) {
        throw std::invalid_argument(std::string(member.name) + " is missing or of a wrong type");
      }
    }
    return (this->*method.answer)(request, reply);
  }
  throw std::invalid_argument("no such method");
}

bool GuideListener::GetPresentProgram(Json::Value& request, Json::Value& reply) {
  const std::string service = ServiceId(request);
  return Found(service, m_guide->At(service, m_now()), reply);
}

bool GuideListener::GetProgramList(Json::Value& request, Json::Value& reply) {
  const std::string service = ServiceId(request);
  ESGProgramMap programs;
  for (const Program* program : m_guide->Within(service, Range(request))) {
    programs[program->time.start] = Guide::Record(service, *program);
  }
  return !programs.empty() && ESGMarshal::ESGProgramMapToJson(programs, reply);
}

bool GuideListener::GetProgram(Json::Value& request, Json::Value& reply) {
  eRelative_Position position = eRelative_Position_Current;
  FCESGProgramInfo program;
  ESGMarshal::JsonToeRelative_Position(request, position);
  ESGMarshal::JsonToESGProgramInfo(request, program);
  if (position < eRelative_Position_Previous || position > eRelative_Position_Next) {
    throw std::invalid_argument("no such position");
  }
  const std::string& service = program.GlobalServiceID();
  return Found(service,
               m_guide->Neighbour(service, program.GetStartTime(), program.GetEventID(), position),
               reply);
}

bool GuideListener::GetProgramItem(Json::Value& request, Json::Value& reply) {
  const std::string service = ServiceId(request);
  std::string content;
  unsigned int moment = 0;
  ESGMarshal::JsonToContentId(request, content);
  ESGMarshal::JsonToStartTime(request, moment);
  return Found(service, m_guide->Item(service, content, moment), reply);
}

bool GuideListener::ReadFragment(Json::Value& request, Json::Value& reply, Find find) {
  const Fragment* fragment = ((*m_guide).*find)(ServiceId(request), Range(request));
  if (fragment == nullptr) {
    return false;
  }
  std::string bytes = fragment->bytes;
  return ESGMarshal::XmlToJson(bytes, reply);
}

bool GuideListener::GetScheduleFragment(Json::Value& request, Json::Value& reply) {
  return ReadFragment(request, reply, &Guide::Schedule);
}

bool GuideListener::GetContentFragment(Json::Value& request, Json::Value& reply) {
  return ReadFragment(request, reply, &Guide::Content);
}

bool GuideListener::GetServiceFragment(Json::Value& request, Json::Value& reply) {
  const Fragment* fragment = m_guide->Service(ServiceId(request));
  if (fragment == nullptr) {
    return false;
  }
  std::string bytes = fragment->bytes;
  return ESGMarshal::XmlToJson(bytes, reply);
}

// A save names no time: it is the fragment of the present moment, or the first where there is none.
const Fragment* GuideListener::ToSave(Json::Value& request, Find find) const {
  const std::string service = ServiceId(request);
  const Fragment* fragment = ((*m_guide).*find)(service, {m_now(), 1});
  return fragment != nullptr ? fragment : ((*m_guide).*find)(service, {0, 0});
}

bool GuideListener::SaveFragment(Json::Value& request, const Fragment* fragment) {
  if (fragment == nullptr) {
    return false;
  }
  std::string path;
  ESGMarshal::JsonToPath(request, path);
  const std::string fault = m_saves.Save(path, fragment->bytes);
  if (!fault.empty()) {
    m_report("not saved to " + Quote(path) + ": " + fault);
  }
  return fault.empty();
}

bool GuideListener::SaveContentFragment(Json::Value& request, Json::Value& /*reply*/) {
  return SaveFragment(request, ToSave(request, &Guide::Content));
}

bool GuideListener::SaveScheduleFragment(Json::Value& request, Json::Value& /*reply*/) {
  return SaveFragment(request, ToSave(request, &Guide::Schedule));
}

bool GuideListener::SaveServiceFragment(Json::Value& request, Json::Value& /*reply*/) {
  return SaveFragment(request, m_guide->Service(ServiceId(request)));
}

}  // namespace guide
