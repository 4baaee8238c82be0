#include <json/json.h>

#include <climits>
#include <regex>

#include "BusTest.h"
#include "ESGAPI.h"
#include "ESGAsync.h"
#include "ESGService_Proxy.h"
#include "FCESGGuide.h"
#include "IESGService.h"
#include "IPCS/ECIPCConnection.h"

// Every operation in its four forms: blocking or not, from C++ or C. The forms must not differ.

namespace {

using namespace esg::test;
using Reason = ESGFailureReason;
using Respond = Service::Respond;

/// The outputs of operations as text, and how they are before.
struct Nothing {};
std::string Show(Nothing /*output*/) { return {}; }
std::string Show(const std::string& xml) { return xml; }
std::string Show(const FCESGProgramInfo& program) { return program.Title(); }
std::string Show(const ESGProgramMap& programs) {
  std::string text;
  for (const auto& [key, program] : programs) {
    text += std::to_string(key) + program.Title() + " ";
  }
  return text;
}
void Fill(Nothing& /*output*/) {}
void Fill(std::string& xml) { xml = "given"; }
void Fill(FCESGProgramInfo& program) { program.SetTitle("given"); }
void Fill(ESGProgramMap& programs) { Fill(programs[9]); }

/// Shows an output of the C interface, which is null after a failure, and frees it.
std::string Taken(void* /*userData*/) { return {}; }
std::string Taken(char* xml) {
  std::string text = xml != nullptr ? xml : "";
  FCESGTextDispose(xml);
  return text;
}
std::string Taken(FCESGProgramInfo* program) {
  std::string title = FCESGProgramTitle(program);
  FCESGProgramDispose(program);
  return title;
}
std::string Taken(FCESGProgramList* list) {
  std::string text;
  for (unsigned int i = 0; i < FCESGProgramListLength(list); ++i) {
    text += std::to_string(FCESGProgramListKey(list, i)) +
            FCESGProgramTitle(FCESGProgramListElement(list, i)) + " ";
  }
  FCESGProgramListDispose(list);
  return text;
}
template <typename Output>
std::string Taken(Output* output, void* /*userData*/) {
  return Taken(output);
}

/// How an operation ended: its reason, the error of the bus and, after a space, its output.
std::string Ended(const ESGFailure& failure, const std::string& output) {
  return std::to_string(static_cast<int>(failure.reason)) + failure.errorName + failure.errorText +
         " " + output;
}

/// An operation with its arguments, in each form. A form returns how it ended. For the blocking
/// one, an output that it did not change counts as empty after a failure, as it is in the others.
struct Forms {
  std::string name;
  std::function<std::string(IESGService& service)> blocking;
  std::function<std::string()> later;
  std::function<std::string()> blockingInC;
  std::function<std::string()> laterInC;
};

/// `OutputInC` is void if there is no output.
template <typename Output, typename OutputInC, typename Blocking, typename Later,
          typename BlockingInC, typename LaterInC, typename... Arguments>
Forms MakeForms(const char* name, Blocking blocking, Later later, BlockingInC blockingInC,
                LaterInC laterInC, Arguments... arguments) {
  Forms forms{name, {}, {}, {}, {}};
  forms.blocking = [=](IESGService& service) mutable {
    Output output;
    Fill(output);
    const std::string given = Show(output);
    std::string raised;
    try {
      if constexpr (std::is_void_v<OutputInC>) {
        (service.*blocking)(arguments...);
      } else if constexpr (std::is_same_v<Output, std::string>) {
        (service.*blocking)(output, arguments...);
      } else {
        (service.*blocking)(arguments..., output);
      }
    } catch (const Json::Exception& exception) {
      raised = exception.what();
    }
    const std::string left = Show(output);
    const ESGFailure failure = ESGLastFailure();
    return Ended(failure, failure && left == given ? "" : left) + raised;
  };
  forms.later = [=]() mutable {
    const ESGFailureReason before = ESGLastFailure().reason;
    std::string ended;
    later(arguments..., [&ended](const ESGFailure& failure, const auto&... output) {
      ended = Ended(failure, (std::string() + ... + Show(output)));
    });
    IterateUntil([&ended] { return !ended.empty(); });
    EXPECT_EQ(ESGLastFailure().reason, before);
    return ended;
  };
  forms.blockingInC = [=]() mutable {
    if constexpr (std::is_void_v<OutputInC>) {
      blockingInC(arguments...);
      return Ended(ESGLastFailure(), "");
    } else {
      auto* output = reinterpret_cast<OutputInC*>(8);  // is replaced, not read
      blockingInC(arguments..., &output);
      return Ended(ESGLastFailure(), Taken(output));
    }
  };
  forms.laterInC = [=]() mutable {
    static std::string ended;
    ended.clear();
    const auto onDone = [](FCESGReason /*reason*/, auto... output) {
      ended = Ended(ESGLastFailure(), Taken(output...));
    };
    laterInC(arguments..., onDone, nullptr, nullptr);
    IterateUntil([] { return !ended.empty(); });
    return ended;
  };
  return forms;
}

#define FORMS(name) #name, &IESGService::name, &ESGAsync::name, &FCESGGuide##name, &FCESGAsync##name

/// Arguments that convert to the types of both languages.
struct Text : std::string {
  using std::string::string;
  operator const char*() const { return c_str(); }
};
struct Record : FCESGProgramInfo {
  operator const FCESGProgramInfo*() const { return this; }
};

struct Operation {
  Forms forms;
  std::string log;  ///< its line
  const char* arguments;
  const char* result;  ///< a member of the reply
  const char* shown;   ///< the output afterwards
};

const std::vector<Operation>& Operations() {
  static const Text id("urn:a");
  static const Text path("/p");
  static Record record;
  record.SetTitle("given");
  record.SetStartTime(7);
  constexpr unsigned int kLatest = UINT_MAX;
  static constexpr char kProgram[] = R"("title":"new")";
  static constexpr char kFragment[] = R"("xmlFragment":"<a/>")";
  static const std::vector<Operation> operations = {
      {MakeForms<FCESGProgramInfo, FCESGProgramInfo>(FORMS(GetPresentProgram), id),
       "Invoked: globalServiceId=urn:a \n", R"({"global_service_id":"urn:a"})", kProgram, "new"},
      {MakeForms<ESGProgramMap, FCESGProgramList>(FORMS(GetProgramList), id, kLatest, 60U),
       "Invoked: globalServiceId=urn:a  startTime=4294967295  duration=60\n",
       R"({"start_time":4294967295,"duration":60,"global_service_id":"urn:a"})",
       R"("ESGProgramMap":[{"key":9,"title":"i"},{"key":4,"title":"d"}])", "4d 9i "},
      {MakeForms<FCESGProgramInfo, FCESGProgramInfo>(FORMS(GetProgram), record,
                                                     eRelative_Position_Previous),
       "",
       R"({"Start":7,"duration":0,"eventID":"","genre":"","globalServiceId":"","privateExt":null,
           "synopsis":"","title":"given","eRelative_Position":-1})",
       kProgram, "new"},
      {MakeForms<FCESGProgramInfo, FCESGProgramInfo>(FORMS(GetProgramItem), id, Text("c1"),
                                                     kLatest),
       "Invoked: global_service_id=urn:a  contentId = c1  startTime=-1\n",
       R"({"global_service_id":"urn:a","ContentId":"c1","start_time":4294967295})", kProgram,
       "new"},
      {MakeForms<std::string, char>(FORMS(GetScheduleFragment), id, 5U, 60U, true), "urn:a\n",
       R"({"BB":true,"global_service_id":"urn:a","start_time":5,"duration":60})", kFragment,
       "<a/>"},
      {MakeForms<std::string, char>(FORMS(GetServiceFragment), id, false), "urn:a\n",
       R"({"BB":false,"global_service_id":"urn:a"})", R"("xmlFragment":"")", ""},
      {MakeForms<std::string, char>(FORMS(GetContentFragment), id, 5U, 60U, true), "urn:a\n",
       R"({"BB":true,"global_service_id":"urn:a","start_time":5,"duration":60})", kFragment,
       "<a/>"},
      {MakeForms<Nothing, void>(FORMS(SaveContentFragment), path, id, true), "urn:a\n",
       R"({"BB":true,"global_service_id":"urn:a","path":"/p"})", R"("path":"/q")", ""},
      {MakeForms<Nothing, void>(FORMS(SaveScheduleFragment), path, id, false), "urn:a\n",
       R"({"BB":false,"global_service_id":"urn:a","path":"/p"})", R"("path":"/q")", ""},
      {MakeForms<Nothing, void>(FORMS(SaveServiceFragment), path, id, true), "urn:a\n",
       R"({"BB":true,"global_service_id":"urn:a","path":"/p"})", R"("path":"/q")", ""},
  };
  return operations;
}

