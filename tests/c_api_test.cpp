#include <array>

#include "BusTest.h"
#include "FCESGGuide.h"
#include "IESGService.h"

// What the C interface has beside the queries, which are tested with those of C++: records,
// ownership and events.

namespace {

using namespace esg::test;
using CInterface = OnBus;
using Strings = std::vector<std::string>;

int destroyed = 0;
void OnDestroy(void* userData) { destroyed += *static_cast<int*>(userData); }

TEST_F(CInterface, HandsOutARecordWhetherItWasFoundOrNot) {
  Service service(Service::Echo, kESGServiceName);
  for (const char* found : {"false", "true"}) {
    service.Set(Service::Reply(std::string(R"({"Start":4294967295,"ret":)") + found + "}"));
    FCESGProgramInfo* program = nullptr;
    const int isFound = FCESGProgramAPIGetPresentProgram("urn:a", &program);
    EXPECT_EQ(FCESGProgramStartTime(program), isFound == 1 ? 4294967295 : 0) << found;
    FCESGProgramDispose(program);
  }
  FCESGProgramDispose(nullptr);
  EXPECT_EQ(log_capture::Count("FCESGProgramDispose("), 3);
  EXPECT_EQ(log_capture::Count(" > Free: (nil)\n"), 1);
}

TEST_F(CInterface, ReadsRecordsAndRefusesNull) {
  const Service guide(
      Service::Reply(R"({"ret":true,"title":"t","synopsis":"y","genre":"g","eventID":"e",
      "globalServiceId":"s","privateExt":{"contentIcons":[{"uri":"u","mimeType":"m","width":-1,
      "height":2,"dataSize":3}]}})"),
      kESGServiceName);
  FCESGProgramInfo* program = nullptr;
  ASSERT_EQ(FCESGGuideGetPresentProgram("urn:a", &program), 1);
  ASSERT_EQ(FCESGProgramIconCount(program), 1U);
  const FCESGIcon* icon = FCESGProgramIcon(program, 0);
  EXPECT_EQ(Strings({FCESGProgramTitle(program), FCESGProgramSynopsis(program),
                     FCESGProgramGenre(program), FCESGProgramEventID(program),
                     FCESGProgramServiceID(program), FCESGIconUri(icon), FCESGIconMimeType(icon)}),
            Strings({"t", "y", "g", "e", "s", "u", "m"}));
  EXPECT_EQ(FCESGIconWidth(icon), -1);
  EXPECT_EQ(FCESGIconHeight(icon), 2);
  EXPECT_EQ(FCESGIconDataSize(icon), 3);
  EXPECT_EQ(FCESGProgramIcon(program, 1), nullptr);
  EXPECT_STREQ(FCESGIconUri(nullptr), "");

  FCESGProgramInfo* other = program;
  const std::function<bool()> refused[] = {
      [&] { return FCESGGuideGetPresentProgram(nullptr, &other) == 0 && other == nullptr; },
      [&] { return FCESGGuideGetProgram(nullptr, FCESGPositionNext, &other) == 0; },
      [&] { return FCESGGuideGetServiceFragment("urn:a", 0, nullptr) == 0; },
      [&] { return FCESGEventsSubscribe(5, nullptr, nullptr, nullptr) == 0; },
      [&] { return FCESGAsyncGetServiceFragment(nullptr, 0, nullptr, nullptr, nullptr) == 0; }};
  for (const auto& refusesNull : refused) {
    ASSERT_EQ(FCESGGuideGetProgram(program, FCESGPositionNext, &other), 1);
    FCESGProgramDispose(other);
    EXPECT_TRUE(refusesNull());
    EXPECT_EQ(FCESGGuideLastReason(), FCESGReasonUnreadable);
    EXPECT_STREQ(FCESGGuideLastErrorText(), "an argument is null");
  }
  FCESGProgramDispose(program);
}

TEST_F(CInterface, GivesUserDataBackOnceHoweverAQueryEnds) {
  const Service guide(Service::Reply(R"({"ret":true})"), kESGServiceName);
  int one = 1;
  EXPECT_EQ(FCESGAsyncGetServiceFragment(nullptr, 0, nullptr, &one, OnDestroy), 0U);
  EXPECT_EQ(destroyed, 1);

  // A callback cancels another query. It cannot cancel itself any more.
  static std::uint64_t self = 0;
  static std::uint64_t other = 0;
  const auto onSaved = [](FCESGReason, void*) {
    EXPECT_EQ(FCESGAsyncCancel(self), 0);
    EXPECT_EQ(FCESGAsyncCancel(other), 1);
    EXPECT_EQ(destroyed, 2);
  };
  const auto isCancelled = [](FCESGReason, FCESGProgramInfo*, void*) { ADD_FAILURE(); };
  self = FCESGAsyncSaveServiceFragment("/p", "urn:a", 0, onSaved, &one, OnDestroy);
  other = FCESGAsyncGetPresentProgram("urn:a", isCancelled, &one, OnDestroy);
  FCESGAsyncGetPresentProgram("urn:a", nullptr, &one, OnDestroy);
  EXPECT_EQ(destroyed, 1) << "none before its query ends";
  IterateUntil([] { return destroyed == 4; });
}

Strings heard;

void OnEvent(int event, std::int32_t a, std::int32_t b, std::int32_t c, void* userData) {
  heard.push_back(std::to_string(*static_cast<int*>(userData)) + ":" + std::to_string(event) + "," +
                  std::to_string(a) + "," + std::to_string(b) + "," + std::to_string(c));
}

/// Sends an event of number 9, and returns what was heard before it.
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
  const auto subscribe = [&users](int event, std::size_t user) {
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

  EXPECT_EQ(FCESGEventsUnsubscribe(first), 1);
  EXPECT_EQ(FCESGEventsUnsubscribe(first), 0);
  EXPECT_EQ(destroyed, 1);
  emitter.Send(MakeSignal("Event", 5, ""));
  EXPECT_EQ(HeardTo9(emitter), Strings({"10:5,-1,-1,-1"}));
  EXPECT_EQ(FCESGEventsUnsubscribe(again), 1);

  // A callback unsubscribes itself and the next one to be called, and subscribes.
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
  EXPECT_EQ(destroyed, 112) << "both, after the callback has returned";

  // After the last subscription ends, another one starts the events again.
  EXPECT_EQ(FCESGEventsUnsubscribe(added), 1);
  EXPECT_EQ(FCESGEventsUnsubscribe(end), 1);
  EXPECT_EQ(destroyed, 1113);
  subscribe(9, 3);
  emitter.Send(MakeSignal("Event", 6, ""));
  EXPECT_EQ(HeardTo9(emitter), Strings());

  TestBus().Kill();
  EXPECT_EQ(FCESGEventsSubscribe(6, OnEvent, users.data(), OnDestroy), 0U);
  EXPECT_EQ(FCESGGuideLastReason(), FCESGReasonNoBus);
  EXPECT_EQ(destroyed, 1114);
}

}  // namespace
