#include <ESGMarshal.h>
#include <gmock/gmock.h>
#include <json/writer.h>
#include <sys/stat.h>

#include <map>
#include <sstream>

#include "Check.h"
#include "GuideFiles.h"
#include "Source.h"
#include "TemporaryFolder.h"
#include "Unit.h"

namespace esg::guide {
namespace {

using namespace esg::test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::PrintToString;

std::string Join(const IdList& ids) {
  std::string joined;
  ids.ForEach([&](std::string_view id) { joined += " " + std::string(id); });
  return joined;
}

// All that was read from a fragment, in one line.
std::string Describe(const Fragment& fragment) {
  std::ostringstream line;
  line << fragment.id << '/' << fragment.version;
  if (const auto* service = std::get_if<ServiceFragment>(&fragment.body)) {
    line << " service " << service->globalId << '|' << service->name << '|' << service->channel;
  } else if (const auto* schedule = std::get_if<ScheduleFragment>(&fragment.body)) {
    line << " schedule" << Join(schedule->services) << ':';
    for (const Showing& showing : schedule->showings) {
      line << ' ' << schedule->contents.At(showing.content) << '@' << showing.time.start << '+'
           << showing.time.duration;
    }
  } else {
    const auto& content = std::get<ContentFragment>(fragment.body);
    Json::Value record;
    std::string text = "{" + content.text.bytes;
    EXPECT_TRUE(ESGMarshal::ParseToJson(text, record)) << text;
    line << " content" << Join(content.services) << '|' << record["title"].asString() << '|'
         << record["synopsis"].asString() << '|' << record["genre"].asString() << '|'
         << content.length;
    if (!record["privateExt"].isNull()) {
      line << '|' << Json::FastWriter().write(record["privateExt"]);
    }
  }
  return line.str();
}

TEST(NoBusGuideFragment, EveryFormIsRead) {
  // What is sent; what is read from it, if anything; what is reported, if anything.
  const std::string cases[][3] = {
      {R"(<Service xmlns="urn:a" id="5" globalServiceID="tag:x" version="3"/>)",
       "5/3 service tag:x||", ""},
      {R"(<?xml version="1.0"?><!-- & --><o:Service xmlns:o="u" id="5"><Name>N</Name><PrivateExt>
          <s:ATSC3ServiceExtension xmlns:s="t"><s:MajorChannelNum>33</s:MajorChannelNum>
          <s:MinorChannelNum>1</s:MinorChannelNum></s:ATSC3ServiceExtension></PrivateExt>
          </o:Service>)",
       "5/0 service |N|33.1", ""},
      {R"(<Service version="1"/>)", "", "without an id"},
      // Windows: the end, else the duration, else nothing yet; across the era's end; senseless.
      {R"(<Schedule id="s"><ServiceReference idRef="5"/><ContentReference idRef="c">
          <PresentationWindow startTime="100" endTime="160" duration="9"/>
          <PresentationWindow startTime="200" duration="30"/><PresentationWindow startTime="300"/>
          <PresentationWindow startTime="400" duration="PT1M30S"/>
          <PresentationWindow startTime="4294967290" endTime="4"/>
          <PresentationWindow startTime="600" endTime="500" duration="8"/>
          </ContentReference></Schedule>)",
       "s/0 schedule 5: c@100+60 c@200+30 c@300+0 c@400+90 c@4294967290+10 c@600+8", ""},
      {R"(<a:Schedule xmlns:a="u"><a:ServiceReference idRef="5"/><a:ServiceReference idRef="6"/>
          <a:ContentReference idRef="c"><PresentationWindow startTime="-1"/><PresentationWindow/>
          <PresentationWindow startTime="4294967296"/></a:ContentReference></a:Schedule>)",
       "/0 schedule 5 6:", "3 windows"},
      {R"(<Schedule id="s"><ContentReference idRef="c"/></Schedule>)", "", "without a service"},
      // Texts as attribute and as content; the first that says anything; white space; CDATA.
      {R"(<Content id="c" version="2"><ServiceReference idRef="5"/><Name text="T" xml:lang="en"/>
          <Name text="U" xml:lang="fr"/><Description text="" xml:lang="en"/><Description text="D"/>
          <Length>PT1H30M</Length><Genre href="http://g/genre-cs/:120"/></Content>)",
       "c/2 content 5|T|D|Talk|5400", ""},
      {"<Content id='c'><Name lang='eng'>\n T &amp; &#x55; <![CDATA[& V]]></Name><Description/>"
       "<Genre>Quiz</Genre><Genre href='urn:x:166'/><Genre href='urn:x:9999'/></Content>",
       "c/0 content|T & U & V||Quiz, Sitcom, 9999|0", ""},
      // The private extension, with and without one more element around it.
      {R"(<Content id="c"><PrivateExt xmlns:sa="s"><sa:ContentIcon MIMEType="image/png" width="2"
          height="3">http://e/?a=1&amp;b=2</sa:ContentIcon><sa:ATSC3ContentExtension>
          <sa:ContentIcon width="wide">u</sa:ContentIcon><sa:Preview usage="trailer">
          <sa:PreviewIcon dataSize="4">i</sa:PreviewIcon><sa:PreviewContent height="5">m
          </sa:PreviewContent><sa:Description text="P" xml:lang="en"/><sa:Description lang="de">Q
          </sa:Description></sa:Preview></sa:ATSC3ContentExtension></PrivateExt></Content>)",
       "c/0 content||||0|{\"contentIcons\":["
       R"({"dataSize":0,"height":3,"mimeType":"image/png","uri":"http://e/?a=1&b=2","width":2},)"
       R"({"dataSize":0,"height":0,"mimeType":"","uri":"u","width":0}],"previews":[{"contents":)"
       R"([{"dataSize":0,"height":5,"mimeType":"","uri":"m","width":0}],"descriptions":)"
       R"([{"lang":"en","text":"P"},{"lang":"de","text":"Q"}],"icons":)"
       R"([{"dataSize":4,"height":0,"mimeType":"","uri":"i","width":0}],"usage":"trailer"}]})"
       "\n",
       ""},
      // Not well-formed, but plain enough.
      {"<Content id='c'><Name text='A & B'/><Description>C&D &copy; &#12</Description></Content>",
       "c/0 content|A & B|C&D &copy; &#12||0", "ampersand"},
      {"<Content id='c'><Name text='caf\xe9'/></Content>", "c/0 content|caf\uFFFD|||0", ""},
      {"<?xml version='1.0' encoding='iso-8859-1'?><Content id='c'><Name text='\xe9'/></Content>",
       "c/0 content|\u00e9|||0", ""},
      // Beyond help.
      {"<Content id='c'><Name text='A'/></Contents>", "", "left out: Start-end tags mismatch"},
      {"just text", "", "left out"},
      {"<PreviewData id='p'/>", "", "its root is PreviewData"},
  };
  for (const auto& [xml, expected, report] : cases) {
    SCOPED_TRACE(xml);
    Reports reports;
    std::string bytes = xml;
    const auto fragment = FragmentParser().Parse(bytes.data(), bytes.size(), reports.report);
    EXPECT_EQ(fragment ? Describe(*fragment) : "", expected);
    ASSERT_EQ(reports.lines.size(), report.empty() ? 0U : 1U);
    EXPECT_THAT(PrintToString(reports.lines), HasSubstr(report));
  }
}

