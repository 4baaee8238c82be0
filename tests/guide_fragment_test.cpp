#include <gmock/gmock.h>
#include <json/writer.h>
#include <sys/stat.h>

#include <map>
#include <sstream>

#include "Folder.h"
#include "Fragment.h"
#include "Guide.h"
#include "TemporaryFolder.h"

namespace guide {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::PrintToString;
using testing::StartsWith;

/// Collects the reported lines.
struct Reports {
  std::vector<std::string> lines;
  const Report report = [this](const std::string& line) { lines.push_back(line); };
};

// All that was read from a fragment, in one line.
std::string Describe(const Fragment& fragment) {
  std::ostringstream line;
  line << fragment.id << '/' << fragment.version;
  if (const auto* service = std::get_if<ServiceFragment>(&fragment.body)) {
    line << " service " << service->globalId;
  } else if (const auto* schedule = std::get_if<ScheduleFragment>(&fragment.body)) {
    line << " schedule " << PrintToString(schedule->services);
    for (const ContentReference& reference : schedule->contents) {
      line << ' ' << reference.content;
      for (const Span& window : reference.windows) {
        line << '@' << window.start << '+' << window.duration;
      }
    }
  } else {
    const auto& content = std::get<ContentFragment>(fragment.body);
    Json::Value extension;
    ATSC3ESGExtension::CESGPrivateExt::ToJson(content.extension, extension);
    line << " content " << PrintToString(content.services) << '|' << content.title << '|'
         << content.synopsis << '|' << content.genre << '|' << content.length;
    if (!extension.isNull()) {
      line << '|' << Json::FastWriter().write(extension);
    }
  }
  return line.str();
}

TEST(NoBusGuideFragment, EveryFormIsRead) {
  // What is sent; what is read from it, if anything; what is reported, if anything.
  const std::string cases[][3] = {
      {R"(<Service xmlns="urn:a" id="5" globalServiceID="tag:x" version="3"/>)",
       "5/3 service tag:x", ""},
      {R"(<?xml version="1.0"?><!-- & --><o:Service xmlns:o="u" id="5"/>)", "5/0 service ", ""},
      {R"(<Service version="1"/>)", "", "without an id"},
      // Windows: the end, else the duration, else nothing yet; across the era's end; senseless.
      {R"(<Schedule id="s"><ServiceReference idRef="5"/><ContentReference idRef="c">
          <PresentationWindow startTime="100" endTime="160" duration="9"/>
          <PresentationWindow startTime="200" duration="30"/><PresentationWindow startTime="300"/>
          <PresentationWindow startTime="400" duration="PT1M30S"/>
          <PresentationWindow startTime="4294967290" endTime="4"/>
          <PresentationWindow startTime="600" endTime="500" duration="8"/>
          </ContentReference></Schedule>)",
       R"(s/0 schedule { "5" } c@100+60@200+30@300+0@400+90@4294967290+10@600+8)", ""},
      {R"(<a:Schedule xmlns:a="u"><a:ServiceReference idRef="5"/><a:ServiceReference idRef="6"/>
          <a:ContentReference idRef="c"><PresentationWindow startTime="-1"/><PresentationWindow/>
          <PresentationWindow startTime="4294967296"/></a:ContentReference></a:Schedule>)",
       R"(/0 schedule { "5", "6" } c)", "3 windows"},
      {R"(<Schedule id="s"><ContentReference idRef="c"/></Schedule>)", "", "without a service"},
      // Texts as attribute and as content; the first that says anything; white space; CDATA.
      {R"(<Content id="c" version="2"><ServiceReference idRef="5"/><Name text="T" xml:lang="en"/>
          <Name text="U" xml:lang="fr"/><Description text="" xml:lang="en"/><Description text="D"/>
          <Length>PT1H30M</Length><Genre href="http://g/genre-cs/:120"/></Content>)",
       R"(c/2 content { "5" }|T|D|Talk|5400)", ""},
      {"<Content id='c'><Name lang='eng'>\n T &amp; &#x55; <![CDATA[& V]]></Name><Description/>"
       "<Genre>Quiz</Genre><Genre href='urn:x:166'/><Genre href='urn:x:9999'/></Content>",
       "c/0 content {}|T & U & V||Quiz, Sitcom, 9999|0", ""},
      // The private extension, with and without one more element around it.
      {R"(<Content id="c"><PrivateExt xmlns:sa="s"><sa:ContentIcon MIMEType="image/png" width="2"
          height="3">http://e/?a=1&amp;b=2</sa:ContentIcon><sa:ATSC3ContentExtension>
          <sa:ContentIcon width="wide">u</sa:ContentIcon><sa:Preview usage="trailer">
          <sa:PreviewIcon dataSize="4">i</sa:PreviewIcon><sa:PreviewContent height="5">m
          </sa:PreviewContent><sa:Description text="P" xml:lang="en"/><sa:Description lang="de">Q
          </sa:Description></sa:Preview></sa:ATSC3ContentExtension></PrivateExt></Content>)",
       "c/0 content {}||||0|{\"contentIcons\":["
       R"({"dataSize":0,"height":3,"mimeType":"image/png","uri":"http://e/?a=1&b=2","width":2},)"
       R"({"dataSize":0,"height":0,"mimeType":"","uri":"u","width":0}],"previews":[{"contents":)"
       R"([{"dataSize":0,"height":5,"mimeType":"","uri":"m","width":0}],"descriptions":)"
       R"([{"lang":"en","text":"P"},{"lang":"de","text":"Q"}],"icons":)"
       R"([{"dataSize":4,"height":0,"mimeType":"","uri":"i","width":0}],"usage":"trailer"}]})"
       "\n",
       ""},
      // Not well-formed, but plain enough.
      {"<Content id='c'><Name text='A & B'/><Description>C&D &copy; &#12</Description></Content>",
       "c/0 content {}|A & B|C&D &copy; &#12||0", "ampersand"},
      {"<Content id='c'><Name text='caf\xe9'/></Content>", "c/0 content {}|caf\uFFFD|||0", ""},
      {"<?xml version='1.0' encoding='iso-8859-1'?><Content id='c'><Name text='\xe9'/></Content>",
       "c/0 content {}|\u00e9|||0", ""},
      // Beyond help.
      {"<Content id='c'><Name text='A'/></Contents>", "", "left out: Start-end tags mismatch"},
      {"just text", "", "left out"},
      {"<PreviewData id='p'/>", "", "its root is PreviewData"},
  };
  for (const auto& [xml, expected, report] : cases) {
    SCOPED_TRACE(xml);
    Reports reports;
    const auto fragment = ParseFragment("f.xml", xml, reports.report);
    EXPECT_EQ(fragment ? Describe(*fragment) : "", expected);
    EXPECT_EQ(fragment ? fragment->bytes : xml, xml);
    ASSERT_EQ(reports.lines.size(), report.empty() ? 0U : 1U);
    EXPECT_THAT(PrintToString(reports.lines),
                AllOf(StartsWith(report.empty() ? "{}" : "{ \"f.xml: "), HasSubstr(report)));
  }
}

