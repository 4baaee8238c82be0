#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

#include "ChildProgram.h"
#include "IESGService.h"
#include "RawPeer.h"
#include "TemporaryFolder.h"

namespace {

using testing::HasSubstr;
using testing::Optional;

/// A Python program that has the module.
class Python : public ChildProgram {
 public:
  explicit Python(const std::string& code)
      : ChildProgram({"env", std::string("PYTHONPATH=") + MODULE_FOLDER,
                      std::string("ESG_CLIENT_LIBRARY=") + LIBRARY, "PYTHONDONTWRITEBYTECODE=1",
                      "PYTHONUNBUFFERED=1", "TZ=UTC", PYTHON, "-W", "error", "-c", code},
                     kPipe, kPipe) {}
};

void ExpectSuccess(const std::string& code) {
  const ChildProgram::Result end = Python(code).End();
  EXPECT_EQ(end.status, 0) << end.output << end.errors;
}

class GuideService : public ChildProgram {
 public:
  explicit GuideService(const std::string& folder)
      : ChildProgram({ESG_GUIDE_SERVICE, "--guide", SHIPPED_GUIDE, "--today", "--stdin-events",
                      "--save-dir", folder}) {
    EXPECT_TRUE(WaitForLine("ready"));
  }
};

TEST(PythonModule, AProgramWalksThroughTheGuide) {
  const TemporaryFolder folder;
  const GuideService service(folder.path);
  ExpectSuccess("saved = '" + folder.path.string() + R"(/service.xml'
import copy, datetime, gc
from esg_client import NotFound, guide
id = 'tag:example.com,2026:pebblecove'
now = guide.present(id)
assert now.service_id == id and now.title and now.icons[0].height == 360, now
utc = datetime.datetime.now(datetime.timezone.utc)
assert now.start <= utc < now.end, (now, utc)
after = guide.next(now)
assert after.start >= now.end and guide.previous(after) == now
assert guide.item(id, after.event_id, after.start) == after

listed = guide.list(id, now.start, after.start + datetime.timedelta(microseconds=1))
assert listed[-1] == after and now in listed, listed
assert now not in guide.list(id, now.end.astimezone(datetime.timezone(datetime.timedelta(hours=9))),
                             after.end), 'the time zone does not count'
last = copy.copy(listed[-1])
del listed
gc.collect()
assert guide.previous(last) == now, 'a record lives without its list'

service = guide.service(id)
assert b'<Service ' in service
assert b'<Schedule ' in guide.schedule(id, now.start, now.end, bb=True)
assert b'<Content ' in guide.content(id, now.start, now.start)
guide.save_service('service.xml', id)
assert open(saved, 'rb').read() == service
for save in guide.save_schedule, guide.save_content:
    try:
        save('../no.xml', id)
    except NotFound:
        continue
    raise AssertionError('saved outside the folder')
for wrong in (lambda: guide.present('a\0b'), lambda: guide.list(id, utc, now.start),
              lambda: guide.item(id, 'c', datetime.datetime(2026, 1, 1)), guide.events):
    try:
        wrong()
    except ValueError:
        continue
    raise AssertionError('a wrong argument was taken')
)");
}

TEST(PythonModule, FailuresAreExceptionsAndTimesGoBeyond2036) {
  const std::string ask = R"(
import datetime, sys
import esg_client
from esg_client import guide
def why(name, ask=guide.present):
    try:
        ask(name)
    except esg_client.GuideError as error:
        print(type(error).__name__, error.reason, error.error_name, '|', error)
)";
  EXPECT_EQ(Python(ask + "why('urn:a')").ReadLine(),
            "NoService 3 org.freedesktop.DBus.Error.ServiceUnknown | The guide service is not "
            "running and cannot be started: org.freedesktop.DBus.Error.ServiceUnknown: The name "
            "com.velmora.ESGCallListener was not provided by any .service files");
  std::string request;
  RawPeer service(kESGServiceName, [&](DBusMessage* call) {
    const Body body = ReadBody(call);
    if (body.bytes.find("odd") != std::string::npos) {
      return esg::internal::MessagePtr(dbus_message_new_error(call, "com.velmora.Odd", "no disk"));
    }
    if (body.text == "GetProgramList") {
      request = body.bytes;
      return MakeReply(call, 1,
                       R"({"ret":true,"ESGProgramMap":[
                           {"key":5,"Start":5,"duration":60,"title":"after"},
                           {"key":4294967290,"Start":4294967290,"duration":11,"title":"\u00fc"}]})");
    }
    const bool isWrong = body.bytes.find("wrong") != std::string::npos;
    return MakeReply(call, 1, isWrong ? R"({"ret":[]})" : R"({"ret":false})");
  });
  Python python(ask + R"(
why('odd')
why('wrong')
why('none')
why('none', guide.service)
start = datetime.datetime(2036, 2, 7, 6, 28, 10, 900000, datetime.timezone.utc)
for program in guide.list('urn:a', start, start + datetime.timedelta(seconds=20)):
    print(ascii(program.title), program.start.isoformat(), program.end.isoformat())
)");
  EXPECT_EQ(python.ReadLine(),
            "ServiceError 7 com.velmora.Odd | The guide service reported an error: "
            "com.velmora.Odd: no disk");
  EXPECT_THAT(python.ReadLine(), Optional(HasSubstr("Unreadable 8  | The answer of the guide")));
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(python.ReadLine(), "NotFound 1  | The guide service found nothing, or refused");
  }
  EXPECT_EQ(python.ReadLine(), "'\\xfc' 2036-02-07T06:28:10+00:00 2036-02-07T06:28:21+00:00");
  EXPECT_EQ(python.ReadLine(), "'after' 2036-02-07T06:28:21+00:00 2036-02-07T06:29:21+00:00");
  const ChildProgram::Result end = python.End();
  EXPECT_EQ(end.status, 0) << end.errors;
  EXPECT_THAT(request, HasSubstr("\"start_time\" : 4294967290"));
  EXPECT_THAT(request, HasSubstr("\"duration\" : 21"));
}

