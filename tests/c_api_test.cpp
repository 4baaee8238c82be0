#include <glib.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ChildProgram.h"
#include "ESGEMSProxy.h"
#include "FCESGGuide.h"
#include "Harness.h"
#include "IESGService.h"
#include "IPCS/EIIPCConnection.h"
#include "LogCapture.h"
#include "PrivateBus.h"
#include "RawPeer.h"
#include "TemporaryFolder.h"

extern "C" {
int CheckPresentProgram(const char* id, int found, unsigned int start, unsigned int duration);
int CheckGuide(const char* id);
int CheckLater(const char* id);
}

namespace {

using esg::internal::MessagePtr;
using Strings = std::vector<std::string>;

TEST(CInterface, HandsOutARecordWhetherItWasFoundOrNot) {
  EXPECT_EQ(CheckPresentProgram("urn:a", 0, 0, 0), 0);  // no service
  RawPeer service("com.velmora.ESGCallListener", [](DBusMessage* call) {
    const bool found = ReadBody(call).bytes.find("\"urn:a\"") != std::string::npos;
    return MakeReply(call, 1,
                     found ? R"({"ret":true,"Start":4294967295,"duration":60})"
                           : R"({"ret":false,"Start":1,"duration":2})");
  });
  EXPECT_EQ(CheckPresentProgram("urn:a", 1, 4294967295, 60), 0);
  EXPECT_EQ(CheckPresentProgram("", 0, 0, 0), 0);
  EXPECT_EQ(log_capture::Count("FCESGProgramDispose("), 9);
  EXPECT_EQ(log_capture::Count(" > Free: (nil)\n"), 3);
}

#ifdef ESG_GUIDE_SERVICE
TEST(CInterface, AProgramWalksThroughTheGuide) {
  const TemporaryFolder folder;
  ChildProgram service(
      {ESG_GUIDE_SERVICE, "--guide", SHIPPED_GUIDE, "--today", "--save-dir", folder.path});
  ASSERT_TRUE(service.WaitForLine("ready"));
  EXPECT_EQ(CheckGuide("tag:example.com,2026:pebblecove"), 0);
  EXPECT_TRUE(std::filesystem::exists(folder.path / "service.xml"));
  EXPECT_EQ(CheckLater("tag:example.com,2026:pebblecove"), 0);
}
#endif

/// A guide service that answers as it is told, and remembers what it was asked.
class Guide {
 public:
  explicit Guide(std::string answer) : m_answer(std::move(answer)) {}

  /// The last request, with its method.
  std::string Asked() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_asked;
  }
  /// Empty for an error.
  void Answer(std::string answer) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_answer = std::move(answer);
  }

 private:
  MessagePtr Serve(DBusMessage* call) {
    const Body body = ReadBody(call);
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_asked = body.text + body.bytes;
    return m_answer.empty() ? MessagePtr(dbus_message_new_error(call, "com.velmora.Odd", "no disk"))
                            : MakeReply(call, 1, m_answer);
  }

  std::mutex m_mutex;
  std::string m_asked;
  std::string m_answer;
  RawPeer m_peer{kESGServiceName, [this](DBusMessage* call) { return Serve(call); }};
};

/// What a callback has got: the reason, the result, and the error's name and text.
Strings got;
int destroyed = 0;

std::string Take(FCESGProgramInfo* program) {
  std::string title = program != nullptr ? FCESGProgramTitle(program) : "none";
  FCESGProgramDispose(program);
  return title;
}
std::string Take(FCESGProgramList* list) {
  std::string titles = list != nullptr ? "" : "none";
  for (unsigned int i = 0; i < FCESGProgramListLength(list); ++i) {
    titles += std::to_string(FCESGProgramListKey(list, i)) +
              FCESGProgramTitle(FCESGProgramListElement(list, i));
  }
  FCESGProgramListDispose(list);
  return titles;
}
std::string Take(char* text) {
  std::string taken = text != nullptr ? text : "none";
  FCESGTextDispose(text);
  return taken;
}

std::string Show(int reason, const std::string& result) {
  return std::to_string(reason) + " " + result + " " + FCESGGuideLastErrorName() + " " +
         FCESGGuideLastErrorText();
}
template <typename Result>
void OnResult(FCESGReason reason, Result* result, void* /*userData*/) {
  got.push_back(Show(reason, Take(result)));
}
void OnSaved(FCESGReason reason, void* /*userData*/) { got.push_back(Show(reason, "")); }
void OnDestroy(void* userData) { destroyed += *static_cast<int*>(userData); }

