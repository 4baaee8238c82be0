#include <array>
#include <stdexcept>

#include "BusTest.h"
#include "ESGEMSProxy.h"
#include "FCESGGuide.h"
#include "IESGService.h"
#include "Sanitizers.h"

// What the interface for C has beside the queries: records, ownership and events.

namespace {

using namespace esg::test;
using CInterface = OnBus;
using Strings = std::vector<std::string>;

int destroyed = 0;
void OnDestroy(void* userData) { destroyed += *static_cast<int*>(userData); }

TEST_F(CInterface, HandsOutARecordWhetherItWasFoundOrNot) {
  const Service service(
      [](DBusMessage* call, const Body& body) {
        const bool isFound = body.bytes.find("\"urn:a\"") != std::string::npos;
        return MakeReply(call, 1,
                         isFound ? R"({"ret":true,"Start":4294967295,"duration":60})"
                                 : R"({"ret":false,"Start":1,"duration":2})");
      },
      kESGServiceName);
  for (const bool isFound : {true, false}) {
    FCESGProgramInfo* program = nullptr;
    EXPECT_EQ(FCESGProgramAPIGetPresentProgram(isFound ? "urn:a" : "", &program), isFound ? 1 : 0);
    EXPECT_EQ(FCESGProgramStartTime(program), isFound ? 4294967295 : 0);
    EXPECT_EQ(FCESGProgramDuration(program), isFound ? 60U : 0U);
    FCESGProgramDispose(program);
  }
  FCESGProgramDispose(nullptr);
  EXPECT_EQ(log_capture::Count("FCESGProgramDispose("), 3);
  EXPECT_EQ(log_capture::Count(" > Free: (nil)\n"), 1);
  const LeaksAllowed leaks;
  FCESGProgramInfo* program = nullptr;
  EXPECT_THROW(FCESGProgramAPIGetPresentProgram(nullptr, &program), std::logic_error);
}

TEST_F(CInterface, ReadsRecordsAndTakesNullForNothing) {
  const Service guide(
      Service::Reply(R"({"ret":true,"title":"t","synopsis":"y","genre":"g","eventID":"e",
      "globalServiceId":"s","privateExt":{"contentIcons":[{"uri":"u","mimeType":"m","width":-1,
      "height":2,"dataSize":3}]}})"),
      kESGServiceName);
  FCESGProgramInfo* program = nullptr;
  ASSERT_EQ(FCESGGuideGetPresentProgram("urn:a", &program), 1);
  const FCESGIcon* icon = FCESGProgramIcon(program, 0);
  EXPECT_EQ(Strings({FCESGProgramTitle(program), FCESGProgramSynopsis(program),
                     FCESGProgramGenre(program), FCESGProgramEventID(program),
                     FCESGProgramServiceID(program), FCESGIconUri(icon), FCESGIconMimeType(icon)}),
            Strings({"t", "y", "g", "e", "s", "u", "m"}));
  EXPECT_EQ(FCESGIconWidth(icon), -1);
  EXPECT_EQ(FCESGIconHeight(icon), 2);
  EXPECT_EQ(FCESGIconDataSize(icon), 3);
  EXPECT_EQ(FCESGProgramIconCount(program), 1U);
  EXPECT_EQ(FCESGProgramIcon(program, 1), nullptr);

  FCESGProgramInfo* other = program;
  EXPECT_EQ(FCESGGuideGetPresentProgram(nullptr, &other), 0);
  EXPECT_EQ(other, nullptr);
  EXPECT_EQ(FCESGGuideLastErrorText(), std::string("an argument is null"));
  EXPECT_EQ(FCESGGuideGetProgram(nullptr, FCESGPositionNext, &other), 0);
  EXPECT_EQ(FCESGGuideGetProgramItem("urn:a", nullptr, 9, &other), 0);
  EXPECT_EQ(FCESGGuideGetServiceFragment("urn:a", 0, nullptr), 0);
  EXPECT_EQ(FCESGGuideSaveServiceFragment("/p", nullptr, 0), 0);
  EXPECT_EQ(FCESGEventsSubscribe(5, nullptr, nullptr, nullptr), 0U);
  EXPECT_EQ(FCESGGuideLastReason(), FCESGReasonUnreadable);
  EXPECT_STREQ(FCESGProgramTitle(nullptr), "");
  EXPECT_EQ(FCESGProgramListLength(nullptr), 0U);
  EXPECT_EQ(FCESGProgramIcon(nullptr, 0), nullptr);
  EXPECT_STREQ(FCESGIconUri(nullptr), "");
  EXPECT_STREQ(FCESGReasonText(FCESGReasonUnreadable),
               "The answer of the guide service cannot be read.");
  FCESGProgramDispose(program);
}

