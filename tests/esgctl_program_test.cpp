// The program esgctl, on a private bus, with good and bad services.

#include <fcntl.h>
#include <glib.h>
#include <gmock/gmock.h>
#include <json/json.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <fstream>
#include <pugixml.hpp>
#include <sstream>

#include "BusTest.h"
#include "ChildProgram.h"
#include "IESGService.h"
#include "RawPeer.h"
#include "TemporaryFolder.h"

namespace {

using namespace esg::test;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr auto kErrors = ChildProgram::kErrors;
using Result = ChildProgram::Result;

std::vector<std::string> Words(const std::string& text) {
  std::istringstream words(text);
  return {std::istream_iterator<std::string>(words), {}};
}

/// One run of esgctl with the arguments in `line`.
class Program : public ChildProgram {
 public:
  explicit Program(const std::string& line, int output = kPipe, int errors = kPipe)
      : ChildProgram(Words(ESGCTL " " + line), output, errors) {}

  std::string Line(Stream stream = kOutput) { return ReadLine(stream).value_or("(nothing)"); }
};

Result RunProgram(const std::string& line) { return Program(line).End(); }

/// Replies to every method with a text.
RawPeer::Handler Answers(const std::string& text) {
  return [text](DBusMessage* call) { return MakeReply(call, 1, text); };
}

Json::Value Parse(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(Json::Reader().parse(text, value)) << text;
  return value;
}

/// An empty configuration folder, and UTC as the local time.
class EsgctlWithoutBus : public testing::Test {
 protected:
  EsgctlWithoutBus() {
    setenv("XDG_CONFIG_HOME", m_folder.path.c_str(), 1);
    setenv("TZ", "UTC0", 1);
    std::filesystem::create_directories(m_folder.path / "esg-client");
  }