template <typename Result>
Result* const kOld = reinterpret_cast<Result*>(8);  // which a query overwrites

template <typename Result, typename Query, typename... Arguments>
std::string Now(Query query, Arguments... arguments) {
  Result* result = kOld<Result>;
  const int done = query(arguments..., &result);
  EXPECT_EQ(done == 1, FCESGGuideLastReason() == FCESGReasonNone);
  return Show(FCESGGuideLastReason(), Take(result));
}
template <typename... Arguments>
std::string NowSaved(int (*query)(Arguments...), Arguments... arguments) {
  const int done = query(arguments...);
  EXPECT_EQ(done == 1, FCESGGuideLastReason() == FCESGReasonNone);
  return Show(FCESGGuideLastReason(), "");
}

/// Each query in both forms, with its request.
const struct Query {
  const char* request;
  std::string (*now)();
  std::uint64_t (*later)(void* userData);
} kQueries[] = {
    {R"(GetPresentProgram{"global_service_id":"urn:a"})",
     [] { return Now<FCESGProgramInfo>(FCESGGuideGetPresentProgram, "urn:a"); },
     [](void* data) { return FCESGAsyncGetPresentProgram("urn:a", OnResult, data, OnDestroy); }},
    {R"(GetProgramItem{"ContentId":"c","global_service_id":"urn:a","start_time":9})",
     [] { return Now<FCESGProgramInfo>(FCESGGuideGetProgramItem, "urn:a", "c", 9U); },
     [](void* data) {
       return FCESGAsyncGetProgramItem("urn:a", "c", 9, OnResult, data, OnDestroy);
     }},
    {R"(GetProgramList{"duration":60,"global_service_id":"urn:a","start_time":9})",
     [] { return Now<FCESGProgramList>(FCESGGuideGetProgramList, "urn:a", 9U, 60U); },
     [](void* data) {
       return FCESGAsyncGetProgramList("urn:a", 9, 60, OnResult, data, OnDestroy);
     }},
    {R"(GetScheduleFragment{"BB":true,"duration":60,"global_service_id":"urn:a","start_time":9})",
     [] { return Now<char>(FCESGGuideGetScheduleFragment, "urn:a", 9U, 60U, 2); },
     [](void* data) {
       return FCESGAsyncGetScheduleFragment("urn:a", 9, 60, 2, OnResult, data, OnDestroy);
     }},
    {R"(GetServiceFragment{"BB":false,"global_service_id":"urn:a"})",
     [] { return Now<char>(FCESGGuideGetServiceFragment, "urn:a", 0); },
     [](void* data) {
       return FCESGAsyncGetServiceFragment("urn:a", 0, OnResult, data, OnDestroy);
     }},
    {R"(GetContentFragment{"BB":true,"duration":60,"global_service_id":"urn:a","start_time":9})",
     [] { return Now<char>(FCESGGuideGetContentFragment, "urn:a", 9U, 60U, 1); },
     [](void* data) {
       return FCESGAsyncGetContentFragment("urn:a", 9, 60, 1, OnResult, data, OnDestroy);
     }},
    {R"(SaveContentFragment{"BB":true,"global_service_id":"urn:a","path":"/p"})",
     [] { return NowSaved(FCESGGuideSaveContentFragment, "/p", "urn:a", 1); },
     [](void* data) {
       return FCESGAsyncSaveContentFragment("/p", "urn:a", 1, OnSaved, data, OnDestroy);
     }},
    {R"(SaveScheduleFragment{"BB":false,"global_service_id":"urn:a","path":"/p"})",
     [] { return NowSaved(FCESGGuideSaveScheduleFragment, "/p", "urn:a", 0); },
     [](void* data) {
       return FCESGAsyncSaveScheduleFragment("/p", "urn:a", 0, OnSaved, data, OnDestroy);
     }},
    {R"(SaveServiceFragment{"BB":true,"global_service_id":"urn:a","path":"/p"})",
     [] { return NowSaved(FCESGGuideSaveServiceFragment, "/p", "urn:a", 1); },
     [](void* data) {
       return FCESGAsyncSaveServiceFragment("/p", "urn:a", 1, OnSaved, data, OnDestroy);
     }},
};

/// Asks without blocking, and gives what came back.
std::string Later(const Query& query) {
  int one = 1;
  got.clear();
  destroyed = 0;
  EXPECT_NE(query.later(&one), 0U);
  EXPECT_EQ(FCESGGuideLastReason(), FCESGReasonNone);
  while (destroyed == 0) {
    g_main_context_iteration(nullptr, TRUE);
  }
  EXPECT_EQ(FCESGGuideLastReason(), FCESGReasonNone) << "that of the callback stayed";
  EXPECT_EQ(got.size(), 1U);
  return got.empty() ? "" : got[0];
}

