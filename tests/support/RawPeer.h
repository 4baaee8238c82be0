#ifndef TESTS_RAW_PEER_H
#define TESTS_RAW_PEER_H

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "Messages.h"

namespace esg::test {

/// A private connection whose loss does not end the process; null with `error` set on failure.
internal::ConnectionPtr OpenBus(internal::Error& error);

/// A peer straight on libdbus, on a private connection and a thread of its own.
class RawPeer {
 public:
  /// Replies to a method call, on the peer's thread; null leaves the caller without a reply.
  using Handler = std::function<MessagePtr(DBusMessage* call)>;

  /// Returns when it is on the bus and owns `name`, if it is to have one; throws when it does not.
  explicit RawPeer(const std::string& name = "", Handler handler = nullptr);
  ~RawPeer() { Stop(); }
  RawPeer(const RawPeer&) = delete;
  RawPeer& operator=(const RawPeer&) = delete;

  /// Leaves the bus at once, whatever is still unanswered.
  void Stop();

  const std::string& UniqueName() const { return m_uniqueName; }

  /// Method calls that have come in; waits for that many, false after ten seconds.
  int Calls();
  bool WaitForCalls(int count);

  /// Sends any message, from any thread; its serial number.
  dbus_uint32_t Send(MessagePtr message);
  /// Sends a call and waits for its reply; null after ten seconds.
  MessagePtr Call(MessagePtr call);
  /// The reply to the message with this serial number, if it has arrived.
  MessagePtr Answer(dbus_uint32_t serial);

  /// Returns when the bus has taken all that was sent before.
  void Sync();

  /// Receives signals that match from now on, or those only that are sent to this peer.
  void AddMatch(const std::string& rule);
  /// The next signal; null after ten seconds.
  MessagePtr NextSignal();

 private:
  void Run();
  void Handle(MessagePtr message);
  MessagePtr AskBus(const char* interface, const char* method, const char* argument);
  template <typename Condition>
  bool Wait(std::unique_lock<std::mutex>& lock, Condition condition) {
    return m_changed.wait_for(lock, std::chrono::seconds(10), condition);
  }

  DBusConnection* m_connection = nullptr;
  Handler m_handler;
  std::string m_uniqueName;
  const internal::FileDescriptor m_wakeUp;

  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_stop = false;
  int m_calls = 0;
  std::map<dbus_uint32_t, MessagePtr> m_replies;
  std::deque<MessagePtr> m_signals;
  std::thread m_thread;
};

}  // namespace esg::test

#endif
