#include <ctime>

#include "BusTest.h"
#include "FCESGGuide.h"
#include "IESGService.h"
#include "blocks.inc"

// The blocks in C.
extern "C" {
void print_now_and_next(const char* service_id);
void print_range(const char* service_id, unsigned int start, unsigned int duration);
int follow(char* service_id);
}

// Runs the blocks of the documents. Each does what its document says, and none ends its process,
// whatever it receives.

namespace {

using namespace esg::test;
using Documents = OnBus;

constexpr char kId[] = "urn:example:one";
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
    "", "[]", std::string(2000, '[') + std::string(2000, ']'),
    R"({"ret":true,"global_service_id":{"urn:example:one":1},"Start":"soon","title":{},
        "ESGProgramMap":{"key":"one"}})"};

/// Returns after the replies to all queries, and to those that their callbacks made.
void Settle() {
  for (int round = 0; round < 2; ++round) {
    bool isDone = false;
    ESGAsync::GetServiceFragment(kId, true, [&](const auto&, const auto&) { isDone = true; });
    IterateUntil([&] { return isDone; });
  }
}

void Show(const std::string& text) { std::cout << text << std::endl; }

void ShowPages() {
  using guide_asking_without_blocking::Page;
  { const Page gone(kId, &Show); }  // shows nothing any more
  const Page page(kId, &Show);
  Settle();
}

void ReadTwice() {
  guide_events_without_freezing_the_interface::ReadAgain(kId);
  guide_events_without_freezing_the_interface::ReadAgain(kId);
  Settle();
}

void AskAndPrintRecord() {
  FCESGProgramInfo program;
  if (guide_when_a_query_fails::AskCarefully(kId, program)) {
    guide_a_record::PrintRecord(program);
  } else {
    EXPECT_EQ(program.GetEventID() + program.Title(), "");
  }
}

std::string OutputOf(const char* program) {
  return ChildProgram({program}, ChildProgram::kPipe, ChildProgram::kPipe).End().output;
}

TEST_F(Documents, BlocksSayWhatTheServiceAnswersAndOutliveNonsense) {
  // What a block prints, as regular expressions: when it gets kNews, and when it gets nonsense.
  const struct {
    void (*run)();
    std::string news;
    std::string nonsense;
  } blocks[] = {
      {[] { print_now_and_next(kId); }, "now:  News, for 1800 seconds\nnext: News\n", ""},
      {[] { print_range(kId, 0, 9); }, "7 Seven\n8 Eight\n", ""},
      {[] { guide_now_and_next::PrintNowAndNext(kId); }, "now:  News\nnext: News\n",
       "(The answer of|unreadable reply: ).*\n"},
      {[] { guide_a_list::PrintEvening(kId); }, "7 Seven\n8 Eight\n", ""},
      {&AskAndPrintRecord,
       "start    4004374800\nduration 1800\nevent    news-1\nservice  urn:example:one\n"
       "title    News\nsynopsis What happened.\ngenre    Talk\n"
       "icon     a.png image/png 64x48 900 bytes\n"
       "preview  menu 1 icons 2 contents\n  de: Heute\n",
       ""},
      {[] {
         Show(guide_from_several_threads::PresentOfAll({kId, "b"}).at(1).Title());
       },
       "News\n", "\n"},
      {&ShowPages, "(News\n){2}", "The answer of .*\n"},
      {&ReadTwice, "(News\n){2}", "(The answer of .*\n){2}"},
      {[] { std::cout << OutputOf(EVENT_LOOPS_GLIB); }, "News\n", "The answer of .*\n"},
      {[] { std::cout << OutputOf(EVENT_LOOPS_NO_LOOP); }, "News\n", "The answer of .*\n"},
      {[] { std::cout << OutputOf(README_A_QUERY); }, "News, 1800 seconds\n", ""},
  };
  Service service(Service::Reply(kNews), kESGServiceName);
  for (const auto& block : blocks) {
    for (std::size_t i = 0; i <= std::size(kHostile); ++i) {
      service.Set(Service::Reply(i == 0 ? kNews : kHostile[i - 1]));
      testing::internal::CaptureStdout();
      block.run();
      std::cout.flush();
      EXPECT_THAT(testing::internal::GetCapturedStdout(),
                  testing::MatchesRegex(i == 0 ? block.news : block.nonsense))
          << "answer " << i;
    }
  }
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
  EXPECT_EQ(ask("GetPresentProgram", R"({"global_service_id":"urn:example:one"})")["title"],
            "News");
  for (const std::string& hostile : kHostile) {
    EXPECT_FALSE(ask("GetPresentProgram", hostile)["ret"].asBool());
  }
}

TEST_F(Documents, EventsOfOneBlockReachTheOthers) {
  ChildProgram subscriber({GUIDE_EVENTS});
  ASSERT_EQ(subscriber.ReadLine(), "waiting for event 5");
  Service service(Service::Reply(kNews), kESGServiceName);
  std::string id = kId;
  ASSERT_EQ(follow(id.data()), 1);
  static ECIPCBroadcaster events;  // its connection stays after its end
  guide_the_service_side_2::Announce(events, 5);
  EXPECT_EQ(subscriber.ReadLine(), "event 5: 1 2 3");
  testing::internal::CaptureStdout();
  IterateUntil([&service] { return service.Peer().Calls() > 0; });
  Settle();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "News\n");
}

TEST_F(Documents, TimesGoThereAndBack) {
  EXPECT_EQ(guide_times::NtpTime(0), 2208988800U);
  if constexpr (sizeof(std::time_t) == 8) {
    const auto in2040 = static_cast<std::time_t>(2208988800);  // NTP seconds have restarted at 0
    EXPECT_EQ(guide_times::UnixTime(guide_times::NtpTime(in2040)), in2040);
  }
}

}  // namespace

void guide_events_without_freezing_the_interface::ShowTitle(const std::string& title) {
  Show(title);
}
