#include <ESGAPI.h>
#include <IESGService.h>
#include <gmock/gmock.h>

#include <chrono>
#include <csignal>
#include <fstream>

#include "BusTest.h"
#include "ChildProgram.h"
#include "RawPeer.h"
#include "Sanitizers.h"
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
  FCESGProgramInfo back;
  ASSERT_TRUE(api->GetPresentProgram("tag:example.com,2026:pebblecove", now));
  ASSERT_TRUE(api->GetProgram(now, eRelative_Position_Next, next));
  ASSERT_TRUE(api->GetProgram(next, eRelative_Position_Previous, back));
  EXPECT_EQ(back.GetStartTime(), now.GetStartTime());
  EXPECT_LT(now.GetStartTime(), next.GetStartTime());
  std::map<unsigned int, FCESGProgramInfo> programs;
  EXPECT_TRUE(api->GetProgramList("brindlemoor-5", 0, UINT32_MAX, programs));
  EXPECT_GE(programs.size(), 8U * 20);

  std::string sent;
  std::string id = "tag:example.com,2026:osterlane";
  ASSERT_TRUE(api->GetServiceFragment(sent, id, true));
  std::ifstream file(SHIPPED_GUIDE "/service-osterlane.xml");
  EXPECT_EQ(sent, std::string(std::istreambuf_iterator<char>(file), {}));
  EXPECT_FALSE(api->SaveServiceFragment("x.xml", id, true));

  service.Signal(SIGTERM);
  EXPECT_EQ(service.Wait(), 0);
}

TEST_F(ServiceOnBus, EventsTellOfChangesAndOfOrders) {
  const TemporaryFolder folder;
  folder.Write("a.xml", "<Service id='1'/>");
  GuideService service({"--guide", folder.path, "--stdin-events", "--name", "org.example.Guide"});
  ASSERT_TRUE(service.WaitForLine("ready org.example.Guide"));
  RawPeer peer;
  peer.AddMatch("type='signal',interface='com.velmora.ESG.Signal'");
  const auto next = [&] {
    const auto signal = peer.NextSignal();
    const Body body = signal ? ReadBody(signal.get()) : Body{"nothing", 0, 0, ""};
    return body.text + ":" + body.bytes;
  };
  folder.Write("b.xml",
               "<Schedule id='s'><ServiceReference idRef='1'/><ContentReference idRef='c'>"
               "<PresentationWindow startTime='5' endTime='9'/></ContentReference></Schedule>");
  EXPECT_EQ(next(), "5:" + Integers({2, 1, 1}));
  service.Signal(SIGHUP);
  ASSERT_TRUE(service.WaitForLine("the guide is as it was", ChildProgram::kErrors));
  service.Write("7\nnonsense\n8 1 2\n9 1 -2 3 4\n10 99999999999\n-1 1 -2 3\n");
  EXPECT_EQ(next(), "7:");
  EXPECT_EQ(next(), "-1:" + Integers({1, -2, 3}));
  folder.Write("c.xml", "<Service id='2'/>");
  service.Signal(SIGHUP);
  EXPECT_EQ(next(), "5:" + Integers({3, 2, 1}));
  service.Signal(SIGINT);
  EXPECT_EQ(service.Wait(), 0);
}

TEST_F(ServiceOnBus, IsEmptyUntilTheGuideCanBeRead) {
  const TemporaryFolder folder;
  const std::string guide = folder.path / "later";
  GuideService service({"--guide", guide, "--save-dir", folder.path / "missing"});
  ASSERT_TRUE(service.WaitForLine("ready com.velmora.ESGCallListener: 0 services"));
  ASSERT_TRUE(service.WaitForLine("later: No such file", ChildProgram::kErrors));
  RawPeer peer;
  peer.AddMatch("type='signal',interface='com.velmora.ESG.Signal'");
  folder.Write("service.xml", "<Service id='1'/>");
  std::filesystem::create_directory(folder.path / "new");
  std::filesystem::rename(folder.path / "service.xml", folder.path / "new/service.xml");
  std::filesystem::rename(folder.path / "new", guide);
  EXPECT_EQ(ReadBody(peer.NextSignal().get()).bytes, Integers({1, 1, 0}));
  folder.Write("later/more.xml", "<Service id='2'/>");
  EXPECT_EQ(ReadBody(peer.NextSignal().get()).bytes, Integers({2, 2, 0}));
}

