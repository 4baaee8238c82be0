#include "Listener.h"

#include <ESGMarshal.h>
#include <IPCS/ESGMessageBuffer.h>
#include <json/reader.h>
#include <json/value.h>

#include <array>
#include <exception>
#include <stdexcept>

#include "common/Text.h"

namespace esg::guide {
namespace {

constexpr const char* kNotFound = R"({"ret":false})";
constexpr const char* kDone = R"({"ret":true})";

/// Requests are a few hundred bytes. Parsed JSON takes up to 50 times the space of its text.
constexpr std::size_t kMaxRequest = std::size_t{1} << 20;
/// The deepest request, the record of a programme with previews, has seven levels.
constexpr int kMaxDepth = 64;

/// What a caller sent, at a length for one line of a log.
std::string Quote(std::string_view text) {
  constexpr std::size_t kMaxQuote = 200;
  return '"' + tools::Printable(text.substr(0, kMaxQuote)) +
         (text.size() > kMaxQuote ? "\"..." : "\"");
}

Json::Value ParseRequest(const std::string& text) {
  if (text.size() > kMaxRequest) {
    throw std::invalid_argument("the request is too long");
  }
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  builder["stackLimit"] = kMaxDepth;
  builder["rejectDupKeys"] = false;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value request;
  if (!reader->parse(text.data(), text.data() + text.size(), &request, nullptr) ||
      !request.isObject()) {
    throw std::invalid_argument("the request is not a JSON object");
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

std::string Found(const std::string& service, const Program* program) {
  return program == nullptr ? "" : ProgramAnswer(service, *program);
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
  std::string (GuideListener::*answer)(Json::Value& request);
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

GuideListener::GuideListener(const Folder& folder, const SaveFolder& saves,
                             std::function<std::uint32_t()> now, Report report)
    : m_folder(folder), m_saves(saves), m_now(std::move(now)), m_report(std::move(report)) {}

bool GuideListener::OnMethodCall(const char* method, ESGMessageBuffer& in, ESGMessageBuffer& out) {
  const char* bytes = in.GetAsCStr(0);
  const std::string text = bytes == nullptr ? "" : std::string(bytes, in.GetFullBufferSize());
  std::string answer;
  // The only place where the JSON library's exceptions, or memory running out, are caught.
  try {
    answer = Answer(method, text);
  } catch (const std::exception& fault) {
    m_report("request refused: " + Quote(method) + " " + Quote(text) + ": " + Quote(fault.what()));
    answer.clear();
  }
  const bool ret = !answer.empty();
  answer = ret ? std::move(answer) : kNotFound;
  out.PushConcatenated(answer.size(), answer.data());
  return ret;
}

std::string GuideListener::Answer(const std::string& name, const std::string& text) {
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
    return (this->*method.answer)(request);
  }
  throw std::invalid_argument("no such method");
}

std::string GuideListener::GetPresentProgram(Json::Value& request) {
  const std::string service = ServiceId(request);
  return Found(service, m_guide->At(service, m_now()));
}

std::string GuideListener::GetProgramList(Json::Value& request) {
  const std::string service = ServiceId(request);
  const std::vector<const Program*> programs = m_guide->Within(service, Range(request));
  return programs.empty() ? "" : ListAnswer(service, programs);
}

std::string GuideListener::GetProgram(Json::Value& request) {
  eRelative_Position position = eRelative_Position_Current;
  FCESGProgramInfo program;
  ESGMarshal::JsonToeRelative_Position(request, position);
  ESGMarshal::JsonToESGProgramInfo(request, program);
  if (position < eRelative_Position_Previous || position > eRelative_Position_Next) {
    throw std::invalid_argument("no such position");
  }
  const std::string& service = program.GlobalServiceID();
  return Found(service,
               m_guide->Neighbour(service, program.GetStartTime(), program.GetEventID(), position));
}

std::string GuideListener::GetProgramItem(Json::Value& request) {
  const std::string service = ServiceId(request);
  std::string content;
  unsigned int moment = 0;
  ESGMarshal::JsonToContentId(request, content);
  ESGMarshal::JsonToStartTime(request, moment);
  return Found(service, m_guide->Item(service, content, moment));
}

bool GuideListener::Load(const Kept* fragment, std::string& bytes) const {
  if (fragment == nullptr) {
    return false;
  }
  if (!m_folder.ReadFragment(*fragment->file, *fragment->entry, bytes)) {
    m_report(fragment->file->name +
             ": has changed since the guide was read; its fragments can be "
             "had when the guide has been read again");
    return false;
  }
  return true;
}

std::string GuideListener::Read(const Kept* fragment) const {
  std::string bytes;
  return Load(fragment, bytes) ? FragmentAnswer(bytes) : "";
}

std::string GuideListener::GetScheduleFragment(Json::Value& request) {
  return Read(m_guide->Schedule(ServiceId(request), Range(request)));
}

std::string GuideListener::GetContentFragment(Json::Value& request) {
  return Read(m_guide->Content(ServiceId(request), Range(request)));
}

std::string GuideListener::GetServiceFragment(Json::Value& request) {
  const Guide::Service* service = m_guide->Find(ServiceId(request));
  return Read(service == nullptr ? nullptr : service->description);
}

std::string GuideListener::Save(Json::Value& request, const Kept* fragment) const {
  std::string bytes;
  if (!Load(fragment, bytes)) {
    return {};
  }
  std::string path;
  ESGMarshal::JsonToPath(request, path);
  const std::string fault = m_saves.Save(path, bytes);
  if (!fault.empty()) {
    m_report("not saved to " + Quote(path) + ": " + fault);
  }
  return fault.empty() ? kDone : "";
}

// A save names no time: it takes the fragment of the present moment, or the first if there is none.
std::string GuideListener::SaveScheduleFragment(Json::Value& request) {
  const std::string id = ServiceId(request);
  const Guide::Service* service = m_guide->Find(id);
  const Kept* present = m_guide->Schedule(id, {m_now(), 1});
  return service == nullptr ? ""
                            : Save(request, present != nullptr ? present : service->firstSchedule);
}

std::string GuideListener::SaveContentFragment(Json::Value& request) {
  const std::string id = ServiceId(request);
  const Guide::Service* service = m_guide->Find(id);
  const Kept* present = m_guide->Content(id, {m_now(), 1});
  return service == nullptr ? ""
                            : Save(request, present != nullptr ? present : service->firstContent);
}

std::string GuideListener::SaveServiceFragment(Json::Value& request) {
  const Guide::Service* service = m_guide->Find(ServiceId(request));
  return service == nullptr ? "" : Save(request, service->description);
}

}  // namespace esg::guide
