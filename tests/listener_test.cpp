#include "BusTest.h"
#include "IPCS/ECNativeConnection.h"
#include "IPCS/IESGCallListener.h"

namespace {

using namespace esg::test;

/// Replies with the method's name and the payload, or with as many bytes as the payload of "large"
/// says. "false" fails.
struct Echo : IESGCallListener {
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
std::string Text(const MessagePtr& reply) {
  if (reply == nullptr) {
    return "nothing";
  }
  if (dbus_message_get_type(reply.get()) == DBUS_MESSAGE_TYPE_ERROR) {
    return dbus_message_get_error_name(reply.get());
  }
  const Body body = ReadBody(reply.get());
  return std::to_string(body.number) + " " + std::to_string(body.length) + " " + body.bytes;
}

MessagePtr NewCall(const char* interface, const char* member, const std::string& signature = "") {
  return WithBody(
      MessagePtr(dbus_message_new_method_call(kService, "/com/velmora/Object", interface, member)),
      signature);
}

class Listener : public OnBus {
 protected:
  std::string Ask(const std::string& method, const std::string& payload = "") {
    return Text(client.Call(MakeCall(kService, method, payload)));
  }

  RawPeer client;
  Echo echo;
  ECNativeConnection connection;
};

TEST_F(Listener, RepliesToEachCallAndSurvivesTheWrongOnes) {
  ASSERT_TRUE(connection.Start(kService, &echo));
  const MainLoopThread loop;
  EXPECT_EQ(Ask("", std::string("\0\xff", 2)), std::string("1 3 :\0\xff", 7));
  EXPECT_EQ(Ask("false", "why"), "0 9 false:why");
  EXPECT_EQ(Ask("popped", "abc"), "1 9 popped:ab");
  // A call may have no interface, and more arguments.
  EXPECT_EQ(Text(client.Call(NewCall(nullptr, "MethodCall", "siaysai"))), "1 3 5:\x05");

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
  wrong.emplace_back(NewCall(kService, "MethodCall"), unknown, "> Message has no arguments!\n");
  wrong.emplace_back(NewCall(kService, "Other", "siay"), unknown, "> It is not method call !\n");
  wrong.emplace_back(NewCall(kService, "MethodCall", "siai"), unknown,
                     "> Message has wrong arguments: siai\n");
  for (auto& [bad, reply, line] : wrong) {
    log_capture::Clear();
    EXPECT_EQ(Text(client.Call(std::move(bad))), reply) << line;
    EXPECT_EQ(Ask("good"), "1 5 good:");
    EXPECT_EQ(log_capture::Count(line), 1) << line;
    EXPECT_EQ(log_capture::Lines().size(), 1U) << line;
  }
  // A call that wants no reply gets none.
  const int before = echo.calls;
  MessagePtr unanswered = MakeCall(kService, "large", tooLarge);
  dbus_message_set_no_reply(unanswered.get(), TRUE);
  const dbus_uint32_t serial = client.Send(std::move(unanswered));
  EXPECT_EQ(Ask("good"), "1 5 good:");
  EXPECT_EQ(echo.calls, before + 2);
  EXPECT_EQ(client.Answer(serial), nullptr);
}

/// Does something during each call, on its own thread or on another one that it waits for.
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

TEST_F(Listener, MayBeStartedAgainOrDestroyedByACallOrWhatItWaitsFor) {
  Meddler meddler;
  const MainLoopThread loop;
  for (const char* where : {"there", "here"}) {
    auto shortLived = std::make_unique<ECNativeConnection>();
    ASSERT_TRUE(shortLived->Start(kService, &meddler));
    meddler.work = [&] { EXPECT_TRUE(shortLived->Start(kService, &echo)); };
    EXPECT_EQ(Ask(where), "1 0 ");
    EXPECT_EQ(Ask("x"), "1 2 x:");
    ASSERT_TRUE(shortLived->Start(kService, &meddler));
    meddler.work = [&] { shortLived.reset(); };
    EXPECT_NE(Ask(where), "nothing");  // its reply, or that of the bus
    EXPECT_EQ(shortLived, nullptr);
    ASSERT_TRUE(meddler.inTime);
  }
}

TEST_F(Listener, RefusesABadName) {
  for (const std::string& name : {std::string("com.velmora.\xff"), std::string("com.v\0", 6),
                                  std::string("org.freedesktop.DBus"), std::string(":1.5")}) {
    log_capture::Clear();
    EXPECT_FALSE(connection.Start(name, &echo)) << name;
    EXPECT_EQ(log_capture::Count("> Naming Error ("), 1);
  }
}

}  // namespace
