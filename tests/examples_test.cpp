#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <future>

#include "ChildProgram.h"
#include "Harness.h"
#include "IESGService.h"
#include "RawPeer.h"

namespace {

using testing::MatchesRegex;
using testing::Optional;

std::uint32_t NtpNow() { return static_cast<std::uint32_t>(std::time(nullptr) + 2208988800); }

std::string Programme(const std::string& title, unsigned int start, unsigned int duration) {
  return R"({"ret":true,"title":")" + title + R"(","Start":)" + std::to_string(start) +
         R"(,"duration":)" + std::to_string(duration) + "}";
}

TEST(Examples, AskTheMinimalService) {
  ChildProgram service({EXAMPLE_MINIMAL_SERVICE, "1"});
  ASSERT_THAT(service.ReadLine(), Optional(std::string("ready")));

  setenv("TZ", "UTC", 1);
  ChildProgram now({EXAMPLE_NOW, "urn:example:one"});
  EXPECT_THAT(now.ReadLine(), Optional(MatchesRegex("from  20..-..-.. ..:..:..")));
  EXPECT_THAT(now.ReadLine(), Optional(MatchesRegex("until 20..-..-.. ..:..:..")));
  EXPECT_EQ(now.Wait(), 0);

  ChildProgram query({EXAMPLE_QUERY, "urn:example:one"});
  EXPECT_THAT(query.ReadLine(), Optional(MatchesRegex("Programme [0-9]+")));
  EXPECT_EQ(query.Wait(), 0);

  ChildProgram banner({EXAMPLE_BANNER, "urn:example:one", "5"});
  std::optional<std::string> line = banner.ReadLine();
  EXPECT_THAT(line, Optional(MatchesRegex("Programme [0-9]+|event 5")));
  for (const std::string first = *line; line && (*line == first || *line == "event 5");) {
    line = banner.ReadLine();
  }
  EXPECT_THAT(line, Optional(MatchesRegex("Programme [0-9]+"))) << "no change was shown";
}

TEST(Examples, TheBannersMainLoopGoesOnWhileTheServiceIsMute) {
  std::promise<void> eventsWereShown;
  std::shared_future<void> shown = eventsWereShown.get_future().share();
  int answers = 0;
  RawPeer service(kESGServiceName, [&](DBusMessage* call) {
    shown.wait();
    return MakeReply(call, 1, Programme("Answer " + std::to_string(++answers), NtpNow(), 3600));
  });
  RawPeer emitter;
  ChildProgram banner({EXAMPLE_BANNER, "urn:example:one", "5"});
  ASSERT_TRUE(service.WaitForCalls(1));
  for (int i = 0; i < 3; ++i) {
    emitter.Send(MakeSignal("Event", 5, ""));
    EXPECT_EQ(banner.ReadLine(), "event 5");
  }
  eventsWereShown.set_value();
  EXPECT_EQ(banner.ReadLine(), "Answer 1");
  EXPECT_EQ(banner.ReadLine(), "Answer 2") << "once more for all events that came meanwhile";
  emitter.Send(MakeSignal("Event", 5, ""));
  EXPECT_EQ(banner.ReadLine(), "event 5");
  EXPECT_EQ(banner.ReadLine(), "Answer 3");
}

TEST(Examples, TheBannerFollowsShortProgrammesWithoutAnEvent) {
  Inbox<std::uint32_t> ends;
  int programmes = 0;
  RawPeer service(kESGServiceName, [&](DBusMessage* call) {
    constexpr unsigned int kSeconds = 2;
    const std::uint32_t start = NtpNow();
    ends.Put(start);
    ends.Put(start + kSeconds);
    return MakeReply(call, 1, Programme(std::to_string(++programmes), start, kSeconds));
  });
  ChildProgram banner({EXAMPLE_BANNER, "urn:example:one", "5"});
  const Stopwatch stopwatch;
  EXPECT_EQ(banner.ReadLine(), "1");
  ends.Next();
  for (const char* next : {"2", "3", "4"}) {
    EXPECT_EQ(banner.ReadLine(), next);
    const std::uint32_t end = ends.Next();
    EXPECT_LE(end, ends.Next()) << "asked before the end";
  }
  EXPECT_LT(stopwatch.Milliseconds(), 20'000) << "did not ask at the ends";
}

TEST(Examples, AProgramWithEpollGetsItsAnswersAndItsEvents) {
  RawPeer service(kESGServiceName, [](DBusMessage* call) {
    const Body request = ReadBody(call);
    const bool isOdd = request.bytes.find("urn:odd") != std::string::npos;
    return MakeReply(call, 1, isOdd ? std::string(2000, '[') : Programme("News", NtpNow(), 3600));
  });
  RawPeer emitter;
  ChildProgram epoll({EXAMPLE_EPOLL, "urn:example:one", "5"});
  ASSERT_EQ(epoll.ReadLine(), "urn:example:one: News");
  epoll.Write("urn:odd\n");
  ASSERT_EQ(epoll.ReadLine(), "urn:odd: The answer of the guide service cannot be read.");
  emitter.Send(MakeSignal("Event", 5, Integers({1, 2, 3})));
  ASSERT_EQ(epoll.ReadLine(), "urn:example:one: News");
  epoll.Write("urn:example:two\n");
  ASSERT_EQ(epoll.ReadLine(), "urn:example:two: News");
  epoll.CloseInput();
  EXPECT_EQ(epoll.Wait(), 0);
}

}  // namespace
