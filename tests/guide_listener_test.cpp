#include <ESGMarshal.h>
#include <IPCS/ESGMessageBuffer.h>
#include <gmock/gmock.h>
#include <json/writer.h>

#include <numeric>

#include "Listener.h"
#include "Source.h"
#include "TemporaryFolder.h"

namespace esg::guide {
namespace {

using namespace esg::test;
using namespace std::string_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char kPresent[] = R"({"global_service_id":"5"})";

/// Of those that XML takes; also bytes that are not UTF-8.
std::string EveryByte() {
  std::string bytes(254, '\0');
  std::iota(bytes.begin(), bytes.end(), '\1');
  bytes.erase(bytes.find('<'), 1);
  bytes.erase(bytes.find('&'), 1);
  return bytes + "\xc3\"\xff\xe2\x82";
}

/// Content c is on service 5 ten times, for ten seconds each, from 1000 on; now it is 1015.
class NoBusGuideListener : public testing::Test {
 protected:
  NoBusGuideListener() {
    m_folder.Write("c.xml", m_content);
    m_folder.Write("s.xml", "<Service id='5'/>");
    std::string schedule = "<Schedule><ServiceReference idRef='5'/><ContentReference idRef='c'>";
    for (int start = 1000; start < 1100; start += 10) {
      schedule += "<PresentationWindow startTime='" + std::to_string(start) + "' duration='10'/>";
    }
    m_folder.Write("p.xml", m_schedule = schedule + "</ContentReference></Schedule>");
    Read();
  }

  void Read() {
    m_source = std::make_unique<Source>(m_guideFolder, false, m_report);
    m_listener.SetGuide(m_source->Read(1));
  }

  Json::Value Ask(const std::string& method, std::string request) {
    ESGMessageBuffer in;
    ESGMessageBuffer out;
    in.PushConcatenated(request.size(), request.data());
    const bool result = m_listener.OnMethodCall(method.c_str(), in, out);
    std::string answer(out.GetAsCStr(0), out.GetFullBufferSize());
    Json::Value reply;
    EXPECT_TRUE(ESGMarshal::ParseToJson(answer, reply)) << answer;
    EXPECT_EQ(reply["ret"], result);
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    writer["emitUTF8"] = true;
    EXPECT_TRUE(answer == Json::writeString(writer, reply)) << answer.substr(0, 2000);
    return reply;
  }

  bool Save(const std::string& path) {
    const std::string request = R"({"BB":true,"global_service_id":"5","path":)";
    return Ask("SaveServiceFragment", request + Json::FastWriter().write(path) + "}")["ret"]
        .asBool();
  }

