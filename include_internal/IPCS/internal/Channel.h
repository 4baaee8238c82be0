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

/// Why a process does nothing on a channel that is not its own.
inline constexpr char kForeign[] = "The connection belongs to the process that forked this one";

/// How long a call waits: libdbus's default.
inline constexpr std::chrono::seconds kTimeLimit(25);

class Channel;
class Requests;
using ChannelPtr = std::shared_ptr<Channel>;

/// One private connection to the system bus, and everything that waits on it.
///
/// Any number of threads may wait for answers. One of them is the reader: it polls, then reads and
/// dispatches for all, while the others sleep. Whoever stops reading, for whatever reason, passes
/// it on. A main context that the channel is attached to reads as well, when it runs.
///
/// libdbus's pending calls are not used: two threads do not survive how libdbus ends them when the
/// connection is lost, and it takes any message with their serial number for an answer. A filter
/// finds the answers. All else is mail, which is dropped, or kept until the main context delivers
/// it, outside libdbus.
class Channel {
 public:
  enum class Mail { Drop, Keep };
  enum class Outcome { Answered, NotSent, NotConnected };
  struct Caller;

  /// Held while the connection is written or read; free while a thread polls or dispatches. The
  /// holder cannot be cancelled: libdbus and GLib would not survive that.
  class Lock : public std::unique_lock<std::mutex> {
   public:
    explicit Lock(Channel& channel) : std::unique_lock<std::mutex>(channel.m_mutex) {
      pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_cancelState);
    }
    ~Lock() { LetCancel(true); }
    /// Back to what it was, or not at all.
    void LetCancel(bool lets) const {
      pthread_setcancelstate(lets ? m_cancelState : PTHREAD_CANCEL_DISABLE, nullptr);
    }

   private:
    int m_cancelState = PTHREAD_CANCEL_DISABLE;
  };

  /// Null with `error` set on failure.
  static ChannelPtr Open(Mail mail, Error& error);

  /// Fields of fixed layout refer to channels that a table owns, while other threads look them up.
  /// Exchange() gives the channel that the field referred to; null takes it out.
  static ChannelPtr Of(DBusConnection* const& field);
  static ChannelPtr Exchange(DBusConnection*& field, const ChannelPtr& channel);

  DBusConnection* Connection() const { return m_connection.get(); }
  /// In a process forked from the channel's own, where another thread may have held any lock.
  /// Nothing but Close() may be called there.
  bool IsForeign() const { return m_process != getpid(); }

  /// Sends a call and waits for its answer, 25 seconds at most. `reply` is then the answer, or an
  /// error in libdbus's own words; null without memory for that.
  Outcome Call(DBusMessage* message, MessagePtr& reply);
  /// The same for a method of the bus; `request` is null without memory. Sets `error` on failure.
  void AskBus(const MessagePtr& request, DBusError* error);
  /// Calls that do not block.
  Requests& LateCalls() { return *m_requests; }
  /// Sends what wants no answer. Waits 0.1 seconds at most for the bus to take it; the rest goes
  /// with the next message, or with the main context. false without memory, or while more than
  /// `maxQueued` bytes wait. A lost connection drops it.
  bool Send(DBusMessage* message, long maxQueued);

  /// Lets a main context, null for the default one, read and deliver; no other one any more.
  void Attach(GMainContext* context);
  /// What mail is delivered to; without it, mail waits. It runs with the channel locked until it
  /// calls EnterCallback(), and must not use its object after that.
  void SetHandler(DBusHandleMessageFunction handler, void* user);
  /// Waits until no other thread is in the handler, for `limit` at most.
  void RemoveHandler(std::chrono::milliseconds limit);
  static void EnterCallback();

  /// Callers come back at once, and nothing is delivered any more.
  void Close();

 private:
  friend class Requests;
  using Clock = std::chrono::steady_clock;
  struct Blocked;
  static constexpr std::chrono::milliseconds kMemoryRetry{100};
  /// One call, by the serial number that it is sent with; without a caller it is given up.
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
  void TakeAnswer(DBusMessage* message);
  void SetLost();
  bool OwnWatches();
  template <typename Result, bool kIsThere>
  static Result OnWatch(DBusWatch* watch, void* channel) {
    return static_cast<Result>(static_cast<Channel*>(channel)->Watch(watch, kIsThere));
  }
  bool Poll(int file, unsigned int events) const;
  dbus_bool_t Watch(DBusWatch* watch, bool isThere);

  bool HasMail() const;
  void Schedule();
  static gboolean OnContext(gint, GIOCondition condition, gpointer connection);
  void Deliver(Lock& lock);
  static gint64 GLibTime(Clock::time_point time);

  const ConnectionPtr m_connection;
  const Mail m_mail;
  const pid_t m_process = getpid();
  /// Both for all who poll: the socket while libdbus wants it, and a change of that.
  const FileDescriptor m_epoll{epoll_create1(EPOLL_CLOEXEC)};
  const FileDescriptor m_toggled{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
  const FileDescriptor m_wakeUp{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};  // for the reader
  std::atomic<DBusWatch*> m_readWatch{nullptr};
  std::atomic<DBusWatch*> m_writeWatch{nullptr};
  std::atomic<GMainContext*> m_firstContext{nullptr};  // has dbus-glib's source, which keeps it
  Channel* m_nextToDestroy = nullptr;
  std::atomic<bool> m_hasToggled{false};
  std::atomic<bool> m_needsMemory{false};
  bool m_hasFilter = false;
  // m_mutex guards what follows.
  bool m_isLost = false;
  bool m_isClosed = false;
  bool m_warns = false;  // that there are many calls given up
  bool m_hasWarned = false;
  bool m_isPolling = false;  // the reader
  std::mutex m_mutex;
  std::list<Place> m_queue;         // not sent yet, in order of arrival
  std::list<Place> m_outstanding;   // what the bus counts
  std::size_t m_givenUp = 0;        // those without a caller
  std::vector<Blocked*> m_callers;  // in order of arrival
  const Caller* m_reader = nullptr;
  std::deque<MessagePtr> m_inbox;
  DBusHandleMessageFunction m_handler = nullptr;
  void* m_handlerUser = nullptr;
  std::thread::id m_deliverer;  // none: no delivery
  std::condition_variable m_delivered;
  SourcePtr m_source;
  const std::unique_ptr<Requests> m_requests;
};

/// One call that waits for its answer. The channel's lock guards it.
struct Channel::Caller {
  explicit Caller(DBusMessage* sent) : message(sent) {}
  Caller(Caller&&) = delete;
  virtual ~Caller() = default;
  /// Its answer is there, or there will be none.
  virtual void OnDone() noexcept = 0;
  /// Whether its answer may have to wait until somebody takes it.
  virtual bool MayTakeLong() const { return false; }

  DBusMessage* const message;
  const Clock::time_point deadline = Clock::now() + kTimeLimit;
  std::list<Place> seat{{this}};  // moves to the queue, and on, without needing memory
  const std::list<Place>::iterator place = seat.begin();
  bool isDone = false;
  Outcome outcome = Outcome::Answered;
  MessagePtr reply;
};

}  // namespace esg::internal

#endif
