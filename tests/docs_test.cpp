#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <ctime>
#include <memory>
#include <mutex>

#include "ChildProgram.h"
#include "FCESGGuide.h"
#include "Harness.h"
#include "IESGService.h"
#include "RawPeer.h"
#include "event_loops_epoll.inc"
#include "guide_a_list.inc"
#include "guide_a_record.inc"
#include "guide_asking_without_blocking.inc"
#include "guide_events_without_freezing_the_interface.inc"
#include "guide_from_several_threads.inc"
#include "guide_now_and_next.inc"
#include "guide_the_service_side.inc"
#include "guide_the_service_side_2.inc"
#include "guide_times.inc"
#include "guide_when_a_query_fails.inc"

// Those in C.
extern "C" {
void print_now_and_next(const char* service_id);
void print_range(const char* service_id, unsigned int start, unsigned int duration);
int follow(char* service_id);
}

// The blocks of the documents, run: each does what its text says, and none of them ends its process
// whatever it is sent.

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr char kId[] = "urn:example:one";
constexpr char kUnreadable[] = "The answer of the guide service cannot be read.";
constexpr char kNews[] = R"({"ret":true,"Start":4004374800,"duration":1800,"eventID":"news-1",
  "globalServiceId":"urn:example:one","title":"News","synopsis":"What happened.","genre":"Talk",
  "privateExt":{"contentIcons":[{"uri":"a.png","mimeType":"image/png","width":64,"height":48,
                                 "dataSize":900}],
                "previews":[{"usage":"menu","icons":[{"uri":"b"}],
                             "contents":[{"uri":"c"},{"uri":"d"}],
                             "descriptions":[{"text":"Heute","lang":"de"}]}]},
  "ESGProgramMap":[{"key":7,"title":"Seven"},{"key":8,"title":"Eight"}]})";

std::string Deep(const std::string& opening, const std::string& closing) {
  std::string text;
  for (int i = 0; i < 2000; ++i) {
    text += opening;
  }
  for (int i = 0; i < 2000; ++i) {
    text += closing;
  }
  return text;
}

/// What neither a service nor a caller should send.
std::vector<std::string> Hostile() {
  return {
      "",
      "News",
      "[]",
      "null",
      "\"ret\"",
      Deep("[", "]"),
      R"({"ret":true,"global_service_id":"urn:example:one","title":)" + Deep("{\"a\":", "}") + "}",
      R"({"ret":[],"global_service_id":[]})",
      R"({"ret":true,"global_service_id":{"urn:example:one":1},"Start":"soon","title":{},
              "ESGProgramMap":{"key":"one"}})"};
}

/// A service that gives the same answer to everybody.
class Answering {
 public:
  void Give(const std::string& answer) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_answer = answer;
  }

 private:
  esg::internal::MessagePtr Answer(DBusMessage* call) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return MakeReply(call, 1, m_answer);
  }

  std::mutex m_mutex;
  std::string m_answer;
  RawPeer m_peer{kESGServiceName, [this](DBusMessage* call) { return Answer(call); }};
};

/// What is written to standard output meanwhile.
template <typename Work>
std::string Printed(Work work) {
  testing::internal::CaptureStdout();
  work();
  std::cout.flush();
  return testing::internal::GetCapturedStdout();
}

/// What a banner or a page has shown.
std::vector<std::string> shown;

/// Runs the main loop until so much has been shown.
void WaitUntilShown(std::size_t count) {
  while (shown.size() < count) {
    g_main_context_iteration(nullptr, TRUE);
  }
}