/// The lines of a priority as "function > message", without those of records that are freed.
std::vector<std::string> Logged(int priority) {
  std::vector<std::string> lines;
  for (const log_capture::Line& line : log_capture::Lines()) {
    const std::size_t start = line.text.find(": ") + 2;
    const std::string function = line.text.substr(start, line.text.find('(') - start);
    if (line.priority == priority && function != "FCESGProgramDispose") {
      lines.push_back(function + " > " + line.message);
    }
  }
  return lines;
}

class Queries : public OnBus {
 protected:
  Queries() { Connection(); }

  /// Runs an operation in all forms, which must not differ, and returns how it ended.
  std::string Run(const Operation& operation, const Respond& respond) {
    const Forms& forms = operation.forms;
    SCOPED_TRACE(forms.name);
    m_service.Set(respond);
    log_capture::Clear();
    std::string ended = forms.blocking(*ESGAPI::GetESGServiceAPI());
    m_request = m_service.LastCall();
    m_infos = Logged(4);
    m_errors = Logged(6);
    for (const auto& form : {forms.later, forms.blockingInC, forms.laterInC}) {
      log_capture::Clear();
      const std::string other = form();
      EXPECT_TRUE(other == ended) << other.substr(0, 100) << ended.substr(0, 100);
      EXPECT_EQ(m_service.LastCall().text, m_request.text);
      EXPECT_EQ(m_service.LastCall().bytes, m_request.bytes);
      EXPECT_EQ(Logged(4), m_infos);
      EXPECT_EQ(Logged(6), m_errors);
    }
    return ended;
  }

