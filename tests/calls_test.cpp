#include <sstream>

#include "BusTest.h"

namespace {

using namespace esg::test;
using Calls = OnBus;
using CallsWithoutBus = testing::Test;

/// The last failure has left its line, and the connection works.
void ExpectLineAndGoodCall(const std::string& line) {
  const std::vector<log_capture::Line> lines = log_capture::Lines();
  EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [&](const log_capture::Line& each) {
    return each.message.find(line) != std::string::npos && each.priority == 6;
  })) << line;
  log_capture::Clear();
  EXPECT_EQ(Call("echo", "good"), (Answer{1, "good"}));
}

TEST_F(Calls, SendTheUnreadCountOfBytesFromTheFrontAndAppendTheReply) {
  Inbox<std::string> seen;
  const Service service([&](DBusMessage* call, const Body& body) {
    std::ostringstream text;
    text << dbus_message_get_path(call) << ' ' << dbus_message_get_interface(call) << ' '
         << dbus_message_get_member(call) << ' ' << dbus_message_get_signature(call) << ' '
         << body.text << ' ' << body.length << ' ' << body.bytes;
    seen.Put(text.str());
    return MakeReply(call, -7, "new");
  });
  const std::string before = "/com/velmora/Object com.velmora.Test MethodCall siay ";
  EXPECT_EQ(Call("", std::string("\0\xff\n", 3)), (Answer{-7, "new"}));
  EXPECT_EQ(seen.Next(), before + std::string(" 3 \0\xff\n", 6));
  ESGMessageBuffer in = Payload("abcdefghij");
  ESGMessageBuffer out = Payload("older");
  in.PopInt();
  out.PopChar();
  EXPECT_EQ(Connection().Call(kService, "Get\xc3\xa9", in, out), -7);
  EXPECT_EQ(seen.Next(), before + "Get\xc3\xa9 6 abcdef");
  EXPECT_EQ(Bytes(out), "oldernew");
  EXPECT_EQ(out.PopChar(), 'l');
}

TEST_F(Calls, TurnEveryBadAnswerIntoAFailureThatTouchesNothing) {
  using Make = std::function<MessagePtr(DBusMessage * call)>;
  const auto error = [](const std::string& signature) -> Make {
    return [signature](DBusMessage* call) {
      return WithBody(MessagePtr(dbus_message_new_error(call, "com.velmora.Odd", nullptr)),
                      signature);
    };
  };
  const auto reply = [](const std::string& signature, int elements = 1) -> Make {
    return [=](DBusMessage* call) {
      return WithBody(MessagePtr(dbus_message_new_method_return(call)), signature, elements);
    };
  };
  const std::string answered = "[com.velmora.Test:bad] Error answer received [Error name: ";
  const std::string problem = "[com.velmora.Test:bad] Problem with reading error answer: ";
  std::vector<std::pair<Make, std::string>> answers = {
      {error("si"), answered + "com.velmora.Odd]: 5\n"},
      {[](DBusMessage* call) {
         return MessagePtr(dbus_message_new_error(call, "a.B", "%s%n \xe7\x95\xaa"));
       },
       answered + "a.B]: %s%n \xe7\x95\xaa\n"},
      {error(""), problem},
      {error("as"), problem},
      {reply(""), "IPCS: Message has no arguments!\n"},
  };
  const std::pair<std::string, int> wrongBodies[] = {
      {"i", 1},     {"ii", 1},      {"iis", 1},    {"sis", 1}, {"iiai", 3}, {"iiai", 0},
      {"iiaay", 2}, {"iia(yy)", 1}, {"(iiay)", 1}, {"ay", 0},  {"siay", 1}};
  for (const auto& [signature, elements] : wrongBodies) {
    answers.emplace_back(reply(signature, elements),
                         "IPCS: Message has wrong arguments: " + signature + "\n");
  }
  Inbox<Make> next;
  const Service service([&](DBusMessage* call, const Body& body) {
    return body.text == "echo" ? Service::Echo(call, body) : next.Next()(call);
  });
  for (const auto& [make, line] : answers) {
    next.Put(make);
    ESGMessageBuffer in = Payload("in");
    ESGMessageBuffer out = Payload("kept");
    EXPECT_EQ(Connection().Call(kService, "bad", in, out), -1) << line;
    EXPECT_EQ(Bytes(out), "kept");
    ExpectLineAndGoodCall(line);
  }
  next.Put(reply("iiay", 0));
  EXPECT_EQ(Call("bad", ""), (Answer{5, ""}));
  for (const char* signature : {"iiayi", "iiayay", "iiays(ii)"}) {
    next.Put(reply(signature));
    EXPECT_EQ(Call("longer", ""), (Answer{5, "\x05"})) << signature;
  }
}

TEST_F(Calls, AreRefusedWithWhatIsNoNameOrNoText) {
  Service service;
  const std::string badNames[] = {"",
                                  "com.velmora.\xff",
                                  "com.velmora.minus-sign",
                                  service.Peer().UniqueName(),
                                  std::string("com.velmora.Test\0", 17),
                                  "com." + std::string(300, 'x')};
  for (const std::string& name : badNames) {
    EXPECT_EQ(Call("m", "in", name), kFailure) << name;
    ExpectLineAndGoodCall("IPCS: Error at message creation\n");
  }
  for (const char* method : {static_cast<const char*>(nullptr), "caf\xe9", "\xed\xa0\x80"}) {
    EXPECT_EQ(Call(method, "in"), kFailure);
    ExpectLineAndGoodCall("IPCS: Out of memory\n\n");
  }
  EXPECT_EQ(Call("m", "in", "com.velmora.Nobody"), kFailure);
  ExpectLineAndGoodCall("org.freedesktop.DBus.Error.ServiceUnknown]: ");
}

