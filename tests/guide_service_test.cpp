#include <ESGAPI.h>
#include <IESGService.h>
#include <gmock/gmock.h>

#include <csignal>
#include <fstream>

#include "BusTest.h"
#include "ChildProgram.h"
#include "RawPeer.h"
#include "TemporaryFolder.h"

namespace {

using namespace esg::test;
using ServiceOnBus = OnBus;
using testing::HasSubstr;

constexpr char kName[] = "com.velmora.ESGCallListener";

class GuideService : public ChildProgram {
 public:
  explicit GuideService(std::vector<std::string> arguments)
      : ChildProgram((arguments.insert(arguments.begin(), ESG_GUIDE_SERVICE), arguments), kPipe,
                     kPipe) {}
};

TEST_F(ServiceOnBus, AnApplicationAsksTheShippedGuide) {
  GuideService service({"--guide", SHIPPED_GUIDE, "--today"});
  ASSERT_TRUE(service.WaitForLine("ready com.velmora.ESGCallListener: 5 services"));
  IESGService* api = ESGAPI::GetESGServiceAPI();
  FCESGProgramInfo now;
  FCESGProgramInfo next;
  ASSERT_TRUE(api->GetPresentProgram("tag:example.com,2026:pebblecove", now));
  ASSERT_TRUE(api->GetProgram(now, eRelative_Position_Next, next));
  std::map<unsigned int, FCESGProgramInfo> programs;
  EXPECT_TRUE(api->GetProgramList("brindlemoor-5", 0, UINT32_MAX, programs));
  EXPECT_GE(programs.size(), 8U * 20);

  std::string sent;
  std::string id = "tag:example.com,2026:osterlane";
  ASSERT_TRUE(api->GetServiceFragment(sent, id, true));
  std::ifstream file(SHIPPED_GUIDE "/service-osterlane.xml");
  EXPECT_EQ(sent, std::string(std::istreambuf_iterator<char>(file), {}));

  service.Signal(SIGTERM);
  EXPECT_EQ(service.Wait(), 0);
}

TEST_F(ServiceOnBus, EventsTellOfChangesAndOfOrders) {
  const TemporaryFolder folder;
  const std::string guide = folder.path / "guide";
  GuideService service({"--guide", guide, "--stdin-events", "--name", "org.example.Guide",
                        "--alias-file", folder.path / "lists/services"});
  ASSERT_TRUE(service.WaitForLine("ready org.example.Guide: 0 services"));
  ASSERT_TRUE(service.WaitForLine("guide: No such file", ChildProgram::kErrors));
  RawPeer peer;
  peer.AddMatch("type='signal',interface='com.velmora.ESG.Signal'");
  const auto next = [&] {
    const auto signal = peer.NextSignal();
    const Body body = signal ? ReadBody(signal.get()) : Body{"nothing", 0, 0, ""};
    return body.text + ":" + body.bytes;
  };
  std::filesystem::create_directory(folder.path / "later");
  folder.Write("later/a.xml", "<Service id='1'/>");
  std::filesystem::rename(folder.path / "later", guide);
  EXPECT_EQ(next(), "5:" + Integers({1, 1, 0}));
  folder.Write("guide/b.xml",
               "<Schedule id='s'><ServiceReference idRef='1'/><ContentReference idRef='c'>"
               "<PresentationWindow startTime='5' endTime='9'/></ContentReference></Schedule>");
  EXPECT_EQ(next(), "5:" + Integers({2, 1, 1}));
  std::filesystem::create_directory(folder.path / "lists");
  service.Signal(SIGHUP);
  ASSERT_TRUE(service.WaitForLine("the guide is as it was", ChildProgram::kErrors));
  EXPECT_TRUE(std::filesystem::exists(folder.path / "lists/services"));
  service.Write("7\nnonsense\n8 1 2\n9 1 -2 3 4\n10 99999999999\n-1 1 -2 3\n");
  EXPECT_EQ(next(), "7:");
  EXPECT_EQ(next(), "-1:" + Integers({1, -2, 3}));
  service.Signal(SIGINT);
  EXPECT_EQ(service.Wait(), 0);
}

TEST_F(ServiceOnBus, SaysWhyItCannotServe) {
  const auto expect = [](int status, const char* reason, std::vector<std::string> arguments) {
    const ChildProgram::Result end = GuideService(std::move(arguments)).End();
    EXPECT_THAT(end.output + end.errors, HasSubstr(reason));
    EXPECT_EQ(end.status, status) << reason;
  };
  expect(64, "not a bus name", {"--guide", "x", "--name", "org.example.my-guide"});
  expect(66, "/missing: No such file", {"--guide", "/missing", "--check"});
  expect(0, "\n13.1 lanternwick tag:example.com,2026:lanternwick Lanternwick Film & Fun\n",
         {"--guide", SHIPPED_GUIDE, "--aliases"});
  expect(65, "schedule-pebblecove-10.xml: not readable",
         {"--guide", SHIPPED_GUIDE, "--check", "--strict"});
  {
    const RawPeer owner(kName);
    expect(75, "is taken by process", {"--guide", SHIPPED_GUIDE});
  }
  GuideService service({"--guide", SHIPPED_GUIDE});
  ASSERT_TRUE(service.WaitForLine("ready"));
  TestBus().Kill();
  EXPECT_EQ(service.Wait(), 69);
  expect(69, "no system bus", {"--guide", SHIPPED_GUIDE});
}

}  // namespace