/// The service beside a client that calls for 150 MiB of answers and reads none.
class Flood {
 public:
  Flood() {
    std::string schedule = "<Schedule><ServiceReference idRef='1'/><ContentReference idRef='c'>";
    for (int start = 1; start <= 500; ++start) {
      schedule += "<PresentationWindow startTime='" + std::to_string(start) + "' duration='1'/>";
    }
    m_folder.Write("schedule.xml", schedule + "</ContentReference></Schedule>");
    m_folder.Write("content.xml",
                   "<Content id='c'><Name text='" + std::string(2400, 'n') + "'/></Content>");
    service.emplace(std::vector<std::string>{"--guide", m_folder.path});
    EXPECT_TRUE(service->WaitForLine("ready"));
    dbus_uint32_t serial = 0;
    for (int i = 0; i < 128; ++i) {
      dbus_connection_send(m_attacker.get(), NewCall(500).get(), &serial);
    }
    dbus_connection_flush(m_attacker.get());
  }

  /// Whether another client gets an answer in a second.
  bool Answers() {
    const MessagePtr answer(
        dbus_connection_send_with_reply_and_block(m_other.get(), NewCall(1).get(), 1000, nullptr));
    return answer != nullptr;
  }

  std::optional<GuideService> service;

 private:
  static MessagePtr NewCall(int programmes) {
    return MakeCall(kName, "GetProgramList",
                    R"({"global_service_id":"1","start_time":1,"duration":)" +
                        std::to_string(programmes) + "}");
  }

  const TemporaryFolder m_folder;
  esg::internal::Error m_error;
  const esg::internal::ConnectionPtr m_attacker = OpenBus(m_error);
  const esg::internal::ConnectionPtr m_other = OpenBus(m_error);
};

TEST_F(ServiceOnBus, EndsWithinASecondWhenTheBusTakesNothingMore) {
  Flood flood;
  // At first it is busy.
  for (int unanswered = 0; unanswered < 3;) {
    unanswered = flood.Answers() ? 0 : unanswered + 1;
  }
  const auto start = std::chrono::steady_clock::now();
  flood.service->Signal(SIGTERM);
  EXPECT_EQ(flood.service->Wait(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(kSanitized ? 5 : 1));
}

TEST(ServiceWithoutBus, AnswersOthersOnABusWithTheLimits) {
  PrivateBus bus("", "<include>" LIMITS_FILE "</include>");
  bus.Start();
  Flood flood;
  // At first it is busy.
  int answered = 0;
  for (int i = 0; i < 40 && answered < 2; ++i) {
    answered = flood.Answers() ? answered + 1 : 0;
  }
  EXPECT_EQ(answered, 2);
}

TEST_F(ServiceOnBus, SaysWhyItCannotServe) {
  const auto expect = [](int status, const char* reason, std::vector<std::string> arguments) {
    const ChildProgram::Result end = GuideService(std::move(arguments)).End();
    EXPECT_THAT(end.output + end.errors, HasSubstr(reason));
    EXPECT_EQ(end.status, status) << reason;
  };
  expect(64, "--guide is required", {});
  expect(64, "not a bus name", {"--guide", "x", "--name", ":1.5"});
  expect(64, "not a bus name", {"--guide", "x", "--name", "org.example.my-guide"});
  expect(66, "/missing: No such file", {"--guide", "/missing", "--check"});
  expect(0, "Brindlemoor Local: 190 programmes", {"--guide", SHIPPED_GUIDE, "--check"});
  expect(65, "schedule-pebblecove-10.xml: not readable",
         {"--guide", SHIPPED_GUIDE, "--check", "--strict"});
  {
    const RawPeer owner(kName);
    expect(75, "is taken by process", {"--guide", SHIPPED_GUIDE});
  }
  GuideService service({"--guide", SHIPPED_GUIDE});
  ASSERT_TRUE(service.WaitForLine("ready"));
  TestBus().Stop();
  EXPECT_EQ(service.Wait(), 69);
  expect(69, "no system bus", {"--guide", SHIPPED_GUIDE});
}

}  // namespace
