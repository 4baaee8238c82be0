#include <json/json.h>

#include <climits>
#include <regex>
#include <sstream>

#include "BusTest.h"
#include "ESGAPI.h"
#include "ESGAsync.h"
#include "ESGService_Proxy.h"
#include "IESGService.h"

namespace {

using namespace esg::test;

/// The arguments that an operation fills or takes by reference.
struct Variables {
  std::string id = "urn:a";
  std::string xml = "old";
  FCESGProgramInfo program;
  ESGProgramMap programs;

  Variables() {
    program.SetTitle("given");
    program.SetStartTime(7);
  }
  std::string Show() const {
    std::string text = xml + " " + program.Title();
    for (const auto& [key, listed] : programs) {
      text += " " + std::to_string(key) + listed.Title();
    }
    return text;
  }
};

using Done = std::function<void(const ESGFailure&)>;

/// The callback of a query that does not block, with the result where the blocking one puts it.
template <typename Result>
auto Into(Result& output, const Done& done) {
  return [&output, done](const ESGFailure& failure, Result result) {
    if (!failure) {
      if constexpr (std::is_same_v<Result, ESGProgramMap>) {
        result.merge(output);  // the blocking one does not clear it
      }
      output = std::move(result);
    } else if constexpr (std::is_same_v<Result, FCESGProgramInfo>) {
      EXPECT_EQ(result.Title(), "");
    } else {
      EXPECT_EQ(result.size(), 0U);
    }
    done(failure);
  };
}

constexpr char kProgram[] = R"("title":"new")";
constexpr char kFragment[] = R"("xmlFragment":"<a/>")";
constexpr char kSaved[] = R"("path":"/q")";

/// One row for each operation of the service.
const struct Operation {
  const char* name;
  bool (*run)(IESGService& service, Variables& variables);
  ESGAsync::Identifier (*ask)(Variables& variables, const Done& done);
  const char* log;  // null: none
  const char* arguments;
  const char* result;
  const char* shown;  // the variables afterwards
} kOperations[] = {
    {"GetPresentProgram", [](auto& s, auto& v) { return s.GetPresentProgram(v.id, v.program); },
     [](auto& v, auto& d) { return ESGAsync::GetPresentProgram(v.id, Into(v.program, d)); },
     "Invoked: globalServiceId=urn:a \n", R"({"global_service_id":"urn:a"})", kProgram, "old new"},
    {"GetProgramList",
     [](auto& s, auto& v) { return s.GetProgramList(v.id, 4294967295U, 60, v.programs); },
     [](auto& v, auto& d) {
       return ESGAsync::GetProgramList(v.id, 4294967295U, 60, Into(v.programs, d));
     },
     "Invoked: globalServiceId=urn:a  startTime=4294967295  duration=60\n",
     R"({"start_time":4294967295,"duration":60,"global_service_id":"urn:a"})",
     R"("ESGProgramMap":[{"key":9,"title":"i"},{"key":4,"title":"d"}])", "old given 4d 9i"},
    {"GetProgram",
     [](auto& s, auto& v) {
       return s.GetProgram(v.program, eRelative_Position_Previous, v.program);
     },
     [](auto& v, auto& d) {
       return ESGAsync::GetProgram(v.program, eRelative_Position_Previous, Into(v.program, d));
     },
     nullptr,
     R"({"Start":7,"duration":0,"eventID":"","genre":"","globalServiceId":"","privateExt":null,
         "synopsis":"","title":"given","eRelative_Position":-1})",
     kProgram, "old new"},
    {"GetProgramItem",
     [](auto& s, auto& v) { return s.GetProgramItem(v.id, "c1", 4294967295U, v.program); },
     [](auto& v, auto& d) {
       return ESGAsync::GetProgramItem(v.id, "c1", 4294967295U, Into(v.program, d));
     },
     "Invoked: global_service_id=urn:a  contentId = c1  startTime=-1\n",
     R"({"global_service_id":"urn:a","ContentId":"c1","start_time":4294967295})", kProgram,
     "old new"},
    {"GetScheduleFragment",
     [](auto& s, auto& v) { return s.GetScheduleFragment(v.xml, v.id, 5, 60, true); },
     [](auto& v, auto& d) {
       return ESGAsync::GetScheduleFragment(v.id, 5, 60, true, Into(v.xml, d));
     },
     "urn:a\n", R"({"BB":true,"global_service_id":"urn:a","start_time":5,"duration":60})",
     kFragment, "<a/> given"},
    {"GetServiceFragment",
     [](auto& s, auto& v) { return s.GetServiceFragment(v.xml, v.id, false); },
     [](auto& v, auto& d) { return ESGAsync::GetServiceFragment(v.id, false, Into(v.xml, d)); },
     "urn:a\n", R"({"BB":false,"global_service_id":"urn:a"})", R"("xmlFragment":"")", " given"},
    {"GetContentFragment",
     [](auto& s, auto& v) { return s.GetContentFragment(v.xml, v.id, 5, 60, true); },
     [](auto& v, auto& d) {
       return ESGAsync::GetContentFragment(v.id, 5, 60, true, Into(v.xml, d));
     },
     "urn:a\n", R"({"BB":true,"global_service_id":"urn:a","start_time":5,"duration":60})",
     kFragment, "<a/> given"},
    {"SaveContentFragment",
     [](auto& s, auto& v) { return s.SaveContentFragment("/p", v.id, true); },
     [](auto& v, auto& d) { return ESGAsync::SaveContentFragment("/p", v.id, true, d); }, "urn:a\n",
     R"({"BB":true,"global_service_id":"urn:a","path":"/p"})", kSaved, "old given"},
    {"SaveScheduleFragment",
     [](auto& s, auto& v) { return s.SaveScheduleFragment("/p", v.id, false); },
     [](auto& v, auto& d) { return ESGAsync::SaveScheduleFragment("/p", v.id, false, d); },
     "urn:a\n", R"({"BB":false,"global_service_id":"urn:a","path":"/p"})", kSaved, "old given"},
    {"SaveServiceFragment",
     [](auto& s, auto& v) { return s.SaveServiceFragment("/p", v.id, true); },
     [](auto& v, auto& d) { return ESGAsync::SaveServiceFragment("/p", v.id, true, d); }, "urn:a\n",
     R"({"BB":true,"global_service_id":"urn:a","path":"/p"})", kSaved, "old given"},
};