  const Operation& m_present = Operations()[0];
  Service m_service{&Service::Echo, kESGServiceName};
  Body m_request;  ///< of the last run
  std::vector<std::string> m_infos;
  std::vector<std::string> m_errors;
};

TEST_F(Queries, SendTheirArgumentsAndTakeTheirResults) {
  EXPECT_EQ(ESGAPI::GetESGServiceAPI(), ESGService_Proxy::Instance());
  for (const Operation& operation : Operations()) {
    const std::string reply = std::string("{\"ret\":true,") + operation.result + "}";
    EXPECT_EQ(Run(operation, Service::Reply(reply)), Ended({}, operation.shown));
    EXPECT_EQ(m_request.text, operation.forms.name);
    Json::Value arguments;
    std::istringstream(operation.arguments) >> arguments;
    EXPECT_EQ(m_request.bytes, Json::writeString(Json::StreamWriterBuilder(), arguments));
    std::vector<std::string> lines;
    if (!operation.log.empty()) {
      lines.push_back(operation.forms.name + " > " + operation.log);
      EXPECT_EQ(log_capture::Lines()[0].text.find("ESGService_Proxy.cpp: "), 0U);
      EXPECT_EQ(log_capture::Lines()[0].tag, "esg");
    }
    EXPECT_EQ(m_infos, lines);
    EXPECT_EQ(m_errors, std::vector<std::string>());
  }
}

TEST_F(Queries, FailWithTheirReasonInTheLogAndTouchNothing) {
  const std::string noBus = "RemoteCallWithStringArguments > Fail to communicate using d-bus\n";
  const std::string noJson = "RemoteCallWithJsonArguments > Fail to parse json data\n";
  const std::string members = R"("title":"new","xmlFragment":"new","ESGProgramMap":[{}]})";
  const std::tuple<Respond, ESGFailure, std::vector<std::string>> failures[] = {
      {Service::Error("com.velmora.Odd", "no %s disk"),
       {Reason::ServiceError, "com.velmora.Odd", "no %s disk"},
       {"Call > [com.velmora.ESGCallListener:METHOD] Error answer received "
        "[Error name: com.velmora.Odd]: no %s disk\n",
        noBus}},
      {Service::Reply(R"({"ret":true})", -1), {Reason::ServiceError, "", ""}, {noBus}},
      {Service::Reply("{"), {Reason::Unreadable, "", ""}, {noJson}},
      {Service::Reply(""), {Reason::Unreadable, "", ""}, {noJson}},
      {Service::Reply("{" + members), {Reason::Unreadable, "", ""}, {}},
      {Service::Reply("{\"ret\":null," + members), {Reason::Unreadable, "", ""}, {}},
      {Service::Reply("{\"ret\":false," + members), {Reason::NotFound, "", ""}, {}},
      {Service::Reply("{\"ret\":0," + members), {Reason::NotFound, "", ""}, {}},
      {Service::Reply("null"), {Reason::Unreadable, "", ""}, {}},
  };
  for (const Operation& operation : Operations()) {
    for (auto [answer, failure, lines] : failures) {
      EXPECT_EQ(Run(operation, answer), Ended(failure, ""));
      for (std::string& line : lines) {
        line = std::regex_replace(line, std::regex("METHOD"), operation.forms.name);
      }
      EXPECT_EQ(m_errors, lines);
    }
  }
  m_service.Peer().Stop();
  EXPECT_EQ(Run(m_present, Service::Reply(""))[0], '3') << "no service";
  EXPECT_EQ(log_capture::Count("[Error name: org.freedesktop.DBus.Error.ServiceUnknown]: "), 1);
  EXPECT_EQ(m_errors.back(), noBus);
}

