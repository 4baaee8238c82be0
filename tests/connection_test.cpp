#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <future>
#include <sstream>

#include "Harness.h"
#include "IPCS/ECIPCConnection.h"
#include "IPCS/ECNativeConnection.h"
#include "LogCapture.h"
#include "PrivateBus.h"

namespace {

using esg::internal::MessagePtr;

const Answer kFailure{-1, ""};

MessagePtr Echo(DBusMessage* call) { return MakeReply(call, 1, ReadBody(call).bytes); }

/// The last failure has left its line, and the connection works.
void ExpectLineAndGoodCall(const std::string& line) {
  const std::vector<log_capture::Line> lines = log_capture::Lines();
  EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [&](const log_capture::Line& each) {
    return each.message.find(line) != std::string::npos && each.priority == 6;
  })) << line;
  log_capture::Clear();
  EXPECT_EQ(Call("echo", "good"), (Answer{1, "good"}));
}

TEST(Connection, SendsTheUnreadCountOfBytesFromTheFrontAndAppendsTheReply) {
  Inbox<std::string> seen;
  RawPeer service(kService, [&](DBusMessage* call) {
    const Body body = ReadBody(call);
    std::ostringstream text;
    text << dbus_message_get_path(call) << ' ' << dbus_message_get_interface(call) << ' '
         << dbus_message_get_member(call) << ' ' << dbus_message_get_signature(call) << ' '
         << body.text << ' ' << body.length << ' ' << body.bytes;
    seen.Put(text.str());
    return MakeReply(call, -7, "new");
  });
  const std::string before = "/com/velmora/Object com.velmora.Test MethodCall siay ";
  for (const std::string& payload :
       {std::string(), std::string("{}"), std::string("\0\xff\n", 3)}) {
    EXPECT_EQ(Call("", payload), (Answer{-7, "new"}));
    EXPECT_EQ(seen.Next(), std::string(before)
                               .append(" ")
                               .append(std::to_string(payload.size()))
                               .append(" ")
                               .append(payload));
  }
  ESGMessageBuffer in = Payload("abcdefghij");
  ESGMessageBuffer out = Payload("older");
  in.PopInt();
  out.PopChar();
  EXPECT_EQ(EIIPCConnection::GetInstance()->Call(kService, "Get\xc3\xa9", in, out), -7);
  EXPECT_EQ(seen.Next(), before + "Get\xc3\xa9 6 abcdef");
  EXPECT_EQ(Bytes(out), "oldernew");
  EXPECT_EQ(out.PopChar(), 'l');
}

TEST(Connection, TurnsEveryBadAnswerIntoAFailureThatTouchesNothing) {
  using Make = std::function<MessagePtr(DBusMessage * call)>;
  const auto error = [](const std::string& signature) -> Make {
    return [signature](DBusMessage* call) {
      return WithBody(MessagePtr(dbus_message_new_error(call, "com.velmora.Odd", nullptr)),
                      signature);
    };
  };
  const auto reply = [](const std::string& signature, int elements) -> Make {
    return [=](DBusMessage* call) {
      return WithBody(MessagePtr(dbus_message_new_method_return(call)), signature, elements);
    };
  };
  const std::string answered = "[com.velmora.Test:bad] Error answer received [Error name: ";
  const std::string problem = "[com.velmora.Test:bad] Problem with reading error answer: ";
  std::vector<std::pair<Make, std::string>> answers = {
      {error("s"), answered + "com.velmora.Odd]: 5\n"},
      {error("si"), answered + "com.velmora.Odd]: 5\n"},
      {[](DBusMessage* call) {
         return MessagePtr(dbus_message_new_error(call, "a.B", "%s%n \xe7\x95\xaa"));
       },
       answered + "a.B]: %s%n \xe7\x95\xaa\n"},
      {error(""), problem},
      {error("i"), problem},
      {error("as"), problem},
      {reply("", 0), "IPCS: Message has no arguments!\n"},
  };
  for (const auto& [signature, elements] : WrongBodies("i")) {
    answers.emplace_back(reply(signature, elements),
                         "IPCS: Message has wrong arguments: " + signature + "\n");
  }
  Inbox<Make> next;
  RawPeer service(kService, [&](DBusMessage* call) {
    return ReadBody(call).text == "echo" ? Echo(call) : next.Next()(call);
  });
  for (const auto& [make, line] : answers) {
    next.Put(make);
    ESGMessageBuffer in = Payload("in");
    ESGMessageBuffer out = Payload("kept");
    EXPECT_EQ(EIIPCConnection::GetInstance()->Call(kService, "bad", in, out), -1) << line;
    EXPECT_EQ(Bytes(out), "kept");
    ExpectLineAndGoodCall(line);
  }
  next.Put(reply("iiay", 0));
  EXPECT_EQ(Call("bad", ""), (Answer{5, ""}));
  for (const std::string& signature : LongerBodies("i")) {
    next.Put(reply(signature, 1));
    EXPECT_EQ(Call("longer", ""), (Answer{5, "\x05"})) << signature;
  }
}