/// The lines of a priority as "function > message".
std::vector<std::string> Logged(int priority) {
  std::vector<std::string> lines;
  for (const log_capture::Line& line : log_capture::Lines()) {
    const std::size_t start = line.text.find(": ") + 2;
    if (line.priority == priority) {
      lines.push_back(line.text.substr(start, line.text.find('(') - start) + " > " + line.message);
    }
  }
  return lines;
}

using Respond = Service::Respond;

void ExpectSame(const ESGFailure& one, const ESGFailure& other) {
  EXPECT_EQ(one.reason, other.reason);
  EXPECT_EQ(one.errorName, other.errorName);
  EXPECT_EQ(one.errorText, other.errorText);
}

class Queries : public OnBus {
 protected:
  Queries() { Connection(); }

  /// Runs an operation both ways, which must not differ, and gives its failure.
  ESGFailure Run(const Operation& operation, Variables& variables, const Respond& respond) {
    SCOPED_TRACE(operation.name);
    m_service.Set(respond);
    Variables later = variables;
    ESGFailure failure = RunLater(operation, later);
    const std::string request = m_service.LastCall().bytes;
    const std::vector<std::string> lines[] = {Logged(4), Logged(6)};
    log_capture::Clear();
    EXPECT_EQ(operation.run(*ESGAPI::GetESGServiceAPI(), variables), !failure);
    ExpectSame(ESGLastFailure(), failure);
    EXPECT_EQ(m_service.LastCall().bytes, request);
    EXPECT_EQ(Logged(4), lines[0]);
    EXPECT_EQ(Logged(6), lines[1]);
    EXPECT_TRUE(variables.Show() == later.Show());  // may be large
    return failure;
  }