TEST(CInterface, EachQuerySaysAndHearsTheSameInBothForms) {
  Guide guide(R"({"ret":true,"title":"t","xmlFragment":"t",
                  "ESGProgramMap":[{"key":9,"title":"t"},{"key":4,"title":"d"}]})");
  for (const Query& query : kQueries) {
    const std::string request = query.request;
    const std::string result = request.rfind("Save", 0) == 0             ? "0   "
                               : request.rfind("GetProgramList", 0) == 0 ? "0 4d9t  "
                                                                         : "0 t  ";
    std::string text;
    EXPECT_EQ(query.now(), result) << request;
    for (const char each : guide.Asked()) {
      text += each != '\n' && each != '\t' && each != ' ' ? std::string(1, each) : "";
    }
    EXPECT_EQ(text, request);
    const std::string asked = guide.Asked();
    EXPECT_EQ(Later(query), result) << request;
    EXPECT_EQ(guide.Asked(), asked);
  }

  // The neighbour takes what a query has given.
  guide.Answer(R"({"ret":true,"title":"t","Start":9,"genre":"g","globalServiceId":"s",
                   "privateExt":{"contentIcons":[{"uri":"u","mimeType":"m","width":-1,"height":2,
                                                  "dataSize":3}]}})");
  FCESGProgramInfo* program = nullptr;
  ASSERT_EQ(FCESGGuideGetPresentProgram("urn:a", &program), 1);
  EXPECT_STREQ(FCESGProgramGenre(program), "g");
  const FCESGIcon* icon = FCESGProgramIcon(program, 0);
  EXPECT_STREQ(FCESGIconMimeType(icon), "m");
  EXPECT_EQ(FCESGIconWidth(icon), -1);
  EXPECT_EQ(FCESGIconDataSize(icon), 3);
  FCESGProgramInfo* next = nullptr;
  EXPECT_EQ(FCESGGuideGetProgram(program, FCESGPositionNext, &next), 1);
  const std::string asked = guide.Asked();
  EXPECT_NE(asked.find("\"eRelative_Position\" : 1"), std::string::npos) << asked;
  int one = 1;
  destroyed = 0;
  FCESGAsyncGetProgram(program, FCESGPositionNext, OnResult, &one, OnDestroy);
  FCESGProgramDispose(program);
  while (destroyed == 0) {
    g_main_context_iteration(nullptr, TRUE);
  }
  EXPECT_EQ(guide.Asked(), asked);
  FCESGProgramDispose(next);
}

TEST(CInterface, TellsWhyAQueryFailed) {
  const auto expect = [](const std::string& failure) {
    for (const Query& query : kQueries) {
      const std::string none = std::string(query.request).rfind("Save", 0) == 0 ? "" : "none";
      for (const std::string& shown : {query.now(), Later(query)}) {
        const std::string head = failure.substr(0, 2) + none + failure.substr(1);
        EXPECT_EQ(shown.substr(0, head.size()), head) << query.request;
      }
    }
  };
  expect("3 org.freedesktop.DBus.Error.ServiceUnknown The name ");
  Guide guide("");
  expect("7 com.velmora.Odd no disk");
  std::thread([] { EXPECT_EQ(FCESGGuideLastReason(), FCESGReasonNone); }).join();
  guide.Answer(R"({"ret":false})");
  expect("1  ");
  guide.Answer("{");
  expect("8  ");
  guide.Answer(R"({"ret":[]})");  // an exception within
  expect("8  ");
  EXPECT_STREQ(FCESGReasonText(FCESGReasonUnreadable),
               "The answer of the guide service cannot be read.");

  guide.Answer(R"({"ret":true})");
  const std::string null = "8 none  an argument is null";
  const char* const none = nullptr;
  EXPECT_EQ(Now<FCESGProgramInfo>(FCESGGuideGetPresentProgram, none), null);
  EXPECT_EQ(Now<FCESGProgramInfo>(FCESGGuideGetProgram, static_cast<FCESGProgramInfo*>(nullptr), 1),
            null);
  EXPECT_EQ(Now<FCESGProgramInfo>(FCESGGuideGetProgramItem, "urn:a", none, 9U), null);
  EXPECT_EQ(FCESGGuideGetServiceFragment("urn:a", 0, nullptr), 0);
  EXPECT_EQ(FCESGGuideSaveServiceFragment("/p", nullptr, 0), 0);
  EXPECT_EQ(FCESGEventsSubscribe(5, nullptr, nullptr, nullptr), 0U);
  EXPECT_EQ(FCESGGuideLastReason(), FCESGReasonUnreadable);
  EXPECT_STREQ(FCESGProgramTitle(nullptr), "");
  EXPECT_EQ(FCESGProgramListLength(nullptr), 0U);
  EXPECT_EQ(FCESGProgramIcon(nullptr, 0), nullptr);
  EXPECT_EQ(FCESGIconUri(nullptr), std::string());
}

