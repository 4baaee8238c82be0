// The parts of esgctl that need no bus: text, times, aliases, JSON, and the grid.

#include <gmock/gmock.h>
#include <json/value.h>

#include <cstdlib>
#include <sstream>

#include "Json.h"
#include "Services.h"
#include "Table.h"
#include "Text.h"
#include "Time.h"

namespace {

using namespace esgctl;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

// Central Europe as a rule, which needs no time zone files.
const int zone = setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
constexpr Seconds kNow = 1777651200;  // 2026-05-01 18:00 in that zone

/// The exit status and the message of the failure that `action` raises.
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
      // the text, its width, and the text cut to 5 columns
      {"ab日本語", 8, "ab日…"},
      {"cafe\u0301s!", 6, "cafe\u0301…"},   // the accent stays with its letter
      {"👩\u200d👩\u200d👧", 6, "👩\u200d👩…"},  // no joiner is left before the ellipsis
  };
  for (const auto& [text, width, cut] : cases) {
    EXPECT_EQ(DisplayWidth(text), width) << text;
    EXPECT_EQ(Cut(text, 5), cut) << text;
    EXPECT_EQ(DisplayWidth(Pad(text, 9)), 9) << text;
  }
  EXPECT_EQ(Cut("abcd", 3), "ab…");  // two bytes, fewer than a joiner has
  EXPECT_EQ(GuardDirection("مرحبا"), "\u200eمرحبا\u200e");
  EXPECT_EQ(RenderTable({"", ""}, {{{"T", "日本語日本 abcdefghi"}}}, {11, false}),
            "T  日本語日\n   本\n   abcdefgh\n   i\n");
}

TEST(EsgctlTimeNoBus, RangesAsPeopleWriteThem) {
  // --from, --to, --for, and the range; empty for wrong usage.
  const char* const cases[][4] = {
      {"", "", "", "2026-05-01 18:00 to 2026-05-01 19:00"},
      {"-1h30m", "+2h", "", "2026-05-01 16:30 to 2026-05-01 20:00"},
      {"9:05:07", "", "1d2h", "2026-05-01 09:05:07 to 2026-05-02 11:05:07"},
      {"Tomorrow 06:00", "thu 8pm", "", "2026-05-02 06:00 to 2026-05-07 20:00"},
      {"12am", " tonight ", "", "2026-05-01 00:00 to 2026-05-01 20:00"},
      {"friday", "2026-05-01T20:00:30+05:30", "", "2026-05-01 00:00 to 2026-05-01 16:30:30"},
      {"2026-10-24 20:00", "20:00", "", "2026-10-24 20:00 to 2026-10-25 20:00"},  // 25 hours
      {"", "20:00", "2h", ""},
      {"2026-02-30", "", "", ""},
      {"99999999999999999999", "", "", ""},
      {"13pm", "", "", ""},
      {"thusday", "", "", ""},
  };
  for (const auto& [from, to, length, expected] : cases) {
    std::string range;
    const auto failure = FailureOf([&, f = from, t = to, l = length] {
      range = FormatRange(ParseRange(f, t, l, 3600, kNow));
    });
    EXPECT_EQ(range, *expected == '\0' ? "" : std::string("from ") + expected) << from;
    EXPECT_EQ(failure.first, range.empty() ? 2 : 0) << from;
  }
}

