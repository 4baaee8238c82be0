#include <gmock/gmock.h>
#include <sys/stat.h>

#include <map>
#include <sstream>

#include "Guide.h"
#include "GuideFiles.h"
#include "TemporaryFolder.h"
#include "Unit.h"

namespace esg::guide {
namespace {

using namespace esg::test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::PrintToString;

/// Everything that was read from a fragment, on one line.
std::string Describe(const Fragment& fragment) {
  std::ostringstream line;
  const auto put = [&line](std::string_view id) { line << ' ' << id; };
  line << fragment.id << '/' << fragment.version;
  if (const auto* service = std::get_if<ServiceFragment>(&fragment.body)) {
    line << ' ' << service->globalId << '|' << service->name << '|' << service->channel;
  } else if (const auto* schedule = std::get_if<ScheduleFragment>(&fragment.body)) {
    schedule->services.ForEach(put);
    line << ':';
    for (const Showing& showing : schedule->showings) {
      line << ' ' << schedule->contents.At(showing.content) << '@' << showing.time.start << '+'
           << showing.time.duration;
    }
  } else {
    const auto& content = std::get<ContentFragment>(fragment.body);
    content.services.ForEach(put);
    line << ' ' << content.length << ' ' << content.text.bytes;
  }
  return line.str();
}

TEST(NoBusGuideFragment, EveryFormIsRead) {
  const std::string none = R"(c/0 0 "eventID":"c","genre":"","privateExt":null,)";
  // The XML, what is read from it, and what is reported. Empty: nothing.
  const std::string cases[][3] = {
      {R"(<Service xmlns="urn:a" id="5" globalServiceID="tag:x" version="3"/>)", "5/3 tag:x||", ""},
      {R"(<?xml version="1.0"?><!-- & --><o:Service xmlns:o="u" id="5"><Name>N</Name><PrivateExt>
          <s:ATSC3ServiceExtension xmlns:s="t"><s:MajorChannelNum>33</s:MajorChannelNum>
          <s:MinorChannelNum>1</s:MinorChannelNum></s:ATSC3ServiceExtension></PrivateExt>
          </o:Service>)",
       "5/0 |N|33.1", ""},
      // Windows with an end, with a duration, with neither, across the end of the era, and invalid.
      {R"(<Schedule id="s"><ServiceReference idRef="5"/><ServiceReference idRef="6"/>
          <ContentReference idRef="c"><PresentationWindow startTime="100" endTime="160" duration="9"/>
          <PresentationWindow startTime="200" duration="PT1M30S"/>
          <PresentationWindow startTime="300"/>
          <PresentationWindow startTime="4294967290" endTime="4"/>
          <PresentationWindow startTime="600" endTime="500" duration="8"/>
          <PresentationWindow startTime="-1"/><PresentationWindow/>
          <PresentationWindow startTime="4294967296"/></ContentReference></Schedule>)",
       "s/0 5 6: c@100+60 c@200+90 c@300+0 c@4294967290+10 c@600+8", "3 windows"},
      // Texts as attributes and as content, empty texts, white space and CDATA.
      {R"(<Content id="c" version="2"><ServiceReference idRef="5"/><Name text="T" xml:lang="en"/>
          <Name text="U" xml:lang="fr"/><Description text="" xml:lang="en"/><Description text="D"/>
          <Length>PT1H30M</Length><Genre href="http://g/genre-cs/:120"/></Content>)",
       R"(c/2 5 5400 "eventID":"c","genre":"Talk","privateExt":null,"synopsis":"D","title":"T"})",
       ""},
      {"<Content id='c'><Name lang='eng'>\n T &amp; &#x55; <![CDATA[& V]]></Name><Description/>"
       "<Genre>Quiz</Genre><Genre href='urn:x:166'/><Genre href='urn:x:9999'/></Content>",
       R"(c/0 0 "eventID":"c","genre":"Quiz, Sitcom, 9999","privateExt":null,"synopsis":"",)"
       R"("title":"T & U & V"})",
       ""},
      // The private extension, with and without an element around it.
      {R"(<Content id="c"><PrivateExt xmlns:sa="s"><sa:ContentIcon MIMEType="image/png" width="2"
          height="3">http://e/?a=1&amp;b=2</sa:ContentIcon><sa:ATSC3ContentExtension>
          <sa:Preview usage="trailer"><sa:PreviewIcon dataSize="4">i</sa:PreviewIcon>
          <sa:Description lang="de">Q</sa:Description></sa:Preview></sa:ATSC3ContentExtension>
          </PrivateExt></Content>)",
       R"(c/0 0 "eventID":"c","genre":"","privateExt":{"contentIcons":[{"dataSize":0,"height":3,)"
       R"("mimeType":"image/png","uri":"http://e/?a=1&b=2","width":2}],"previews":[)"
       R"({"descriptions":[{"lang":"de","text":"Q"}],"icons":[{"dataSize":4,"height":0,)"
       R"("mimeType":"","uri":"i","width":0}],"usage":"trailer"}]},"synopsis":"","title":""})",
       ""},
      // Not well-formed, but readable.
      {"<Content id='c'><Name text='A & B'/><Description>C&D &copy; &#12</Description></Content>",
       none + R"("synopsis":"C&D &copy; &#12","title":"A & B"})", "ampersand"},
      {"<Content id='c'><Name text='caf\xe9'/></Content>",
       none + "\"synopsis\":\"\",\"title\":\"caf\uFFFD\"}", ""},
      // Unusable.
      {"<Service version='1'/>", "", "without an id"},
      {"<Schedule id='s'><ContentReference idRef='c'/></Schedule>", "", "without a service"},
      {"<Content id='c'><Name text='A'/></Contents>", "", "left out: Start-end tags mismatch"},
      {"<PreviewData id='p'/>", "", "its root is PreviewData"},
  };
  for (const auto& [xml, expected, report] : cases) {
    SCOPED_TRACE(xml);
    Reports reports;
    std::string bytes = xml;
    pugi::xml_document document;
    const auto fragment = ParseFragment(document, bytes.data(), bytes.size(), reports.report);
    EXPECT_EQ(fragment ? Describe(*fragment) : "", expected);
    ASSERT_EQ(reports.lines.size(), report.empty() ? 0U : 1U);
    EXPECT_THAT(PrintToString(reports.lines), HasSubstr(report));
  }
}

