#include <gmock/gmock.h>

#include <cstdlib>
#include <sstream>

#include "Guide.h"
#include "common/Time.h"

namespace guide {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

Fragment MakeFragment(const std::string& file, std::string id, decltype(Fragment::body) body) {
  return {file, "bytes of " + file, std::move(id), 0, std::move(body)};
}

Fragment MakeContent(const std::string& id, std::vector<std::string> services = {}) {
  ContentFragment content;
  content.services = std::move(services);
  content.length = 25;
  return MakeFragment("content " + id, id, content);
}

/// `programs`, such as "a 100 50", are contents with their start and duration.
Fragment MakeSchedule(const std::string& id, const std::string& service,
                      const std::string& programs) {
  ScheduleFragment schedule{{service}, {}};
  std::istringstream text(programs);
  Span time;
  for (std::string content; text >> content >> time.start >> time.duration;) {
    schedule.contents.push_back({content, {time}});
  }
  return MakeFragment("schedule " + id, id, schedule);
}

std::string Name(const Program* program) {
  return program == nullptr ? "-" : program->contentId + "@" + std::to_string(program->time.start);
}

std::string Name(const Fragment* fragment) { return fragment == nullptr ? "-" : fragment->file; }

std::string Names(const std::vector<const Program*>& programs) {
  std::string names;
  for (const Program* program : programs) {
    names += (names.empty() ? "" : " ") + Name(program);
  }
  return names;
}

/// a 100-200, b 200-300, a gap, c 400-600 with d 500-520 within, a again 600-700, e and f both at
/// 700, b again 800-825.
class NoBusGuideQuery : public testing::Test {
 protected:
  std::vector<std::string> m_reports;
  const Guide m_guide{
      {MakeFragment("service", "5", ServiceFragment{"tag:5"}),
       MakeFragment("bare", "6", ServiceFragment{}), MakeContent("a", {"5"}), MakeContent("b"),
       MakeContent("c"), MakeContent("d"), MakeContent("e"), MakeContent("f"),
       MakeContent("unshown", {"5"}), MakeSchedule("1", "5", "a 100 100  b 200 100  c 400 200"),
       MakeSchedule("2", "5", "c 400 200  d 500 20  a 600 100  f 700 50  e 700 60"),
       MakeSchedule("empty", "5", ""), MakeSchedule("3", "tag:5", "b 800 0"),
       MakeSchedule("4", "6", "a 100 10")},
      0,
      [this](const std::string& line) { m_reports.push_back(line); }};
};

TEST_F(NoBusGuideQuery, StretchesOfTimeAreHalfOpen) {
  // On air at the start (started last) | what overlaps | the nearest Schedule | and Content.
  const std::pair<Span, const char*> cases[] = {
      {{99, 2}, "- | a@100 | schedule 1 | content a"},
      {{100, 500}, "a@100 | a@100 b@200 c@400 d@500 | schedule 1 | content c"},
      {{199, 2}, "a@100 | a@100 b@200 | schedule 1 | content b"},
      {{300, 100}, "- |  | schedule 1 | -"},
      {{400, 360}, "c@400 | c@400 d@500 a@600 e@700 | schedule 2 | content c"},
      {{500, 20}, "d@500 | c@400 d@500 | schedule 2 | content d"},
      {{519, 1}, "d@500 | c@400 d@500 | schedule 2 | content d"},
      {{520, 1}, "c@400 | c@400 | schedule 2 | content c"},
      {{650, 1000}, "a@600 | a@600 e@700 b@800 | schedule 3 | content e"},
      {{700, 50}, "e@700 | e@700 | schedule 2 | content f"},
      {{824, 1}, "b@800 | b@800 | schedule 3 | content b"},
      {{825, 75}, "- |  | - | -"},
      {{UINT32_MAX, 102}, "- | a@100 | schedule 1 | content a"},
      // Or, of no seconds at all, those of the moment or with the number.
      {{150, 0}, "a@100 |  | schedule 1 | content a"},
      {{0, 0}, "- |  | schedule 1 | content a"},
      {{2, 0}, "- |  | schedule empty | content c"},
      {{3, 0}, "- |  | schedule 3 | content d"},
      {{6, 0}, "- |  | - | content unshown"},
  };
  for (const auto& [range, expected] : cases) {
    EXPECT_EQ(Name(m_guide.At("tag:5", range.start)) + " | " +
                  Names(m_guide.Within("tag:5", range)) + " | " +
                  Name(m_guide.Schedule("tag:5", range)) + " | " +
                  Name(m_guide.Content("tag:5", range)),
              expected)
        << range.start << "+" << range.duration;
  }
}

TEST_F(NoBusGuideQuery, ServicesGoByTheirGlobalIdWhereTheyHaveOne) {
  EXPECT_EQ(Name(m_guide.Service("tag:5")), "service");
  EXPECT_EQ(Name(m_guide.At("6", 105)), "a@100");
  for (const char* unknown : {"5", "nobody"}) {
    EXPECT_EQ(Name(m_guide.Service(unknown)), "-");
    EXPECT_EQ(Name(m_guide.Content(unknown, {100, 1})), "-");
    EXPECT_THAT(m_guide.Within(unknown, {0, UINT32_MAX}), testing::IsEmpty());
    EXPECT_EQ(Names({m_guide.At(unknown, 100), m_guide.Item(unknown, "a", 100),
                     m_guide.Neighbour(unknown, 100, "a", eRelative_Position_Current)}),
              "- - -");
  }
  EXPECT_EQ(m_guide.ServiceCount(), 2U);
  EXPECT_EQ(m_guide.ProgramCount(), 9U);
  EXPECT_EQ(m_guide.First(), 100U);
  EXPECT_THAT(m_reports, ElementsAre(HasSubstr("e is listed instead of f")));
}

TEST_F(NoBusGuideQuery, NeighboursGoByStart) {
  using Case = std::tuple<const char*, std::uint32_t, const char*>;
  const Case neighbours[] = {{"a", 100, "- a@100 b@200"},     {"b", 200, "a@100 b@200 c@400"},
                             {"d", 500, "c@400 d@500 a@600"}, {"a", 600, "d@500 a@600 e@700"},
                             {"f", 700, "a@600 f@700 b@800"}, {"x", 700, "a@600 e@700 b@800"},
                             {"b", 800, "e@700 b@800 -"},     {"a", 101, "a@100 - b@200"}};
  for (const auto& [content, start, expected] : neighbours) {
    std::vector<const Program*> programs;
    for (const auto position :
         {eRelative_Position_Previous, eRelative_Position_Current, eRelative_Position_Next}) {
      programs.push_back(m_guide.Neighbour("tag:5", start, content, position));
    }
    EXPECT_EQ(Names(programs), expected) << start << " " << content;
  }
  const Case items[] = {
      {"a", 600, "a@600"}, {"c", 510, "c@400"}, {"f", 700, "f@700"}, {"a", 300, "-"}};
  for (const auto& [content, moment, expected] : items) {
    EXPECT_EQ(Name(m_guide.Item("tag:5", content, moment)), expected);
  }
}

TEST(NoBusGuide, TimeGoesOnBehindTheEndOfTheEra) {
  constexpr std::uint32_t kEnd = 4294967196;  // 100 seconds before
  std::vector<Fragment> fragments = {
      MakeFragment("s", "5", ServiceFragment{}), MakeContent("a"), MakeContent("b"),
      MakeContent("c"), MakeSchedule("1", "5", "c 50 100  a 4294967196 50  b 4294967246 100")};
  const Report none = [](const std::string& line) { FAIL() << line; };
  const Guide guide(fragments, 0, none);
  EXPECT_EQ(Name(guide.At("5", 49)), Name(guide.At("5", UINT32_MAX)));
  EXPECT_EQ(Name(guide.At("5", 50)), "c@50");
  EXPECT_EQ(guide.Neighbour("5", 50, "c", eRelative_Position_Previous), guide.At("5", 0));
  EXPECT_EQ(guide.Within("5", {kEnd, 200}).size(), 3U);
  EXPECT_EQ(guide.First(), kEnd);
  EXPECT_EQ(Name(guide.Schedule("5", {kEnd, 250})), "schedule 1");

  EXPECT_TRUE(guide.HasSameFragments(Guide(fragments, 1, none)));
  fragments[1].bytes = "others";
  EXPECT_FALSE(guide.HasSameFragments(Guide(fragments, 0, none)));
}

std::time_t Local(const char* text) {
  std::tm time{};
  time.tm_isdst = -1;
  return strptime(text, "%Y-%m-%d %H:%M", &time) == nullptr ? -1 : std::mktime(&time);
}

TEST(NoBusGuide, AGuideMovesToToday) {
  // Zone, start of the guide, now, start of the moved guide.
  const char* const cases[][4] = {
      {"UTC0", "2026-01-05 00:00", "2026-07-10 00:00", "2026-07-10 00:00"},
      {"UTC0", "2026-01-05 06:00", "2026-07-10 23:59", "2026-07-10 06:00"},
      {"UTC0", "2026-01-05 06:00", "2026-07-10 05:59", "2026-07-09 06:00"},
      {"UTC0", "2026-01-05 06:00", "2025-02-28 12:00", "2025-02-28 06:00"},
      {"JST-9", "2026-01-05 09:00", "2026-07-10 08:00", "2026-07-09 09:00"},
      // From winter into summer: the same place in the day.
      {"EST5EDT,M3.2.0,M11.1.0", "2026-01-05 19:00", "2026-07-10 20:00", "2026-07-10 19:00"},
  };
  for (const auto& [zone, first, now, expected] : cases) {
    setenv("TZ", zone, 1);
    tzset();
    const std::uint32_t start = esg::tools::NtpFromUnix(Local(first));
    const std::uint32_t moved = start + ShiftToToday(start, Local(now));
    EXPECT_EQ(esg::tools::UnixFromNtp(moved, esg::tools::kNtpRollover), Local(expected))
        << zone << " " << now;
  }
}

}  // namespace
}  // namespace guide
