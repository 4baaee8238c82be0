#include <ESGMarshal.h>
#include <IPCS/ESGMessageBuffer.h>
#include <gmock/gmock.h>
#include <json/writer.h>

#include <numeric>

#include "GuideFiles.h"
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

/// Every byte that XML accepts, and some that are not UTF-8.
std::string EveryByte() {
  std::string bytes(254, '\0');
  std::iota(bytes.begin(), bytes.end(), '\1');
  bytes.erase(bytes.find('<'), 1);
  bytes.erase(bytes.find('&'), 1);
  return bytes + "\xc3\"\xff\xe2\x82";
}

/// Service 5 shows content c 33 times, for ten seconds each, from 1000 on. The time is 1015.
class NoBusGuideListener : public testing::Test {
 protected:
  NoBusGuideListener() {
    m_folder.Write("c.xml", m_content);
    m_folder.Write("s.xml", "<Service id='5'/>");
    std::string schedule = "<Schedule><ServiceReference idRef='5'/><ContentReference idRef='c'>";
    for (int start = 1000; start < 1330; start += 10) {
      schedule += "<PresentationWindow startTime='" + std::to_string(start) + "' duration='10'/>";
    }
    m_folder.Write("p.xml", m_schedule = schedule + "</ContentReference></Schedule>");
    Read();
  }

  void Read() { m_listener.SetGuide(Source(m_folder.path, false, m_reports.report).Read(1)); }

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
      <ContentIcon MIMEType="m" width="-2">u</ContentIcon></PrivateExt>)" +
                                EveryByte() + "</Content>\n";
  std::string m_schedule;
  Reports m_reports;
  const TemporaryFolder m_folder;
  SaveFolder m_saves;
  GuideListener m_listener{m_folder.path, m_saves, [] { return 1015U; }, m_reports.report};
};

TEST_F(NoBusGuideListener, EveryMethodAnswers) {
  const std::tuple<const char*, const char*, int> cases[] = {
      // 0: not found
      {"GetPresentProgram", kPresent, 1010},
      {"GetProgram", R"({"globalServiceId":"5","Start":1010,"eRelative_Position":1})", 1020},
      {"GetProgram", R"({"globalServiceId":"5","Start":1010,"eRelative_Position":-1})", 1000},
      {"GetProgramItem", R"({"global_service_id":"5","ContentId":"c","start_time":1090})", 1090},
  };
  for (const auto& [method, request, start] : cases) {
    const Json::Value reply = Ask(method, request);
    EXPECT_EQ(reply["ret"].asBool(), start != 0) << request;
    EXPECT_EQ(reply["Start"].asInt(), start);
    EXPECT_EQ(reply["globalServiceId"].asString(), start == 0 ? "" : "5");
  }
  const char* range = R"({"global_service_id":"5","start_time":1015,"duration":20,"BB":true})";
  const Json::Value list = Ask("GetProgramList", range)["ESGProgramMap"];
  ASSERT_THAT(list, SizeIs(3));
  EXPECT_EQ(list[2]["key"], 1030);
  EXPECT_THAT(list[2]["title"].asString(), HasSubstr("\U0001F388"));
  EXPECT_EQ(Ask("GetScheduleFragment", range)["xmlFragment"], m_schedule);
  EXPECT_EQ(Ask("GetServiceFragment", range)["xmlFragment"], "<Service id='5'/>");
  EXPECT_EQ(Ask("GetContentFragment", range)["xmlFragment"], m_content);
  EXPECT_THAT(m_reports.lines, IsEmpty());
  m_folder.Write("c.xml", "<Content id='c'/>");
  EXPECT_EQ(Ask("GetContentFragment", range)["ret"], false);
  EXPECT_THAT(m_reports.lines, ElementsAre(HasSubstr("c.xml: has changed since")));
}