TEST_F(Queries, TellErrorsApart) {
  const std::string text(510, 'x');
  for (const auto& [name, reason] : {std::pair(DBUS_ERROR_ACCESS_DENIED, Reason::AccessDenied),
                                     std::pair(DBUS_ERROR_LIMITS_EXCEEDED, Reason::TooLarge),
                                     std::pair(DBUS_ERROR_SPAWN_EXEC_FAILED, Reason::NoService),
                                     std::pair("com.velmora.AccessDenied", Reason::ServiceError)}) {
    EXPECT_EQ(Run(m_present, Service::Error(name, text + "\u00e9 and more")),
              Ended({reason, name, text}, ""));
    EXPECT_STRNE(ESGFailureText(reason), ESGFailureText(Reason::None));
  }
}

/// A connection of the application, which answers calls itself.
struct OwnConnection : ECIPCConnection {
  int Call(const std::string& destination, const char* method, ESGMessageBuffer& /*in*/,
           ESGMessageBuffer& out) override {
    called = destination + " " + method;
    out.PushConcatenated(answer.size(), answer.data());
    return answer.empty() ? -1 : 1;
  }
  std::string called;
  std::string answer;
};

TEST_F(Queries, GoThroughTheConnectionThatTheirProxyIsGiven) {
  Run(m_present, Service::Error("com.velmora.Odd", "of the call before"));
  OwnConnection own;
  ESGService_Proxy proxy(&own);
  EXPECT_EQ(m_present.forms.blocking(proxy), Ended({Reason::NoAnswer, "", ""}, ""));
  own.answer = R"({"ret":true,"title":"own"})";
  EXPECT_EQ(m_present.forms.blocking(proxy), Ended({}, "own"));
  EXPECT_EQ(own.called, "com.velmora.ESGCallListener GetPresentProgram");
}

TEST_F(Queries, TakeHostileTextForWhatItSays) {
  // The last member of a name counts, and nothing after the end of the object. Any number but 0 is
  // true, and any result but -1 a success.
  const std::string reply = R"({"title":[],"ret":false,"title":"a)"
                            "\xff\x1b\u00e9"
                            R"(","ret":0.5/*!*/} [)";
  EXPECT_EQ(Run(m_present, Service::Reply(reply + '\xff' + std::string(9, '\0'), -2)),
            Ended({}, "a\xff\x1b\u00e9"));
}

TEST_F(Queries, RaiseTheJsonExceptionOfWhatCannotBeRead) {
  const std::vector<Operation>& all = Operations();
  const std::tuple<const Operation&, std::string, const char*> cases[] = {
      {all[0], R"({"ret":true,"Start":"x","title":"new"})", "8 [TV].*convertible.*"},
      {all[0], R"({"ret":true,"title":"new","genre":[]})", "8 new[TV].*convertible.*"},
      {all[0], R"({"ret":true,"Start":1e300})", "8 .*out of UInt range.*"},
      {all[0], R"({"ret":true,"title":"new","duration":-1})", "8 new.*out of UInt.*"},
      {all[0], R"({"ret":true,"x":)" + std::string(5000, '['), "8 .*stackLimit.*"},
      {all[1], R"({"ret":true,"ESGProgramMap":[{"key":4,"title":"d"},{"key":-1}]})",
       "8 4d 9given .*out of UInt range.*"},
      {all[4], R"({"ret":true,"xmlFragment":{}})", "8 [TV].*convertible.*"},
      {all[9], R"({"ret":"true"})", "8 [TV].*convertible.*"},
      {all[9], "[true]", "8 .*objectValue.*"},
  };
  for (const auto& [operation, reply, raised] : cases) {
    m_service.Set(Service::Reply(reply));
    EXPECT_THAT(operation.forms.blocking(*ESGAPI::GetESGServiceAPI()),
                testing::MatchesRegex(raised));
    EXPECT_EQ(operation.forms.later(), "8 ");
    EXPECT_THAT(operation.forms.blockingInC(), testing::MatchesRegex("8.* "));
    EXPECT_EQ(operation.forms.laterInC(), "8 ");
    m_service.Set(Service::Reply(R"({"ret":true})"));
    EXPECT_EQ(operation.forms.blocking(*ESGAPI::GetESGServiceAPI())[0], '0') << "the next query";
  }
}

}  // namespace
