#include <csignal>
#include <fstream>
#include <iterator>
#include <regex>

#include "BusTest.h"
#include "IESGService.h"
#include "TemporaryFolder.h"

namespace {

using namespace esg::test;
using PythonModule = OnBus;
using testing::HasSubstr;

/// A Python program that has the module.
class Python : public ChildProgram {
 public:
  explicit Python(const std::string& code)
      : ChildProgram({"env", std::string("PYTHONPATH=") + MODULE_FOLDER,
                      std::string("ESG_CLIENT_LIBRARY=") + LIBRARY, "PYTHONDONTWRITEBYTECODE=1",
                      "PYTHONUNBUFFERED=1", "TZ=UTC", PYTHON, "-W", "error", "-c", code},
                     kPipe, kPipe) {}
};

class GuideProgram : public ChildProgram {
 public:
  explicit GuideProgram(const std::string& folder)
      : ChildProgram({ESG_GUIDE_SERVICE, "--guide", SHIPPED_GUIDE, "--today", "--stdin-events",
                      "--save-dir", folder}) {
    EXPECT_TRUE(WaitForLine("ready"));
  }
};

TEST_F(PythonModule, AProgramWalksThroughTheGuide) {
  const TemporaryFolder folder;
  const GuideProgram service(folder.path);
  const ChildProgram::Result end = Python("saved = '" + folder.path.string() + R"(/service.xml'
import copy, datetime, gc
from esg_client import NotFound, guide
id = 'tag:example.com,2026:pebblecove'
now = guide.present(id)
assert now.service_id == id and now.icons[0].height == 360, now
utc = datetime.datetime.now(datetime.timezone.utc)
assert now.start <= utc < now.end, (now, utc)
after = guide.next(now)
assert after.start >= now.end and guide.previous(after) == now
assert guide.item(id, after.event_id, after.start) == after
listed = guide.list(id, now.start, after.start + datetime.timedelta(microseconds=1))
assert listed[-1] == after and now in listed, listed
last = copy.copy(listed[-1])
del listed
gc.collect()
assert guide.previous(last) == now, 'a record lives without its list'
assert now not in guide.list(id, now.end.astimezone(datetime.timezone(datetime.timedelta(hours=9))),
                             after.end), 'the time zone does not count'
assert b'<Schedule ' in guide.schedule(id, now.start, now.end, bb=True)
assert b'<Content ' in guide.content(id, now.start, now.start)
guide.save_service('service.xml', id)
assert open(saved, 'rb').read() == guide.service(id)
def raises(kind, call):
    try:
        call()
    except kind:
        return True
for save in guide.save_schedule, guide.save_content:
    assert raises(NotFound, lambda: save('../no.xml', id))
for wrong in (lambda: guide.present('a\0b'), lambda: guide.list(id, utc, now.start),
              lambda: guide.item(id, 'c', datetime.datetime(2026, 1, 1)), guide.events):
    assert raises(ValueError, wrong)
)")
                                       .End();
  EXPECT_EQ(end.status, 0) << end.output << end.errors;
}

TEST_F(PythonModule, FailuresAreExceptionsAndTimesGoBeyond2036) {
  std::string request;
  Service service(
      [&](DBusMessage* call, const Body& body) {
        const auto asks = [&](const char* id) { return body.bytes.find(id) != std::string::npos; };
        if (asks("odd")) {
          return Service::Error("com.velmora.Odd", "no disk")(call, body);
        }
        if (body.text == "GetProgramList") {
          request = body.bytes;
          return MakeReply(call, 1,
                           R"({"ret":true,"ESGProgramMap":[
                           {"key":5,"Start":5,"duration":60,"title":"after"},
                           {"key":4294967290,"Start":4294967290,"duration":11,"title":"\u00fc"}]})");
        }
        return MakeReply(call, 1, asks("wrong") ? R"({"ret":[]})" : R"({"ret":false})");
      },
      kESGServiceName);
  const ChildProgram::Result end = Python(R"(
import datetime
import esg_client
from esg_client import guide
for name, ask in ('odd', guide.present), ('wrong', guide.present), ('none', guide.service):
    try:
        ask(name)
    except esg_client.GuideError as error:
        print(type(error).__name__, error.reason, error.error_name, '|', error)
start = datetime.datetime(2036, 2, 7, 6, 28, 10, 900000, datetime.timezone.utc)
for program in guide.list('urn:a', start, start + datetime.timedelta(seconds=20)):
    print(ascii(program.title), program.start.isoformat(), program.end.isoformat())
)")
                                       .End();
  EXPECT_EQ(end.status, 0) << end.errors;
  EXPECT_THAT(end.output,
              testing::MatchesRegex(
                  "ServiceError 7 com.velmora.Odd \\| The guide service reported an error: "
                  "com.velmora.Odd: no disk\n"
                  "Unreadable 8  \\| The answer of the guide.*\n"
                  "NotFound 1  \\| The guide service found nothing, or refused.*\n"
                  "'.xfc' 2036-02-07T06:28:10.00:00 2036-02-07T06:28:21.00:00\n"
                  "'after' 2036-02-07T06:28:21.00:00 2036-02-07T06:29:21.00:00\n"));
  EXPECT_THAT(request, HasSubstr("\"start_time\" : 4294967290"));
  EXPECT_THAT(request, HasSubstr("\"duration\" : 21"));
}

TEST_F(PythonModule, EventsArriveUntilTheLoopIsLeft) {
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
  const auto expect = [&](std::initializer_list<const char*> lines) {
    for (const char* line : lines) {
      ASSERT_EQ(python.ReadLine(), line);
    }
  };
  expect({"ready"});
  emitter.Send(MakeSignal("Event", 6, ""));
  emit(6);
  emit(5);
  emit(7);
  expect({"callback 6", "callback 6", "5 (5, -2, 3)", "7 (7, -2, 3)", "again"});
  emit(5);
  expect({"5"});
  python.Signal(SIGINT);
  expect({"interrupted"});
  EXPECT_TRUE(python.WaitForLine("of the callback", ChildProgram::kErrors));
  expect({"rest"});
  emit(6);
  emit(8);
  const ChildProgram::Result end = python.End();
  EXPECT_EQ(end.output, "6\n8\n");
  EXPECT_EQ(end.status, 0) << end.errors;
}

TEST_F(PythonModule, TheBlocksOfTheGuideRun) {
  std::ifstream file(GUIDE_PAGE);
  const std::string page(std::istreambuf_iterator<char>(file), {});
  const std::regex block("```python\n([^`]*)```");
  std::vector<std::string> blocks;
  for (std::sregex_iterator each(page.begin(), page.end(), block), end; each != end; ++each) {
    blocks.push_back((*each)[1]);
  }
  ASSERT_EQ(blocks.size(), 3U);
  const TemporaryFolder folder;
  GuideProgram service(folder.path);
  EXPECT_THAT(Python(blocks[0]).End().output,
              testing::MatchesRegex("now:  .* until [0-9:]{5}\nnext: .*\n"));
  EXPECT_THAT(Python(blocks[1]).End().output,
              testing::MatchesRegex("([0-9:]{5} .*\n( +https://img.example.com/.* [0-9]+ "
                                    "[0-9]+\n)+)+\\{.*\\}Service\n"));
  Python events(blocks[2]);
  ASSERT_EQ(events.ReadLine(), "waiting");
  service.Write("7 1 -2 3\n");
  EXPECT_EQ(events.ReadLine(), "event 7 (1, -2, 3)");
  events.Signal(SIGINT);
  EXPECT_EQ(events.Wait(), -SIGINT);
}

}  // namespace