TEST(Guide, BlocksSayWhatTheServiceAnswers) {
  Answering service;
  service.Give(kNews);
  EXPECT_EQ(Printed([] { guide_now_and_next::PrintNowAndNext(kId); }), "now:  News\nnext: News\n");
  EXPECT_EQ(Printed([] { guide_a_list::PrintEvening(kId); }), "7 Seven\n8 Eight\n");
  FCESGProgramInfo program;
  ASSERT_TRUE(guide_when_a_query_fails::AskCarefully(kId, program));
  EXPECT_EQ(Printed([&] { guide_a_record::PrintRecord(program); }),
            "start    4004374800\nduration 1800\nevent    news-1\nservice  urn:example:one\n"
            "title    News\nsynopsis What happened.\ngenre    Talk\n"
            "icon     a.png image/png 64x48 900 bytes\n"
            "preview  menu 1 icons 2 contents\n  de: Heute\n");
  const std::vector<FCESGProgramInfo> all = guide_from_several_threads::PresentOfAll({kId, "b"});
  ASSERT_EQ(all.size(), 2U);
  EXPECT_EQ(all[1].Title(), "News");

  shown.clear();
  const guide_asking_without_blocking::Page page(kId,
                                                 [](const auto& text) { shown.push_back(text); });
  WaitUntilShown(2);
  EXPECT_THAT(shown, ElementsAre("News", "News"));
}

TEST(Guide, BlocksOutliveWhateverTheServiceAnswers) {
  Answering service;
  for (const std::string& answer : Hostile()) {
    SCOPED_TRACE(answer.substr(0, 100));
    service.Give(answer);
    EXPECT_THAT(Printed([] { guide_now_and_next::PrintNowAndNext(kId); }),
                Not(testing::AnyOf(HasSubstr("now:"), "")));
    EXPECT_EQ(Printed([] { guide_a_list::PrintEvening(kId); }), "");
    FCESGProgramInfo program;
    EXPECT_FALSE(guide_when_a_query_fails::AskCarefully(kId, program));
    EXPECT_EQ(program.GetEventID() + program.Title(), "");
    const std::vector<FCESGProgramInfo> all = guide_from_several_threads::PresentOfAll({kId, "b"});
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all[0].Title() + all[1].Title(), "");

    shown.clear();
    guide_events_without_freezing_the_interface::ReadAgain(kId);
    guide_events_without_freezing_the_interface::ReadAgain(kId);
    WaitUntilShown(2);  // for both, one after the other
    const guide_asking_without_blocking::Page page(kId,
                                                   [](const auto& text) { shown.push_back(text); });
    WaitUntilShown(3);
    EXPECT_THAT(shown, ElementsAre(kUnreadable, kUnreadable, kUnreadable));
  }
}

TEST(Guide, BlocksOfCDoLikewise) {
  Answering service;
  service.Give(kNews);
  RawPeer emitter;
  std::string id = kId;
  ASSERT_EQ(follow(id.data()), 1);
  // Its question is followed by this one.
  const auto ask = [](int, std::int32_t, std::int32_t, std::int32_t, void*) {
    ESGAsync::GetServiceFragment(kId, true,
                                 [](const auto&, const auto&) { shown.emplace_back("end"); });
  };
  ASSERT_NE(FCESGEventsSubscribe(5, ask, nullptr, nullptr), 0U);
  const auto run = [&] {
    print_now_and_next(kId);
    print_range(kId, 0, 9);
    shown.clear();
    emitter.Send(MakeSignal("Event", 5, ""));
    WaitUntilShown(1);
  };
  EXPECT_EQ(Printed(run), "now:  News, for 1800 seconds\nnext: News\n7 Seven\n8 Eight\nNews\n");
  for (const std::string& answer : Hostile()) {
    SCOPED_TRACE(answer.substr(0, 100));
    service.Give(answer);
    EXPECT_EQ(Printed(run), std::string(kUnreadable) + "\n");
  }
}

TEST(Guide, APageThatGoesIsNotCalledAnyMore) {
  Answering service;
  service.Give(kNews);
  shown.clear();
  using guide_asking_without_blocking::Page;
  const auto show = [](const std::string& text) { shown.push_back(text); };
  auto early = std::make_unique<Page>(kId, show);
  early.reset();
  auto late = std::make_unique<Page>(kId, show);
  WaitUntilShown(1);
  late.reset();  // while the second question is under way
  ESGAsync::GetServiceFragment(kId, true,
                               [](const auto&, const auto&) { shown.emplace_back("end"); });
  WaitUntilShown(2);
  EXPECT_THAT(shown, ElementsAre("News", "end"));
}

