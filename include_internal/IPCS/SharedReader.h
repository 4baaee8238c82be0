#ifndef IPCS_SHARED_READER_H
#define IPCS_SHARED_READER_H

#include <dbus/dbus.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "DBusHandles.h"

namespace ipcs {

/// Lets any number of threads wait for replies on one connection that no main loop serves.
///
/// A thread that blocks in dbus_pending_call_block keeps the others from even sending. Here the
/// waiting callers share the reading instead: one of them polls the socket and dispatches for all,
/// the others sleep until their own reply or time-out is there, and whoever stops reading passes it
/// on. Reading also drops what nobody asked for, so that it does not pile up until libdbus stops
/// reading.
///
/// All use of the connection goes through m_mutex, which is free while the reader polls. libdbus
/// would take its own lock for each of these calls anyway; this one makes its watches and time-outs
/// stand still between them. The callbacks below therefore run with m_mutex held.
///
/// Time limits and error replies are libdbus's own.
class SharedReader {
 public:
  /// One call that waits for its reply. Lives on the caller's stack.
  struct Caller {
    PendingCallPtr pending;
    std::condition_variable wake;
    bool done = false;
  };

  /// A private connection to the system bus that owns a reader; null with `error` set on failure.
  static DBusConnection* OpenSystemBus(Error& error);
  /// The reader of a connection opened here.
  static SharedReader& Of(DBusConnection* connection);

  ~SharedReader();
  SharedReader(const SharedReader&) = delete;
  SharedReader& operator=(const SharedReader&) = delete;

  /// Sends with libdbus's default time limit; its result. A connection that is lost gives true and
  /// no pending call. With a pending call, Wait must follow.
  bool Send(DBusMessage* message, Caller& caller);
  /// The reply to a message that was sent, or the error reply that libdbus makes of a time-out or
  /// of a lost connection; null when there is no memory for that.
  MessagePtr Wait(DBusMessage* message, Caller& caller);
  /// Closes the connection; callers that wait are answered at once.
  void Close();

 private:
  using Clock = std::chrono::steady_clock;
  struct TimeLimit {
    DBusTimeout* timeout;
    Clock::time_point expiry;
  };

  SharedReader(DBusConnection* connection, int wakeDescriptor);
  static bool Attach(DBusConnection* connection);

  void ReadOnce(std::unique_lock<std::mutex>& lock);
  void PassOn();
  void Handle(unsigned int flag);
  int MillisecondsToNextExpiry() const;
  void HandleExpired();
  void Wake() const;

  static void OnReply(DBusPendingCall* pending, void* caller);
  static void OnWakeUp(void* reader);
  static dbus_bool_t OnAddWatch(DBusWatch* watch, void* reader);
  static void OnRemoveWatch(DBusWatch* watch, void* reader);
  static dbus_bool_t OnAddTimeout(DBusTimeout* timeout, void* reader);
  static void OnRemoveTimeout(DBusTimeout* timeout, void* reader);
  static void OnToggleTimeout(DBusTimeout* timeout, void* reader);

  DBusConnection* m_connection;
  int m_wakeDescriptor;

  std::mutex m_mutex;
  std::vector<Caller*> m_callers;
  std::vector<DBusWatch*> m_watches;
  std::vector<TimeLimit> m_limits;
  bool m_reading = false;  // one caller has taken over the reading
  bool m_polling = false;  // and is asleep in poll
};

}  // namespace ipcs

#endif