  static ESGFailure RunLater(const Operation& operation, Variables& variables) {
    log_capture::Clear();
    const ESGFailureReason before = ESGLastFailure().reason;
    bool isDone = false;
    ESGFailure result;
    EXPECT_NE(operation.ask(variables,
                            [&](const ESGFailure& failure) {
                              isDone = true;
                              result = failure;
                            }),
              0U);
    EXPECT_FALSE(isDone);
    IterateUntil([&] { return isDone; });
    EXPECT_EQ(ESGLastFailure().reason, before);
    return result;
  }

  Service m_service{&Service::Echo, kESGServiceName};
};

TEST_F(Queries, SendTheirArgumentsAndTakeTheirResults) {
  EXPECT_EQ(ESGAPI::GetESGServiceAPI(), ESGService_Proxy::Instance());
  for (const Operation& operation : kOperations) {
    SCOPED_TRACE(operation.name);
    Variables variables;
    EXPECT_FALSE(Run(operation, variables,
                     Service::Reply(std::string("{\"ret\":true,") + operation.result + "}")));
    EXPECT_EQ(variables.Show(), operation.shown);

    EXPECT_EQ(m_service.LastCall().text, operation.name);
    Json::Value arguments;
    std::istringstream(operation.arguments) >> arguments;
    EXPECT_EQ(m_service.LastCall().bytes,
              Json::writeString(Json::StreamWriterBuilder(), arguments));
    std::vector<std::string> lines;
    if (operation.log != nullptr) {
      lines.push_back(std::string(operation.name) + " > " + operation.log);
      EXPECT_EQ(log_capture::Lines()[0].text.find("ESGService_Proxy.cpp: "), 0U);
      EXPECT_EQ(log_capture::Lines()[0].tag, "esg");
    }
    EXPECT_EQ(Logged(4), lines);
    EXPECT_EQ(Logged(6), std::vector<std::string>());
  }
}

TEST_F(Queries, FailWithTheirReasonInTheLogAndTouchNothing) {
  const std::string noBus = "RemoteCallWithStringArguments > Fail to communicate using d-bus\n";
  const std::string noJson = "RemoteCallWithJsonArguments > Fail to parse json data\n";
  const Respond error = Service::Error("com.velmora.Odd", "no %s disk");
  using Reason = ESGFailureReason;
  const std::tuple<Respond, Reason, std::vector<std::string>> failures[] = {
      {error,
       Reason::ServiceError,
       {"Call > [com.velmora.ESGCallListener:METHOD] Error answer received "
        "[Error name: com.velmora.Odd]: no %s disk\n",
        noBus}},
      {Service::Reply(R"({"ret":true})", -1), Reason::ServiceError, {noBus}},
      {Service::Reply("{"), Reason::Unreadable, {noJson}},
      {Service::Reply(""), Reason::Unreadable, {noJson}},
      {Service::Reply(R"({"title":"new","xmlFragment":"new","ESGProgramMap":[{}]})"),
       Reason::Unreadable,
       {}},
      {Service::Reply(R"({"ret":false,"title":"new","xmlFragment":"new","ESGProgramMap":[{}]})"),
       Reason::NotFound,
       {}},
      {Service::Reply(R"({"ret":null})"), Reason::Unreadable, {}},
      {Service::Reply(R"({"ret":0})"), Reason::NotFound, {}},
      {Service::Reply("null"), Reason::Unreadable, {}},
  };
  for (const Operation& operation : kOperations) {
    for (auto [answer, reason, lines] : failures) {
      Variables variables;
      EXPECT_EQ(Run(operation, variables, answer).reason, reason);
      EXPECT_EQ(variables.Show(), Variables().Show());
      for (std::string& line : lines) {
        line = std::regex_replace(line, std::regex("METHOD"), operation.name);
      }
      EXPECT_EQ(Logged(6), lines) << operation.name;
    }
  }
  Variables variables;
  EXPECT_EQ(Run(kOperations[0], variables, error).errorName, "com.velmora.Odd");
  EXPECT_EQ(ESGLastFailure().errorText, "no %s disk");
  m_service.Peer().Stop();
  EXPECT_EQ(Run(kOperations[0], variables, Service::Reply("")).reason, Reason::NoService);
  EXPECT_EQ(log_capture::Count("[Error name: org.freedesktop.DBus.Error.ServiceUnknown]: "), 1);
  EXPECT_EQ(Logged(6).back(), noBus);
}

