#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>

#include "Guide.h"
#include "GuideFiles.h"
#include "common/Time.h"

namespace esg::guide {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

std::string Content(const std::string& id, const std::string& inner = "") {
  return "<Content id='" + id + "'><Length>PT25S</Length>" + inner + "</Content>";
}

/// `programs`, such as "a 100 50", are contents with their start and duration.
std::string Schedule(const std::string& services, const std::string& programs) {
  std::ostringstream xml;
  xml << "<Schedule>";
  std::istringstream words(services);
  for (std::string id; words >> id;) {
    xml << "<ServiceReference idRef='" << id << "'/>";
  }
  std::istringstream text(programs);
  std::string start;
  std::string duration;
  for (std::string content; text >> content >> start >> duration;) {
    xml << "<ContentReference idRef='" << content << "'><PresentationWindow startTime='" << start
        << "' duration='" << duration << "'/></ContentReference>";
  }
  xml << "</Schedule>";
  return xml.str();
}

/// Each fragment in a file, named.
Files MakeFiles(const std::vector<std::pair<std::string, std::string>>& fragments) {
  Files files;
  for (const auto& [name, xml] : fragments) {
    files.push_back(ReadFile(name + ".xml", xml));
  }
  return files;
}

std::string Name(const Program* program) {
  return program == nullptr
             ? "-"
             : program->content->fragment->id + "@" + std::to_string(program->time.start);
}

std::string Name(const Kept* kept) {
  return kept == nullptr ? "-" : kept->file->name.substr(0, kept->file->name.find('.'));
}

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
      MakeFiles(
          {{"service", "<Service id='5' globalServiceID='tag:5'/>"},
           {"bare", "<Service id='6'/>"},
           {"content a", Content("a", "<ServiceReference idRef='5'/>")},
           {"content b", Content("b")},
           {"content c", Content("c")},
           {"content d", Content("d")},
           {"content e", Content("e")},
           {"content f", Content("f")},
           {"unshown", Content("unshown", "<ServiceReference idRef='6'/>")},
           {"schedule 1", Schedule("5", "a 100 100  b 200 100  c 400 200")},
           {"schedule 2", Schedule("5", "c 400 200  d 500 20  a 600 100  f 700 50  e 700 60")},
           {"empty", Schedule("6", "")},
           {"schedule 3", Schedule("tag:5", "b 800 0")},
           {"schedule 4", Schedule("6", "not-sent 100 10")}}),
      0, [this](const std::string& line) { m_reports.push_back(line); }};
};

TEST_F(NoBusGuideQuery, RangesAreHalfOpen) {
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
      {{150, 0}, "a@100 |  | schedule 1 | content a"},
      {{0, 0}, "- |  | - | -"},
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
  EXPECT_EQ(Name(m_guide.Find("tag:5")->description), "service");
  EXPECT_EQ(Name(m_guide.At("6", 105)), "not-sent@100");
  EXPECT_EQ(Name(m_guide.Content("6", {105, 1})), "-");
  EXPECT_EQ(Name(m_guide.Find("tag:5")->firstContent), "content a");
  EXPECT_EQ(Name(m_guide.Find("6")->firstContent), "unshown");
  EXPECT_EQ(Name(m_guide.Find("6")->firstSchedule), "empty");
  for (const char* unknown : {"5", "nobody"}) {
    EXPECT_EQ(m_guide.Find(unknown), nullptr);
    EXPECT_EQ(Name(m_guide.Content(unknown, {100, 1})), "-");
    EXPECT_THAT(m_guide.Within(unknown, {0, UINT32_MAX}), testing::IsEmpty());
    EXPECT_EQ(Names({m_guide.At(unknown, 100), m_guide.Item(unknown, "a", 100),
                     m_guide.Neighbour(unknown, 100, "a", eRelative_Position_Current)}),
              "- - -");
  }
  EXPECT_EQ(m_guide.Services().size(), 2U);
  EXPECT_EQ(m_guide.ProgramCount(), 9U);
  EXPECT_EQ(m_guide.First(), 100U);
  EXPECT_THAT(m_reports, ElementsAre(HasSubstr("shows content not-sent"),
                                     HasSubstr("e is listed instead of f")));
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

TEST(NoBusGuide, TimeGoesOnAfterTheEndOfTheEra) {
  constexpr std::uint32_t kEnd = 4294967196;  // 100 seconds before
  auto fragments = std::vector<std::pair<std::string, std::string>>{
      {"s", "<Service id='5'/>"},
      {"a", Content("a")},
      {"b", Content("b")},
      {"c", Content("c")},
      {"schedule", Schedule("5", "c 50 100  a 4294967196 50  b 4294967246 100")}};
  const Report none = [](const std::string& line) { FAIL() << line; };
  const Guide guide(MakeFiles(fragments), 0, none);
  EXPECT_EQ(Name(guide.At("5", 49)), Name(guide.At("5", UINT32_MAX)));
  EXPECT_EQ(Name(guide.At("5", 50)), "c@50");
  EXPECT_EQ(guide.Neighbour("5", 50, "c", eRelative_Position_Previous), guide.At("5", 0));
  EXPECT_EQ(guide.Within("5", {kEnd, 200}).size(), 3U);
  EXPECT_EQ(guide.First(), kEnd);
  EXPECT_EQ(Name(guide.Schedule("5", {kEnd, 250})), "schedule");

  EXPECT_TRUE(guide.HasSameFragments(Guide(MakeFiles(fragments), 1, none)));
  fragments[1].second += "\n";
  EXPECT_FALSE(guide.HasSameFragments(Guide(MakeFiles(fragments), 0, none)));
}

TEST(NoBusGuide, ABroadcastCannotBecomeMoreThanTheLimits) {
  std::string services;
  std::string programs;
  for (int i = 0; i < 400; ++i) {
    services += "s" + std::to_string(i) + " ";
    programs += "c " + std::to_string(1000 + i) + " 1 ";
  }
  std::string many;
  for (std::size_t i = 0; i <= kMaxServices; ++i) {
    many += "t" + std::to_string(i) + " ";
  }
  Reports reports;
  const Guide guide(MakeFiles({{"c", Content("c")},
                               {"product", Schedule(services, programs)},
                               {"fine", Schedule("5", "c 1 1")},
                               {"services", Schedule(many, "c 1 1")},
                               {"last", Schedule("5", "c 2 1")}}),
                    0, reports.report);
  EXPECT_EQ(guide.Services().size(), kMaxServices);
  EXPECT_EQ(guide.ProgramCount(), kMaxServices + 1);
  const auto reported = [&](const std::string& part) {
    return std::count_if(reports.lines.begin(), reports.lines.end(), [&](const std::string& line) {
      return line.find(part) != std::string::npos;
    });
  };
  EXPECT_EQ(reported("product.xml: a Schedule of 160000 programmes, left out"), 1);
  EXPECT_EQ(reported("more than 10000 services"), 1);
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
}  // namespace esg::guide