  const std::string m_content = R"(<Content id="c"><ServiceReference idRef="5"/><Name text="T\u00e4
      &#x1F388; &#1;&#8;&#9;&#10;&#12;&#13;&#31;&#127; &quot;\\/&quot;"/><Description/><PrivateExt>
      <ContentIcon MIMEType="m" width="-2">u</ContentIcon><Preview usage="n"/>
      <Preview usage="t"><PreviewIcon dataSize="4">i</PreviewIcon><PreviewIcon/><PreviewContent/>
      <Description text="P" lang="en"/></Preview></PrivateExt>)" +
                                EveryByte() + "</Content>\n";
  std::string m_schedule;
  std::vector<std::string> m_reports;
  const Report m_report = [this](const std::string& line) { m_reports.push_back(line); };
  const TemporaryFolder m_folder;
  const Folder m_guideFolder{m_folder.path};
  std::unique_ptr<Source> m_source;
  SaveFolder m_saves;
  GuideListener m_listener{m_guideFolder, m_saves, [] { return 1015U; }, m_report};
};

TEST_F(NoBusGuideListener, EveryMethodAnswers) {
  const std::tuple<const char*, const char*, int> cases[] = {
      // 0: not found
      {"GetPresentProgram", kPresent, 1010},
      {"GetProgram", R"({"globalServiceId":"5","Start":1010,"eRelative_Position":1})", 1020},
      {"GetProgram", R"({"globalServiceId":"5","Start":1010,"eRelative_Position":0})", 1010},
      {"GetProgram", R"({"globalServiceId":"5","Start":1010,"eRelative_Position":-1})", 1000},
      {"GetProgram", R"({"globalServiceId":"5","Start":1000,"eRelative_Position":-1})", 0},
      {"GetProgramItem", R"({"global_service_id":"5","ContentId":"c","start_time":1090})", 1090},
      {"GetProgramItem", R"({"global_service_id":"5","ContentId":"d","start_time":1090})", 0},
  };
  for (const auto& [method, request, start] : cases) {
    const Json::Value reply = Ask(method, request);
    EXPECT_EQ(reply["ret"].asBool(), start != 0) << request;
    if (start != 0) {
      EXPECT_EQ(reply["Start"].asInt(), start);
      EXPECT_THAT(reply["title"].asString(), HasSubstr("\U0001F388"));
      EXPECT_EQ(reply["eventID"], "c");
      EXPECT_EQ(reply["globalServiceId"], "5");
    }
  }
  const char* range = R"({"global_service_id":"5","start_time":1015,"duration":20,"BB":true})";
  const Json::Value list = Ask("GetProgramList", range)["ESGProgramMap"];
  ASSERT_THAT(list, SizeIs(3));
  EXPECT_EQ(list[2]["key"], 1030);
  EXPECT_EQ(list[2]["Start"], 1030);
  EXPECT_EQ(Ask("GetScheduleFragment", range)["xmlFragment"], m_schedule);
  EXPECT_EQ(Ask("GetServiceFragment", range)["xmlFragment"], "<Service id='5'/>");
  EXPECT_EQ(Ask("GetContentFragment", range)["xmlFragment"], m_content);
  EXPECT_THAT(m_reports, IsEmpty());
  m_folder.Write("c.xml", "<Content id='c'/>");
  EXPECT_EQ(Ask("GetContentFragment", range)["ret"], false);
  EXPECT_THAT(m_reports, ElementsAre(HasSubstr("c.xml: has changed since")));
}

TEST_F(NoBusGuideListener, BadRequestsAreRefusedWithOneLine) {
  const std::string record = R"({"globalServiceId":"5","Start":1000,"eRelative_Position":)";
  const std::pair<const char*, std::string> cases[] = {
      {"GetPresentProgram", ""},
      {"GetPresentProgram", R"(["5"])"},
      {"GetPresentProgram", "{}"},
      {"GetPresentProgram", R"({"global_service_id":5})"},
      {"GetPresentProgram", kPresent + std::string(" more")},
      {"GetPresentProgram", R"({"global_service_id":)" + std::string(100000, '[')},
      {"GetPresentProgram", R"({"global_service_id":")" + std::string(2 << 20, 'x') + "\"}"},
      {"GetProgramList", R"({"global_service_id":"5","start_time":-1,"duration":1})"},
      {"GetProgramList", R"({"global_service_id":"5","start_time":4294967296,"duration":1})"},
      {"GetProgram", record + "2}"},
      {"GetProgram", record + R"(0,"title":[]})"},
      {"GetProgram", record + R"(0,"privateExt":{"previews":[7]}})"},
      {"GetServiceFragment", R"({"global_service_id":"5","BB":"true"})"},
      {"line\nbreak", kPresent},
  };
  for (const auto& [method, request] : cases) {
    m_reports.clear();
    EXPECT_EQ(Ask(method, request)["ret"], false) << request.substr(0, 99);
    ASSERT_THAT(m_reports, ElementsAre(HasSubstr("request refused"))) << request.substr(0, 99);
    EXPECT_EQ(m_reports[0].find('\n'), std::string::npos);
    EXPECT_LT(m_reports[0].size(), 2000U);
    EXPECT_EQ(Ask("GetPresentProgram", kPresent)["ret"], true);
  }
}

