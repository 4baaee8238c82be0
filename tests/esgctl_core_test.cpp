// What esgctl does without a bus: text, times, aliases, JSON, and the grid.

#include <gmock/gmock.h>
#include <json/value.h>

#include <cstdlib>
#include <sstream>

#include "FCESGProgramInfo.h"
#include "Grid.h"
#include "Json.h"
#include "Services.h"
#include "Status.h"
#include "Table.h"
#include "Text.h"
#include "Time.h"

namespace {

using namespace esgctl;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

// Central Europe by rule, so that no time zone files are needed.
const int zone = setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
constexpr Seconds kNow = 1777651200;  // 2026-05-01 18:00 in that zone

/// The status of the failure that `action` ends in, and its message.
template <typename Action>
std::pair<int, std::string> FailureOf(Action action) {
  try {
    action();
  } catch (const Failure& failure) {
    return {static_cast<int>(failure.Status()), failure.what()};
  }
  return {0, ""};
}

TEST(EsgctlTextNoBus, WidthCutAndPad) {
  const std::tuple<const char*, int, const char*> cases[] = {
      // its width; cut to 5
      {"plainer", 7, "plai…"},
      {"日本語", 6, "日本…"},
      {"ab日本語", 8, "ab日…"},
      {"cafe\u0301s!", 6, "cafe\u0301…"},  // the accent stays with its letter
      {"\u0301x", 1, "\u0301x"},           // an accent alone
      {"مرحبا", 5, "مرحبا"},
      {"😀😀😀", 6, "😀😀…"},
      {"👩\u200d👩\u200d👧", 6, "👩\u200d👩…"},  // no joiner is left before the ellipsis
  };
  for (const auto& [text, width, cut] : cases) {
    EXPECT_EQ(DisplayWidth(text), width) << text;
    EXPECT_EQ(Cut(text, 5), cut) << text;
    EXPECT_EQ(DisplayWidth(Pad(text, 9)), 9) << text;
    EXPECT_EQ(Cut(text, width), text);
  }
  EXPECT_EQ(Cut("abc", 1), "…");
  EXPECT_EQ(Cut("abc", 0), "");
  EXPECT_EQ(RenderFields({{"T", "日本語日本 abcdefghi"}}, {11, false}),
            "T  日本語日\n   本\n   abcdefgh\n   i\n");
}

TEST(EsgctlTimeNoBus, MomentsAsPeopleWriteThem) {
  constexpr Seconds kMidnight = kNow - 18 * 3600;
  // Seconds from 2026-05-01 00:00; whether only a time of day was given.
  const std::tuple<const char*, Seconds, bool> cases[] = {
      {"now", 18 * 3600, false},
      {" +2h ", 20 * 3600, false},
      {"-1h30m", 16 * 3600 + 1800, false},
      {"20:00", 20 * 3600, true},
      {"9:05:07", 9 * 3600 + 5 * 60 + 7, true},
      {"18:00Z", 20 * 3600, true},
      {"today", 0, false},
      {"Tomorrow 06:00", 30 * 3600, false},
      {"tonight", 20 * 3600, false},
      {"Tonight 9:30PM", 21 * 3600 + 1800, false},
      {"12am", 0, true},
      {"12 pm", 12 * 3600, true},
      {"friday", 0, false},  // which is today
      {"thu 8pm", (6 * 24 + 20) * 3600, false},
      {"2026-05-01", 0, false},
      {"2026-05-01T20:00:30+05:30", 16 * 3600 + 1830, false},
      {"1777651200", 18 * 3600, false},
      {"2026-03-29 01:00", -790 * 3600, false},  // the clocks went forward since
  };
  for (const auto& [text, offset, timeOfDay] : cases) {
    const Moment moment = ParseMoment(text, kNow);
    EXPECT_EQ(moment.time - kMidnight, offset) << text;
    EXPECT_EQ(moment.timeOfDay, timeOfDay) << text;
  }
  for (const char* text : {"", "soon", "25:00", "20:60", "2026-02-30", "+", "x20:00", "12:00 12:00",
                           "99999999999999999999", "13pm", "0am", "thusday", "fri 8"}) {
    EXPECT_EQ(FailureOf([&] { ParseMoment(text, kNow); }).first, 2) << text;
  }
}

TEST(EsgctlTimeNoBus, RangesAndPieces) {
  // --from, --to, --for; the range, or nothing where they are wrong usage.
  const char* const cases[][4] = {
      {"", "", "", "2026-05-01 18:00 - 2026-05-01 19:00"},
      {"20:00", "", "1d2h", "2026-05-01 20:00 - 2026-05-02 22:00"},
      {"20:00", "02:00", "", "2026-05-01 20:00 - 2026-05-02 02:00"},
      {"2026-10-24 20:00", "20:00", "", "2026-10-24 20:00 - 2026-10-25 20:00"},
      {"", "+90", "", "2026-05-01 18:00 - 2026-05-01 18:01:30"},
      {"", "today", "", ""},
      {"", "20:00", "2h", ""},
      {"", "", "0", ""},
      {"", "", "2x", ""},
      {"999999999999", "02:00", "", ""},
      {"9999-12-31 23:00", "02:00", "", ""},
  };
  for (const auto& [from, to, length, expected] : cases) {
    std::string range;
    const auto failure = FailureOf([&, f = from, t = to, l = length] {
      const TimeRange r = ParseRange(f, t, l, 3600, kNow);
      range = FormatDateTime(r.from) + " - " + FormatDateTime(r.to);
    });
    EXPECT_EQ(range, expected);
    EXPECT_EQ(failure.first, range.empty() ? 2 : 0) << expected;
  }
  EXPECT_EQ(FormatDuration(5400), "1:30");
  EXPECT_EQ(FormatDuration(90), "0:01:30");

  // The numbers begin again at 2036-02-07 06:28:16 UTC; no piece may cross that.
  constexpr Seconds kRollover = 2085978496;
  const Clock clock(Epoch::Ntp, kRollover - 86400);
  std::vector<std::pair<std::uint32_t, std::uint32_t>> asked;
  for (const Piece& piece : Pieces(clock, {kRollover - 90000, kRollover + 100})) {
    asked.emplace_back(piece.start, piece.duration);
  }
  EXPECT_THAT(asked, ElementsAre(Pair(0U - 90000, 86400), Pair(0U - 3600, 3600), Pair(0, 100)));
}

TEST(EsgctlTimeNoBus, RecordTimes) {
  const std::tuple<Epoch, Seconds, std::uint32_t, Seconds> cases[] = {
      // at `now`, a record's time
      {Epoch::Ntp, kNow, 3986640000U, kNow},
      {Epoch::Ntp, kNow, 100, 2085978596},                // after the rollover
      {Epoch::Ntp, 2085978596, 4294967295U, 2085978495},  // before it
      {Epoch::Unix, kNow, 4294967295U, 4294967295},
      {Epoch::Ntp, kNow, 1839156353U, kNow - (Seconds{1} << 31) + 1},  // the earliest
  };
  for (const auto& [epoch, now, record, time] : cases) {
    const Clock clock(epoch, now);
    EXPECT_EQ(clock.FromRecord(record), time);
    EXPECT_EQ(clock.ToRecord(time), record);
  }
  EXPECT_EQ(FailureOf([] { Clock(Epoch::Ntp, kNow).ToRecord(kNow + (Seconds{1} << 31)); }).first,
            2);
  EXPECT_EQ(FailureOf([] { Clock(Epoch::Unix, kNow).ToRecord(-1); }).first, 2);
}

TEST(EsgctlServicesNoBus, NamesOfServices) {
  std::istringstream file(
      "# NUMBER ALIAS ID NAME\r\n"
      "33.1 news tag:n=1 News One\r\n"
      "33.2\treel  id-2\tNewsreel\n\n"
      "- - id-3 Küche & Keller\n"
      "4 - id-4\n"
      "news = id-5\n33.9 alone\n33.8 bad\xff id-6\n");
  const Services services(file);
  EXPECT_EQ(services.All().size(), 4U);
  EXPECT_THAT(services.Complaints(), ElementsAre(HasSubstr("line 7"), HasSubstr("line 8"),
                                                 HasSubstr("line 9: not UTF-8")));
  const char* const cases[][2] = {{"33.1", "tag:n=1"},
                                  {"NEWS", "tag:n=1"},
                                  {"news one", "tag:n=1"},
                                  {"newsr", "id-2"},
                                  {"KUCHE", "id-3"},
                                  {"n=1", "tag:n=1"},
                                  {"Keller", "id-3"},
                                  {"id-4", "id-4"},
                                  {"4", "id-4"},
                                  {"5", "5"},
                                  {"=news", "news"},
                                  {"=id-2", "id-2"},
                                  {"tag:other", "tag:other"}};
  for (const auto& [text, id] : cases) {
    EXPECT_EQ(services.Resolve(text).id, id) << text;
  }
  EXPECT_EQ(services.Resolve("reel").Channel(), "33.2 Newsreel");
  EXPECT_EQ(services.Resolve("tag:a/b:c").Channel(), "c");
  const auto ambiguous = FailureOf([&] { services.Resolve("new"); });
  EXPECT_EQ(ambiguous.first, 2);
  EXPECT_THAT(ambiguous.second, AllOf(HasSubstr("33.1 News One"), HasSubstr("33.2 Newsreel")));
  EXPECT_EQ(FailureOf([&] { services.Resolve("\xff"); }).first, 2);
}

TEST(EsgctlTextNoBus, SuggestionsForMistypedWords) {
  const std::vector<std::string> known = {"now", "next", "list", "--json"};
  const char* const cases[][2] = {{"nwo", "now"},       {"lsit", "list"}, {"nxt", "next"},
                                  {"--jsno", "--json"}, {"what", ""},     {"", ""}};
  for (const auto& [word, meant] : cases) {
    EXPECT_EQ(Suggestion(word, known), meant) << word;
  }
}

TEST(EsgctlFragmentsNoBus, FactsInAnyForm) {
  const Facts service = ParseFacts(
      "<Service><Name lang='en'>One</Name><AudioLanguage languageSDPTag='fr'/><PrivateExt>"
      "<x:ATSC3ServiceExtension><x:Icon>http://i</x:Icon><x:MajorChannelNum>33</x:MajorChannelNum>"
      "<x:MinorChannelNum>1</x:MinorChannelNum></x:ATSC3ServiceExtension></PrivateExt></Service>");
  EXPECT_EQ(service.number, "33.1");
  EXPECT_EQ(service.names.at(0).text + service.names.at(0).language, "Oneen");
  EXPECT_THAT(service.audioLanguages, ElementsAre("fr"));
  EXPECT_THAT(service.icons, ElementsAre("http://i"));
  const Facts content = ParseFacts(
      "<a:Content id='c'><a:Name text='T\xff'/><s:ContentAdvisoryRatings>"
      "<s:RatingDescription>USA</s:RatingDescription><s:RatingDimVal><s:RatingDimension>2"
      "</s:RatingDimension><s:RatingValueString>L</s:RatingValueString></s:RatingDimVal>"
      "<s:RatingDimVal><s:RatingDimension>0</s:RatingDimension><s:RatingValueString>TV-14"
      "</s:RatingValueString></s:RatingDimVal></s:ContentAdvisoryRatings></a:Content>");
  EXPECT_EQ(content.id + content.names.at(0).text, "cT\ufffd");
  EXPECT_EQ(content.ratings.at(0).system + content.ratings.at(0).value, "USATV-14 L");
  // Whatever a service sends.
  for (const char* const hostile : {"", "<", "\0\0", "<Service", "<a><a><a>", "<Content id='",
                                    "<!DOCTYPE a [<!ENTITY x 'y'>]>"}) {
    EXPECT_EQ(ParseFacts(hostile).number, "");
  }
  EXPECT_EQ(EpisodeOf("EP012345670089").series + EpisodeOf("EP012345670089").number,
            "EP012345670089");
  EXPECT_EQ(EpisodeOf("EP0123").series, "");
}

TEST(EsgctlJsonNoBus, ProgrammesForScripts) {
  Json::Value record;
  record["Start"] = 3986640000U;
  record["duration"] = 1800;
  record["title"] = "caf\xe9 \u009b\u202e日\n";
  record["privateExt"]["contentIcons"][0]["uri"] = "u";
  FCESGProgramInfo program;
  FCESGProgramInfo::FromJson(record, program);
  const Clock clock(Epoch::Ntp, kNow);
  EXPECT_EQ(JsonText(ProgramToJson(program, {"5.1", "", "id", "Five"}, clock), Layout::OneLine),
            "{\"channel\":\"5.1\",\"channel_name\":\"Five\",\"duration\":1800,"
            "\"end\":1777653000,\"icons\":[{\"uri\":\"u\"}],\"service\":\"id\","
            "\"start\":1777651200,\"title\":\"caf\ufffd \\u009b\\u202e日\\n\"}\n");
}

TEST(EsgctlGridNoBus, Drawing) {
  const auto cell = [](int start, int end, const char* title) {
    return GridCell{kNow + start * 60, kNow + end * 60, title};
  };
  const std::vector<GridRow> rows = {
      {"one",
       {cell(-30, 30, "Before"), cell(30, 90, "日本語ニュース番組"), cell(90, 200, "After")}},
      {"two", {cell(20, 40, "A\x1b[2J"), cell(60, 61, "short"), cell(61, 90, "B")}},
      {"three", {cell(0, 120, "Long"), cell(60, 90, "Covers")}},
      {"none", {cell(-60, 0, "Over"), cell(120, 150, "Later")}},
  };
  const TimeRange range = {kNow, kNow + 120 * 60};
  // 60 columns for 120 minutes
  EXPECT_EQ(RenderGrid(rows, range, kNow + 20 * 60, {66, false}),
            "      18:00          18:30          19:00          19:30\n"
            "                v 18:20\n"
            "one   <Before        |日本語ニュース番組           |After        >\n"
            "two   ..........|A\ufffd[2J    |.........:B             |..............\n"
            "three |Long                         |Covers        |..............\n"
            "none  ............................................................\n");
  for (const int width : {20, 40, 80, 200}) {
    std::istringstream drawn(RenderGrid(rows, range, range.to - 1, {width, false}));
    for (std::string line; std::getline(drawn, line);) {
      EXPECT_LE(DisplayWidth(line), std::max(width, 30)) << line;
    }
  }
  EXPECT_THAT(RenderGrid(rows, range, kNow, {80, true}), HasSubstr("\x1b[1m"));
}

}  // namespace
