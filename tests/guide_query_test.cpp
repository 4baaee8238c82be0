#include <gmock/gmock.h>

#include <sstream>

#include "Guide.h"
#include "GuideFiles.h"

namespace esg::guide {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

/// The tests count time from here. The NTP era ends at 450.
constexpr std::uint32_t kBase = 0U - 450;

std::string Content(const std::string& id, const std::string& inner = "") {
  return "<Content id='" + id + "'><Length>PT25S</Length>" + inner + "</Content>";
}

/// `programs` lists contents with their start and duration, such as "a 100 50".
std::string Schedule(const std::string& services, const std::string& programs) {
  std::string xml = "<Schedule>";
  std::istringstream words(services);
  for (std::string id; words >> id;) {
    xml += "<ServiceReference idRef='" + id + "'/>";
  }
  std::istringstream text(programs);
  std::string content;
  std::string duration;
  for (std::uint32_t start = 0; text >> content >> start >> duration;) {
    xml.append("<ContentReference idRef='").append(content).append("'><PresentationWindow");
    xml.append(" startTime='").append(std::to_string(kBase + start)).append("' duration='");
    xml.append(duration).append("'/></ContentReference>");
  }
  return xml + "</Schedule>";
}

/// One file for each pair of a name and a fragment.
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
             : program->content->fragment->id + "@" + std::to_string(program->time.start - kBase);
}

std::string Name(const Kept* kept) {
  return kept == nullptr ? "-" : kept->file->name.substr(0, kept->file->name.find('.'));
}

std::string Names(const std::vector<const Program*>& programs) {
  std::string names;
  for (const Program* program : programs) {
    names += Name(program) + " ";
  }
  return names;
}

/// a 100-200, b 200-300, a gap, c 400-600, d 500-520 during c, a again 600-700, both e and f at
/// 700, b again 800-825.
class NoBusGuideQuery : public testing::Test {
 protected:
  Reports m_reports;
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
           {"schedule 3", Schedule("tag:5", "b 800 0")},
           {"schedule 4", Schedule("6", "not-sent 100 10")}}),
      0, m_reports.report};
};

TEST_F(NoBusGuideQuery, RangesAreHalfOpen) {
  // At the start of the range | overlapping it | the nearest Schedule | the nearest Content.
  const std::pair<Span, const char*> cases[] = {
      {{99, 2}, "- | a@100 | schedule 1 | content a"},
      {{100, 500}, "a@100 | a@100 b@200 c@400 d@500 | schedule 1 | content c"},
      {{199, 2}, "a@100 | a@100 b@200 | schedule 1 | content b"},
      {{300, 100}, "- | | schedule 1 | -"},
      {{500, 20}, "d@500 | c@400 d@500 | schedule 2 | content d"},
      {{520, 1}, "c@400 | c@400 | schedule 2 | content c"},
      {{650, 1000}, "a@600 | a@600 e@700 b@800 | schedule 3 | content e"},
      {{824, 1}, "b@800 | b@800 | schedule 3 | content b"},
      {{825, 75}, "- | | - | -"},
      {{150, 0}, "a@100 | | schedule 1 | content a"},
  };
  for (const auto& [range, expected] : cases) {
    const Span asked = {kBase + range.start, range.duration};
    EXPECT_EQ(Name(m_guide.At("tag:5", asked.start)) + " | " +
                  Names(m_guide.Within("tag:5", asked)) + "| " +
                  Name(m_guide.Schedule("tag:5", asked)) + " | " +
                  Name(m_guide.Content("tag:5", asked)),
              expected)
        << range.start << "+" << range.duration;
  }
}

TEST_F(NoBusGuideQuery, ServicesGoByTheirGlobalIdWhereTheyHaveOne) {
  EXPECT_EQ(Name(m_guide.Find("tag:5").description), "service");
  EXPECT_EQ(Name(m_guide.Find("5").description), "-");
  EXPECT_EQ(Name(m_guide.At("6", kBase + 105)), "not-sent@100");
  EXPECT_EQ(Name(m_guide.Content("6", {kBase + 105, 1})), "-");
  EXPECT_EQ(Name(m_guide.Find("6").firstContent), "unshown");
  EXPECT_THAT(m_reports.lines, ElementsAre(HasSubstr("shows content not-sent"),
                                           HasSubstr("e is listed instead of f")));
}

TEST_F(NoBusGuideQuery, NeighboursGoByStart) {
  const std::tuple<const char*, std::uint32_t, const char*> cases[] = {
      {"a", 100, "- a@100 b@200 "},     {"d", 500, "c@400 d@500 a@600 "},
      {"f", 700, "a@600 f@700 b@800 "}, {"x", 700, "a@600 e@700 b@800 "},
      {"b", 800, "e@700 b@800 - "},     {"a", 101, "a@100 - b@200 "}};
  for (const auto& [content, start, expected] : cases) {
    std::vector<const Program*> programs;
    for (const auto position :
         {eRelative_Position_Previous, eRelative_Position_Current, eRelative_Position_Next}) {
      programs.push_back(m_guide.Neighbour("tag:5", kBase + start, content, position));
    }
    EXPECT_EQ(Names(programs), expected) << start << " " << content;
  }
}

TEST(NoBusGuide, ABroadcastCannotBecomeMoreThanTheLimits) {
  std::string services;
  for (std::size_t i = 0; i <= kMaxServices; ++i) {
    services += "s" + std::to_string(i) + " ";
  }
  const std::string longId(10000, 'x');
  Reports reports;
  const Guide guide(
      MakeFiles({{"long", Schedule("s0", longId + " 3 1 " + longId + " 3 2")},
                 {"product", Schedule(services,
                                      "c 1 1 c 2 1 c 3 1 c 4 1 c 5 1 c 6 1 c 7 1 c 8 1 "
                                      "c 9 1 c 10 1")},
                 {"services", Schedule(services, "c 1 1")}}),
      0, reports.report);
  EXPECT_EQ(guide.ProgramCount(), kMaxServices + 2);
  EXPECT_THAT(reports.lines,
              testing::IsSupersetOf({HasSubstr("product.xml: a Schedule of 100010 programmes"),
                                     HasSubstr("more than 10000 services"),
                                     HasSubstr("x... is listed instead of xx")}));
  // A long id may occur in as many lines as a Schedule has windows.
  EXPECT_THAT(reports.lines, testing::Not(testing::Contains(HasSubstr(longId))));
}

}  // namespace
}  // namespace esg::guide
