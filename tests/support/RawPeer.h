#ifndef TESTS_RAW_PEER_H
#define TESTS_RAW_PEER_H

#include <dbus/dbus.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <initializer_list>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "IPCS/internal/Handles.h"

/// A private connection whose loss does not end the process; null with `error` set on failure.
esg::internal::ConnectionPtr OpenBus(esg::internal::Error& error);

/// A peer straight on libdbus, on a private connection and a thread of its own.
class RawPeer {
 public:
  /// Answers a method call, on the peer's thread; null leaves the caller without an answer.
  using Handler = std::function<esg::internal::MessagePtr(DBusMessage* call)>;

  /// Returns when it is on the bus and owns `name`, if it is to have one; throws when it does not.
  explicit RawPeer(const std::string& name = "", Handler handler = nullptr);
  ~RawPeer();
  RawPeer(const RawPeer&) = delete;
  RawPeer& operator=(const RawPeer&) = delete;

  /// Leaves the bus at once, whatever is still unanswered.
  void Stop();

  const std::string& UniqueName() const { return m_uniqueName; }

  /// Method calls that have come in; waits for that many, false after ten seconds.
  int Calls();
  bool WaitForCalls(int count);

  /// Sends any message, from any thread; its serial number.
  dbus_uint32_t Send(esg::internal::MessagePtr message);
  /// Sends a call and waits for its answer; null after ten seconds.
  esg::internal::MessagePtr Call(esg::internal::MessagePtr call);
  /// The answer to the message of this serial number, if it is there.
  esg::internal::MessagePtr Answer(dbus_uint32_t serial);

  /// Returns when the bus has taken all that was sent before.
  void Sync();

  /// Receives signals that match from now on, or those only that are sent to this peer.
  void AddMatch(const std::string& rule);
  /// The next signal; null after ten seconds.
  esg::internal::MessagePtr NextSignal();

 private:
  void Run();
  void Handle(esg::internal::MessagePtr message);

  DBusConnection* m_connection = nullptr;
  Handler m_handler;
  std::string m_uniqueName;
  int m_wakeUp = -1;
  std::thread m_thread;

  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_stop = false;
  int m_calls = 0;
  std::map<dbus_uint32_t, esg::internal::MessagePtr> m_replies;
  std::deque<esg::internal::MessagePtr> m_signals;
};

/// The messages of the protocol, written and read without the library.
esg::internal::MessagePtr MakeCall(const std::string& destination, const std::string& method,
                                   const std::string& bytes);
esg::internal::MessagePtr MakeReply(DBusMessage* call, int result, const std::string& bytes);
esg::internal::MessagePtr MakeSignal(const char* member, int number, const std::string& bytes,
                                     const std::string& destination = "");

struct Body {
  std::string text;  ///< The first argument where it is a string,
  int number = 0;    ///< where it is an integer.
  int length = 0;
  std::string bytes;
};
/// Reads a body "siay" or "iiay"; throws when it is neither.
Body ReadBody(DBusMessage* message);

/// A payload of integers.
std::string Integers(std::initializer_list<int> values);

#endif
