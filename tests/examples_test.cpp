#include <cstdint>
#include <ctime>

#include "BusTest.h"
#include "IESGService.h"

// The programs that only ask are run by the test of the installed library.

namespace {

using namespace esg::test;
using Examples = OnBus;

TEST_F(Examples, TheBannerAsksAgainAtAnEvent) {
  const auto ntpNow = static_cast<std::uint32_t>(std::time(nullptr) + 2208988800);
  const auto reply = [ntpNow](const std::string& title) {
    return Service::Reply(R"({"ret":true,"duration":3600,"Start":)" + std::to_string(ntpNow) +
                          R"(,"title":")" + title + "\"}");
  };
  Service service(reply("first"), kESGServiceName);
  RawPeer emitter;
  ChildProgram banner({EXAMPLE_BANNER, "urn:a", "5"});
  EXPECT_EQ(banner.ReadLine(), "first");
  service.Set(reply("second"));
  emitter.Send(MakeSignal("Event", 5, ""));
  EXPECT_EQ(banner.ReadLine(), "event 5");
  EXPECT_TRUE(service.Peer().WaitForCalls(2));
  EXPECT_EQ(banner.ReadLine(), "second");
}

TEST_F(Examples, AProgramWithEpollGetsItsAnswersAndItsEvents) {
  const Service service(
      [](DBusMessage* call, const Body& body) {
        const bool isOdd = body.bytes.find("urn:odd") != std::string::npos;
        return MakeReply(call, 1, isOdd ? "[" : R"({"ret":true,"title":"News"})");
      },
      kESGServiceName);
  RawPeer emitter;
  ChildProgram epoll({EXAMPLE_EPOLL, "urn:example:one", "5"});
  ASSERT_EQ(epoll.ReadLine(), "urn:example:one: News");
  epoll.Write("urn:odd\n");
  ASSERT_EQ(epoll.ReadLine(), "urn:odd: The answer of the guide service cannot be read.");
  emitter.Send(MakeSignal("Event", 5, Integers({1, 2, 3})));
  ASSERT_EQ(epoll.ReadLine(), "urn:example:one: News");
  epoll.CloseInput();
  EXPECT_EQ(epoll.Wait(), 0);
}

}  // namespace
