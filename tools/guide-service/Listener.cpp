#include "Listener.h"

#include <IPCS/ESGMessageBuffer.h>
#include <json/reader.h>
#include <json/value.h>

#include <array>
#include <exception>
#include <stdexcept>

#include "Reply.h"
#include "common/Text.h"

namespace esg::guide {
namespace {

constexpr const char* kNotFound = R"({"ret":false})";
constexpr const char* kDone = R"({"ret":true})";

/// Requests are a few hundred bytes. Parsed JSON takes up to 50 times the space of its text.
constexpr std::size_t kMaxRequest = std::size_t{1} << 20;
/// The deepest request, the record of a programme with previews, has seven levels.
constexpr int kMaxDepth = 64;

/// What a caller sent, short enough for one line of a log.
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

/// The arguments of a request, after Reply has checked their types.
struct Arguments {
  std::string Text(const Member& member) const { return request[member.name].asString(); }
  std::uint32_t Number(const Member& member) const { return request[member.name].asUInt(); }
  Span Range() const { return {Number(kStart), Number(kDuration)}; }

  eRelative_Position Position() const {
    const int position = request[kPosition.name].asInt();
    if (position < eRelative_Position_Previous || position > eRelative_Position_Next) {
      throw std::invalid_argument("no such position");
    }
    return static_cast<eRelative_Position>(position);
  }

  std::string Found(const Program* program) const {
    return program == nullptr ? "" : ProgramReply(service, *program);
  }

  const Json::Value& request;
  const std::string service;
};

}  // namespace

/// Gives the text of the reply, which is empty if nothing is found.
struct GuideListener::Method {
  const char* name;
  std::array<Member, 4> members;  ///< the service first
  std::string (*reply)(const GuideListener& self, const Arguments& in);
};

const GuideListener::Method GuideListener::kMethods[] = {
    {"GetPresentProgram",
     {kService},
     [](const GuideListener& self, const Arguments& in) {
       return in.Found(self.m_guide->At(in.service, self.m_now()));
     }},
    {"GetProgramList",
     {kService, kStart, kDuration},
     [](const GuideListener& self, const Arguments& in) {
       const std::vector<const Program*> programs = self.m_guide->Within(in.service, in.Range());
       return programs.empty() ? "" : ListReply(in.service, programs);
     }},
    {"GetProgram",
     {kRecordService, kRecordStart, kPosition},
     [](const GuideListener& self, const Arguments& in) {
       return in.Found(self.m_guide->Neighbour(in.service, in.Number(kRecordStart),
                                               in.request["eventID"].asString(), in.Position()));
     }},
    {"GetProgramItem",
     {kService, kContent, kStart},
     [](const GuideListener& self, const Arguments& in) {
       return in.Found(self.m_guide->Item(in.service, in.Text(kContent), in.Number(kStart)));
     }},
    {"GetScheduleFragment",
     {kService, kBB, kStart, kDuration},
     [](const GuideListener& self, const Arguments& in) {
       return self.GetFragment(self.m_guide->Schedule(in.service, in.Range()));
     }},
    {"GetContentFragment",
     {kService, kBB, kStart, kDuration},
     [](const GuideListener& self, const Arguments& in) {
       return self.GetFragment(self.m_guide->Content(in.service, in.Range()));
     }},
    {"GetServiceFragment",
     {kService, kBB},
     [](const GuideListener& self, const Arguments& in) {
       return self.GetFragment(self.m_guide->Find(in.service).description);
     }},
    // A save names no time: it takes the fragment of the present moment, or the first if there is
    // none.
    {"SaveScheduleFragment",
     {kService, kBB, kPath},
     [](const GuideListener& self, const Arguments& in) {
       return self.SaveFragment(in.Text(kPath),
                                self.m_guide->Schedule(in.service, {self.m_now(), 1}),
                                self.m_guide->Find(in.service).firstSchedule);
     }},
    {"SaveContentFragment",
     {kService, kBB, kPath},
     [](const GuideListener& self, const Arguments& in) {
       return self.SaveFragment(in.Text(kPath),
                                self.m_guide->Content(in.service, {self.m_now(), 1}),
                                self.m_guide->Find(in.service).firstContent);
     }},
    {"SaveServiceFragment",
     {kService, kBB, kPath},
     [](const GuideListener& self, const Arguments& in) {
       return self.SaveFragment(in.Text(kPath), self.m_guide->Find(in.service).description,
                                nullptr);
     }},
};

GuideListener::GuideListener(std::string folder, const SaveFolder& saves,
                             std::function<std::uint32_t()> now, Report report)
    : m_folder(std::move(folder)),
      m_saves(saves),
      m_now(std::move(now)),
      m_report(std::move(report)) {}

bool GuideListener::OnMethodCall(const char* method, ESGMessageBuffer& in, ESGMessageBuffer& out) {
  const char* bytes = in.GetAsCStr(0);
  const std::string text = bytes == nullptr ? "" : std::string(bytes, in.GetFullBufferSize());
  std::string reply;
  // The only place where the JSON library's exceptions, or memory running out, are caught.
  try {
    reply = Reply(method, text);
  } catch (const std::exception& fault) {
    m_report("request refused: " + Quote(method) + " " + Quote(text) + ": " + Quote(fault.what()));
    reply.clear();
  }
  const bool ret = !reply.empty();
  reply = ret ? std::move(reply) : kNotFound;
  out.PushConcatenated(reply.size(), reply.data());
  return ret;
}

std::string GuideListener::Reply(const std::string& name, const std::string& text) const {
  for (const Method& method : kMethods) {
    if (name != method.name) {
      continue;
    }
    const Json::Value request = ParseRequest(text);
    for (const Member& member : method.members) {
      if (member.name != nullptr && !(request[member.name].*member.isRight)()) {
        throw std::invalid_argument(std::string(member.name) + " is missing or of a wrong type");
      }
    }
    return method.reply(*this, {request, request[method.members[0].name].asString()});
  }
  throw std::invalid_argument("no such method");
}

std::string GuideListener::Load(const Kept* fragment) const {
  if (fragment == nullptr) {
    return {};
  }
  std::string bytes = ReadFragment(m_folder, *fragment->file, *fragment->entry);
  if (bytes.empty()) {
    m_report(fragment->file->name +
             ": has changed since the guide was read; its fragments are available again after the "
             "next reading");
  }
  return bytes;
}

std::string GuideListener::GetFragment(const Kept* fragment) const {
  const std::string bytes = Load(fragment);
  return bytes.empty() ? "" : FragmentReply(bytes);
}

std::string GuideListener::SaveFragment(const std::string& path, const Kept* fragment,
                                        const Kept* otherwise) const {
  const std::string bytes = Load(fragment != nullptr ? fragment : otherwise);
  if (bytes.empty()) {
    return {};
  }
  const std::string fault = m_saves.Save(path, bytes);
  if (fault.empty()) {
    return kDone;
  }
  m_report("not saved to " + Quote(path) + ": " + fault);
  return {};
}

}  // namespace esg::guide