TEST(NoBusGuideFragment, OfFragmentsSentTwiceTheNewestStays) {
  const std::string rest = "<ServiceReference idRef='1'/></Schedule>";
  const std::map<char, std::string> xml = {{'a', "<Content id='c' version='1'/>"},
                                           {'b', "<Content id='c' version='1'><Name/></Content>"},
                                           {'A', "<Content id='c' version='2'/>"},
                                           {'s', "<Schedule id='c' version='1'>" + rest},
                                           {'t', "<Schedule id='c' version='1'> " + rest}};
  const std::tuple<std::string, std::string, std::size_t> cases[] = {
      {"aAa", "A", 0}, {"ab", "b", 1}, {"asas", "as", 0}, {"sts", "st", 1}};
  for (const auto& [sent, expected, count] : cases) {
    Reports reports;
    Files files;
    for (const char name : sent) {
      files.push_back(ReadFile(std::string(1, name) + ".xml", xml.at(name)));
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
  const std::string unit = Unit({"<Content id='a'/>\n", "<Content id='b'/>\n", "<x/>\n"});
  std::string inside = unit;  // the second starts within the first
  inside[9 + 12 + 11] = 5;
  // The stored bytes, the ids that are read, and the report.
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {Gzip(unit), "ab", "u: fragment 3: not a fragment"},
      {Gzip(unit).substr(0, Gzip(unit).size() - 9), "ab", "cut off or damaged"},
      {unit.substr(0, 30), "", "table of 3 fragments is longer"},
      {inside, "a", "1 of its 3 fragments are not where it says"},
      {Gzip(std::string(kMaxFile + 1, ' ')), "", "unpacks to more than 64 MiB"},
      {"<ServiceGuideDeliveryDescriptor b='" + std::string(1000001, '=') + "'/>", "",
       "or a descriptor"},
  };
  for (const auto& [stored, expected, report] : cases) {
    const auto file = ReadFile("u", stored);
    std::string ids;
    for (const Entry& entry : file->fragments) {
      ids += entry.fragment->id;
    }
    EXPECT_EQ(ids, expected) << report;
    EXPECT_THAT(PrintToString(file->faults), HasSubstr(report));
  }
  const auto full = ReadFile("u", unit, kMaxWeight);
  EXPECT_TRUE(full->fragments.empty());
  EXPECT_THAT(full->faults.back(), HasSubstr("2 fragments left out: the guide would take more"));
  EXPECT_EQ(full->hash, 0U) << "it would be taken for unchanged when there is room";
  // Fragments are read again from their place in the file: at another place, the guide differs.
  const std::string moved = Unit({"<x/>", "<Content id='a'/>\n", "<Content id='b'/>\n"});
  Reports reports;
  EXPECT_FALSE(Guide({ReadFile("u", unit)}, 0, reports.report)
                   .HasSameFragments(Guide({ReadFile("u", moved)}, 0, reports.report)));
  // Units that no descriptor names are stale.
  const auto kept = KeepNewest(
      {ReadFile("d",
                "<d:ServiceGuideDeliveryDescriptor xmlns:d='u'><d:DescriptorEntry>"
                "<d:ServiceGuideDeliveryUnit contentLocation='http://h/u'/></d:DescriptorEntry>"
                "</d:ServiceGuideDeliveryDescriptor>"),
       ReadFile("u", unit), ReadFile("w", Gzip(Unit({"<Content id='w'/>"})))},
      reports.report);
  EXPECT_EQ(kept.size(), 2U);
  EXPECT_EQ(reports.lines.size(), 1U);
}

TEST(NoBusGuideFragment, FilesAreReadOnceAndAgainWhenTheyChange) {
  const TemporaryFolder folder;
  folder.Write("a.XML", "<Service id='s'/>");
  folder.Write("b.xml", "<Content id='c'/>");
  folder.Write("huge.xml", "<Content id='d'/>" + std::string(kMaxFragment, ' '));
  folder.Write(".hidden.xml", "<Content id='f'/>");
  folder.Write("unit", Gzip(Unit({"<Content id='u'/>", "<Content id='v'/>\n"})));
  ASSERT_EQ(mkfifo((folder.path / "pipe.xml").c_str(), 0600), 0);
  std::map<std::string, std::shared_ptr<const Fragment>> read;
  // The ids of the fragments that were parsed, without those that are still the same objects.
  const auto newIn = [&read](const Files& files) {
    std::string ids;
    for (const auto& file : files) {
      for (const Entry& entry : file->fragments) {
        auto& known = read[entry.fragment->id];
        ids += known == entry.fragment ? "" : entry.fragment->id;
        known = entry.fragment;
      }
    }
    return ids;
  };
  const Files files = ReadFolder(folder.path, {}, 3);
  EXPECT_EQ(newIn(files), "scuv");
  EXPECT_THAT(files[2]->faults, ElementsAre(HasSubstr("huge.xml: larger")));
  EXPECT_THAT(files[3]->faults, ElementsAre(HasSubstr("pipe.xml: left out: not a file")));
  folder.Write("b.xml", "<Content id='g'/>");
  folder.Write("unit", Unit({"<Content id='w'/>", "<Content id='v'/>\n"}));
  EXPECT_EQ(newIn(ReadFolder(folder.path, files, 1)), "gw");
}

}  // namespace
}  // namespace esg::guide
