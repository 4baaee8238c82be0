#ifndef IPCS_INTERNAL_CHANNEL_H
#define IPCS_INTERNAL_CHANNEL_H

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <list>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "Handles.h"

namespace esg::internal {

/// Why a forked process does nothing on a channel of its parent.
inline constexpr char kForeign[] = "The connection belongs to the process that forked this one";

/// How long a call waits for its reply: libdbus's default.
inline constexpr std::chrono::seconds kTimeLimit(25);

class Channel;
class Requests;
using ChannelPtr = std::shared_ptr<Channel>;

/// One private connection to the system bus, and everything that waits on it.
///
/// Any number of threads may wait for replies. One of them is the reader: it polls, then reads and
/// dispatches for all, while the others sleep. A reader that stops, for whatever reason, wakes
/// another one. A main context that the channel is attached to also reads, when it runs.
///
/// The channel does not use libdbus's pending calls. When the connection is lost, libdbus completes
/// them in a way that crashes if two threads use them, and it accepts any message with their serial
/// number as a reply. A filter finds the replies instead. All other messages are mail. Mail is
/// dropped, or kept until the main context delivers it, outside libdbus.
class Channel {
 public:
  enum class Mail { Drop, Keep };
  enum class Outcome { Replied, NotSent, NotConnected };
  struct Caller;

  /// Held while a thread reads from or writes to the connection, but not while it polls or
  /// dispatches. The holder cannot be cancelled, because libdbus and GLib do not support that.
  class Lock : public std::unique_lock<std::mutex> {
   public:
    explicit Lock(Channel& channel) : std::unique_lock<std::mutex>(channel.m_mutex) {
      pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_cancelState);
    }
    ~Lock() { LetCancel(true); }
    /// Restores the previous cancellation state, or disables cancellation.
    void LetCancel(bool lets) const {
      pthread_setcancelstate(lets ? m_cancelState : PTHREAD_CANCEL_DISABLE, nullptr);
    }

   private:
    int m_cancelState = PTHREAD_CANCEL_DISABLE;
  };

  /// Returns null and sets `error` on failure.
  static ChannelPtr Open(Mail mail, Error& error);

  /// A table owns the channels. Fields of fixed layout refer to them, and other threads may look
  /// them up at any time. Exchange() returns the channel that the field referred to; null removes
  /// it.
  static ChannelPtr Of(DBusConnection* const& field);
  static ChannelPtr Exchange(DBusConnection*& field, const ChannelPtr& channel);

  DBusConnection* Connection() const { return m_connection.get(); }
  /// Whether this process was forked from that of the channel: another thread may then have held
  /// any lock, and only Close() may be called.
  bool IsForeign() const { return m_process != getpid(); }

  /// Sends a call and waits for its reply for at most kTimeLimit. `reply` is then the reply, or an
  /// error with the text that libdbus uses; null if there is no memory for that.
  Outcome Call(DBusMessage* message, MessagePtr& reply);
  /// Calls a method of the bus in the same way; a null `request` means no memory. Sets `error` on
  /// failure.
  void CallBus(const MessagePtr& request, DBusError* error);
  /// Calls that do not block.
  Requests& LateCalls() { return *m_requests; }
  /// Sends a message that needs no reply. Waits at most 0.1 seconds for the bus to accept it; the
  /// next message, or the main context, sends the rest. Returns false without memory, or while more
  /// than `maxQueued` bytes wait. A lost connection drops the message.
  bool Send(DBusMessage* message, long maxQueued);

  /// Makes a main context, null for the default one, read and deliver, in place of any other.
  void Attach(GMainContext* context);
  /// Sets the receiver of mail; without one, mail waits. It runs with the channel locked until it
  /// calls EnterCallback(), and must not use its object after that.
  void SetHandler(DBusHandleMessageFunction handler, void* user);
  /// Waits for at most `limit` until no other thread runs the handler.
  void RemoveHandler(std::chrono::milliseconds limit);
  static void EnterCallback();

  /// Makes all callers return at once, and ends delivery.
  void Close();

 private:
  friend class Requests;
  using Clock = std::chrono::steady_clock;
  struct Blocked;
  static constexpr std::chrono::milliseconds kMemoryRetry{100};
  /// One call and its serial number, 0 before it is sent; without a caller it was given up.
  struct Place {
    Caller* caller;
    dbus_uint32_t serial = 0;
  };