std::uint64_t other = 0;

TEST(CInterface, UserDataIsGivenBackOnceHoweverAQueryEnds) {
  Guide guide(R"({"ret":true})");
  int one = 1;
  EXPECT_EQ(FCESGAsyncGetServiceFragment(nullptr, 0, OnResult, &one, OnDestroy), 0U);
  EXPECT_EQ(FCESGGuideLastReason(), FCESGReasonUnreadable);
  EXPECT_EQ(destroyed, 1);

  const std::uint64_t cancelled = kQueries[0].later(&one);
  EXPECT_EQ(FCESGAsyncCancel(cancelled), 1);
  while (destroyed != 2) {
    g_main_context_iteration(nullptr, TRUE);
  }
  EXPECT_EQ(FCESGAsyncCancel(cancelled), 0);
  EXPECT_EQ(FCESGAsyncCancel(0), 0);

  // A callback cancels another query, and itself, which is too late.
  static std::uint64_t self = 0;
  const auto onSaved = [](FCESGReason, void*) {
    EXPECT_EQ(FCESGAsyncCancel(self), 0);
    EXPECT_EQ(FCESGAsyncCancel(other), 1);
    EXPECT_EQ(destroyed, 3);
  };
  self = FCESGAsyncSaveServiceFragment("/p", "urn:a", 0, onSaved, &one, OnDestroy);
  other = kQueries[0].later(&one);
  FCESGAsyncGetPresentProgram("urn:a", nullptr, &one, OnDestroy);
  while (destroyed != 5) {
    g_main_context_iteration(nullptr, TRUE);
  }
  EXPECT_TRUE(got.empty());
}

// Events

Strings heard;

void OnEvent(int event, std::int32_t a, std::int32_t b, std::int32_t c, void* userData) {
  heard.push_back(std::to_string(*static_cast<int*>(userData)) + ":" + std::to_string(event) + "," +
                  std::to_string(a) + "," + std::to_string(b) + "," + std::to_string(c));
}

/// Runs the main loop until an event of this number has come, which nothing else is to send.
void RunTo(RawPeer& emitter, int last) {
  emitter.Send(MakeSignal("Event", last, ""));
  const std::string end = ":" + std::to_string(last) + ",-1,-1,-1";
  while (heard.empty() || heard.back().find(end) == std::string::npos) {
    g_main_context_iteration(nullptr, TRUE);
  }
  heard.pop_back();
}