/// A descriptor that names some units.
std::string Descriptor(const std::vector<std::string>& units) {
  std::string xml = "<d:ServiceGuideDeliveryDescriptor xmlns:d='u'><d:DescriptorEntry>";
  for (const std::string& unit : units) {
    xml += "<d:ServiceGuideDeliveryUnit contentLocation='http://h/" + unit + "'/>";
  }
  return xml + "</d:DescriptorEntry></d:ServiceGuideDeliveryDescriptor>";
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
    Files files;
    for (const char name : sent) {
      files.push_back(ReadFile(std::string(1, name) + ".xml", xml[name]));
    }
    std::string kept;
    for (const Kept& fragment : KeepNewest(files, reports.report)) {
      kept += fragment.file->name[0];
    }
    EXPECT_EQ(kept, expected) << sent;
    EXPECT_EQ(reports.lines.size(), count) << sent;
  }
}

TEST(NoBusGuideFragment, UnitsGiveWhatCanBeRead) {
  using Ids = std::vector<std::string>;
  const std::string unit = Unit({"<Content id='a'/>\n", "<Content id='b'/>\n", "<x/>\n"});
  std::string promised = unit;
  promised[8] = 100;
  std::string inside = unit;  // the second starts within the first
  inside[9 + 12 + 11] = 5;
  std::string beyond = unit;
  beyond[9 + 12 + 8] = 1;
  std::string other = unit;
  other[9 + 3 * 12 + 1] = 7;
  std::string extended = unit + "<Content id='e'/>";
  extended[3] = static_cast<char>(unit.size());
  // What is stored; the ids read; the report.
  const std::tuple<std::string, Ids, std::string> cases[] = {
      {unit, {"a", "b"}, "u: fragment 3: not a fragment"},
      {Gzip(unit), {"a", "b"}, "u: fragment 3: not a fragment"},
      {unit.substr(0, 70), {"a"}, "fragment 2: not readable"},
      {unit.substr(0, 30), {}, "table of 3 fragments is longer"},
      {Gzip(unit).substr(0, Gzip(unit).size() - 9), {"a", "b"}, "cut off or damaged"},
      {promised, {}, "table of 100 fragments is longer"},
      {inside, {"a"}, "1 of its 3 fragments are not where it says"},
      {beyond, {"a"}, "1 of its 3 fragments are not where it says"},
      {other, {"b"}, "fragment 2: not a fragment"},
      {extended, {"a", "b"}, "fragment 3: not a fragment"},
      {Gzip(std::string(kMaxFile + 1, ' ')), {}, "unpacks to more than 64 MiB"},
      {"text", {}, "not a fragment, a delivery unit or a descriptor"},
      {Descriptor({"v"}), {}, ""},
  };
  for (const auto& [stored, expected, report] : cases) {
    const auto file = ReadFile("u", stored);
    Ids ids;
    for (const Entry& entry : file->fragments) {
      ids.push_back(entry.fragment->id);
    }
    EXPECT_EQ(ids, expected) << report;
    EXPECT_THAT(PrintToString(file->faults), HasSubstr(report));
    EXPECT_EQ(file->faults.empty(), report.empty());
  }
  // Units that no descriptor names are stale, unless none is named.
  for (const char* named : {"u", "elsewhere"}) {
    Reports reports;
    const bool isNamed = named == std::string("u");
    const auto kept = KeepNewest({ReadFile("d", Descriptor({named, "v"})), ReadFile("u", unit),
                                  ReadFile("w", Gzip(Unit({"<Content id='w'/>"})))},
                                 reports.report);
    EXPECT_EQ(kept.size(), isNamed ? 2U : 3U);
    EXPECT_EQ(reports.lines.size(), isNamed ? 1U : 0U);
  }
}