TEST_F(Calls, SendTheLargestMessageThatTheBusTakesAndRefuseALargerOne) {
  const std::string longName = "com." + std::string(200, 'x');
  const Service service;
  const Service other(&Service::Echo, longName);
  for (const auto& [name, method] : {std::pair{std::string(kService), std::string("echo")},
                                     {longName, std::string(1001, 'm')}}) {
    const std::size_t largest = LargestPayload(MakeCall(name, method, "").get());
    EXPECT_TRUE(BusTakes(MakeCall(name, method, std::string(largest, 'x'))));
    EXPECT_FALSE(BusTakes(MakeCall(name, method, std::string(largest + 1, 'x'))));
    const std::string payload(largest, 'x');
    EXPECT_TRUE(Call(method.c_str(), payload, name) == Answer(1, payload));
    EXPECT_EQ(Call(method.c_str(), payload + "x", name), kFailure);
    ExpectLineAndGoodCall("IPCS: Out of memory\n\n");
  }
  EXPECT_EQ(Call("echo", std::string(100UL << 20, 'x')), kFailure);
  EXPECT_EQ(Call(std::string(32UL << 20, 'm').c_str(), ""), kFailure);
  ExpectLineAndGoodCall("IPCS: Out of memory\n\n");
}

TEST_F(CallsWithoutBus, FindABusThatAppearsThreeSecondsLate) {
  const Stopwatch stopwatch;
  auto call = CallInThread("m");
  // Two lines an attempt: the first at once, then one attempt a second.
  ASSERT_TRUE(log_capture::WaitFor("m_Connect(", 8));
  EXPECT_EQ(log_capture::Count("> Failed to connect to the D-BUS daemon: Failed to connect"), 4);
  TestBus().Start();
  EXPECT_EQ(call.get(), kFailure);
  EXPECT_GE(stopwatch.Milliseconds(), 3000);
  EXPECT_EQ(log_capture::Count("ServiceUnknown"), 1);
}

TEST_F(Calls, DoNotWaitForASlowOneAndReadOnWhenTheReaderHasItsAnswer) {
  Service service;
  auto first = CallInThread("held", "1");
  ASSERT_TRUE(service.Peer().WaitForCalls(1));
  long best = 1000;
  for (int i = 0; i < 10; ++i) {
    const Stopwatch stopwatch;
    EXPECT_EQ(Call("echo", "quick"), (Answer{1, "quick"}));
    best = std::min(best, stopwatch.Milliseconds());
  }
  EXPECT_LT(best, 50);
  auto second = CallInThread("held", "2");
  ASSERT_TRUE(service.Peer().WaitForCalls(12));
  service.Release();
  EXPECT_EQ(first.get(), (Answer{1, "1"}));
  EXPECT_EQ(Call("echo", "between"), (Answer{1, "between"}));
  service.Release();
  EXPECT_EQ(second.get(), (Answer{1, "2"}));
}

TEST_F(Calls, EndAtOnceWhenTheServiceOrTheBusGoes) {
  auto service = std::make_unique<Service>();
  auto call = CallInThread("held");
  ASSERT_TRUE(service->Peer().WaitForCalls(1));
  const Stopwatch stopwatch;
  service->Peer().Stop();
  EXPECT_EQ(call.get(), kFailure);
  EXPECT_EQ(log_capture::Count("org.freedesktop.DBus.Error.NoReply]: Message recipient "
                               "disconnected from message bus without replying\n"),
            1);
  EXPECT_EQ(Call("echo", ""), kFailure);
  service.reset();
  service = std::make_unique<Service>();
  EXPECT_EQ(Call("echo", "again"), (Answer{1, "again"}));

  auto callers = Threads(8, [](int) { EXPECT_EQ(Call("held", ""), kFailure); });
  EXPECT_TRUE(service->Peer().WaitForCalls(9));
  TestBus().Kill();
  Join(callers);
  EXPECT_EQ(log_capture::Count("Error name: org.freedesktop.DBus.Error.Disconnected]: Connection "
                               "was disconnected before a reply was received\n"),
            8);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(Call("echo", ""), kFailure);
  }
  EXPECT_EQ(log_capture::Count("> pending == NULL \n"), 3);
  EXPECT_LT(stopwatch.Milliseconds(), 10000);  // far below the limit of a call
}

/// libdbus stops reading while 63 MiB of received messages are alive.
TEST_F(Calls, DropAFloodThatCameWhileNoneWasMade) {
  const Service service([](DBusMessage* call, const Body& /*body*/) {
    return MakeReply(call, 1, dbus_message_get_sender(call));
  });
  const std::string victim = Call("m", "").second;
  RawPeer flooder;
  for (int i = 0; i < 100; ++i) {
    flooder.Send(MakeSignal("Event", i, std::string(1UL << 20, 'f'), victim));
    flooder.Sync();
  }
  EXPECT_EQ(Call("m", ""), (Answer{1, victim}));
}

}  // namespace