  Channel(ConnectionPtr connection, Mail mail);
  ~Channel();
  static void Release(Channel* channel);
  static gboolean Destroy(gpointer channel);
  static DBusHandlerResult OnMessage(DBusConnection*, DBusMessage* message, void* channel);

  bool IsConnected() const;
  void Enter(Caller& caller);
  void SendQueued();
  void Finish(Caller& caller);
  void GiveUp(Caller& caller);
  void End(Clock::time_point due);
  void EndLate();
  void GiveReason(Caller& caller) const;
  void WarnOnce(Lock& lock);
  void Wait(Lock& lock, Blocked& caller);
  void Leave(Blocked& caller);
  void Turn(Lock& lock, Clock::time_point deadline, const Caller* reader);
  void ReadAndWrite(Lock& lock);
  void TakeReply(DBusMessage* message);
  void SetLost();
  bool OwnWatches();
  template <typename Result, bool kIsThere>
  static Result OnWatch(DBusWatch* watch, void* channel) {
    return static_cast<Result>(static_cast<Channel*>(channel)->Watch(watch, kIsThere));
  }
  bool Poll(int file, unsigned int events) const;
  bool PollSocket();
  dbus_bool_t Watch(DBusWatch* watch, bool isThere);

  bool HasMail() const;
  void Schedule();
  static gboolean OnContext(gint, GIOCondition condition, gpointer connection);
  void Deliver(Lock& lock);
  static gint64 GLibTime(Clock::time_point time);

  const ConnectionPtr m_connection;
  int m_socket = -1;  // of both watches
  const Mail m_mail;
  const pid_t m_process = getpid();
  /// All pollers share both: the socket while libdbus wants it, and changes of that.
  const FileDescriptor m_epoll{epoll_create1(EPOLL_CLOEXEC)};
  const FileDescriptor m_toggled{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
  const FileDescriptor m_wakeUp{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};  // for the reader
  std::atomic<DBusWatch*> m_readWatch{nullptr};
  std::atomic<DBusWatch*> m_writeWatch{nullptr};
  /// Has dbus-glib's source, which keeps it alive.
  std::atomic<GMainContext*> m_firstContext{nullptr};
  Channel* m_nextToDestroy = nullptr;
  std::atomic<bool> m_hasToggled{false};
  std::atomic<bool> m_needsMemory{false};
  std::atomic<bool> m_isUnpolled{false};  // the kernel refused to report what libdbus wants
  bool m_hasFilter = false;
  // m_mutex guards the following fields.
  bool m_isLost = false;
  bool m_isClosed = false;
  bool m_warns = false;  // many calls were given up
  bool m_hasWarned = false;
  bool m_isPolling = false;  // the reader
  std::mutex m_mutex;
  std::list<Place> m_queue;         // not sent yet, in order of arrival
  std::list<Place> m_outstanding;   // calls that the bus counts
  std::size_t m_givenUp = 0;        // those without a caller
  std::vector<Blocked*> m_callers;  // in order of arrival
  const Caller* m_reader = nullptr;
  std::deque<MessagePtr> m_inbox;
  DBusHandleMessageFunction m_handler = nullptr;
  void* m_handlerUser = nullptr;
  std::thread::id m_deliverer;  // empty: no delivery is running
  std::condition_variable m_delivered;
  SourcePtr m_source;
  const std::unique_ptr<Requests> m_requests;
};

/// One call that waits for its reply. The channel's lock guards it.
struct Channel::Caller {
  explicit Caller(DBusMessage* sent) : message(sent) {}
  Caller(Caller&&) = delete;
  virtual ~Caller() = default;
  /// Called when its reply has arrived, or none will arrive.
  virtual void OnDone() noexcept = 0;
  /// Whether its reply may have to wait before it is used.
  virtual bool MayTakeLong() const { return false; }

  DBusMessage* const message;
  const Clock::time_point deadline = Clock::now() + kTimeLimit;
  std::list<Place> seat{{this}};  // moves between the lists without an allocation
  const std::list<Place>::iterator place = seat.begin();
  bool isDone = false;
  Outcome outcome = Outcome::Replied;
  MessagePtr reply;
};

}  // namespace esg::internal

#endif
