#ifndef TESTS_SERVICE_H
#define TESTS_SERVICE_H

#include <string>
#include <utility>

#include "Messages.h"
#include "RawPeer.h"
#include "Threads.h"

namespace esg::test {

inline constexpr char kService[] = "com.velmora.Test";

/// A service that replies with what it receives, or as it is told. A call that has "held" in its
/// method or payload waits for the test.
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
      : m_respond(std::move(respond)),
        m_peer(name, [this](DBusMessage* call) { return Serve(call); }) {}

  RawPeer& Peer() { return m_peer; }
  /// Answers like this from now on.
  void Set(Respond respond) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_respond = std::move(respond);
  }
  Body LastCall() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_last;
  }
  /// The call that has been held longest, for the test to reply to.
  MessagePtr NextCall() { return m_held.Next(); }
  /// Answers that one; its payload.
  std::string Release() {
    const MessagePtr call = NextCall();
    Body body = ReadBody(call.get());
    m_peer.Send(Answer(call.get(), body));
    return std::move(body.bytes);
  }

 private:
  MessagePtr Answer(DBusMessage* call, const Body& body) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_last = body;
    return m_respond(call, body);
  }
  MessagePtr Serve(DBusMessage* call) {
    const Body body = ReadBody(call);
    if ((body.text + body.bytes).find("held") == std::string::npos) {
      return Answer(call, body);
    }
    m_held.Put(MessagePtr(dbus_message_ref(call)));
    return nullptr;
  }

  std::mutex m_mutex;
  Respond m_respond;
  Body m_last;
  Inbox<MessagePtr> m_held;
  RawPeer m_peer;
};

}  // namespace esg::test

#endif
