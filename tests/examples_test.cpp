#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <future>

#include "ChildProgram.h"
#include "RawPeer.h"

namespace {

using testing::MatchesRegex;
using testing::Optional;

constexpr char kService[] = "com.velmora.ESGCallListener";

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
  RawPeer service(kService, [&](DBusMessage* call) {
    shown.wait();
    return MakeReply(call, 1,
                     R"({"ret":true,"title":"Answer )" + std::to_string(++answers) + R"("})");
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

}  // namespace