TEST(CInterface, EventsGoByNumber) {
  RawPeer emitter;
  std::array<int, 4> users = {1, 10, 100, 1000};
  const auto subscribe = [&](int event, std::size_t user) {
    const std::uint64_t identifier = FCESGEventsSubscribe(event, OnEvent, &users[user], OnDestroy);
    EXPECT_NE(identifier, 0U);
    EXPECT_EQ(FCESGGuideLastReason(), FCESGReasonNone);
    return identifier;
  };
  const std::uint64_t end = subscribe(9, 3);
  const std::uint64_t first = subscribe(5, 0);
  const std::uint64_t again = subscribe(5, 1);
  const std::uint64_t six = subscribe(6, 2);
  emitter.Send(MakeSignal("Event", 6, Integers({1, -2, 3})));
  emitter.Send(MakeSignal("Event", 5, ""));
  RunTo(emitter, 9);
  EXPECT_EQ(heard, (Strings{"100:6,1,-2,3", "1:5,-1,-1,-1", "10:5,-1,-1,-1"}));

  // One of two goes, and the other still hears.
  heard.clear();
  EXPECT_EQ(FCESGEventsUnsubscribe(first), 1);
  EXPECT_EQ(FCESGEventsUnsubscribe(first), 0);
  EXPECT_EQ(destroyed, 1);
  emitter.Send(MakeSignal("Event", 5, ""));
  RunTo(emitter, 9);
  EXPECT_EQ(heard, Strings{"10:5,-1,-1,-1"});

  // A callback unsubscribes itself and the one that would be called after it, and subscribes.
  heard.clear();
  EXPECT_EQ(FCESGEventsUnsubscribe(again), 1);
  static std::uint64_t self = 0;
  static std::uint64_t added = 0;
  const auto onSix = [](int, std::int32_t, std::int32_t, std::int32_t, void* userData) {
    EXPECT_EQ(FCESGEventsUnsubscribe(self), 1);
    EXPECT_EQ(FCESGEventsUnsubscribe(other), 1);
    added = FCESGEventsSubscribe(6, OnEvent, userData, OnDestroy);
    heard.push_back("destroyed " + std::to_string(destroyed));
  };
  EXPECT_EQ(FCESGEventsUnsubscribe(six), 1);
  self = FCESGEventsSubscribe(6, onSix, users.data(), OnDestroy);
  other = subscribe(6, 2);
  emitter.Send(MakeSignal("Event", 6, ""));
  emitter.Send(MakeSignal("Event", 6, ""));
  RunTo(emitter, 9);
  EXPECT_EQ(heard, (Strings{"destroyed 111", "1:6,-1,-1,-1"}));
  EXPECT_EQ(destroyed, 212) << "that of the one under way after it, and of the one it held back";

  // All end, and it begins again.
  EXPECT_EQ(FCESGEventsUnsubscribe(added), 1);
  EXPECT_EQ(FCESGEventsUnsubscribe(end), 1);
  EXPECT_EQ(destroyed, 1213);
  heard.clear();
  subscribe(9, 3);
  emitter.Send(MakeSignal("Event", 6, ""));
  RunTo(emitter, 9);
  EXPECT_EQ(heard, Strings());

  TestBus().Stop();
  EXPECT_EQ(FCESGEventsSubscribe(6, OnEvent, users.data(), OnDestroy), 0U);
  EXPECT_EQ(FCESGGuideLastReason(), FCESGReasonNoBus);
  EXPECT_EQ(destroyed, 1214);
}

TEST(CInterface, DoesNotSubscribeWhileTheEventsAreThoseOfCpp) {
  RawPeer emitter;
  const std::unique_ptr<IESGEMS> proxy(  // nobody's once it is forgotten
      ESGEMSProxy::GetInstance(EIIPCConnection::GetInstance(), [](int, const ESGEventData&) {
        heard.emplace_back("C++");
        return 0;
      }));
  EXPECT_EQ(proxy->SubscribeSignal(5), 0);
  int one = 1;
  EXPECT_EQ(FCESGEventsSubscribe(5, OnEvent, &one, OnDestroy), 0U);
  EXPECT_EQ(Show(FCESGGuideLastReason(), ""), "8   the process has an event proxy of C++");
  EXPECT_EQ(destroyed, 1);
  emitter.Send(MakeSignal("Event", 5, ""));
  while (heard.empty()) {
    g_main_context_iteration(nullptr, TRUE);
  }
  EXPECT_EQ(heard, Strings{"C++"});
  EXPECT_EQ(proxy->UnsubscribeSignal(5), 0);
  EXPECT_NE(FCESGEventsSubscribe(9, OnEvent, &one, OnDestroy), 0U);
  RunTo(emitter, 9);
}

TEST(CInterface, AnyThreadSubscribesWhileEventsArrive) {
  RawPeer emitter;
  static std::atomic<int> calls;
  static std::atomic<int> released;
  const auto onEvent = [](int, std::int32_t, std::int32_t, std::int32_t, void* userData) {
    calls += *static_cast<int*>(userData);
  };
  const auto onDestroy = [](void* userData) {
    delete static_cast<int*>(userData);
    ++released;
  };
  const MainLoopThread loop;
  constexpr int kThreads = 4;
  constexpr int kRounds = 50;
  std::vector<std::thread> threads = Threads(kThreads, [&](int) {
    for (int i = 0; i < kRounds; ++i) {
      const int before = calls;
      const std::uint64_t identifier = FCESGEventsSubscribe(5, onEvent, new int(1), onDestroy);
      emitter.Send(MakeSignal("Event", 5, ""));
      while (calls == before) {
        std::this_thread::yield();
      }
      EXPECT_EQ(FCESGEventsUnsubscribe(identifier), 1);
    }
  });
  Join(threads);
  while (released != kThreads * kRounds) {  // the last ones after their callbacks
    std::this_thread::yield();
  }
}

}  // namespace
