#ifndef TESTS_RAW_PEER_H
#define TESTS_RAW_PEER_H

#include <functional>
#include <map>
#include <string>
#include <thread>

#include "Messages.h"
#include "Threads.h"

namespace esg::test {

/// A private connection whose loss does not end the process. Returns null and sets `error` on
/// failure.
internal::ConnectionPtr OpenBus(internal::Error& error);

/// A peer that uses libdbus directly, on a private connection and on its own thread.
class RawPeer {
 public:
  /// Replies to a method call, on the peer's thread. Null leaves the caller without a reply.
  using Handler = std::function<MessagePtr(DBusMessage* call)>;

  /// Connects, and takes `name` unless it is empty. Throws on failure.
  explicit RawPeer(const std::string& name = "", Handler handler = nullptr);
  ~RawPeer() { Stop(); }
  RawPeer(const RawPeer&) = delete;
  RawPeer& operator=(const RawPeer&) = delete;

  /// Leaves the bus at once. Calls without a reply stay without one.
  void Stop();

  const std::string& UniqueName() const { return m_uniqueName; }

  /// The number of method calls that have arrived.
  int Calls();
  /// Waits for that many. Returns false after 30 seconds.
  bool WaitForCalls(int count);

  /// Sends any message, from any thread. Returns its serial number.
  dbus_uint32_t Send(MessagePtr message);
  /// Sends a call and waits for its reply. Returns null after 30 seconds.
  MessagePtr Call(MessagePtr call);
  /// The reply to the message with this serial number, or null.
  MessagePtr Answer(dbus_uint32_t serial);
  /// Waits until the bus has accepted everything sent before.
  void Sync();

  /// Receives matching signals from now on. Signals to this peer always arrive.
  void AddMatch(const std::string& rule);
  /// The next signal. Throws after 30 seconds.
  MessagePtr NextSignal() { return m_signals.Next(); }

 private:
  struct Received {
    bool stops = false;
    int calls = 0;
    std::map<dbus_uint32_t, MessagePtr> replies;
  };

  void Run();
  void Handle(MessagePtr message);
  void AskBus(const char* interface, const char* method, const char* argument);

  DBusConnection* m_connection = nullptr;
  Handler m_handler;
  std::string m_uniqueName;
  const internal::FileDescriptor m_wakeUp;
  Shared<Received> m_received;
  Inbox<MessagePtr> m_signals;
  std::thread m_thread;
};

}  // namespace esg::test

#endif