TEST_F(Queries, TellErrorsApart) {
  using Reason = ESGFailureReason;
  const std::pair<const char*, Reason> errors[] = {
      {DBUS_ERROR_ACCESS_DENIED, Reason::AccessDenied},
      {DBUS_ERROR_NO_REPLY, Reason::NoAnswer},
      {DBUS_ERROR_TIMED_OUT, Reason::NoAnswer},
      {DBUS_ERROR_LIMITS_EXCEEDED, Reason::TooLarge},
      {DBUS_ERROR_NAME_HAS_NO_OWNER, Reason::NoService},
      {DBUS_ERROR_SPAWN_EXEC_FAILED, Reason::NoService},
      {DBUS_ERROR_UNKNOWN_METHOD, Reason::ServiceError},
      {"com.velmora.AccessDenied", Reason::ServiceError},
  };
  for (const auto& [name, reason] : errors) {
    const std::string text = std::string(510, 'x') + "\u00e9 and more";  // more than is kept
    Variables variables;
    const ESGFailure failure = Run(kOperations[0], variables, Service::Error(name, text));
    EXPECT_EQ(failure.reason, reason);
    EXPECT_EQ(failure.errorName, name);
    EXPECT_EQ(failure.errorText, std::string(510, 'x'));
    EXPECT_STRNE(ESGFailureText(reason), ESGFailureText(Reason::None));
  }
  Variables variables;
  variables.id.assign(33U << 20, 'x');
  Variables later = variables;
  EXPECT_EQ(RunLater(kOperations[0], later).reason, Reason::TooLarge);
  EXPECT_FALSE(kOperations[0].run(*ESGAPI::GetESGServiceAPI(), variables));
  EXPECT_EQ(ESGLastFailure().reason, Reason::TooLarge);
}

/// A connection of the application, which replies to calls itself.
struct OwnConnection : EIIPCConnection {
  bool Connect() override { return true; }
  bool AddMatchRule(int) override { return true; }
  bool RemoveMatchRule(int) override { return true; }
  int Call(const std::string& destination, const char* method, ESGMessageBuffer& in,
           ESGMessageBuffer& out) override {
    asked = destination + " " + method + " " + Bytes(in);
    out.PushConcatenated(answer.size(), answer.data());
    return answer.empty() ? -1 : 1;
  }
  void SetEventCallbackFunction(EIIPCCallback) override {}
  void UnSetEventCallbackFunction() override {}
  void SetDataCallbackFunction(EIIPCCallback) override {}
  const std::string& GetConnectionId() override { return asked; }
  void SetGMainLoop(GMainContext*) override {}
  bool m_Connect() override { return true; }
  std::string asked;
  std::string answer;
};

TEST_F(Queries, GoThroughTheConnectionThatTheirProxyIsGiven) {
  Variables variables;
  Run(kOperations[0], variables, Service::Error("com.velmora.Odd", "before"));
  OwnConnection own;
  ESGService_Proxy proxy(&own);
  EXPECT_FALSE(proxy.GetPresentProgram("id", variables.program));
  ExpectSame(ESGLastFailure(), {ESGFailureReason::NoAnswer, "", ""});
  for (const Operation& operation : kOperations) {
    own.answer = std::string("{\"ret\":true,") + operation.result + "}";
    Variables each;
    EXPECT_TRUE(operation.run(proxy, each));
    EXPECT_EQ(each.Show(), operation.shown);
    EXPECT_EQ(own.asked.find(std::string(kESGServiceName) + " " + operation.name + " {"), 0U);
  }
}