TEST_F(NoBusGuideListener, BadRequestsAreRefusedWithOneLine) {
  const std::pair<const char*, std::string> cases[] = {
      {"GetPresentProgram", "{}"},
      {"GetPresentProgram", R"({"global_service_id":5})"},
      {"GetPresentProgram", R"({"global_service_id":)" + std::string(100000, '[')},
      {"GetPresentProgram", R"({"global_service_id":")" + std::string(2 << 20, 'x') + "\"}"},
      {"GetProgramList", R"({"global_service_id":"5","start_time":4294967296,"duration":1})"},
      {"GetProgram", R"({"globalServiceId":"5","Start":1000,"eRelative_Position":2})"},
      {"GetServiceFragment", R"({"global_service_id":"5","BB":"true"})"},
      {"line\nbreak", kPresent},
  };
  for (const auto& [method, request] : cases) {
    m_reports.lines.clear();
    EXPECT_EQ(Ask(method, request)["ret"], false) << request.substr(0, 99);
    ASSERT_THAT(m_reports.lines, ElementsAre(HasSubstr("request refused")))
        << request.substr(0, 99);
    EXPECT_EQ(m_reports.lines[0].find('\n'), std::string::npos);
    EXPECT_LT(m_reports.lines[0].size(), 2000U);
  }
}

TEST_F(NoBusGuideListener, AnAnswerLargerThanAMessageIsRefused) {
  const std::string synopsis(kMaxRecord - 1000, 's');
  m_folder.Write("c.xml", "<Content id='c'><Description text='" + synopsis + "'/></Content>");
  Read();
  const std::string request = R"({"global_service_id":"5","start_time":1000,"duration":)";
  EXPECT_EQ(Ask("GetProgramList", request + "310}")["ret"], true);
  EXPECT_EQ(Ask("GetProgramList", request + "330}")["ret"], false);
  EXPECT_THAT(m_reports.lines, ElementsAre(HasSubstr("ask for less")));
}

TEST_F(NoBusGuideListener, NothingIsSavedOutsideTheFolder) {
  const TemporaryFolder folder;
  const std::filesystem::path& root = folder.path;
  const std::filesystem::path save = root / "save";
  std::filesystem::create_directories(save / "sub");
  std::filesystem::create_directory_symlink(root, save / "out");
  std::filesystem::create_symlink(root / "target.xml", save / "link.xml");
  folder.Write("save/old.xml", "old and longer than the new");
  m_saves = SaveFolder(save, {1, 0});
  for (const std::string& path : {"a.xml"s, save.string() + "//sub///b.xml", "old.xml"s}) {
    EXPECT_TRUE(Save(path)) << path;
  }
  EXPECT_THAT(m_reports.lines, IsEmpty());
  std::size_t refused = 0;
  for (const std::string& path :
       {""s, "sub/"s, "."s, "//sub//b.xml"s, "../e.xml"s, "sub/../e.xml"s, "out/e.xml"s,
        "link.xml"s, (root / "e.xml").string(), save.string() + "-e.xml", "e.xml\0x"s}) {
    EXPECT_FALSE(Save(path)) << path;
    EXPECT_THAT(m_reports.lines, SizeIs(++refused)) << path;
  }
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
    if (entry.is_regular_file()) {
      files.push_back(entry.path().lexically_relative(save));
      EXPECT_EQ(entry.file_size(), std::string("<Service id='5'/>").size()) << entry.path();
    }
  }
  EXPECT_THAT(files, testing::UnorderedElementsAre("a.xml", "sub/b.xml", "old.xml"));
  folder.Write("save/large", std::string(1 << 20, 'x'));
  const std::pair<SaveFolder, const char*> noRoom[] = {
      {SaveFolder(save, {1, 0}), "more than the quota of 1 MiB"},
      {SaveFolder(save, {9, UINT32_MAX}), "MiB would stay free on the disk"}};
  for (const auto& [saves, reason] : noRoom) {
    m_saves = saves;
    EXPECT_FALSE(Save("a.xml"));
    EXPECT_THAT(m_reports.lines.back(), HasSubstr(reason));
  }
}

}  // namespace
}  // namespace esg::guide
