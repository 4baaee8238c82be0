#include <csignal>

#include "BusTest.h"
#include "IESGService.h"
#include "TemporaryFolder.h"

namespace {

using namespace esg::test;
using PythonModule = OnBus;
using testing::HasSubstr;
using testing::MatchesRegex;

/// A Python program that has the module.
class Python : public ChildProgram {
 public:
  explicit Python(const std::string& code)
      : ChildProgram({"env", std::string("PYTHONPATH=") + MODULE_FOLDER,
                      std::string("ESG_CLIENT_LIBRARY=") + LIBRARY, "PYTHONDONTWRITEBYTECODE=1",
                      "PYTHONUNBUFFERED=1", "TZ=UTC", PYTHON, "-W", "error", "-c", code},
                     kPipe, kPipe) {}
};

/// A block of the documents.
std::string Block(const char* name) {
  return std::string("import runpy; runpy.run_path('") + BLOCKS + "/" + name + ".py')";
}

TEST_F(PythonModule, ProgramsAndTheBlocksOfTheGuideWalkThroughTheGuide) {
  const TemporaryFolder folder;
  ChildProgram service({ESG_GUIDE_SERVICE, "--guide", SHIPPED_GUIDE, "--today", "--stdin-events",
                        "--save-dir", folder.path});
  ASSERT_TRUE(service.WaitForLine("ready"));
  const ChildProgram::Result end = Python("saved = '" + folder.path.string() + R"(/service.xml'
import datetime
from esg_client import NotFound, guide
id = 'tag:example.com,2026:pebblecove'
now = guide.present(id)
assert now.service_id == id and now.icons[0].height == 360, now
utc = datetime.datetime.now(datetime.timezone.utc)
assert now.start <= utc < now.end, (now, utc)
after = guide.next(now)
assert after.start > now.start and guide.previous(after) == now
assert guide.item(id, after.event_id, after.start) == after
listed = guide.list(id, now.start, after.start + datetime.timedelta(microseconds=1))
assert listed[-1] == after and now in listed, listed
assert b'<Schedule ' in guide.schedule(id, now.start, now.end, bb=True)
assert b'<Content ' in guide.content(id, now.start, now.start)
guide.save_service('service.xml', id)
assert open(saved, 'rb').read() == guide.service(id)
def raises(kind, call):
    try:
        call()
    except kind:
        return True
assert raises(NotFound, lambda: guide.save_content('../no.xml', id))
for wrong in (lambda: guide.present('a\0b'), lambda: guide.list(id, utc, now.start),
              lambda: guide.item(id, 'c', datetime.datetime(2026, 1, 1)), guide.events):
    assert raises(ValueError, wrong)
)")
                                       .End();
  EXPECT_EQ(end.status, 0) << end.output << end.errors;

  EXPECT_THAT(Python(Block("guide_from_python")).End().output,
              MatchesRegex("now:  .* until [0-9:]{5}\nnext: .*\n"));
  EXPECT_THAT(Python(Block("guide_from_python_2")).End().output,
              MatchesRegex("([0-9:]{5} .*\n( +https://img.example.com/.* [0-9]+ [0-9]+\n)+)+"
                           "\\{.*\\}Service\n"));
  Python events(Block("guide_from_python_3"));
  ASSERT_EQ(events.ReadLine(), "waiting");
  service.Write("7 1 -2 3\n");
  EXPECT_EQ(events.ReadLine(), "event 7 (1, -2, 3)");
  events.Signal(SIGINT);
  EXPECT_EQ(events.Wait(), -SIGINT);
}

TEST_F(PythonModule, FailuresAreExceptionsAndTimesGoBeyond2036) {
  Service service(
      [](DBusMessage* call, const Body& body) {
        if (body.text == "GetServiceFragment") {
          return Service::Error("com.velmora.Odd", "no disk")(call, body);
        }
        return MakeReply(call, 1,
                         body.text == "GetPresentProgram" ? R"({"ret":[]})" :
                                                          R"({"ret":true,"ESGProgramMap":[
                         {"key":5,"Start":5,"duration":60,"title":"after"},
                         {"key":4294967290,"Start":4294967290,"duration":11,"title":"\u00fc"}]})");
      },
      kESGServiceName);
  const ChildProgram::Result end = Python(R"(
import datetime
import esg_client
from esg_client import guide
for ask in guide.service, guide.present:
    try:
        ask('urn:a')
    except esg_client.GuideError as error:
        print(type(error).__name__, error.reason, error.error_name, '|', error)
start = datetime.datetime(2036, 2, 7, 6, 28, 10, 900000, datetime.timezone.utc)
for program in guide.list('urn:a', start, start + datetime.timedelta(seconds=20)):
    print(ascii(program.title), program.start.isoformat(), program.end.isoformat())
)")
                                       .End();
  EXPECT_EQ(end.status, 0) << end.errors;
  EXPECT_THAT(
      end.output,
      MatchesRegex("ServiceError 7 com.velmora.Odd \\| The guide service reported an error: "
                   "com.velmora.Odd: no disk\n"
                   "Unreadable 8  \\| The answer of the guide.*\n"
                   "'.xfc' 2036-02-07T06:28:10.00:00 2036-02-07T06:28:21.00:00\n"
                   "'after' 2036-02-07T06:28:21.00:00 2036-02-07T06:29:21.00:00\n"));
  EXPECT_THAT(service.LastCall().bytes, HasSubstr("\"start_time\" : 4294967290"));
  EXPECT_THAT(service.LastCall().bytes, HasSubstr("\"duration\" : 21"));
}

TEST_F(PythonModule, EventsArriveUntilTheLoopIsLeft) {
  RawPeer emitter;
  Python python(R"(
from esg_client import guide
def on_event(event):
    print('callback', event.number)
    if event.params[1] == -1:
        raise Exception('of the callback')
called = guide.events(6, callback=on_event)
events = guide.events(5, 7)
print('ready')
for event in events:
    print(event.number, event.params)
    if event.number == 7:
        break
)");
  ASSERT_EQ(python.ReadLine(), "ready");
  emitter.Send(MakeSignal("Event", 6, ""));
  for (const int number : {6, 5, 7}) {
    emitter.Send(MakeSignal("Event", number, Integers({number, -2, 3})));
  }
  EXPECT_TRUE(python.WaitForLine("of the callback", ChildProgram::kErrors));
  const ChildProgram::Result end = python.End();
  EXPECT_EQ(end.status, 0) << end.errors;
  EXPECT_EQ(end.output, "callback 6\ncallback 6\n5 (5, -2, 3)\n7 (7, -2, 3)\n");
}

}  // namespace