TEST(NoBusGuideFragment, FilesAreReadOnceAndAgainWhenTheyChange) {
  const TemporaryFolder folder;
  const std::string largest = "<Content id='d'/>";
  folder.Write("b.xml", "<Content id='c'/>");
  folder.Write("a.XML", "<Service id='s'/>");
  folder.Write("empty.xml", "");
  folder.Write("huge.xml", largest + std::string(kMaxFragment + 1 - largest.size(), ' '));
  folder.Write("largest.xml", largest + std::string(kMaxFragment - largest.size(), ' '));
  folder.Write("note.txt", "<Content id='e'/>");
  folder.Write(".hidden.xml", "<Content id='f'/>");
  folder.Write("unit", Gzip(Unit({"<Content id='u'/>", "<Content id='v'/>\n"})));
  std::filesystem::create_directory(folder.path / "folder.xml");
  std::filesystem::create_symlink("nowhere", folder.path / "link.xml");
  ASSERT_EQ(mkfifo((folder.path / "pipe.xml").c_str(), 0600), 0);
  const Folder source(folder.path);
  const Files files = source.Read({}, 3);
  std::string read;
  std::string faults;
  std::string bytes;
  for (const auto& file : files) {
    for (const Entry& entry : file->fragments) {
      EXPECT_TRUE(source.ReadFragment(*file, entry, bytes));
      read += file->name + ":" + entry.fragment->id + " ";
    }
    faults += PrintToString(file->faults);
  }
  EXPECT_EQ(read, "a.XML:s b.xml:c largest.xml:d unit:u unit:v ");
  EXPECT_EQ(bytes, "<Content id='v'/>\n");
  for (const char* fault : {"empty.xml: left out", "huge.xml: larger", "link.xml: left out",
                            "note.txt: not a fragment", "pipe.xml: left out: not a file"}) {
    EXPECT_THAT(faults, HasSubstr(fault));
  }
  folder.Write("b.xml", "<Content id='g'/>");
  folder.Write("unit", Unit({"<Content id='w'/>", "<Content id='v'/>\n"}));
  EXPECT_FALSE(source.ReadFragment(*files[1], files[1]->fragments[0], bytes));
  const Files again = source.Read(files, 1);
  ASSERT_EQ(again.size(), files.size());
  for (std::size_t i = 0; i < files.size(); ++i) {
    const std::vector<Entry>& before = files[i]->fragments;
    const std::vector<Entry>& now = again[i]->fragments;
    ASSERT_EQ(now.size(), before.size());
    for (std::size_t j = 0; j < now.size(); ++j) {
      const bool isNew = now[j].fragment->id == "g" || now[j].fragment->id == "w";
      EXPECT_EQ(now[j].fragment != before[j].fragment, isNew) << now[j].fragment->id;
    }
  }
  EXPECT_THROW(Folder(folder.path / "missing").Read({}, 1), std::system_error);
}

TEST(NoBusGuideFragment, TheShippedGuideHasItsOdditiesAndNoOthers) {
  Reports reports;
  const Folder folder(SHIPPED_GUIDE);
  Source source(folder, false, reports.report);
  const auto guide = source.Read(1);
  EXPECT_THAT(reports.lines, ElementsAre(HasSubstr("content-PX0002.xml: not well-formed, kept"),
                                         HasSubstr("schedule-pebblecove-10.xml: not readable"),
                                         HasSubstr("starts in the same second")));
  EXPECT_EQ(guide->Services().size(), 5U);
  EXPECT_EQ(source.Read(1), nullptr);
  std::ostringstream list;
  PrintAliases(list, *guide);
  EXPECT_THAT(list.str(), HasSubstr("\n13.1 lanternwick tag:example.com,2026:lanternwick "
                                    "Lanternwick Film & Fun\n"));
  EXPECT_THAT(list.str(), HasSubstr("\n- brindlemoor brindlemoor-5 Brindlemoor Local\n"));
}

}  // namespace
}  // namespace esg::guide
