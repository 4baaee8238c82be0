#ifndef TESTS_SERVICE_H
#define TESTS_SERVICE_H

#include <string>

#include "Harness.h"
#include "RawPeer.h"

/// A service that answers "echo" at once, and anything else when it is told to.
class Service {
 public:
  RawPeer& Peer() { return m_peer; }

  /// Answers the longest waiting call with its payload, which it returns, and `more` bytes.
  std::string Release(std::size_t more = 0) {
    const esg::internal::MessagePtr call = NextCall();
    std::string payload = ReadBody(call.get()).bytes;
    m_peer.Send(MakeReply(call.get(), 1, payload + std::string(more, '.')));
    return payload;
  }

  /// The longest waiting call, for the test to answer.
  esg::internal::MessagePtr NextCall() { return m_held.Next(); }

 private:
  esg::internal::MessagePtr Serve(DBusMessage* call) {
    const Body body = ReadBody(call);
    if (body.text == "echo") {
      return MakeReply(call, 1, body.bytes);
    }
    m_held.Put(esg::internal::MessagePtr(dbus_message_ref(call)));
    return nullptr;
  }

  Inbox<esg::internal::MessagePtr> m_held;
  RawPeer m_peer{kService, [this](DBusMessage* call) { return Serve(call); }};
};

#endif
