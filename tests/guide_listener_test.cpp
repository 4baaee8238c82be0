#include <ESGMarshal.h>
#include <IPCS/ESGMessageBuffer.h>
#include <gmock/gmock.h>
#include <json/writer.h>

#include <numeric>

#include "Listener.h"
#include "TemporaryFolder.h"

namespace guide {
namespace {

using namespace std::string_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char kPresent[] = R"({"global_service_id":"5"})";

std::string EveryByte() {
  std::string bytes(256, '\0');
  std::iota(bytes.begin(), bytes.end(), '\0');
  return bytes + "\xc3\"\xff\xe2\x82";
}

/// Content c is on service 5 ten times, for ten seconds each, from 1000 on; now it is 1015.
class NoBusGuideListener : public testing::Test {
 protected:
  std::unique_ptr<GuideListener> Make(SaveFolder saves, std::size_t synopsis = 0) {
    ContentFragment content;
    content.title = "T\u00e4 \U0001F388";
    content.synopsis = std::string(synopsis, 's');
    ScheduleFragment schedule{{"5"}, {{"c", {}}}};
    for (std::uint32_t start = 1000; start < 1100; start += 10) {
      schedule.contents[0].windows.push_back({start, 10});
    }
    const Report report = [this](const std::string& line) { m_reports.push_back(line); };
    return std::make_unique<GuideListener>(
        std::make_shared<const Guide>(
            std::vector<Fragment>{{"s", "<Service/>", "5", 0, ServiceFragment{}},
                                  {"c", EveryByte(), "c", 0, content},
                                  {"p", "<Schedule/>", "p", 0, schedule}},
            0, report),
        std::move(saves), [] { return 1015U; }, report);
  }

  Json::Value Ask(const std::string& method, std::string request) {
    ESGMessageBuffer in;
    ESGMessageBuffer out;
    in.PushConcatenated(request.size(), request.data());
    const bool result = m_listener->OnMethodCall(method.c_str(), in, out);
    std::string answer(out.GetAsCStr(0), out.GetFullBufferSize());
    Json::Value reply;
    EXPECT_TRUE(ESGMarshal::ParseToJson(answer, reply)) << answer;
    EXPECT_EQ(reply["ret"], result);
    return reply;
  }

  bool Save(const std::string& path) {
    const std::string request = R"({"BB":true,"global_service_id":"5","path":)";
    return Ask("SaveServiceFragment", request + Json::FastWriter().write(path) + "}")["ret"]
        .asBool();
  }

  std::vector<std::string> m_reports;
  std::unique_ptr<GuideListener> m_listener = Make(SaveFolder());
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
      EXPECT_EQ(reply["title"], "T\u00e4 \U0001F388");
      EXPECT_EQ(reply["eventID"], "c");
      EXPECT_EQ(reply["globalServiceId"], "5");
    }
  }
  const char* range = R"({"global_service_id":"5","start_time":1015,"duration":20,"BB":true})";
  const Json::Value list = Ask("GetProgramList", range)["ESGProgramMap"];
  ASSERT_THAT(list, SizeIs(3));
  EXPECT_EQ(list[2]["key"], 1030);
  EXPECT_EQ(list[2]["Start"], 1030);
  EXPECT_EQ(Ask("GetScheduleFragment", range)["xmlFragment"], "<Schedule/>");
  EXPECT_EQ(Ask("GetServiceFragment", range)["xmlFragment"], "<Service/>");
  EXPECT_EQ(Ask("GetContentFragment", range)["xmlFragment"], EveryByte());
  EXPECT_THAT(m_reports, IsEmpty());
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
    ASSERT_THAT(m_reports, ElementsAre(HasSubstr("bad request"))) << request.substr(0, 99);
    EXPECT_EQ(m_reports[0].find('\n'), std::string::npos);
    EXPECT_LT(m_reports[0].size(), 2000U);
    EXPECT_EQ(Ask("GetPresentProgram", kPresent)["ret"], true);
  }
}

TEST_F(NoBusGuideListener, AnAnswerLargerThanAMessageIsRefused) {
  m_listener = Make(SaveFolder(), std::size_t{4} << 20);
  for (const bool fits : {true, false}) {
    bool ret = false;
    const std::string request = R"({"global_service_id":"5","start_time":1000,"duration":)";
    const std::string text =
        m_listener->Answer("GetProgramList", request + (fits ? "70}" : "80}"), ret);
    EXPECT_EQ(ret, fits);
    EXPECT_LT(text.size(), std::size_t{32} << 20);
  }
  EXPECT_THAT(m_reports, ElementsAre(HasSubstr("ask for less")));
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
  m_listener = Make(SaveFolder(root / "alias"));
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
      EXPECT_EQ(entry.file_size(), std::string("<Service/>").size()) << entry.path();
    }
  }
  EXPECT_THAT(files, testing::UnorderedElementsAre("save/a.xml", "save/sub/a.xml", "save/sub/b.xml",
                                                   "save/sub/d.xml", "save/old.xml"));
  EXPECT_THROW(SaveFolder(root / "missing"), std::system_error);
}

}  // namespace
}  // namespace guide
