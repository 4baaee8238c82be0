#include <gtest/gtest.h>
#include <json/json.h>

#include <climits>
#include <functional>
#include <mutex>
#include <regex>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "../src/ESGService_Proxy.h"
#include "ESGAPI.h"
#include "IPCS/EIIPCConnection.h"
#include "LogCapture.h"
#include "RawPeer.h"

namespace {

using ipcs::MessagePtr;

constexpr char kService[] = "com.velmora.ESGCallListener";

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

constexpr char kProgram[] = R"("title":"new")";
constexpr char kFragment[] = R"("xmlFragment":"<a/>")";
constexpr char kSaved[] = R"("path":"/q")";

/// One row for each operation of the service.
const struct Operation {
  const char* name;
  bool (*run)(IESGService& service, Variables& variables);
  const char* log;  // null: none
  const char* arguments;
  const char* result;
  const char* shown;  // the variables afterwards
} kOperations[] = {
    {"GetPresentProgram", [](auto& s, auto& v) { return s.GetPresentProgram(v.id, v.program); },
     "Invoked: globalServiceId=urn:a \n", R"({"global_service_id":"urn:a"})", kProgram, "old new"},
    {"GetProgramList",
     [](auto& s, auto& v) { return s.GetProgramList(v.id, 4294967295, 60, v.programs); },
     "Invoked: globalServiceId=urn:a  startTime=4294967295  duration=60\n",
     R"({"start_time":4294967295,"duration":60,"global_service_id":"urn:a"})",
     R"("ESGProgramMap":[{"key":9,"title":"i"},{"key":4,"title":"d"}])", "old given 4d 9i"},
    {"GetProgram",
     [](auto& s, auto& v) {
       return s.GetProgram(v.program, eRelative_Position_Previous, v.program);
     },
     nullptr,
     R"({"Start":7,"duration":0,"eventID":"","genre":"","globalServiceId":"","privateExt":null,
         "synopsis":"","title":"given","eRelative_Position":-1})",
     kProgram, "old new"},
    {"GetProgramItem",
     [](auto& s, auto& v) { return s.GetProgramItem(v.id, "c1", 4294967295, v.program); },
     "Invoked: global_service_id=urn:a  contentId = c1  startTime=-1\n",
     R"({"global_service_id":"urn:a","ContentId":"c1","start_time":4294967295})", kProgram,
     "old new"},
    {"GetScheduleFragment",
     [](auto& s, auto& v) { return s.GetScheduleFragment(v.xml, v.id, 5, 60, true); }, "urn:a\n",
     R"({"BB":true,"global_service_id":"urn:a","start_time":5,"duration":60})", kFragment,
     "<a/> given"},
    {"GetServiceFragment",
     [](auto& s, auto& v) { return s.GetServiceFragment(v.xml, v.id, false); }, "urn:a\n",
     R"({"BB":false,"global_service_id":"urn:a"})", R"("xmlFragment":"")", " given"},
    {"GetContentFragment",
     [](auto& s, auto& v) { return s.GetContentFragment(v.xml, v.id, 5, 60, true); }, "urn:a\n",
     R"({"BB":true,"global_service_id":"urn:a","start_time":5,"duration":60})", kFragment,
     "<a/> given"},
    {"SaveContentFragment",
     [](auto& s, auto& v) { return s.SaveContentFragment("/p", v.id, true); }, "urn:a\n",
     R"({"BB":true,"global_service_id":"urn:a","path":"/p"})", kSaved, "old given"},
    {"SaveScheduleFragment",
     [](auto& s, auto& v) { return s.SaveScheduleFragment("/p", v.id, false); }, "urn:a\n",
     R"({"BB":false,"global_service_id":"urn:a","path":"/p"})", kSaved, "old given"},
    {"SaveServiceFragment",
     [](auto& s, auto& v) { return s.SaveServiceFragment("/p", v.id, true); }, "urn:a\n",
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

using Answer = std::function<MessagePtr(DBusMessage* call)>;

Answer Reply(const std::string& text, int result = 1) {
  return [=](DBusMessage* call) { return MakeReply(call, result, text); };
}

class Queries : public testing::Test {
 protected:
  Queries() { EIIPCConnection::GetInstance(); }

  bool Run(const Operation& operation, Variables& variables, Answer answer) {
    {
      const std::lock_guard<std::mutex> lock(m_mutex);
      m_answer = std::move(answer);
    }
    log_capture::Clear();
    return operation.run(*ESGAPI::GetESGServiceAPI(), variables);
  }

  std::mutex m_mutex;
  Answer m_answer;
  Body m_call;
  RawPeer m_service{kService, [this](DBusMessage* call) {
                      const std::lock_guard<std::mutex> lock(m_mutex);
                      m_call = ReadBody(call);
                      return m_answer(call);
                    }};
};

TEST_F(Queries, SendTheirArgumentsAndTakeTheirResults) {
  EXPECT_EQ(ESGAPI::GetESGServiceAPI(), ESGService_Proxy::Instance());
  for (const Operation& operation : kOperations) {
    SCOPED_TRACE(operation.name);
    Variables variables;
    EXPECT_TRUE(
        Run(operation, variables, Reply(std::string("{\"ret\":true,") + operation.result + "}")));
    EXPECT_EQ(variables.Show(), operation.shown);

    const std::lock_guard<std::mutex> lock(m_mutex);
    EXPECT_EQ(m_call.text, operation.name);
    Json::Value arguments;
    std::istringstream(operation.arguments) >> arguments;
    EXPECT_EQ(m_call.bytes, Json::writeString(Json::StreamWriterBuilder(), arguments));
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
  const auto error = [](DBusMessage* call) {
    return MessagePtr(dbus_message_new_error(call, "com.velmora.Odd", "no %s disk"));
  };
  const std::pair<Answer, std::vector<std::string>> failures[] = {
      {error,
       {"Call > [com.velmora.ESGCallListener:METHOD] Error answer received "
        "[Error name: com.velmora.Odd]: no %s disk\n",
        noBus}},
      {Reply(R"({"ret":true})", -1), {noBus}},
      {Reply("{"), {noJson}},
      {Reply(""), {noJson}},
      {Reply(R"({"title":"new","xmlFragment":"new","ESGProgramMap":[{}]})"), {}},
      {Reply(R"({"ret":false,"title":"new","xmlFragment":"new","ESGProgramMap":[{}]})"), {}},
      {Reply(R"({"ret":null})"), {}},
      {Reply(R"({"ret":0})"), {}},
      {Reply("null"), {}},
  };
  for (const Operation& operation : kOperations) {
    for (auto [answer, lines] : failures) {
      Variables variables;
      EXPECT_FALSE(Run(operation, variables, answer));
      EXPECT_EQ(variables.Show(), Variables().Show());
      for (std::string& line : lines) {
        line = std::regex_replace(line, std::regex("METHOD"), operation.name);
      }
      EXPECT_EQ(Logged(6), lines) << operation.name;
    }
  }
  m_service.Stop();
  Variables variables;
  EXPECT_FALSE(Run(kOperations[0], variables, Reply("")));
  EXPECT_EQ(log_capture::Count("[Error name: org.freedesktop.DBus.Error.ServiceUnknown]: "), 1);
  EXPECT_EQ(Logged(6).back(), noBus);
}

TEST_F(Queries, SucceedWithAnyResultButMinusOneAndAnyTrueVerdict) {
  for (const int result : {0, 5, -2, INT_MIN}) {
    for (const char* verdict : {"true", "1", "0.5", "-1", "true/*!*/"}) {
      Variables variables;
      EXPECT_TRUE(
          Run(kOperations[0], variables, Reply(std::string("{\"ret\":") + verdict + "}", result)));
      EXPECT_EQ(variables.Show(), "old ");
    }
  }
}

TEST_F(Queries, TakeHostileTextForWhatItSays) {
  // The last member of a name counts, and nothing behind the end of the object.
  Variables variables;
  const std::string title("a\0\xff\x1b\u00e9", 6);
  const std::string twice = R"({"title":[],"ret":false,"title":")" + title + R"(","ret":true})";
  EXPECT_TRUE(Run(kOperations[0], variables, Reply(twice + "} [\xff" + std::string(9, '\0'))));
  EXPECT_EQ(variables.program.Title(), title);

  std::string list;
  for (int key = 0; key < 10000; ++key) {
    list += ",{\"key\":" + std::to_string(key) + R"(,"title":")" + std::string(3000, 't') + "\"}";
  }
  EXPECT_TRUE(Run(kOperations[1], variables,
                  Reply(R"({"ret":true,"ESGProgramMap":[)" + list.substr(1) + "]}")));
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
    try {
      Run(operation, variables, Reply(reply));
      ADD_FAILURE() << reply;
    } catch (const Json::Exception& exception) {
      EXPECT_NE(std::string(exception.what()).find(says), std::string::npos) << exception.what();
    }
    EXPECT_EQ(variables.Show(), shown) << reply;
    EXPECT_TRUE(Run(operation, variables, Reply(R"({"ret":true})")));
  }
}

}  // namespace