TEST(Connection, RefusesWhatIsNoNameOrNoText) {
  RawPeer service(kService, &Echo);
  const std::string badNames[] = {"",
                                  "noDots",
                                  "com..Test",
                                  "com.velmora.Test ",
                                  "com.velmora.\xff",
                                  "com.velmora.minus-sign",
                                  service.UniqueName(),
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

TEST(Connection, SendsTheLargestMessageThatTheBusTakesAndRefusesALargerOne) {
  const std::string longName = "com." + std::string(200, 'x');
  RawPeer service(kService, &Echo);
  RawPeer other(longName, &Echo);
  for (const auto& [name, method] : {std::pair{std::string(kService), std::string("echo")},
                                     {longName, std::string(1001, 'm')}}) {
    const auto call = [&, name = name, method = method](std::size_t size) {
      return MakeCall(name, method, std::string(size, 'x'));
    };
    const std::size_t largest = LargestPayload(call(0).get());
    EXPECT_TRUE(BusTakes(call(largest)));
    EXPECT_FALSE(BusTakes(call(largest + 1)));
    const std::string payload(largest, 'x');
    EXPECT_TRUE(Call(method.c_str(), payload, name) == Answer(1, payload));
    EXPECT_EQ(Call(method.c_str(), payload + "x", name), kFailure);
    ExpectLineAndGoodCall("IPCS: Out of memory\n\n");
  }
  EXPECT_EQ(Call("echo", std::string(100UL << 20, 'x')), kFailure);
  EXPECT_EQ(Call(std::string(32UL << 20, 'm').c_str(), ""), kFailure);
  ExpectLineAndGoodCall("IPCS: Out of memory\n\n");
}

TEST(ConnectionNoBus, FindsABusThatAppearsThreeSecondsLate) {
  const Stopwatch stopwatch;
  auto call = std::async([] { return Call("m", ""); });
  // Two lines an attempt: the first at once, then one attempt a second.
  ASSERT_TRUE(log_capture::WaitFor("m_Connect(", 8));
  EXPECT_EQ(log_capture::Count("> Failed to connect to the D-BUS daemon: Failed to connect"), 4);
  TestBus().Start();
  EXPECT_EQ(call.get(), kFailure);
  EXPECT_GE(stopwatch.Milliseconds(), 3000);
  EXPECT_EQ(log_capture::Count("ServiceUnknown"), 1);
}

// The client's connection ends its process; the service's ends report and go on. All three at once.
TEST(ConnectionNoBusSlow, GivesUpAfterSixtyPauses) {
  const Stopwatch stopwatch;
  std::FILE* output = std::tmpfile();
  ASSERT_NE(output, nullptr);
  dbus_threads_init_default();  // both threads would do it, which libdbus allows
  const pid_t child = fork();
  if (child == 0) {
    dup2(fileno(output), STDERR_FILENO);
    log_capture::Echo();
    EIIPCConnection::GetInstance();
    _exit(0);
  }
  auto threads = Threads(2, [](int which) {
    ESGMessageBuffer payload;
    if (which == 0) {
      EXPECT_TRUE(ECIPCBroadcaster().Send(5, payload));
    } else {
      EXPECT_FALSE(ECNativeConnection().Start(kService, nullptr));
    }
  });
  Join(threads);
  EXPECT_GE(stopwatch.Milliseconds(), 60000);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
  std::string said(1UL << 16, '\0');
  std::rewind(output);
  said.resize(std::fread(said.data(), 1, said.size(), output));
  EXPECT_THAT(said, testing::MatchesRegex(
                        "(ECIPCConnection.cpp: m_Connect\\([0-9]+\\) > Called\n"
                        "[^\n]*Failed to connect[^\n]*\n){61}"
                        "[^\n]*include_internal/IPCS/ECIPCConnection:[0-9]+:[^\n]*Assertion "
                        "`m_pConnection' failed.\n"));
  EXPECT_EQ(log_capture::Count("ECIPCManager.cpp: m_Connect"), 61);
  EXPECT_EQ(log_capture::Count("ECNativeConnection.cpp: Start"), 60 + 1);
  EXPECT_EQ(log_capture::Count("> ASSERT!, Func:ECIPCManager\n"), 1);
  EXPECT_EQ(log_capture::Count("> ASSERT!, Func:Start\n"), 1);
  for (const auto& assertion : log_capture::Assertions()) {
    EXPECT_EQ(assertion.expression, "m_pConnection");
    EXPECT_THAT(assertion.source, testing::StartsWith("include_internal/IPCS/EC"));
  }
  EXPECT_EQ(log_capture::Assertions().size(), 2U);
}

}  // namespace
