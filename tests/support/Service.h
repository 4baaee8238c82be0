#ifndef TESTS_SERVICE_H
#define TESTS_SERVICE_H

#include <string>
#include <utility>

#include "Messages.h"
#include "RawPeer.h"

namespace esg::test {

inline constexpr char kService[] = "com.velmora.Test";

/// A service that replies with what it receives, unless it is told otherwise. A call with "held" in
/// its method or payload waits for the test to reply.
class Service {
 public:
  using Respond = std::function<MessagePtr(DBusMessage* call, const Body& body)>;

  static MessagePtr Echo(DBusMessage* call, const Body& body) {
    return MakeReply(call, 1, body.bytes);
  }
  static Respond Reply(const std::string& text, int result = 1) {
    return [=](DBusMessage* call, const Body&) { return MakeReply(call, result, text); };
  }
  static Respond Error(const char* name, const std::string& text) {
    return [=](DBusMessage* call, const Body&) {
      return MessagePtr(dbus_message_new_error(call, name, text.c_str()));
    };
  }

  explicit Service(Respond respond = &Echo, const std::string& name = kService)
      : m_state({std::move(respond), {}}),
        m_peer(name, [this](DBusMessage* call) { return Serve(call); }) {}

  RawPeer& Peer() { return m_peer; }
  /// Replies like this from now on.
  void Set(Respond respond) {
    m_state.With([&](State& state) { state.respond = std::move(respond); });
  }
  Body LastCall() {
    return m_state.With([](State& state) { return state.last; });
  }
  /// The oldest call that still waits for the test.
  MessagePtr NextCall() { return m_held.Next(); }
  /// Replies to that call. Returns its payload.
  std::string Release() {
    const MessagePtr call = NextCall();
    m_peer.Send(Answer(call.get()));
    return ReadBody(call.get()).bytes;
  }

 private:
  struct State {
    Respond respond;
    Body last;
  };

  MessagePtr Answer(DBusMessage* call) {
    return m_state.With([call](State& state) {
      state.last = ReadBody(call);
      return state.respond(call, state.last);
    });
  }
  MessagePtr Serve(DBusMessage* call) {
    const Body body = ReadBody(call);
    if ((body.text + body.bytes).find("held") == std::string::npos) {
      return Answer(call);
    }
    m_held.Put(MessagePtr(dbus_message_ref(call)));
    return nullptr;
  }

  Shared<State> m_state;
  Inbox<MessagePtr> m_held;
  RawPeer m_peer;
};

}  // namespace esg::test

#endif
