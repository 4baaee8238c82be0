#include "BusTest.h"
#include "IPCS/ECNativeConnection.h"
#include "IPCS/IESGCallListener.h"

namespace {

using namespace esg::test;

/// Answers with the method's name and the payload, or with as many bytes as "large" is told; fails
/// "false".
class Echo : public IESGCallListener {
 public:
  bool OnMethodCall(const char* method, ESGMessageBuffer& in, ESGMessageBuffer& out) override {
    ++calls;
    const std::string name = method;
    std::string text =
        name == "large" ? std::string(std::stoul(Bytes(in)), 'x') : name + ":" + Bytes(in);
    out.PushConcatenated(text.size(), text.data());
    if (name == "popped") {
      out.PopChar();
    }
    return name != "false";
  }

  std::atomic<int> calls{0};
};

/// A reply as text: its number, length and bytes, or the name of its error.
std::string Said(const MessagePtr& answer) {
  if (answer == nullptr) {
    return "nothing";
  }
  if (dbus_message_get_type(answer.get()) == DBUS_MESSAGE_TYPE_ERROR) {
    return dbus_message_get_error_name(answer.get());
  }
  const Body body = ReadBody(answer.get());
  return std::to_string(body.number) + " " + std::to_string(body.length) + " " + body.bytes;
}

MessagePtr EmptyCall(const char* interface, const char* member, const std::string& signature = "",
                     int elements = 1) {
  MessagePtr call(dbus_message_new_method_call(kService, "/com/velmora/Object", interface, member));
  return WithBody(std::move(call), signature, elements);
}

class Listener : public OnBus {
 protected:
  std::string Ask(const std::string& method, const std::string& payload = "") {
    return Said(client.Call(MakeCall(kService, method, payload)));
  }

  RawPeer client;
  Echo listener;
  ECNativeConnection connection;
};

TEST_F(Listener, AnswersEachCallAndOutlivesTheWrongOnes) {
  ASSERT_TRUE(connection.Start(kService, &listener));
  {
    RawPeer caller;  // is gone before its answer
    caller.Send(MakeCall(kService, "x", std::string(1UL << 20, 'x')));
    caller.Sync();
  }
  const MainLoopThread loop;
  EXPECT_EQ(Ask("x"), "1 2 x:");
  EXPECT_EQ(Ask("", std::string("\0\xff", 2)), std::string("1 3 :\0\xff", 7));
  EXPECT_EQ(Ask("false", "why"), "0 9 false:why");
  EXPECT_EQ(Ask("popped", "abc"), "1 9 popped:ab");
  // D-Bus lets a caller leave out the interface.
  EXPECT_EQ(Said(client.Call(EmptyCall(nullptr, "MethodCall", "siay"))), "1 3 5:\x05");
  EXPECT_EQ(Said(client.Call(EmptyCall(kService, "MethodCall", "siays(ii)"))), "1 3 5:\x05");

  MessagePtr call = MakeCall(kService, "large", "");
  dbus_message_set_serial(call.get(), 1);
  dbus_message_set_sender(call.get(), client.UniqueName().c_str());
  const std::size_t largest = LargestPayload(MakeReply(call.get(), 1, "").get());
  const std::string tooLarge = std::to_string(largest + 1);
  EXPECT_EQ(Ask("large", std::to_string(largest)).substr(0, 10), "1 " + std::to_string(largest));
  const std::string unknown = DBUS_ERROR_UNKNOWN_METHOD;
  std::vector<std::tuple<MessagePtr, std::string, std::string>> wrong;
  wrong.emplace_back(MakeCall(kService, "large", tooLarge), DBUS_ERROR_LIMITS_EXCEEDED,
                     "larger than the bus takes");
  wrong.emplace_back(EmptyCall(kService, "MethodCall"), unknown, "> Message has no arguments!\n");
  wrong.emplace_back(EmptyCall(kService, "Other", "siay"), unknown, "> It is not method call !\n");
  wrong.emplace_back(EmptyCall(kService, "MethodCall", "siai", 3), unknown,
                     "> Message has wrong arguments: siai\n");
  for (auto& [bad, said, line] : wrong) {
    log_capture::Clear();
    EXPECT_EQ(Said(client.Call(std::move(bad))), said) << line;
    EXPECT_EQ(Ask("good"), "1 5 good:");
    EXPECT_EQ(log_capture::Count(line), 1) << line;
    EXPECT_EQ(log_capture::Lines().size(), 1U) << line;
  }
  // A call that wants no reply gets none.
  const int before = listener.calls;
  for (const char* method : {"x", "large"}) {
    MessagePtr unanswered = MakeCall(kService, method, tooLarge);
    dbus_message_set_no_reply(unanswered.get(), TRUE);
    client.Send(std::move(unanswered));
  }
  client.Send(MakeSignal("MethodCall", 1, "", kService));
  EXPECT_EQ(Ask("good"), "1 5 good:");
  EXPECT_EQ(listener.calls, before + 3);
  const MessagePtr shown = client.Call(EmptyCall(DBUS_INTERFACE_INTROSPECTABLE, "Introspect"));
  const char* xml = "";
  dbus_message_get_args(shown.get(), nullptr, DBUS_TYPE_STRING, &xml, DBUS_TYPE_INVALID);
  EXPECT_NE(std::string(xml).find(R"(<interface name="com.velmora.Test">)"), std::string::npos);
}

/// Does something within each call, on another thread or its own, and returns when it is done.
struct Meddler : IESGCallListener {
  bool OnMethodCall(const char* method, ESGMessageBuffer& /*in*/,
                    ESGMessageBuffer& /*out*/) override {
    if (std::string(method) == "here") {
      work();
      return true;
    }
    end = std::async(std::launch::async, work);
    inTime = end.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    return true;
  }