  const TemporaryFolder m_folder;
};

class Esgctl : public EsgctlWithoutBus {
 protected:
  Esgctl() { TestBus().Start(); }
};

constexpr char kFilm[] =
    R"({"ret":true,"Start":3986640000,"duration":5400,"eventID":"c1","title":"日本 \u001b[31mFilm"})";

TEST_F(Esgctl, ExitStatusTellsWhatHappened) {
  const std::tuple<RawPeer::Handler, int, const char*> cases[] = {
      {Answers(kFilm), 0, ""},
      {Answers(R"({"ret":false})"), 10, "The guide service does not know s1"},
      {Answers(R"({"ret":true,"title":["x"]})"), 9, "cannot be read"},
      {[](DBusMessage* call) {
         return MessagePtr(dbus_message_new_error(call, DBUS_ERROR_FAILED, "because\x1b[2J"));
       },
       1, "The bus says: "},
  };
  for (const auto& [handler, status, says] : cases) {
    RawPeer service(kESGServiceName, handler);
    const Result result = RunProgram("now s1");
    EXPECT_EQ(result.status, status) << result.errors;
    EXPECT_THAT(result.errors,
                AllOf(HasSubstr(says), Not(HasSubstr("terminate")), Not(HasSubstr("\x1b"))));
    EXPECT_EQ(result.errors.empty(), status == 0) << result.errors;
    EXPECT_EQ(result.output, status == 0 ? "START             END    LENGTH  TITLE\n"
                                           "2026-05-01 16:00  17:30  1:30    日本 \ufffd[31mFilm\n"
                                         : "");
  }
  EXPECT_EQ(RunProgram("now s1").status, 8);  // nobody has the name any more
}

TEST_F(EsgctlWithoutBus, WrongUsageAndNoBusAtAll) {
  m_folder.Write("esg-client/services", "1.1 one id-1 The One\n- other id-2\nbroken\n");
  TestBus();  // its address, without a daemon
  for (const char* line : {"", "now s --json --raw", "list s --from 1800-01-01", "now o",
                           "xml film s", "emit 5 1 2 3 4", "search --title", "search --regex ("}) {
    const Result result = RunProgram(line);
    EXPECT_EQ(result.status, 2) << line;
    EXPECT_NE(result.errors, "") << line;
  }
  EXPECT_THAT(RunProgram("now s1").errors, HasSubstr("The system bus cannot be reached"));
  EXPECT_THAT(RunProgram("now o").errors,
              AllOf(HasSubstr("1.1 The One  id-1"), HasSubstr("line 3")));
  EXPECT_EQ(RunProgram("services --names").output + RunProgram("complete -- now 1").output,
            "one\nother\none\n1.1\nother\n");
  EXPECT_THAT(RunProgram("nwo").errors, HasSubstr("Did you mean now?"));
}

TEST_F(EsgctlWithoutBus, TheManualHasTheCommandsOfTheHelp) {
  std::ifstream manual(MANUAL);
  std::string commands;
  for (std::string line; std::getline(manual, line);) {
    if (line.rfind("### `", 0) == 0) {
      const std::string usage = line.substr(5, line.size() - 6);
      const std::string command = usage.substr(0, usage.find(' '));
      EXPECT_THAT(RunProgram(command + " --help").output,
                  HasSubstr("Usage: esgctl " + usage + "\n"));
      commands += command + "\n";
    }
  }
  EXPECT_EQ(commands, ChildProgram({ESGCTL, "complete", "--", ""}).End().output);
}

TEST_F(Esgctl, SendsWhatWasAsked) {
  Inbox<std::string> asked;
  RawPeer service(kESGServiceName, [&asked](DBusMessage* call) {
    const Body body = ReadBody(call);
    // esgctl calls these to prepare the actual call, and to find the names of services.
    if (body.text == "GetProgramList" || body.text == "GetPresentProgram" ||
        body.text == "GetServiceFragment") {
      return MakeReply(call, 1, R"({"ret":false})");
    }
    asked.Put(body.text + ' ' + Json::FastWriter().write(Parse(body.bytes)));
    return MakeReply(call, 1, R"({"ret":true,"xmlFragment":"<a>\u001b&é\r\n"})");
  });
  const std::string cases[][3] = {
      {"xml schedule s1 --from 1777651200 --for 2d",
       R"(GetScheduleFragment {"BB":false,"duration":172800,"global_service_id":"s1",)"
       R"("start_time":3986640000})",
       "<a>\x1b&é\r\n"},
      {"save content s1 some/path --bb --json",
       R"(SaveContentFragment {"BB":true,"global_service_id":"s1","path":"some/path"})",
       R"("path" : "some/path")"},
      {"prev s1 --of 1777651200 --json",
       R"(GetProgram {"Start":3986640000,"duration":0,"eRelative_Position":-1,"eventID":"",)"
       R"("genre":"","globalServiceId":"s1","privateExt":null,"synopsis":"","title":""})",
       R"("service" : "s1")"}};
  for (const auto& [line, request, output] : cases) {
    const Result result = RunProgram(line);
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(asked.Next(), request + "\n");
    EXPECT_THAT(result.output, HasSubstr(output));
  }
}

constexpr char kHarm[] =
    // NOLINTNEXTLINE(misc-misleading-bidirectional): that is the harm
    "</bdi></script><script>alert=harm=1</script><img src=x onerror=harm=1>\"'&\u202e]]>-->{GUIDE}";

/// One service, S, with programmes from 16:00 whose texts are harmful: one until 17:30, or several
/// of half an hour.
RawPeer::Handler HarmfulGuide(unsigned int count = 1) {
  return [count](DBusMessage* call) {
    const std::string method = ReadBody(call).text;
    Json::Value reply;
    reply["ret"] = true;
    if (method == "GetServiceFragment") {
      reply["xmlFragment"] =
          "<Service><Name>S "
          "&lt;i></Name><PrivateExt><MajorChannelNum>5</MajorChannelNum></PrivateExt>"
          "</Service>";
    } else if (method == "GetContentFragment") {
      reply["xmlFragment"] =
          "<Content id='EP012345670089'><Name xml:lang='de' text='Anders'/><ContentAdvisoryRatings>"
          "<RegionIdentifier>1</RegionIdentifier><RatingDimVal><RatingValueString>TV-G"
          "</RatingValueString></RatingDimVal><RatingDimVal><RatingDimension>2</RatingDimension>"
          "<RatingValueString>L</RatingValueString></RatingDimVal>"
          "</ContentAdvisoryRatings><AudioLanguage languageSDPTag='fr'/></Content>";
    }
    for (unsigned int i = 0; i < count; ++i) {
      Json::Value& program = method == "GetProgramList" ? reply["ESGProgramMap"].append({}) : reply;
      program["key"] = program["Start"] = 3986640000U + i * 1800;
      program["duration"] = count == 1 ? 5400 : 1800;
      program["eventID"] = "EP012345670089";
      program["title"] = program["synopsis"] = kHarm + std::to_string(i);
      program["genre"] = "Drama, Crime";
    }
    return MakeReply(call, 1, Json::FastWriter().write(reply));
  };
}

std::string WithoutOverride(std::string text) { return text.erase(text.find('\xe2'), 3); }

TEST_F(Esgctl, ExportsHarmlessly) {
  RawPeer service(kESGServiceName, HarmfulGuide());
  setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
  const std::string range = " tag:x,1:s --from 2026-05-01T16:00Z --for 2h";
  pugi::xml_document document;
  ASSERT_TRUE(document.load_string(RunProgram("export xmltv" + range).output.c_str()));
  const pugi::xml_node programme = document.child("tv").child("programme");
  EXPECT_STREQ(programme.attribute("start").value(), "20260501180000 +0200");
  EXPECT_STREQ(programme.attribute("channel").value(),
               document.child("tv").child("channel").attribute("id").value());
  std::string texts;
  for (const pugi::xml_node node : programme.children()) {
    texts += std::string(node.name()) + '=' + node.text().get() + node.child("value").text().get() +
             node.attribute("lang").value() + node.attribute("system").value() + '\n';
  }
  const std::string harm = WithoutOverride(kHarm) + '0';
  EXPECT_EQ(texts, "title=" + harm + "\ntitle=Andersde\ndesc=" + harm +
                       "\ncategory=Drama\ncategory=Crime\nlanguage=fr\n"
                       "episode-num=EP01234567.0089dd_progid\nrating=TV-GVCHIP\n"
                       "rating=Ladvisory\n");
  const Json::Value json = Parse(RunProgram("export json" + range).output);
  EXPECT_EQ(json[0]["programmes"][0]["titles"][0]["text"], "Anders");
}

/// Works the page as a person would, and writes what it found as JSON.
constexpr char kProbe[] = R"html(<pre id="found"></pre><script>
guide.getBoundingClientRect();
const found = {};
const key = name => {
  document.activeElement.dispatchEvent(new KeyboardEvent("keydown", { key: name, bubbles: true }));
  const cell = document.activeElement.closest("li");
  return [rows.indexOf(cell.parentNode), [...cell.parentNode.children].indexOf(cell)].join();
};
cells[0].firstChild.focus();
found.places = ["ArrowRight", "ArrowDown", "End", "ArrowDown", "Home", "ArrowUp", "ArrowLeft"].map(key);
found.stops = guide.querySelectorAll('button[tabindex="0"]').length;
cells[5].firstChild.click();
found.open = dialog.open;
found.title = document.getElementById("title").textContent;
found.cells = cells.length;
found.rows = rows.length;
found.scripts = document.scripts.length;
found.images = document.images.length;
found.harmed = "harm" in window;
document.getElementById("found").textContent = encodeURIComponent(JSON.stringify(found));
</script>)html";

TEST_F(Esgctl, ExportsAPageThatABrowserShows) {
  g_autofree char* chromium = g_find_program_in_path("chromium");
  if (chromium == nullptr) {
    GTEST_SKIP() << "chromium is not installed";
  }
  constexpr int kServices = 100;
  constexpr int kProgrammes = 48;
  std::string services;
  for (int i = 0; i < kServices; ++i) {
    services.append("- - id-").append(std::to_string(i)).append(" <b>&lt;").append(kHarm) += '\n';
  }
  m_folder.Write("esg-client/services", services);
  const RawPeer service(kESGServiceName, HarmfulGuide(kProgrammes));
  m_folder.Write("probe.html",
                 RunProgram("export html --from 1777651200 --for 24h").output + kProbe);
  setenv("HOME", m_folder.path.c_str(), 1);
  const std::string document =
      ChildProgram({chromium, "--headless", "--no-sandbox", "--disable-gpu",
                    "--window-size=1280,800", "--dump-dom", m_folder.path / "probe.html"},
                   ChildProgram::kPipe, ChildProgram::kPipe)
          .End()
          .output;
  const std::string mark = "<pre id=\"found\">";
  const std::size_t at = std::min(document.find(mark), document.size() - mark.size()) + mark.size();
  g_autofree char* text =
      g_uri_unescape_string(document.substr(at, document.find('<', at) - at).c_str(), nullptr);
  ASSERT_NE(text, nullptr) << document.substr(0, 1000);
  Json::Value expected;
  expected["cells"] = kServices * kProgrammes;
  expected["rows"] = kServices;
  for (const char* place : {"0,1", "1,1", "1,47", "2,47", "2,0", "1,0", "1,0"}) {
    expected["places"].append(place);
  }
  expected["stops"] = 1;
  expected["open"] = true;
  expected["title"] = WithoutOverride(kHarm) + '5';
  expected["scripts"] = 3;  // two of the page, and the probe
  expected["images"] = 0;
  expected["harmed"] = false;
  EXPECT_EQ(Parse(text), expected);
}

TEST_F(Esgctl, FindsAndFollows) {
  m_folder.Write("esg-client/services", "- - s1\n");
  enum { kHarmful, kChanged, kStuck };
  std::atomic<int> state{kHarmful};
  RawPeer service(kESGServiceName, [&state](DBusMessage* call) {
    return state == kStuck ? nullptr : (state == kChanged ? Answers(kFilm) : HarmfulGuide())(call);
  });
  const std::string range = " --from 1777651200 --for 1h";
  for (const char* found : {"search ALÉRT", "search --regex ^..b", "search --genre crime"}) {
    EXPECT_THAT(RunProgram(found + range).output, HasSubstr("5 S <i>  2026-05-01 16:00")) << found;
  }
  EXPECT_EQ(RunProgram("search --word scrip" + range).status, 10);
  // Without a time, the next showing is found, or else the last one.
  EXPECT_THAT(RunProgram("show s1 EP012345670089").output,
              AllOf(HasSubstr("Rating      TV-G L [VCHIP]"), HasSubstr("Audio       fr"),
                    HasSubstr("Episode     0089"), HasSubstr("Title       Anders [de]")));

  Program follow("now --follow --json");
  EXPECT_THAT(follow.Line(), HasSubstr(R"("content_id":"EP012345670089")"));
  state = kChanged;
  service.Send(MakeSignal("Event", 5, ""));
  EXPECT_THAT(follow.Line(), HasSubstr(R"("content_id":"c1")"));
  state = kStuck;
  const int calls = service.Calls();
  service.Send(MakeSignal("Event", 5, ""));
  ASSERT_TRUE(service.WaitForCalls(calls + 1));
  const Stopwatch stopwatch;
  follow.Signal(SIGTERM);
  EXPECT_EQ(follow.End().status, 0);
  EXPECT_LT(stopwatch.Milliseconds(), 10000);
}

TEST_F(Esgctl, LongRangesComeInPieces) {
  // Each reply has one programme of its own and one that all replies have.
  RawPeer service(kESGServiceName, [](DBusMessage* call) {
    Json::Value reply;
    reply["ret"] = true;
    for (const unsigned int start :
         {3986640000U, Parse(ReadBody(call).bytes)["start_time"].asUInt() + 60}) {
      Json::Value& program = reply["ESGProgramMap"].append({});
      program["key"] = program["Start"] = start;
      program["duration"] = 60;
    }
    return MakeReply(call, 1, Json::FastWriter().write(reply));
  });
  std::vector<Json::Int64> starts;
  for (const Json::Value& program :
       Parse(RunProgram("list s1 --from 2026-05-01T16:00 --for 60h --json").output)) {
    starts.push_back(program["start"].asInt64() - 1777651200);
  }
  EXPECT_THAT(starts, ElementsAre(0, 60, 86400 + 60, 2 * 86400 + 60));
  const Result full = Program("list s1", open("/dev/full", O_WRONLY)).End();
  EXPECT_EQ(full.status, 1);
  EXPECT_THAT(full.errors, HasSubstr("No space left"));
}

TEST_F(Esgctl, WatchPrintsEvents) {
  Program program("watch 5 -6 --json --count 3");
  EXPECT_EQ(program.Line(kErrors), "esgctl: watching");
  EXPECT_THAT(program.Line(kErrors), HasSubstr("is not running; still watching"));
  {
    RawPeer service(kESGServiceName);
    service.Send(MakeSignal("Event", 7, ""));  // not asked for
    service.Send(MakeSignal("Event", 5, ""));
    EXPECT_THAT(program.Line(), StartsWith(R"({"event":5,"params":[-1,-1,-1],"time":)"));
    service.Send(MakeSignal("Event", -6, Integers({1})));
    EXPECT_THAT(program.Line(), StartsWith(R"({"event":-6,"params":[1,0,0],)"));
    EXPECT_THAT(program.Line(kErrors), HasSubstr("is running"));
  }
  EXPECT_THAT(program.Line(kErrors), HasSubstr("is not running"));
  EXPECT_EQ(RunProgram("emit 5 -1 2147483647 -2147483648").status, 0);
  EXPECT_THAT(program.Line(), StartsWith(R"({"event":5,"params":[-1,2147483647,-2147483648],)"));
  EXPECT_EQ(program.Wait(), 0);
}

TEST_F(Esgctl, WatchEndsWithTheBus) {
  Program program("watch 5");
  EXPECT_EQ(program.Line(kErrors), "esgctl: watching");
  TestBus().Kill();
  const Result end = program.End();
  EXPECT_EQ(end.status, 8);
  EXPECT_THAT(end.errors, HasSubstr("closed the connection"));
}

}  // namespace