TEST(NoBusGuideFragment, OfFragmentsSentTwiceTheNewestStays) {
  std::map<char, std::string> xml = {{'a', "<Content id='c' version='1'/>"},
                                     {'b', "<Content id='c' version='1'><Name/></Content>"},
                                     {'A', "<Content id='c' version='2'/>"},
                                     {'s', "<Schedule id='c' version='1'>"},
                                     {'t', "<Schedule id='c' version='1'> "},
                                     {'T', "<Schedule id='c' version='3'>"},
                                     {'-', "<Schedule>"},
                                     {'=', "<Schedule> "}};
  for (const char schedule : {'s', 't', 'T', '-', '='}) {
    xml[schedule] += "<ServiceReference idRef='1'/></Schedule>";
  }
  const std::tuple<std::string, std::string, std::size_t> cases[] = {
      {"aAa", "A", 0},  {"ab", "b", 1},   {"asas", "as", 0},
      {"sts", "st", 1}, {"stTt", "T", 1}, {"-=-", "-=", 0}};
  for (const auto& [sent, expected, count] : cases) {
    Reports reports;
    std::vector<Fragment> fragments;
    for (const char name : sent) {
      fragments.push_back(*ParseFragment({name}, xml[name], reports.report));
    }
    std::string kept;
    for (const Fragment& fragment : KeepNewest(std::move(fragments), reports.report)) {
      kept += fragment.file;
    }
    EXPECT_EQ(kept, expected) << sent;
    EXPECT_EQ(reports.lines.size(), count) << sent;
  }
}

TEST(NoBusGuideFragment, FilesThatCannotBeReadAreLeftOut) {
  const TemporaryFolder folder;
  const std::string largest = "<Content id='d'/>";
  folder.Write("b.xml", "<Content id='c'/>");
  folder.Write("a.XML", "<Service id='s'/>");
  folder.Write("empty.xml", "");
  folder.Write("huge.xml", largest + std::string(kLargestFragment + 1 - largest.size(), ' '));
  folder.Write("largest.xml", largest + std::string(kLargestFragment - largest.size(), ' '));
  folder.Write("note.txt", "<Content id='e'/>");
  std::filesystem::create_directory(folder.path / "folder.xml");
  std::filesystem::create_symlink("nowhere", folder.path / "link.xml");
  ASSERT_EQ(mkfifo((folder.path / "pipe.xml").c_str(), 0600), 0);
  Reports reports;
  std::vector<std::string> kept;
  for (const Fragment& fragment : LoadFolder(folder.path, reports.report)) {
    kept.push_back(fragment.file);
  }
  EXPECT_THAT(kept, ElementsAre("a.XML", "b.xml", "largest.xml"));
  EXPECT_THAT(reports.lines,
              ElementsAre(HasSubstr("empty.xml:"), HasSubstr("huge.xml:"), HasSubstr("link.xml:"),
                          HasSubstr("pipe.xml: left out: not a file")));
  EXPECT_THROW(LoadFolder(folder.path / "missing", reports.report), std::system_error);
}

TEST(NoBusGuideFragment, TheShippedGuideHasItsOdditiesAndNoOthers) {
  Reports reports;
  const Guide guide(LoadFolder(SHIPPED_GUIDE, reports.report), 0, reports.report);
  EXPECT_THAT(reports.lines, ElementsAre(HasSubstr("content-PX0002.xml: not well-formed, kept"),
                                         HasSubstr("schedule-pebblecove-10.xml: not readable"),
                                         HasSubstr("starts in the same second")));
  EXPECT_EQ(guide.ServiceCount(), 5U);
}

}  // namespace
}  // namespace guide
