#include "IPCS/internal/Channel.h"

#include <poll.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <new>
#include <utility>

#include "IPCS/internal/Requests.h"
#include "Log.h"

namespace esg::internal {
namespace {

constexpr std::chrono::milliseconds kSendLimit(100);
/// A stock bus allows 128 outstanding calls on a connection, and rejects further ones.
constexpr std::size_t kMaxOutstanding = 120;
/// libdbus reads kReadSize bytes at a time. One turn reads several times, up to a limit.
constexpr int kReadSize = 4096;
constexpr int kMaxRead = 256 * 1024;
constexpr std::size_t kManyGivenUp = kMaxOutstanding / 2;
/// Sent however many calls were given up: the bus may have room, and one unresponsive call must not
/// block the next.
constexpr std::size_t kMinLive = 2;

void Clear(const FileDescriptor& event) {
  eventfd_t count = 0;
  eventfd_read(event.number, &count);
}

/// An error with the text that libdbus uses.
MessagePtr NewFailure(DBusMessage* call, bool isLost) {
  if (dbus_message_get_serial(call) == 0) {
    dbus_message_set_serial(call, 1);  // it was never sent
  }
  return MessagePtr(
      isLost ? dbus_message_new_error(call, DBUS_ERROR_DISCONNECTED,
                                      "Connection was disconnected before a reply was received")
             : dbus_message_new_error(
                   call, DBUS_ERROR_NO_REPLY,
                   "Did not receive a reply. Possible causes include: the remote application did "
                   "not send a reply, the message bus security policy blocked the reply, the reply "
                   "timeout expired, or the network connection was broken."));
}

}  // namespace

/// A caller that sleeps or reads until its reply arrives; on its thread's stack.
struct Channel::Blocked : Caller {
  using Caller::Caller;
  void OnDone() noexcept override { wake.notify_one(); }
  std::condition_variable wake;
};

bool Channel::IsConnected() const {
  return !m_isLost && dbus_connection_get_is_connected(Connection()) != FALSE;
}

Channel::Outcome Channel::Call(DBusMessage* message, MessagePtr& reply) {
  Blocked caller(message);
  Lock lock(*this);
  if (!IsConnected()) {
    return Outcome::NotConnected;
  }
  m_callers.reserve(m_callers.size() + 1);
  EndLate();
  Enter(caller);
  m_callers.push_back(&caller);
  Wait(lock, caller);
  GiveReason(caller);
  reply = std::move(caller.reply);
  WarnOnce(lock);
  return caller.outcome;
}

void Channel::GiveReason(Caller& caller) const {
  if (caller.outcome == Outcome::Replied && caller.reply == nullptr) {
    caller.reply = NewFailure(caller.message, m_isLost);
  }
}

void Channel::WarnOnce(Lock& lock) {
  if (m_warns && !std::exchange(m_hasWarned, true)) {
    const std::size_t givenUp = m_givenUp;
    lock.unlock();  // writing to the log may take long
    ESG_LOGE("%zu calls were given up; the bus counts them until the service answers or ends\n",
             givenUp);
    lock.lock();
  }
}

void Channel::CallBus(const MessagePtr& request, DBusError* error) {
  MessagePtr reply;
  const Outcome outcome = request != nullptr ? Call(request.get(), reply) : Outcome::NotSent;
  if (outcome == Outcome::NotConnected) {
    dbus_set_error_const(error, DBUS_ERROR_DISCONNECTED, "Connection is closed");
  } else if (reply == nullptr) {
    dbus_set_error_const(error, DBUS_ERROR_NO_MEMORY, "No memory for a request to the bus");
  } else {
    dbus_set_error_from_message(error, reply.get());
  }
}

void Channel::Enter(Caller& caller) {
  m_queue.splice(m_queue.end(), caller.seat);
  SendQueued();
}

void Channel::SendQueued() {
  auto next = m_queue.begin();
  while (!m_isLost && next != m_queue.end() &&
         m_outstanding.size() < std::max(kMaxOutstanding, m_givenUp + kMinLive)) {
    const auto place = next++;
    Caller& caller = *place->caller;
    if (caller.deadline <= Clock::now()) {
      continue;  // the caller would not wait for the reply
    }
    m_outstanding.splice(m_outstanding.end(), m_queue, place);
    if (dbus_connection_send(Connection(), caller.message, &place->serial) == FALSE) {
      m_outstanding.pop_back();
      caller.outcome = Outcome::NotSent;
      Finish(caller);
    }
  }
}

void Channel::Finish(Caller& caller) {
  caller.isDone = true;
  caller.OnDone();
  if (&caller == m_reader && m_isPolling) {  // another thread finishes the call of the reader
    eventfd_write(m_wakeUp.number, 1);
  }
}

void Channel::GiveUp(Caller& caller) {
  if (caller.place->serial == 0) {
    m_queue.erase(caller.place);
    return;
  }
  caller.place->caller = nullptr;
  ++m_givenUp;
  m_warns = m_warns || (m_givenUp >= kManyGivenUp && caller.deadline <= Clock::now());
}

void Channel::End(Clock::time_point due) {
  // Both lists are in order of the deadline. A blocked caller may also end itself.
  for (std::list<Place>* places : {&m_outstanding, &m_queue}) {
    for (auto next = places->begin(); next != places->end();) {
      Caller* const caller = (next++)->caller;
      if (caller != nullptr && caller->deadline > due) {
        break;
      }
      if (caller != nullptr) {
        GiveUp(*caller);
        Finish(*caller);
      }
    }
  }
}

void Channel::EndLate() {
  End(Clock::now());
  SendQueued();
}

void Channel::Wait(Lock& lock, Blocked& caller) {
  const auto leave = [this, &lock](Blocked* leaving) {
    lock.LetCancel(false);
    if (!lock.owns_lock()) {
      lock.lock();
    }
    Leave(*leaving);
  };
  // Runs however the wait ends, also when the thread is cancelled.
  const std::unique_ptr<Blocked, decltype(leave)> guard(&caller, leave);

  while (!caller.isDone && Clock::now() < caller.deadline) {
    if (m_reader == nullptr || m_reader == &caller) {
      m_reader = &caller;
      Turn(lock, caller.deadline, &caller);
    } else {
      lock.LetCancel(true);
      caller.wake.wait_until(lock, caller.deadline);
      lock.LetCancel(false);
    }
  }
}

void Channel::Leave(Blocked& caller) {
  m_callers.erase(std::find(m_callers.begin(), m_callers.end(), &caller));
  if (!caller.isDone) {
    GiveUp(caller);
    SendQueued();
  }
  if (m_reader == &caller) {
    m_reader = nullptr;
    m_isPolling = false;
  }
  const auto next = std::find_if(m_callers.begin(), m_callers.end(),
                                 [](const Blocked* each) { return !each->isDone; });
  if (m_reader == nullptr && next != m_callers.end()) {
    (*next)->wake.notify_one();
  }
}

void Channel::Turn(Lock& lock, Clock::time_point deadline, const Caller* reader) {
  auto limit = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
  limit = std::max(m_needsMemory ? std::min(limit, kMemoryRetry) : limit, decltype(limit)::zero());
  const int wakeUp = reader != nullptr ? m_wakeUp.number : -1;
  pollfd polled[] = {{m_epoll.number, POLLIN, 0}, {wakeUp, POLLIN, 0}};
  m_isPolling = m_isPolling || reader != nullptr;
  lock.unlock();
  lock.LetCancel(reader != nullptr);
  poll(polled, 2, static_cast<int>(limit.count()));
  lock.LetCancel(false);
  lock.lock();
  m_isPolling = m_isPolling && reader == nullptr;
  if (polled[1].revents != 0) {
    Clear(m_wakeUp);
  }
  ReadAndWrite(lock);
}

void Channel::ReadAndWrite(Lock& lock) {
  if (m_hasToggled.exchange(false)) {
    Clear(m_toggled);
  }
  const auto handle = [](DBusWatch* watch, unsigned int what) {
    const bool isWanted = watch != nullptr && dbus_watch_get_enabled(watch) != FALSE;
    return isWanted && dbus_watch_handle(watch, what) != FALSE;
  };
  handle(m_writeWatch, DBUS_WATCH_WRITABLE);
  int more = 0;
  if (handle(m_readWatch, DBUS_WATCH_READABLE) && m_readWatch != nullptr) {
    ioctl(dbus_watch_get_unix_fd(m_readWatch), FIONREAD, &more);
  }
  for (more = std::min(more, kMaxRead); more > 0; more -= kReadSize) {
    handle(m_readWatch, DBUS_WATCH_READABLE);
  }
  m_needsMemory = false;
  lock.unlock();
  DBusDispatchStatus status = DBUS_DISPATCH_DATA_REMAINS;
  while (status == DBUS_DISPATCH_DATA_REMAINS && !m_needsMemory) {
    status = dbus_connection_dispatch(Connection());
  }
  lock.lock();
  if (status == DBUS_DISPATCH_NEED_MEMORY || (m_isUnpolled && !PollSocket())) {
    m_needsMemory = true;
  }
  if (m_needsMemory) {
    Schedule();  // this thread may leave before the next attempt
  }
}

DBusHandlerResult Channel::OnMessage(DBusConnection* /*connection*/, DBusMessage* message,
                                     void* channel) {
  auto& self = *static_cast<Channel*>(channel);
  const Lock lock(self);
  const int type = dbus_message_get_type(message);
  if (type == DBUS_MESSAGE_TYPE_METHOD_RETURN || type == DBUS_MESSAGE_TYPE_ERROR) {
    self.TakeReply(message);
    return DBUS_HANDLER_RESULT_HANDLED;
  }
  if (dbus_message_is_signal(message, DBUS_INTERFACE_LOCAL, "Disconnected") != FALSE) {
    self.SetLost();
  }
  if (self.m_mail == Mail::Drop || dbus_message_contains_unix_fds(message) != FALSE) {
    return DBUS_HANDLER_RESULT_HANDLED;
  }
  try {
    self.m_inbox.emplace_back();
  } catch (const std::bad_alloc&) {  // must not pass through libdbus, which tries again later
    self.m_needsMemory = true;
    return DBUS_HANDLER_RESULT_NEED_MEMORY;
  }
  self.m_inbox.back().reset(dbus_message_ref(message));
  self.Schedule();
  return DBUS_HANDLER_RESULT_HANDLED;
}

void Channel::TakeReply(DBusMessage* message) {
  const dbus_uint32_t serial = dbus_message_get_reply_serial(message);
  const auto place = std::find_if(m_outstanding.begin(), m_outstanding.end(),
                                  [serial](const Place& each) { return each.serial == serial; });
  if (place == m_outstanding.end()) {
    return;
  }
  Caller* const caller = place->caller;
  m_outstanding.erase(place);
  if (caller != nullptr) {
    // libdbus stops reading while many bytes of its messages are alive, and the main loop may take
    // long to use this one.
    caller->reply.reset(caller->MayTakeLong() ? dbus_message_copy(message)
                                              : dbus_message_ref(message));
    Finish(*caller);
  } else {
    --m_givenUp;
  }
  SendQueued();
}

bool Channel::Send(DBusMessage* message, long maxQueued) {
  Lock lock(*this);
  const Clock::time_point deadline = Clock::now() + kSendLimit;
  const auto hasMore = [this](long most) {
    return dbus_connection_get_is_connected(Connection()) != FALSE &&
           dbus_connection_get_outgoing_size(Connection()) > most;
  };
  const auto drain = [&](long most) {
    while (hasMore(most) && Clock::now() < deadline) {
      Turn(lock, deadline, nullptr);
    }
  };
  Turn(lock, Clock::now(), nullptr);
  drain(maxQueued);
  // A lost connection would keep the message in memory.
  if (hasMore(-1) &&
      (hasMore(maxQueued) || dbus_connection_send(Connection(), message, nullptr) == FALSE)) {
    return false;
  }
  drain(0);
  return true;
}

void Channel::SetLost() {
  m_isLost = true;
  End(Clock::time_point::max());
}

bool Channel::OwnWatches() {
  return dbus_connection_set_watch_functions(Connection(), &OnWatch<dbus_bool_t, true>,
                                             &OnWatch<void, false>, &OnWatch<void, true>, this,
                                             nullptr) != FALSE;
}

dbus_bool_t Channel::Watch(DBusWatch* watch, bool isThere) {
  // Runs on any thread, with or without the mutex: libdbus enables its watch in the thread that
  // releases a message. It may hold messages that it has already read, so all pollers must wake up.
  const NoCancel guard;  // libdbus holds locks here
  const bool reads = (dbus_watch_get_flags(watch) & DBUS_WATCH_READABLE) != 0;
  (reads ? m_readWatch : m_writeWatch) = isThere ? watch : nullptr;
  const bool isPolled = PollSocket();
  eventfd_write(m_toggled.number, 1);
  // After the write: otherwise a thread clears the event too early, and it stays set.
  m_hasToggled = true;
  return isPolled ? TRUE : FALSE;
}

bool Channel::PollSocket() {
  const auto wants = [](DBusWatch* watch, EPOLL_EVENTS event) {
    return watch != nullptr && dbus_watch_get_enabled(watch) != FALSE ? event : 0U;
  };
  m_isUnpolled = !Poll(m_socket, wants(m_readWatch, EPOLLIN) | wants(m_writeWatch, EPOLLOUT));
  return !m_isUnpolled;
}

bool Channel::Poll(int file, unsigned int events) const {
  epoll_event wanted = {};
  wanted.events = events;
  if (events == 0) {  // epoll would still report a hang-up, again and again
    epoll_ctl(m_epoll.number, EPOLL_CTL_DEL, file, &wanted);
    return true;
  }
  return epoll_ctl(m_epoll.number, EPOLL_CTL_MOD, file, &wanted) == 0 ||
         epoll_ctl(m_epoll.number, EPOLL_CTL_ADD, file, &wanted) == 0;
}

}  // namespace esg::internal
