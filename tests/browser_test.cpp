// The exported page in a real browser.

#include <glib.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <cstdlib>

#include "BusTest.h"
#include "ChildProgram.h"
#include "IESGService.h"
#include "RawPeer.h"
#include "TemporaryFolder.h"

namespace {

using namespace esg::test;

constexpr unsigned int kStart = 3986640000U;  // 2026-05-01 16:00 UTC
constexpr int kServices = 100;
constexpr int kProgrammes = 48;

constexpr char kHarm[] =
    // NOLINTNEXTLINE(misc-misleading-bidirectional): that is the harm
    "</bdi></script><script>harm=1</script><img src=x onerror=harm=1>\"'&\u202e]]>-->{GUIDE}";

/// Half-hour programmes of a day, all with harmful texts.
MessagePtr HarmfulDay(DBusMessage* call) {
  Json::Value reply;
  reply["ret"] = true;
  for (int i = 0; i < kProgrammes; ++i) {
    Json::Value& program = reply["ESGProgramMap"].append({});
    program["key"] = program["Start"] = kStart + static_cast<unsigned int>(i) * 1800;
    program["duration"] = 1800;
    program["title"] = program["synopsis"] = program["genre"] = kHarm + std::to_string(i);
  }
  return MakeReply(call, 1, Json::FastWriter().write(reply));
}

/// Works the page as a person would, and writes what it found as JSON.
constexpr char kProbe[] = R"html(<pre id="found"></pre><script>
guide.getBoundingClientRect();
const found = {};
const key = name => {
  document.activeElement.dispatchEvent(new KeyboardEvent("keydown", { key: name, bubbles: true }));
  const cell = document.activeElement.closest("li");
  return [rows.indexOf(cell.parentNode), [...cell.parentNode.children].indexOf(cell)].join();
};
cells[0].firstChild.focus();
found.places = ["ArrowRight", "ArrowDown", "End", "ArrowDown", "Home", "ArrowUp", "ArrowLeft"].map(key);
found.stops = guide.querySelectorAll('button[tabindex="0"]').length;
cells[5].firstChild.click();
found.open = dialog.open;
found.title = document.getElementById("title").textContent;
found.cells = cells.length;
found.rows = rows.length;
found.scripts = document.scripts.length;
found.images = document.images.length;
found.harmed = "harm" in window;
document.getElementById("found").textContent = encodeURIComponent(JSON.stringify(found));
</script>)html";

class Browser : public OnBus {
 protected:
  Browser() {
    setenv("XDG_CONFIG_HOME", m_folder.path.c_str(), 1);
    setenv("HOME", m_folder.path.c_str(), 1);
    setenv("TZ", "UTC0", 1);
  }

  /// What Chromium prints.
  static std::string Browse(const std::vector<std::string>& options) {
    std::vector<std::string> command = {"chromium", "--headless", "--no-sandbox", "--disable-gpu",
                                        "--window-size=1280,800"};
    command.insert(command.end(), options.begin(), options.end());
    return ChildProgram(command, ChildProgram::kPipe, ChildProgram::kPipe).End().output;
  }

  const TemporaryFolder m_folder;
};

TEST_F(Browser, ShowsHundredServicesAndNoMarkup) {
  g_autofree char* chromium = g_find_program_in_path("chromium");
  if (chromium == nullptr) {
    GTEST_SKIP() << "chromium is not installed";
  }
  std::filesystem::create_directories(m_folder.path / "esg-client");
  std::string services;
  for (int i = 1; i <= kServices; ++i) {
    const std::string number = std::to_string(i);
    services.append(number).append(".1 a").append(number).append(" id-").append(number);
    services.append(" <b>&lt;").append(kHarm).append("\n");
  }
  m_folder.Write("esg-client/services", services);
  const RawPeer service(kESGServiceName, HarmfulDay);
  const auto page =
      ChildProgram({ESGCTL, "export", "html", "--from", "1777651200", "--for", "24h"}).End().output;
  m_folder.Write("probe.html", page + kProbe);

  const std::string document = Browse({"--dump-dom", m_folder.path / "probe.html"});
  const std::string mark = "<pre id=\"found\">";
  const std::size_t at = std::min(document.find(mark), document.size() - mark.size()) + mark.size();
  g_autofree char* text =
      g_uri_unescape_string(document.substr(at, document.find('<', at) - at).c_str(), nullptr);
  Json::Value found;
  ASSERT_TRUE(text != nullptr && Json::Reader().parse(text, found)) << document.substr(0, 1000);
  Json::Value expected;
  expected["cells"] = kServices * kProgrammes;
  expected["rows"] = kServices;
  for (const char* place : {"0,1", "1,1", "1,47", "2,47", "2,0", "1,0", "1,0"}) {
    expected["places"].append(place);
  }
  expected["stops"] = 1;
  expected["open"] = true;
  std::string title = std::string(kHarm) + '5';
  expected["title"] = title.erase(title.find('\xe2'), 3);
  expected["scripts"] = 2;  // the page's and the probe
  expected["images"] = 0;
  expected["harmed"] = false;
  EXPECT_EQ(found, expected);
}

}  // namespace
