#include "BusTest.h"
#include "IPCS/ECIPCConnection.h"

namespace {

using namespace esg::test;
using Calls = OnBus;

/// Expects that the last failure has written this line, and that the connection still works.
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
    seen.Put(std::string(dbus_message_get_path(call)) + ' ' + dbus_message_get_interface(call) +
             ' ' + dbus_message_get_member(call) + ' ' + dbus_message_get_signature(call) + ' ' +
             body.text + ' ' + std::to_string(body.length) + ' ' + body.bytes);
    return MakeReply(call, -7, std::string("\0new\xff", 5));
  });
  ESGMessageBuffer in = Payload(std::string("\0\xff\n", 3) + "defghij");
  ESGMessageBuffer out = Payload("older");
  in.PopInt();
  out.PopChar();
  EXPECT_EQ(Connection().Call(kService, "Get\xc3\xa9", in, out), -7);
  EXPECT_EQ(seen.Next(), "/com/velmora/Object com.velmora.Test MethodCall siay Get\xc3\xa9 6 " +
                             std::string("\0\xff\n", 3) + "def");
  EXPECT_EQ(Bytes(out), "older" + std::string("\0new\xff", 5));
  EXPECT_EQ(out.PopChar(), 'l');
}

TEST_F(Calls, TurnEveryBadReplyIntoAFailureThatChangesNothing) {
  Inbox<std::function<MessagePtr(DBusMessage * call)>> next;
  const Service service([&](DBusMessage* call, const Body& body) {
    return body.text == "echo" ? Service::Echo(call, body) : next.Next()(call);
  });
  const std::string from = "[com.velmora.Test:bad] ";
  const std::string unreadable = from + "Problem with reading error answer: ";
  struct {
    const char* error;  // null for a method return
    const char* signature;
    std::string line;
  } const rows[] = {
      {"com.velmora.Odd", "si", from + "Error answer received [Error name: com.velmora.Odd]: 5"},
      {"com.velmora.Odd", "", unreadable},
      {"com.velmora.Odd", "as", unreadable},
      {nullptr, "", "IPCS: Message has no arguments!\n"},
      {nullptr, "ii", "IPCS: Message has wrong arguments: ii\n"},
      {nullptr, "siay", "IPCS: Message has wrong arguments: siay\n"},
      {nullptr, "iis", "IPCS: Message has wrong arguments: iis\n"},
      {nullptr, "iiai", "IPCS: Message has wrong arguments: iiai\n"},
  };
  for (const auto& row : rows) {
    next.Put([&row](DBusMessage* call) {
      return WithBody(
          MessagePtr(row.error != nullptr ? dbus_message_new_error(call, row.error, nullptr)
                                          : dbus_message_new_method_return(call)),
          row.signature);
    });
    ESGMessageBuffer in = Payload("in");
    ESGMessageBuffer out = Payload("kept");
    EXPECT_EQ(Connection().Call(kService, "bad", in, out), -1) << row.line;
    EXPECT_EQ(Bytes(out), "kept");
    ExpectLineAndGoodCall(row.line);
  }
  for (const char* longer : {"iiayi", "iiaysai"}) {
    next.Put([longer](DBusMessage* call) {
      return WithBody(MessagePtr(dbus_message_new_method_return(call)), longer);
    });
    EXPECT_EQ(Call("longer", ""), (Answer{5, "\x05"})) << longer;
  }
}

TEST_F(Calls, AreRefusedIfTheNameOrTheMethodIsNotValid) {
  Service service;
  for (const std::string& name :
       {std::string(), std::string("com.velmora.\xff"), std::string("com.velmora.minus-sign"),
        service.Peer().UniqueName(), std::string("com.velmora.Test\0", 17)}) {
    EXPECT_EQ(Call("m", "in", name), kFailure) << name;
    ExpectLineAndGoodCall("IPCS: Error at message creation\n");
  }
  for (const char* method : {static_cast<const char*>(nullptr), "caf\xe9"}) {
    EXPECT_EQ(Call(method, "in"), kFailure);
    ExpectLineAndGoodCall("IPCS: Out of memory\n\n");
  }
}

TEST_F(Calls, SendTheLargestMessageThatTheBusAcceptsAndRefuseALargerOne) {
  const std::string longName = "com." + std::string(200, 'x');
  const Service service;
  const Service other(&Service::Echo, longName);
  for (const auto& [name, method] : {std::pair{std::string(kService), std::string("echo")},
                                     {longName, std::string(1001, 'm')}}) {
    const std::size_t largest = LargestPayload(MakeCall(name, method, "").get());
    const std::string payload(largest, 'x');
    EXPECT_TRUE(Call(method.c_str(), payload, name) == Answer(1, payload));
    EXPECT_EQ(Call(method.c_str(), payload + "x", name), kFailure);
    ExpectLineAndGoodCall("IPCS: Out of memory\n\n");
  }
}

/// A class that an application derives may connect again.
struct Reconnecting : ECIPCConnection {
  using ECIPCConnection::m_Connect;
};

TEST_F(Calls, EndAtOnceWhenTheServiceOrTheBusEnds) {
  auto service = std::make_unique<Service>();
  Reconnecting reconnecting;
  auto call = CallInThread("held");
  ASSERT_TRUE(service->Peer().WaitForCalls(1));
  const Stopwatch stopwatch;
  service->Peer().Stop();
  EXPECT_EQ(call.get(), kFailure);
  EXPECT_EQ(log_capture::Count("org.freedesktop.DBus.Error.NoReply]: Message recipient "
                               "disconnected from message bus without replying\n"),
            1);
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
  EXPECT_EQ(Call("echo", ""), kFailure);
  EXPECT_EQ(log_capture::Count("> pending == NULL \n"), 1);
  EXPECT_FALSE(reconnecting.m_Connect());
  EXPECT_EQ(log_capture::Count("> Failed to connect to the D-BUS daemon: "), 1);
  EXPECT_LT(stopwatch.Milliseconds(), 10000);  // far below the limit of a call
}

}  // namespace
