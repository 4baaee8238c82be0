#include <gtest/gtest.h>

#include <limits>
#include <memory>
#include <thread>
#include <tuple>

#include "Harness.h"
#include "IPCS/ECIPCClient.h"
#include "IPCS/ECIPCConnection.h"
#include "LogCapture.h"

namespace {

using esg::internal::MessagePtr;
using Received = std::tuple<char, int, std::string>;  // which callback, number, payload

constexpr int kMinimum = std::numeric_limits<int>::min();

/// Never destroyed: the main loop's thread may still use it.
Inbox<Received>& Signals() {
  static auto& inbox = *new Inbox<Received>;
  return inbox;
}

template <char callback>
void OnSignal(int number, ESGMessageBuffer& payload) {
  Signals().Put({callback, number, Bytes(payload)});
}

/// The connection, attached to the default context, with both callbacks.
ECIPCConnection& Connection() {
  auto& connection = dynamic_cast<ECIPCConnection&>(*EIIPCConnection::GetInstance());
  connection.SetGMainLoop(nullptr);
  connection.SetEventCallbackFunction(&OnSignal<'E'>);
  connection.SetDataCallbackFunction(&OnSignal<'D'>);
  return connection;
}

MessagePtr EmptySignal(const std::string& to, const char* member,
                       const char* interface = "com.velmora.ESG.Signal") {
  MessagePtr signal(dbus_message_new_signal("/any", interface, member));
  dbus_message_set_destination(signal.get(), to.c_str());
  return signal;
}

TEST(Signals, OfAnotherShapeAreLoggedAndDroppedAndLongerOnesRead) {
  const std::string id = Connection().GetConnectionId();
  const MainLoopThread loop;
  RawPeer peer;
  for (const auto& [signature, elements] : WrongBodies("s")) {
    for (const char* member : {"Event", "Data"}) {
      log_capture::Clear();
      peer.Send(WithBody(EmptySignal(id, member), signature, elements));
      peer.Send(MakeSignal("Event", 1, signature, id));
      EXPECT_EQ(Signals().Next(), Received('E', 1, signature));
      EXPECT_EQ(log_capture::Count("> Message has wrong arguments: " + signature + "\n"), 1);
    }
  }
  for (const std::string& signature : LongerBodies("s")) {
    peer.Send(WithBody(EmptySignal(id, "Event"), signature));
    EXPECT_EQ(Signals().Next(), Received('E', 5, "\x05"));
  }
}

TEST(Signals, GoToTheCallbackOfTheirKindOrToNobody) {
  ECIPCConnection& connection = Connection();
  const std::string id = connection.GetConnectionId();
  {
    const MainLoopThread loop;
    RawPeer peer;
    peer.Send(EmptySignal(id, "Event", "com.velmora.Other"));
    peer.Send(EmptySignal(id, "Unknown"));
    peer.Send(MakeSignal("Event", 12, Integers({1, 2, 3}), id));
    EXPECT_EQ(Signals().Next(), Received('E', 12, Integers({1, 2, 3})));
    peer.Send(MakeSignal("Data", kMinimum, "", id));
    EXPECT_EQ(Signals().Next(), Received('D', kMinimum, ""));
    connection.UnSetEventCallbackFunction();
    peer.Send(MakeSignal("Event", 13, "", id));
    peer.Send(MakeSignal("Data", 14, "", id));
    EXPECT_EQ(Signals().Next(), Received('D', 14, ""));
  }
  // Other filters see what is not for this one, and only that.
  const auto handle = [&](const MessagePtr& message) {
    return connection.m_MessageHandler(message.get());
  };
  EXPECT_EQ(handle(MakeSignal("Event", 1, "")), DBUS_HANDLER_RESULT_HANDLED);
  EXPECT_EQ(handle(EmptySignal(id, "Event", "a.B")), DBUS_HANDLER_RESULT_NOT_YET_HANDLED);
  EXPECT_EQ(handle(EmptySignal(id, "event")), DBUS_HANDLER_RESULT_NOT_YET_HANDLED);
  EXPECT_EQ(handle(MakeCall("com.velmora.ESG.Signal", "Event", "")),
            DBUS_HANDLER_RESULT_NOT_YET_HANDLED);
}

TEST(Signals, GoOnWhileTheConnectionMovesBetweenRunningContexts) {
  ECIPCConnection& connection = Connection();
  GMainContext* context = g_main_context_new();
  GMainLoop* loop = g_main_loop_new(context, FALSE);
  std::thread other([loop] { g_main_loop_run(loop); });
  {
    const MainLoopThread defaultLoop;
    RawPeer peer;
    for (int i = 0; i < 300; ++i) {
      connection.SetGMainLoop(i % 2 == 0 ? context : nullptr);
      peer.Send(MakeSignal("Event", i, "", connection.GetConnectionId()));
      if (i >= 10) {  // under way at any time
        EXPECT_EQ(Signals().Next(), Received('E', i - 10, ""));
      }
    }
    for (int i = 290; i < 300; ++i) {
      EXPECT_EQ(Signals().Next(), Received('E', i, ""));
    }
  }
  g_main_loop_quit(loop);
  other.join();
  g_main_loop_unref(loop);
  g_main_context_unref(context);
}

TEST(Signals, WithoutArgumentsEndTheProcess) {
  for (const char* member : {"Event", "Data"}) {
    EXPECT_DEATH(
        {
          log_capture::Echo();
          RawPeer peer;
          peer.Send(EmptySignal(Connection().GetConnectionId(), member));
          const MainLoopThread loop;
          Signals().Next();
        },
        "m_MessageHandler\\([0-9]+\\) > Message has no arguments!\n"
        ".*include_internal/IPCS/ECIPCConnection:[0-9]+: .*m_MessageHandler.*Assertion `0' failed");
  }
}

TEST(Emitters, WriteNumberLengthAndBytes) {
  RawPeer peer;
  peer.AddMatch("type='signal',path='/com/velmora/ESG/IPCS',interface='com.velmora.ESG.Signal'");
  const std::tuple<int, int, std::string, unsigned, std::string> signals[] = {
      {Event, 42, Integers({1, 2, 3}), 0, "Event 42 12 " + Integers({1, 2, 3})},
      {Data, 0, "", 0, "Data 0 0 "},
      {7, -1, "x", 0, "Unknown -1 1 x"},
      {Event, kMinimum, "abcdef", 4, "Event -2147483648 2 ab"},
  };
  for (const auto& [type, number, bytes, popped, expected] : signals) {
    ESGMessageBuffer payload = Payload(bytes);
    delete[] payload.PopConcatenated(popped);
    EXPECT_TRUE(TheEmitter().m_Send("", static_cast<eECIPCMessageType>(type), number, payload));
    const MessagePtr seen = peer.NextSignal();
    ASSERT_NE(seen, nullptr);
    const Body body = ReadBody(seen.get());
    EXPECT_EQ(std::string(dbus_message_get_member(seen.get())) + " " + body.text + " " +
                  std::to_string(body.length) + " " + body.bytes,
              expected);
    EXPECT_EQ(dbus_message_get_destination(seen.get()), nullptr);
  }
}

TEST(Emitters, RefuseWhatTheBusDoesNotTakeAndGoOn) {
  RawPeer peer;
  const std::size_t limit = LargestPayload(MakeSignal("Event", 1, "", peer.UniqueName()).get());
  ESGMessageBuffer tooLarge = Payload(std::string(limit + 1, 'x'));
  ESGMessageBuffer largest = Payload(std::string(limit, 'x'));
  ESGMessageBuffer large = Payload(std::string(1UL << 20, 'y'));
  EXPECT_FALSE(TheEmitter().m_Send(peer.UniqueName(), Event, 1, tooLarge));
  for (const std::string& name : {std::string("noDots"), std::string("a.b\0", 4)}) {
    EXPECT_FALSE(TheEmitter().m_Send(name, Event, 1, large));
  }
  EXPECT_EQ(log_capture::Count("> Out Of Memory!\n\n"), 3);
  // Nothing has to follow for it to arrive whole.
  EXPECT_TRUE(TheEmitter().m_Send(peer.UniqueName(), Event, 2, large));
  MessagePtr seen = peer.NextSignal();
  ASSERT_NE(seen, nullptr);
  EXPECT_EQ(ReadBody(seen.get()).bytes, Bytes(large));
  EXPECT_TRUE(TheEmitter().m_Send(peer.UniqueName(), Event, 1, largest));
  ESGMessageBuffer small;
  for (int i = 0; i < 50; ++i) {  // each sends more of what is left
    EXPECT_TRUE(TheEmitter().m_Send(peer.UniqueName(), Event, 2, small));
  }
  seen = peer.NextSignal();
  ASSERT_NE(seen, nullptr);
  EXPECT_EQ(ReadBody(seen.get()).bytes.size(), limit);
}

TEST(Emitters, LetAProcessSendToItself) {
  ESGMessageBuffer payload = Payload("to myself");
  Connection();
  EXPECT_TRUE(ECIPCClient::GetInstance()->Send(5, payload));
  const MainLoopThread loop;
  EXPECT_EQ(Signals().Next(), Received('E', 5, "to myself"));
}

TEST(Signals, LeaveNothingBehindInAContextThatDoesNotRun) {
  { const ECIPCConnection first; }
  const int before = OpenDescriptors();
  GMainContext* context = g_main_context_new();
  auto connection = std::make_unique<ECIPCConnection>();
  connection->SetGMainLoop(context);
  connection.reset();
  g_main_context_unref(context);
  EXPECT_EQ(OpenDescriptors(), before);
}

}  // namespace