TEST_F(Queries, SucceedWithAnyResultButMinusOneAndAnyTrueVerdict) {
  for (const int result : {0, 5, -2, INT_MIN}) {
    for (const char* verdict : {"true", "1", "0.5", "-1", "true/*!*/"}) {
      Variables variables;
      EXPECT_FALSE(Run(kOperations[0], variables,
                       Service::Reply(std::string("{\"ret\":") + verdict + "}", result)));
      EXPECT_EQ(variables.Show(), "old ");
    }
  }
}

TEST_F(Queries, TakeHostileTextForWhatItSays) {
  // The last member of a name counts, and nothing after the end of the object.
  Variables variables;
  const std::string title("a\0\xff\x1b\u00e9", 6);
  const std::string twice = R"({"title":[],"ret":false,"title":")" + title + R"(","ret":true})";
  EXPECT_FALSE(
      Run(kOperations[0], variables, Service::Reply(twice + "} [\xff" + std::string(9, '\0'), 1)));
  EXPECT_EQ(variables.program.Title(), title);

  std::string list;
  for (int key = 0; key < 10000; ++key) {
    list += ",{\"key\":" + std::to_string(key) + R"(,"title":")" + std::string(3000, 't') + "\"}";
  }
  EXPECT_FALSE(Run(kOperations[1], variables,
                   Service::Reply(R"({"ret":true,"ESGProgramMap":[)" + list.substr(1) + "]}")));
  EXPECT_EQ(variables.programs.size(), 10000U);
  EXPECT_EQ(variables.programs[9999].Title().size(), 3000U);
}

TEST_F(Queries, RaiseTheJsonExceptionOfWhatCannotBeRead) {
  const std::tuple<const Operation&, std::string, const char*, const char*> cases[] = {
      {kOperations[0], R"({"ret":true,"Start":"x","title":"new"})", "convertible", "old given"},
      {kOperations[0], R"({"ret":true,"title":"new","genre":[]})", "convertible", "old new"},
      {kOperations[0], R"({"ret":true,"Start":1e300})", "out of UInt range", "old given"},
      {kOperations[0], R"({"ret":true,"title":"new","duration":-1})", "out of UInt", "old new"},
      {kOperations[0], R"({"ret":true,"x":)" + std::string(5000, '['), "stackLimit", "old given"},
      {kOperations[1], R"({"ret":true,"ESGProgramMap":[{"key":4,"title":"d"},{"key":-1}]})",
       "out of UInt range", "old given 4d"},
      {kOperations[4], R"({"ret":true,"xmlFragment":{}})", "convertible", "old given"},
      {kOperations[9], R"({"ret":"true"})", "convertible", "old given"},
      {kOperations[9], "[true]", "objectValue", "old given"},
  };
  for (const auto& [operation, reply, says, shown] : cases) {
    Variables variables;
    Variables later;
    m_service.Set(Service::Reply(reply, 1));
    EXPECT_EQ(RunLater(operation, later).reason, ESGFailureReason::Unreadable);
    EXPECT_EQ(later.Show(), Variables().Show());
    try {
      operation.run(*ESGAPI::GetESGServiceAPI(), variables);
      ADD_FAILURE() << reply;
    } catch (const Json::Exception& exception) {
      EXPECT_NE(std::string(exception.what()).find(says), std::string::npos) << exception.what();
    }
    EXPECT_EQ(ESGLastFailure().reason, ESGFailureReason::Unreadable);
    EXPECT_EQ(variables.Show(), shown) << reply;
    EXPECT_FALSE(Run(operation, variables, Service::Reply(R"({"ret":true})")));
  }
}

}  // namespace