/// A query that finds nothing, in both forms.
template <typename Result, typename Query, typename Later, typename... Arguments>
void ExpectSameRequest(Service& guide, Query query, Later later, Arguments... arguments) {
  if constexpr (std::is_void_v<Result>) {
    EXPECT_EQ(query(arguments...), 0);
  } else {
    auto* result = reinterpret_cast<Result*>(8);  // what it held before is not looked at
    EXPECT_EQ(query(arguments..., &result), 0);
    EXPECT_EQ(result, nullptr);
  }
  EXPECT_EQ(FCESGGuideLastReason(), FCESGReasonNotFound);
  const Body request = guide.LastCall();
  guide.Set(Service::Reply(R"({"ret":[]})"));  // an exception within
  int one = 1;
  destroyed = 0;
  EXPECT_NE(later(arguments..., nullptr, &one, OnDestroy), 0U);
  IterateUntil([] { return destroyed == 1; });
  EXPECT_EQ(guide.LastCall().text + guide.LastCall().bytes, request.text + request.bytes);
  guide.Set(Service::Reply(R"({"ret":false})"));
}

TEST_F(CInterface, AsksTheSameInBothForms) {
  Service guide(Service::Reply(R"({"ret":false})"), kESGServiceName);
  FCESGProgramInfo given;
  FCESGProgramInfo* program = &given;
#define EXPECT_SAME(Result, Name, ...) \
  ExpectSameRequest<Result>(guide, FCESGGuide##Name, FCESGAsync##Name, __VA_ARGS__)
  EXPECT_SAME(FCESGProgramInfo, GetPresentProgram, "urn:a");
  EXPECT_SAME(FCESGProgramInfo, GetProgram, program, FCESGPositionNext);
  EXPECT_SAME(FCESGProgramInfo, GetProgramItem, "urn:a", "c", 9U);
  EXPECT_SAME(FCESGProgramList, GetProgramList, "urn:a", 9U, 60U);
  EXPECT_SAME(char, GetScheduleFragment, "urn:a", 9U, 60U, 2);
  EXPECT_NE(guide.LastCall().bytes.find("\"BB\" : true"), std::string::npos);
  EXPECT_SAME(char, GetContentFragment, "urn:a", 9U, 60U, 0);
  EXPECT_SAME(char, GetServiceFragment, "urn:a", 0);
  EXPECT_SAME(void, SaveContentFragment, "/p", "urn:a", 1);
  EXPECT_SAME(void, SaveScheduleFragment, "/p", "urn:a", 0);
  EXPECT_SAME(void, SaveServiceFragment, "/p", "urn:a", 1);
}

TEST_F(CInterface, GivesUserDataBackOnceHoweverAQueryEnds) {
  const Service guide(Service::Reply(R"({"ret":true})"), kESGServiceName);
  int one = 1;
  EXPECT_EQ(FCESGAsyncGetServiceFragment(nullptr, 0, nullptr, &one, OnDestroy), 0U);
  EXPECT_EQ(FCESGGuideLastReason(), FCESGReasonUnreadable);
  EXPECT_EQ(destroyed, 1);

  const auto isCancelled = [](FCESGReason, FCESGProgramInfo*, void*) { ADD_FAILURE(); };
  const std::uint64_t cancelled =
      FCESGAsyncGetPresentProgram("urn:a", isCancelled, &one, OnDestroy);
  EXPECT_EQ(FCESGAsyncCancel(cancelled), 1);
  IterateUntil([] { return destroyed == 2; });
  EXPECT_EQ(FCESGAsyncCancel(cancelled), 0);
  EXPECT_EQ(FCESGAsyncCancel(0), 0);

  // A callback cancels another query, and itself, which is too late.
  static std::uint64_t self = 0;
  static std::uint64_t other = 0;
  const auto onSaved = [](FCESGReason, void*) {
    EXPECT_EQ(FCESGAsyncCancel(self), 0);
    EXPECT_EQ(FCESGAsyncCancel(other), 1);
    EXPECT_EQ(destroyed, 3);
  };
  self = FCESGAsyncSaveServiceFragment("/p", "urn:a", 0, onSaved, &one, OnDestroy);
  other = FCESGAsyncGetPresentProgram("urn:a", isCancelled, &one, OnDestroy);
  FCESGAsyncGetPresentProgram("urn:a", nullptr, &one, OnDestroy);
  IterateUntil([] { return destroyed == 5; });
}

Strings heard;

void OnEvent(int event, std::int32_t a, std::int32_t b, std::int32_t c, void* userData) {
  heard.push_back(std::to_string(*static_cast<int*>(userData)) + ":" + std::to_string(event) + "," +
                  std::to_string(a) + "," + std::to_string(b) + "," + std::to_string(c));
}

/// What has been heard when an event of number 9 has come, which is sent last.
Strings HeardTo9(RawPeer& emitter) {
  emitter.Send(MakeSignal("Event", 9, ""));
  IterateUntil(
      [] { return !heard.empty() && heard.back().find(":9,-1,-1,-1") != std::string::npos; });
  heard.pop_back();
  return std::exchange(heard, {});
}

TEST_F(CInterface, EventsGoByNumber) {
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
  emitter.Send(MakeSignal("Event", 5, Integers({1, -2, 3})));
  EXPECT_EQ(HeardTo9(emitter), Strings({"1:5,1,-2,3", "10:5,1,-2,3"}));

  // One of two goes, and the other still hears.
  EXPECT_EQ(FCESGEventsUnsubscribe(first), 1);
  EXPECT_EQ(FCESGEventsUnsubscribe(first), 0);
  EXPECT_EQ(destroyed, 1);
  emitter.Send(MakeSignal("Event", 5, ""));
  EXPECT_EQ(HeardTo9(emitter), Strings({"10:5,-1,-1,-1"}));
  EXPECT_EQ(FCESGEventsUnsubscribe(again), 1);

  // A callback unsubscribes itself and the one that would be called after it, and subscribes.
  static std::uint64_t self = 0;
  static std::uint64_t other = 0;
  static std::uint64_t added = 0;
  const auto onSix = [](int, std::int32_t, std::int32_t, std::int32_t, void* userData) {
    EXPECT_EQ(FCESGEventsUnsubscribe(self), 1);
    EXPECT_EQ(FCESGEventsUnsubscribe(other), 1);
    added = FCESGEventsSubscribe(6, OnEvent, userData, OnDestroy);
    heard.push_back("destroyed " + std::to_string(destroyed));
  };
  self = FCESGEventsSubscribe(6, onSix, users.data(), OnDestroy);
  other = subscribe(6, 2);
  emitter.Send(MakeSignal("Event", 6, ""));
  emitter.Send(MakeSignal("Event", 6, ""));
  EXPECT_EQ(HeardTo9(emitter), Strings({"destroyed 11", "1:6,-1,-1,-1"}));
  EXPECT_EQ(destroyed, 112) << "that of the one under way after it, and of the one it held back";

  // All end, and it starts again.
  EXPECT_EQ(FCESGEventsUnsubscribe(added), 1);
  EXPECT_EQ(FCESGEventsUnsubscribe(end), 1);
  EXPECT_EQ(destroyed, 1113);
  subscribe(9, 3);
  emitter.Send(MakeSignal("Event", 6, ""));
  EXPECT_EQ(HeardTo9(emitter), Strings());

  TestBus().Stop();
  EXPECT_EQ(FCESGEventsSubscribe(6, OnEvent, users.data(), OnDestroy), 0U);
  EXPECT_EQ(FCESGGuideLastReason(), FCESGReasonNoBus);
  EXPECT_EQ(destroyed, 1114);
}

TEST_F(CInterface, DoesNotSubscribeWhileTheEventsAreThoseOfCpp) {
  RawPeer emitter;
  IESGEMS* proxy = ESGEMSProxy::GetInstance(&Connection(), [](int, const ESGEventData&) {
    heard.emplace_back("C++");
    return 0;
  });
  EXPECT_EQ(proxy->SubscribeSignal(5), 0);
  int one = 1;
  EXPECT_EQ(FCESGEventsSubscribe(5, OnEvent, &one, OnDestroy), 0U);
  EXPECT_EQ(FCESGGuideLastErrorText(), std::string("the process has an event proxy of C++"));
  EXPECT_EQ(destroyed, 1);
  emitter.Send(MakeSignal("Event", 5, ""));
  IterateUntil([] { return !heard.empty(); });
  EXPECT_EQ(heard, Strings{"C++"});
  EXPECT_EQ(proxy->UnsubscribeSignal(5), 0);
  delete proxy;  // the library has forgotten it
  EXPECT_NE(FCESGEventsSubscribe(9, OnEvent, &one, OnDestroy), 0U);
  HeardTo9(emitter);
}

TEST_F(CInterface, AnyThreadSubscribesWhileEventsArrive) {
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
  auto threads = Threads(kThreads, [&](int) {
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
