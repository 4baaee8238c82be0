#include <ctime>

#include "BusTest.h"
#include "FCESGGuide.h"
#include "IESGService.h"
#include "blocks.inc"

// Those in C.
extern "C" {
void print_now_and_next(const char* service_id);
void print_range(const char* service_id, unsigned int start, unsigned int duration);
int follow(char* service_id);
}

// The blocks of the documents, run: each does what its text says, and none of them ends its process
// whatever it is sent.

namespace {

using namespace esg::test;
using testing::ElementsAre;
using Documents = OnBus;

constexpr char kId[] = "urn:example:one";
const std::string kUnreadable = "The answer of the guide service cannot be read.";
constexpr char kNews[] = R"({"ret":true,"Start":4004374800,"duration":1800,"eventID":"news-1",
  "globalServiceId":"urn:example:one","title":"News","synopsis":"What happened.","genre":"Talk",
  "privateExt":{"contentIcons":[{"uri":"a.png","mimeType":"image/png","width":64,"height":48,
                                 "dataSize":900}],
                "previews":[{"usage":"menu","icons":[{"uri":"b"}],
                             "contents":[{"uri":"c"},{"uri":"d"}],
                             "descriptions":[{"text":"Heute","lang":"de"}]}]},
  "ESGProgramMap":[{"key":7,"title":"Seven"},{"key":8,"title":"Eight"}]})";

/// What neither a service nor a caller should send.
const std::string kHostile[] = {
    "",
    "News",
    "[]",
    "null",
    std::string(2000, '[') + std::string(2000, ']'),
    R"({"ret":[],"global_service_id":[]})",
    R"({"ret":true,"global_service_id":{"urn:example:one":1},"Start":"soon","title":{},
        "ESGProgramMap":{"key":"one"}})"};

/// What is written to standard output meanwhile.
template <typename Work>
std::string Printed(Work work) {
  testing::internal::CaptureStdout();
  work();
  std::cout.flush();
  return testing::internal::GetCapturedStdout();
}

/// What banners and pages have shown.
std::vector<std::string> shown;
void Show(const std::string& text) { shown.push_back(text); }

/// Runs the main loop until so much has been shown, and takes it.
std::vector<std::string> Shown(std::size_t count) {
  IterateUntil([count] { return shown.size() >= count; });
  return std::exchange(shown, {});
}

ChildProgram::Result EndOf(const char* program) {
  return ChildProgram({program}, ChildProgram::kPipe, ChildProgram::kPipe).End();
}