TEST(GuideNoBus, TheListenerAnswersAndOutlivesWhateverIsAsked) {
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
  Json::Value news = ask("GetPresentProgram", request);
  FCESGProgramInfo program;
  FCESGProgramInfo::FromJson(news, program);
  EXPECT_EQ(program.Title() + program.GlobalServiceID(), "Newsurn:example:one");
  EXPECT_EQ(ask("GetServiceFragment", request)["xmlFragment"], "<Service/>");
  EXPECT_FALSE(ask("NoSuchMethod", request)["ret"].asBool());
  for (const std::string& hostile : Hostile()) {
    SCOPED_TRACE(hostile.substr(0, 100));
    for (const char* method : {"GetPresentProgram", "GetServiceFragment", ""}) {
      EXPECT_FALSE(ask(method, hostile)["ret"].asBool());
    }
  }
}

TEST(Guide, EventsOfOneBlockReachTheOther) {
  ChildProgram subscriber({GUIDE_EVENTS});
  ASSERT_EQ(subscriber.ReadLine(), "waiting for event 5");
  RawPeer stranger;
  esg::internal::MessagePtr wrong(
      dbus_message_new_signal("/com/velmora/ESG/IPCS", "com.velmora.ESG.Signal", "Event"));
  stranger.Send(WithBody(std::move(wrong), "sis"));
  stranger.Sync();
  static ECIPCBroadcaster events;  // its connection stays after its end
  guide_the_service_side_2::Announce(events, 5);
  EXPECT_EQ(subscriber.ReadLine(), "event 5: 1 2 3");
}

ChildProgram::Result EndOf(const char* program) {
  return ChildProgram({program}, ChildProgram::kPipe, ChildProgram::kPipe).End();
}

TEST(Documents, ProgramsSayWhatTheServiceAnswersAndOutliveNonsense) {
  Answering service;
  service.Give(kNews);
  for (const char* program : {EVENT_LOOPS_GLIB, EVENT_LOOPS_NO_LOOP}) {
    const ChildProgram::Result result = EndOf(program);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "News\n");
  }
  EXPECT_EQ(EndOf(README_A_QUERY).output, "News, 1800 seconds\n");
  for (const std::string& answer : Hostile()) {
    SCOPED_TRACE(answer.substr(0, 100));
    service.Give(answer);
    for (const char* program : {EVENT_LOOPS_GLIB, EVENT_LOOPS_NO_LOOP}) {
      const ChildProgram::Result result = EndOf(program);
      EXPECT_EQ(result.status, 0);
      EXPECT_EQ(result.output, std::string(kUnreadable) + '\n');
    }
    const ChildProgram::Result result = EndOf(README_A_QUERY);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.errors, HasSubstr(kUnreadable));
  }
}

int handled = 0;

TEST(EventLoopsNoBus, AnEpollSetIsPartOfTheMainLoop) {
  const int epoll = epoll_create1(EPOLL_CLOEXEC);
  const int event = eventfd(1, EFD_CLOEXEC);
  epoll_event wanted = {};
  wanted.events = EPOLLIN;
  wanted.data.fd = event;
  epoll_ctl(epoll, EPOLL_CTL_ADD, event, &wanted);
  event_loops_epoll::AddToMainLoop(epoll, [](const epoll_event& ready) {
    eventfd_t count = 0;
    eventfd_read(ready.data.fd, &count);
    ++handled;
  });
  for (int round = 1; round <= 2; ++round) {
    while (handled < round) {
      g_main_context_iteration(nullptr, TRUE);
    }
    EXPECT_EQ(g_main_context_iteration(nullptr, FALSE), FALSE) << "the event was not taken";
    eventfd_write(event, 1);
  }
  close(event);
  close(epoll);
}

TEST(GuideNoBus, TimesGoThereAndBack) {
  EXPECT_EQ(guide_times::NtpTime(0), 2208988800U);
  const std::time_t in2040 = 2208988800;  // after the count has begun again
  EXPECT_EQ(guide_times::UnixTime(guide_times::NtpTime(in2040)), in2040);
}

}  // namespace

void guide_events_without_freezing_the_interface::ShowTitle(const std::string& title) {
  shown.push_back(title);
}