TEST(PythonModule, EventsArriveUntilTheLoopIsLeft) {
  RawPeer emitter;
  const auto emit = [&](int number) {
    emitter.Send(MakeSignal("Event", number, Integers({number, -2, 3})));
  };
  Python python(R"(
from esg_client import guide
def on_event(event):
    print('callback', event.number)
    if event.params[1] == -1:
        raise Exception('of the callback')
called = guide.events(6, callback=on_event)
events = guide.events(5, 7, 5)
print('ready')
for event in events:
    print(event.number, event.params)
    if event.number == 7:
        break
for event in events:
    print('a subscription that the loop has ended')
try:
    with guide.events(5) as events:
        print('again')
        for event in events:
            print(event.number)
except KeyboardInterrupt:
    print('interrupted')
rest = guide.events(8, 6)
called.close()
print('rest')
for event in rest:
    print(event.number)
    if event.number == 8:
        break
)");
  ASSERT_EQ(python.ReadLine(), "ready");
  emitter.Send(MakeSignal("Event", 6, ""));
  emit(6);
  emit(5);
  emit(7);
  EXPECT_EQ(python.ReadLine(), "callback 6");
  EXPECT_EQ(python.ReadLine(), "callback 6");
  EXPECT_EQ(python.ReadLine(), "5 (5, -2, 3)");
  EXPECT_EQ(python.ReadLine(), "7 (7, -2, 3)");
  ASSERT_EQ(python.ReadLine(), "again");
  emit(5);
  EXPECT_EQ(python.ReadLine(), "5");
  python.Signal(SIGINT);
  ASSERT_EQ(python.ReadLine(), "interrupted");
  EXPECT_TRUE(python.WaitForLine("of the callback", ChildProgram::kErrors));
  ASSERT_EQ(python.ReadLine(), "rest");
  emit(6);
  emit(8);
  const ChildProgram::Result end = python.End();
  EXPECT_EQ(end.output, "6\n8\n");
  EXPECT_EQ(end.status, 0) << end.errors;
}

/// The blocks of Python of a page.
std::vector<std::string> BlocksOf(const char* path) {
  std::ifstream file(path);
  const std::string page(std::istreambuf_iterator<char>(file), {});
  const std::regex block("```python\n([^`]*)```");
  std::vector<std::string> blocks;
  for (std::sregex_iterator each(page.begin(), page.end(), block), end; each != end; ++each) {
    blocks.push_back((*each)[1]);
  }
  return blocks;
}

TEST(PythonModule, TheBlocksOfTheGuideRun) {
  const TemporaryFolder folder;
  GuideService service(folder.path);
  const std::vector<std::string> blocks = BlocksOf(GUIDE_PAGE);
  ASSERT_EQ(blocks.size(), 3U);
  const std::string sixHours = "([0-9:]{5} .*\n( +https://img.example.com/.* [0-9]+ [0-9]+\n)+)+";
  for (const auto& [code, expected] :
       {std::pair{blocks[0], std::string("now:  .* until [0-9:]{5}\nnext: .*\n")},
        std::pair{blocks[1], sixHours + "\\{.*\\}Service\n"}}) {
    const ChildProgram::Result end = Python(code).End();
    EXPECT_TRUE(std::regex_match(end.output, std::regex(expected))) << end.output << end.errors;
  }
  Python events(blocks[2]);
  ASSERT_EQ(events.ReadLine(), "waiting");
  service.Write("7 1 -2 3\n");
  EXPECT_EQ(events.ReadLine(), "event 7 (1, -2, 3)");
  events.Signal(SIGINT);
  EXPECT_EQ(events.Wait(), -SIGINT);
}

}  // namespace