TEST_F(Documents, BlocksSayWhatTheServiceAnswersAndOutliveNonsense) {
  using guide_asking_without_blocking::Page;
  Service service(Service::Reply(kNews), kESGServiceName);
  RawPeer emitter;
  std::string id = kId;
  ASSERT_EQ(follow(id.data()), 1);
  // The question that follow() asks at an event is followed by this one.
  const auto ask = [](int, std::int32_t, std::int32_t, std::int32_t, void*) {
    ESGAsync::GetServiceFragment(kId, true, [](const auto&, const auto&) { Show("end"); });
  };
  ASSERT_NE(FCESGEventsSubscribe(5, ask, nullptr, nullptr), 0U);
  const auto runC = [&] {
    print_now_and_next(kId);
    print_range(kId, 0, 9);
    emitter.Send(MakeSignal("Event", 5, ""));
    Shown(1);
  };
  EXPECT_EQ(Printed(runC), "now:  News, for 1800 seconds\nnext: News\n7 Seven\n8 Eight\nNews\n");
  EXPECT_EQ(Printed([] { guide_now_and_next::PrintNowAndNext(kId); }), "now:  News\nnext: News\n");
  EXPECT_EQ(Printed([] { guide_a_list::PrintEvening(kId); }), "7 Seven\n8 Eight\n");
  FCESGProgramInfo program;
  ASSERT_TRUE(guide_when_a_query_fails::AskCarefully(kId, program));
  EXPECT_EQ(Printed([&] { guide_a_record::PrintRecord(program); }),
            "start    4004374800\nduration 1800\nevent    news-1\nservice  urn:example:one\n"
            "title    News\nsynopsis What happened.\ngenre    Talk\n"
            "icon     a.png image/png 64x48 900 bytes\n"
            "preview  menu 1 icons 2 contents\n  de: Heute\n");
  const auto all = guide_from_several_threads::PresentOfAll({kId, "b"});
  EXPECT_EQ(all.at(1).Title(), "News");
  {
    const Page page(kId, &Show);
    EXPECT_THAT(Shown(2), ElementsAre("News", "News"));
    { const Page gone(kId, &Show); }  // is not called any more
    auto late = std::make_unique<Page>(kId, &Show);
    EXPECT_THAT(Shown(1), ElementsAre("News"));
    late.reset();  // while the second question is under way
    ask(0, 0, 0, 0, nullptr);
    EXPECT_THAT(Shown(1), ElementsAre("end"));
  }
  for (const char* each : {EVENT_LOOPS_GLIB, EVENT_LOOPS_NO_LOOP}) {
    EXPECT_EQ(EndOf(each).output, "News\n");
  }
  EXPECT_EQ(EndOf(README_A_QUERY).output, "News, 1800 seconds\n");

  for (const std::string& answer : kHostile) {
    SCOPED_TRACE(answer.substr(0, 100));
    service.Set(Service::Reply(answer));
    EXPECT_EQ(Printed(runC), kUnreadable + "\n");
    EXPECT_THAT(Printed([] { guide_now_and_next::PrintNowAndNext(kId); }),
                testing::Not(testing::AnyOf(testing::HasSubstr("now:"), "")));
    EXPECT_EQ(Printed([] { guide_a_list::PrintEvening(kId); }), "");
    FCESGProgramInfo none;
    EXPECT_FALSE(guide_when_a_query_fails::AskCarefully(kId, none));
    EXPECT_EQ(none.GetEventID() + none.Title(), "");
    EXPECT_EQ(guide_from_several_threads::PresentOfAll({kId, "b"}).at(0).Title(), "");
    guide_events_without_freezing_the_interface::ReadAgain(kId);
    guide_events_without_freezing_the_interface::ReadAgain(kId);
    EXPECT_THAT(Shown(2), ElementsAre(kUnreadable, kUnreadable));
    const Page page(kId, &Show);
    EXPECT_THAT(Shown(1), ElementsAre(kUnreadable));
  }
  for (const char* each : {EVENT_LOOPS_GLIB, EVENT_LOOPS_NO_LOOP}) {
    EXPECT_EQ(EndOf(each).output, kUnreadable + "\n");
  }
  const ChildProgram::Result result = EndOf(README_A_QUERY);
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, testing::HasSubstr(kUnreadable));
}

TEST_F(Documents, TheListenerAnswersAndOutlivesWhateverIsAsked) {
  guide_the_service_side::Guide listener;
  const auto ask = [&](const char* method, const std::string& text) {
    ESGMessageBuffer in = Payload(text);
    ESGMessageBuffer out;
    const bool isFound = listener.OnMethodCall(method, in, out);
    std::string answer = Bytes(out);
    Json::Value reply;
    EXPECT_TRUE(ESGMarshal::ParseToJson(answer, reply));
    EXPECT_EQ(reply["ret"].asBool(), isFound);
    return reply;
  };
  const std::string request = R"({"global_service_id":"urn:example:one"})";
  EXPECT_EQ(ask("GetPresentProgram", request)["title"], "News");
  EXPECT_EQ(ask("GetServiceFragment", request)["xmlFragment"], "<Service/>");
  EXPECT_FALSE(ask("NoSuchMethod", request)["ret"].asBool());
  for (const std::string& hostile : kHostile) {
    EXPECT_FALSE(ask("GetPresentProgram", hostile)["ret"].asBool()) << hostile.substr(0, 100);
    EXPECT_FALSE(ask("GetServiceFragment", hostile)["ret"].asBool()) << hostile.substr(0, 100);
  }
}

TEST_F(Documents, EventsOfOneBlockReachTheOther) {
  ChildProgram subscriber({GUIDE_EVENTS});
  ASSERT_EQ(subscriber.ReadLine(), "waiting for event 5");
  RawPeer stranger;
  stranger.Send(WithBody(MessagePtr(dbus_message_new_signal("/com/velmora/ESG/IPCS",
                                                            "com.velmora.ESG.Signal", "Event")),
                         "sis"));
  stranger.Sync();
  static ECIPCBroadcaster events;  // its connection stays after its end
  guide_the_service_side_2::Announce(events, 5);
  EXPECT_EQ(subscriber.ReadLine(), "event 5: 1 2 3");
}

TEST_F(Documents, TimesGoThereAndBack) {
  EXPECT_EQ(guide_times::NtpTime(0), 2208988800U);
  const std::time_t in2040 = 2208988800;  // after the count has started again
  EXPECT_EQ(guide_times::UnixTime(guide_times::NtpTime(in2040)), in2040);
}

}  // namespace

void guide_events_without_freezing_the_interface::ShowTitle(const std::string& title) {
  shown.push_back(title);
}