  std::function<void()> work;
  std::future<void> end;
  std::atomic<bool> inTime{true};
};

TEST_F(Listener, MayBeStartedAgainOrDestroyedByWhatACallWaitsFor) {
  Meddler meddler;
  const MainLoopThread loop;
  for (const char* where : {"there", "here"}) {
    auto shortLived = std::make_unique<ECNativeConnection>();
    ASSERT_TRUE(shortLived->Start(kService, &meddler));
    meddler.work = [&] { EXPECT_TRUE(shortLived->Start(kService, &listener)); };
    EXPECT_EQ(Ask(where), "1 0 ");
    EXPECT_EQ(Ask("x"), "1 2 x:");
    ASSERT_TRUE(shortLived->Start(kService, &meddler));
    meddler.work = [&] { shortLived.reset(); };
    EXPECT_NE(Ask(where), "nothing");  // its answer, or that of the bus
    EXPECT_EQ(shortLived, nullptr);
    ASSERT_TRUE(meddler.inTime);
  }
}

TEST_F(Listener, RefusesABadNameAndMayStartLater) {
  const std::string names[] = {
      "",     "com.velmora.\xff",          std::string("com.v\0", 6), "org.freedesktop.DBus",
      ":1.5", "x." + std::string(300, 'x')};
  for (const std::string& name : names) {
    log_capture::Clear();
    EXPECT_FALSE(connection.Start(name, &listener)) << name;
    EXPECT_EQ(log_capture::Count("> Naming Error ("), 1);
  }
  ASSERT_TRUE(connection.Start(kService, &listener));
  EXPECT_FALSE(connection.Start("noDots", nullptr));
  const MainLoopThread loop;
  EXPECT_EQ(Ask("x"), "1 2 x:");
}

TEST_F(Listener, WaitsInTheQueueBehindAnotherOwner) {
  RawPeer owner(kService, [](DBusMessage* call) { return MakeReply(call, 2, ""); });
  ASSERT_TRUE(connection.Start(kService, &listener));
  const MainLoopThread loop;
  EXPECT_EQ(Ask("x"), "2 0 ");
  owner.Stop();
  std::string said;
  for (const Stopwatch stopwatch; said != "1 2 x:" && stopwatch.Milliseconds() < 10000;) {
    said = Ask("x");  // goes to the owner that is gone until the bus has noticed
  }
  EXPECT_EQ(said, "1 2 x:");
}

TEST_F(Listener, MayBeStartedAgainAndDestroyedWhileCallsArrive) {
  const MainLoopThread loop;
  std::atomic<bool> isDone{false};
  auto callers = Threads(2, [&](int) {
    while (!isDone) {
      client.Send(MakeCall(kService, "unanswered", std::string(1000, 'x')));
      const std::string said = Ask("x");
      EXPECT_TRUE(said == "1 2 x:" || said == DBUS_ERROR_NO_REPLY ||
                  said == DBUS_ERROR_SERVICE_UNKNOWN)
          << said;
    }
  });
  Echo second;
  for (int round = 0; round < (kSanitized ? 50 : 200); ++round) {
    auto shortLived = std::make_unique<ECNativeConnection>();
    ASSERT_TRUE(shortLived->Start(kService, &listener));
    EXPECT_EQ(Ask("y"), "1 2 y:");
    const int descriptors = OpenDescriptors();
    ASSERT_TRUE(shortLived->Start(kService, &second));
    EXPECT_EQ(OpenDescriptors(), descriptors);
    EXPECT_EQ(Ask("z"), "1 2 z:");
  }
  EXPECT_GE(second.calls, kSanitized ? 50 : 200);
  isDone = true;
  Join(callers);
}

}  // namespace
