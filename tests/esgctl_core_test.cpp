// What esgctl does without a bus: text, times, aliases, JSON, and the grid.

#include <gmock/gmock.h>
#include <json/value.h>

#include <cstdlib>
#include <sstream>

#include "Aliases.h"
#include "FCESGProgramInfo.h"
#include "Grid.h"
#include "Json.h"
#include "Status.h"
#include "Table.h"
#include "TextWidth.h"
#include "Time.h"

namespace {

using namespace esgctl;
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
                           "99999999999999999999"}) {
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

TEST(EsgctlAliasesNoBus, NamesOfServices) {
  std::istringstream file(
      "# mine\r\n"
      "news one = tag:n=1\n"
      "Newsreel=id-2\n\n"
      "   kids\t=  5  \n"
      "Küche = id-4\n"
      "no sign\n= id\nkids = again\nbad\xff = id\n");
  const Aliases aliases(file);
  EXPECT_EQ(aliases.All().size(), 4U);
  EXPECT_THAT(aliases.Complaints(), ElementsAre(HasSubstr("line 7"), HasSubstr("line 8"),
                                                HasSubstr("line 9: this alias is already taken"),
                                                HasSubstr("line 10: not UTF-8")));
  const char* const cases[][2] = {
      {"news one", "tag:n=1"}, {"one", "tag:n=1"}, {"REEL", "id-2"},  {"KÜCHE", "id-4"},
      {"id-4", "id-4"},        {"5", "5"},         {"=news", "news"}, {"tag:other", "tag:other"}};
  for (const auto& [text, id] : cases) {
    EXPECT_EQ(aliases.Resolve(text), id) << text;
  }
  const auto ambiguous = FailureOf([&] { aliases.Resolve("news"); });
  EXPECT_EQ(ambiguous.first, 2);
  EXPECT_THAT(ambiguous.second, HasSubstr("Newsreel news one."));
  EXPECT_EQ(FailureOf([&] { aliases.Resolve("\xff"); }).first, 2);
}

TEST(EsgctlJsonNoBus, ProgrammesForScripts) {
  Json::Value record;
  record["Start"] = 3986640000U;
  record["duration"] = 1800;
  record["title"] = "caf\xe9 \u009b日\n";
  record["privateExt"]["contentIcons"][0]["uri"] = "u";
  FCESGProgramInfo program;
  FCESGProgramInfo::FromJson(record, program);
  const Clock clock(Epoch::Ntp, kNow);
  EXPECT_EQ(
      JsonText(ProgramToJson(program, clock), Layout::OneLine),
      "{\"duration\":1800,\"end\":1777653000,\"icons\":[{\"uri\":\"u\"}],\"start\":1777651200,"
      "\"title\":\"caf\ufffd \\u009b日\\n\"}\n");
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