TEST(EsgctlTimeNoBus, TimesOfRecords) {
  // The count of seconds restarts at 2036-02-07 06:28:16 UTC, which no piece may cross.
  constexpr Seconds kRollover = 2085978496;
  const std::tuple<Epoch, Seconds, std::uint32_t, Seconds> cases[] = {
      // what the records count from, the present, a record's time, and that time in the present era
      {Epoch::Ntp, kNow, 100, kRollover + 100},
      {Epoch::Ntp, kRollover + 100, 4294967295U, kRollover - 1},
      {Epoch::Unix, kNow, 4294967295U, 4294967295},
      {Epoch::Ntp, kNow, 1839156353U, kNow - (Seconds{1} << 31) + 1},  // the earliest
  };
  for (const auto& [epoch, now, record, time] : cases) {
    const Clock clock(epoch, now);
    EXPECT_EQ(clock.FromRecord(record), time);
    EXPECT_EQ(clock.ToRecord(time), record);
  }
  for (const auto& [epoch, time] :
       {std::pair{Epoch::Ntp, kNow + (Seconds{1} << 31)}, {Epoch::Unix, Seconds{-1}}}) {
    EXPECT_EQ(FailureOf([e = epoch, t = time] { Clock(e, kNow).ToRecord(t); }).first, 2);
  }
  std::vector<std::pair<std::uint32_t, std::uint32_t>> asked;
  const Clock clock(Epoch::Ntp, kRollover - 86400);
  for (const TimeRange& piece : Pieces(clock, {kRollover - 90000, kRollover + 100})) {
    asked.emplace_back(clock.ToRecord(piece.from), piece.to - piece.from);
  }
  EXPECT_THAT(asked, ElementsAre(Pair(0U - 90000, 86400), Pair(0U - 3600, 3600), Pair(0, 100)));
}

TEST(EsgctlServicesNoBus, NamesOfServices) {
  std::istringstream file(
      "# NUMBER ALIAS ID NAME\r\n"
      "33.1 news tag:n=1 News One\r\n"
      "33.2\treel  id-2\tNewsreel\n\n"
      "- - id-3 Küche & Keller\n"
      "33.9 alone\n33.8 bad\xff id-6\n");
  const Services services(file);
  EXPECT_THAT(services.complaints, ElementsAre(HasSubstr("line 6"), HasSubstr("line 7")));
  const char* const cases[][2] = {
      {"33.1", "tag:n=1"}, {"NEWS", "tag:n=1"}, {"news one", "tag:n=1"},
      {"newsr", "id-2"},   {"KUCHE", "id-3"},   {"n=1", "tag:n=1"},
      {"5", "5"},          {"=news", "news"},   {"tag:other", "tag:other"}};
  for (const auto& [text, id] : cases) {
    EXPECT_EQ(services.Resolve(text).id, id) << text;
  }
  EXPECT_EQ(services.Resolve("reel").Channel(), "33.2 Newsreel");
  const auto ambiguous = FailureOf([&] { services.Resolve("new"); });
  EXPECT_EQ(ambiguous.first, 2);
  EXPECT_THAT(ambiguous.second,
              testing::AllOf(HasSubstr("33.1 News One"), HasSubstr("33.2 Newsreel")));
}

TEST(EsgctlFragmentsNoBus, OutliveWhateverAServiceSends) {
  std::string deep;
  for (int i = 0; i < 1000000; ++i) {
    deep += "<PrivateExt>";
  }
  for (const std::string& hostile : {std::string("<Content id='"), deep}) {
    EXPECT_EQ(ParseFacts(hostile)["number"].asString(), "");
  }
  std::string icons;
  for (int i = 0; i < 1000; ++i) {
    icons += "<Icon>" + std::to_string(i) + "</Icon>";
  }
  EXPECT_EQ(ParseFacts("<Service>" + icons + "</Service>")["icons"].size(), 100U);
  EXPECT_EQ(
      JsonText(ParseFacts("<a:Content id='c'><a:Name text='T\xff'/></a:Content>"), Layout::OneLine),
      "{\"id\":\"c\",\"titles\":[{\"text\":\"T\ufffd\"}]}\n");
}

TEST(EsgctlGridNoBus, Drawing) {
  const auto showing = [](int start, int end, const char* title) {
    Showing made{nullptr, {}, kNow + start * 60, kNow + end * 60};
    made.program.SetTitle(title);
    return made;
  };
  const Service services[] = {
      {"", "", "one", ""}, {"", "", "two", ""}, {"", "", "three", ""}, {"", "", "none", ""}};
  const std::vector<Listing> rows = {
      {&services[0],
       {showing(-30, 30, "Before"), showing(30, 90, "日本語ニュース番組"),
        showing(90, 200, "After")}},
      {&services[1], {showing(20, 40, "A\x1b[2J"), showing(60, 61, "short"), showing(61, 90, "B")}},
      {&services[2], {showing(0, 120, "Long"), showing(60, 90, "Covers")}},
      {&services[3], {showing(-60, 0, "Over"), showing(120, 150, "Later")}},
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
}

}  // namespace
