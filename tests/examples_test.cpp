#include <cstdint>
#include <cstdlib>
#include <ctime>

#include "BusTest.h"
#include "IESGService.h"

namespace {

using namespace esg::test;
using Examples = OnBus;
using testing::MatchesRegex;
using testing::Optional;

std::uint32_t NtpNow() { return static_cast<std::uint32_t>(std::time(nullptr) + 2208988800); }

std::string Programme(const std::string& title, unsigned int start, unsigned int duration) {
  return R"({"ret":true,"title":")" + title + R"(","Start":)" + std::to_string(start) +
         R"(,"duration":)" + std::to_string(duration) + "}";
}

TEST_F(Examples, AskTheMinimalService) {
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

TEST_F(Examples, AProgramWithEpollGetsItsAnswersAndItsEvents) {
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