TEST_F(NoBusGuideListener, AnAnswerLargerThanAMessageIsRefused) {
  const std::string synopsis(kMaxRecord - 1000, 's');
  std::string schedule = "<Schedule><ServiceReference idRef='5'/><ContentReference idRef='c'>";
  for (int start = 1; start <= 33; ++start) {
    schedule += "<PresentationWindow startTime='" + std::to_string(start) + "' duration='1'/>";
  }
  m_folder.Write("p.xml", schedule + "</ContentReference></Schedule>");
  m_folder.Write("c.xml", "<Content id='c'><Description text='" + synopsis + "'/></Content>");
  Read();
  for (const bool fits : {true, false}) {
    const std::string request = R"({"global_service_id":"5","start_time":1,"duration":)";
    EXPECT_EQ(Ask("GetProgramList", request + (fits ? "31}" : "33}"))["ret"], fits);
  }
  EXPECT_THAT(m_reports, ElementsAre(HasSubstr("ask for less")));
  m_folder.Write("c.xml",
                 "<Content id='c'><Description text='" + synopsis + synopsis + "'/></Content>");
  Read();
  EXPECT_THAT(m_reports, testing::Contains(HasSubstr("a record larger than 1 MiB, left out")));
}

TEST_F(NoBusGuideListener, NothingIsSavedOutsideTheFolder) {
  const TemporaryFolder folder;
  const std::filesystem::path& root = folder.path;
  const std::filesystem::path save = root / "save";
  EXPECT_FALSE(Save("a.xml")) << "no folder was named";
  std::filesystem::create_directories(save / "sub");
  std::filesystem::create_directory_symlink(save, root / "alias");
  std::filesystem::create_directory_symlink(root, save / "out");
  std::filesystem::create_symlink(root / "target.xml", save / "link.xml");
  folder.Write("save/old.xml", "old and longer than the new");
  m_saves = SaveFolder(root / "alias", {1, 0});
  m_reports.clear();
  for (const std::string& path : {"a.xml"s, "sub/a.xml"s, save.string() + "//sub///b.xml",
                                  (root / "alias/sub/d.xml").string(), "old.xml"s}) {
    EXPECT_TRUE(Save(path)) << path;
  }
  EXPECT_THAT(m_reports, IsEmpty());
  std::size_t refused = 0;
  for (const std::string& path :
       {""s, "sub/"s, "sub"s, "."s, ".."s, "//sub//b.xml"s, "../e.xml"s, "sub/../../e.xml"s,
        "sub/../e.xml"s, "out/e.xml"s, "link.xml"s, "missing/e.xml"s, (root / "e.xml").string(),
        save.string() + "-e.xml", "e.xml\0x"s, std::string(300, 'n')}) {
    EXPECT_FALSE(Save(path)) << path;
    EXPECT_THAT(m_reports, SizeIs(++refused)) << path;
  }
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
    if (entry.is_regular_file()) {
      files.push_back(entry.path().lexically_relative(root));
      EXPECT_EQ(entry.file_size(), std::string("<Service id='5'/>").size()) << entry.path();
    }
  }
  EXPECT_THAT(files, testing::UnorderedElementsAre("save/a.xml", "save/sub/a.xml", "save/sub/b.xml",
                                                   "save/sub/d.xml", "save/old.xml"));
  folder.Write("save/large", std::string(1 << 20, 'x'));
  const std::pair<SaveFolder, const char*> noRoom[] = {
      {SaveFolder(root / "alias", {1, 0}), "more than the quota of 1 MiB"},
      {SaveFolder(root / "alias", {9, UINT32_MAX}), "MiB would stay free on the disk"},
      {SaveFolder(root / "missing", {}), "No such file"}};
  for (const auto& [saves, reason] : noRoom) {
    m_saves = saves;
    EXPECT_FALSE(Save("a.xml")) << reason;
    EXPECT_THAT(m_reports.back(), HasSubstr(reason));
  }
}

}  // namespace
}  // namespace esg::guide
