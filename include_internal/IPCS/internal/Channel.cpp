#include "IPCS/internal/Channel.h"

#include <dbus/dbus-glib-lowlevel.h>
#include <glib-unix.h>
#include <poll.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <map>
#include <new>
#include <utility>

#include "Log.h"

namespace esg::internal {
namespace {

/// libdbus's default, counted from the call.
constexpr std::chrono::seconds kTimeLimit(25);
constexpr std::chrono::milliseconds kSendLimit(100);
constexpr std::chrono::milliseconds kMemoryRetry(100);
/// A stock bus lets 128 answers be outstanding on a connection, and fails the calls beyond that.
constexpr std::size_t kMaxOutstanding = 120;
/// libdbus reads so many bytes at a time. More are read in one turn, up to a limit.
constexpr int kReadSize = 4096;
constexpr int kMaxRead = 256 * 1024;
constexpr std::size_t kManyGivenUp = kMaxOutstanding / 2;
/// However many are given up: the bus may have room, and a call that hangs does not stop the next.
constexpr std::size_t kMinLive = 2;

std::mutex tableMutex;

std::map<DBusConnection*, ChannelPtr>& Table() {
  static auto& table = *new std::map<DBusConnection*, ChannelPtr>;  // for calls after exit, too
  return table;
}

/// Opening takes a lock of libdbus's for as long as the bus takes, and closing wants it. So nothing
/// is closed while a thread opens; what has to go is left to that thread. With tableMutex.
int opening = 0;
Channel* toDestroy = nullptr;

void Clear(const FileDescriptor& event) {
  eventfd_t count = 0;
  eventfd_read(event.number, &count);
}

/// In libdbus's own words.
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

/// Set while a handler runs on this thread; unlocked once it has entered the application's code.
thread_local Channel::Lock* handlerLock = nullptr;

}  // namespace

/// One call that waits.
struct Channel::Caller {
  explicit Caller(DBusMessage* sent, std::uint64_t number = 0) : message(sent), request(number) {}
  DBusMessage* const message;
  const std::uint64_t request;  // 0: blocks, on its thread's stack
  const Clock::time_point deadline = Clock::now() + kTimeLimit;
  std::list<Place> seat{{this}};  // moves to the queue, and on, without needing memory
  const std::list<Place>::iterator place = seat.begin();
  std::condition_variable wake;
  bool isDone = false;
  Outcome outcome = Outcome::Answered;
  MessagePtr reply;
};

struct Channel::Request : Caller {
  Request(MessagePtr owned, Done callback, std::uint64_t number)
      : Caller(owned.get(), number), messageOwner(std::move(owned)), done(std::move(callback)) {}
  const MessagePtr messageOwner;
  const Done done;
  std::list<std::uint64_t> ticket{request};  // moves to those answered, likewise
};

Channel::Channel(ConnectionPtr connection, Mail mail)
    : m_connection(std::move(connection)), m_mail(mail) {}

ChannelPtr Channel::Open(Mail mail, Error& error) {
  const auto unlock = [] { tableMutex.unlock(); };  // the table is whole in a child as well
  static const bool isSafe = pthread_atfork([] { tableMutex.lock(); }, unlock, unlock) == 0;
  const NoCancel guard;  // of libdbus's lock
  std::unique_lock<std::mutex> lock(tableMutex);
  ++opening;
  lock.unlock();
  ConnectionPtr connection(dbus_bus_get_private(DBUS_BUS_SYSTEM, &error));
  lock.lock();
  Channel* left = --opening == 0 ? std::exchange(toDestroy, nullptr) : nullptr;
  lock.unlock();
  while (left != nullptr) {
    Release(std::exchange(left, left->m_nextToDestroy));
  }
  if (connection == nullptr) {
    return nullptr;
  }
  dbus_connection_set_exit_on_disconnect(connection.get(), FALSE);
  ChannelPtr channel(new Channel(std::move(connection), mail), &Release);
  // What is dropped is not answered either.
  dbus_connection_set_route_peer_messages(channel->Connection(), mail == Mail::Drop ? TRUE : FALSE);
  // Strangers may send descriptors; libdbus would take more than a process has.
  dbus_connection_set_max_received_unix_fds(channel->Connection(), 1);
  channel->m_hasFilter = dbus_connection_add_filter(channel->Connection(), &OnMessage,
                                                    channel.get(), nullptr) != FALSE;
  if (!isSafe || !channel->m_hasFilter || channel->m_wakeUp.number < 0 || !channel->OwnWatches() ||
      !channel->Poll(channel->m_toggled.number, EPOLLIN)) {
    dbus_set_error_const(&error, DBUS_ERROR_NO_MEMORY, "No resources to wait for answers");
    return nullptr;
  }
  return channel;
}

ChannelPtr Channel::Of(DBusConnection* const& field) {
  const std::lock_guard<std::mutex> lock(tableMutex);
  const auto found = Table().find(field);
  return found != Table().end() ? found->second : nullptr;
}

ChannelPtr Channel::Exchange(DBusConnection*& field, const ChannelPtr& channel) {
  const std::lock_guard<std::mutex> lock(tableMutex);
  const auto previous = Table().extract(field);
  field = channel != nullptr ? channel->Connection() : nullptr;
  Table().insert({field, channel});
  return previous.empty() ? nullptr : previous.mapped();
}

Channel::Outcome Channel::Call(DBusMessage* message, MessagePtr& reply) {
  Caller caller(message);
  Lock lock(*this);
  if (m_isLost || dbus_connection_get_is_connected(Connection()) == FALSE) {
    return Outcome::NotConnected;
  }
  m_callers.reserve(m_callers.size() + 1);
  EndLateRequests();
  Enter(caller);
  m_callers.push_back(&caller);
  Wait(lock, caller);
  reply = caller.isDone ? std::move(caller.reply) : NewFailure(message, m_isLost);
  WarnOnce(lock);
  return caller.outcome;
}

void Channel::WarnOnce(Lock& lock) {
  if (m_warns && !std::exchange(m_hasWarned, true)) {
    const std::size_t givenUp = m_givenUp;
    lock.unlock();  // whoever writes the log may take long
    ESG_LOGE("%zu calls were given up; the bus counts them until the service answers or ends\n",
             givenUp);
    lock.lock();
  }
}

std::uint64_t Channel::Ask(MessagePtr message, Done done) {
  Attach(nullptr);
  const Lock lock(*this);
  const std::uint64_t number = ++m_lastNumber;
  auto owner = std::make_unique<Request>(std::move(message), std::move(done), number);
  Request& request = *m_requests.emplace(number, std::move(owner)).first->second;
  if (request.message == nullptr) {
    request.outcome = Outcome::NotSent;
    Finish(request);
  } else if (m_isLost || dbus_connection_get_is_connected(Connection()) == FALSE) {
    request.outcome = Outcome::NotConnected;
    Finish(request);
  } else {
    Enter(request);
  }
  Schedule();
  return number;
}

bool Channel::Cancel(std::uint64_t number) {
  Requests::node_type request;  // destroyed after the lock: its callback is the application's
  const Lock lock(*this);
  request = m_requests.extract(number);
  if (request.empty()) {
    return false;
  }
  if (!request.mapped()->isDone) {
    GiveUp(*request.mapped());
    m_sends = true;
    Schedule();
  }
  if (g_main_context_is_owner(g_main_context_default()) == FALSE) {
    m_takenBack.insert(std::move(request));
    Schedule();
  }
  return true;
}

void Channel::AskBus(const MessagePtr& request, DBusError* error) {
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
      continue;  // nobody would take the answer
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
  if (caller.request != 0) {
    m_answered.splice(m_answered.end(), static_cast<Request&>(caller).ticket);
    Schedule();
    return;
  }
  caller.wake.notify_one();
  if (&caller == m_reader && m_isPolling) {  // another thread finishes it
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

void Channel::Wait(Lock& lock, Caller& caller) {
  const auto leave = [this, &lock](Caller* leaving) {
    lock.LetCancel(false);
    if (!lock.owns_lock()) {
      lock.lock();
    }
    Leave(*leaving);
  };
  // Whatever ends the wait, the thread's cancellation included.
  const std::unique_ptr<Caller, decltype(leave)> guard(&caller, leave);

  while (!caller.isDone && !m_isLost && Clock::now() < caller.deadline) {
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

void Channel::Leave(Caller& caller) {
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
                                 [](const Caller* each) { return !each->isDone; });
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
  m_needsMemory = m_needsMemory || status == DBUS_DISPATCH_NEED_MEMORY;
}

DBusHandlerResult Channel::OnMessage(DBusConnection* /*connection*/, DBusMessage* message,
                                     void* channel) {
  auto& self = *static_cast<Channel*>(channel);
  const Lock lock(self);
  const int type = dbus_message_get_type(message);
  if (type == DBUS_MESSAGE_TYPE_METHOD_RETURN || type == DBUS_MESSAGE_TYPE_ERROR) {
    self.TakeAnswer(message);
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

void Channel::TakeAnswer(DBusMessage* message) {
  const dbus_uint32_t serial = dbus_message_get_reply_serial(message);
  const auto place = std::find_if(m_outstanding.begin(), m_outstanding.end(),
                                  [serial](const Place& each) { return each.serial == serial; });
  if (place == m_outstanding.end()) {
    return;
  }
  Caller* const caller = place->caller;
  m_outstanding.erase(place);
  if (caller != nullptr) {
    // libdbus stops reading while much of what it read is alive, and the main loop may take long.
    const bool mayWait = caller->request != 0 && !m_answered.empty();
    caller->reply.reset(mayWait ? dbus_message_copy(message) : dbus_message_ref(message));
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
  // A lost connection would keep the message.
  if (hasMore(-1) &&
      (hasMore(maxQueued) || dbus_connection_send(Connection(), message, nullptr) == FALSE)) {
    return false;
  }
  drain(0);
  return true;
}

void Channel::SetLost() {
  m_isLost = true;
  for (Caller* caller : m_callers) {
    caller->wake.notify_one();
  }
  for (auto& [number, request] : m_requests) {
    if (!request->isDone) {
      GiveUp(*request);
      Finish(*request);
    }
  }
  eventfd_write(m_wakeUp.number, 1);
}

bool Channel::OwnWatches() {
  return dbus_connection_set_watch_functions(Connection(), &OnWatch<dbus_bool_t, true>,
                                             &OnWatch<void, false>, &OnWatch<void, true>, this,
                                             nullptr) != FALSE;
}

dbus_bool_t Channel::Watch(DBusWatch* watch, bool isThere) {
  // In any thread, with or without the mutex: libdbus goes on where a message is released, and may
  // have others that it has already read. So whoever polls has to come round.
  const NoCancel guard;  // of libdbus's locks
  const bool reads = (dbus_watch_get_flags(watch) & DBUS_WATCH_READABLE) != 0;
  (reads ? m_readWatch : m_writeWatch) = isThere ? watch : nullptr;
  const auto wants = [](DBusWatch* each, EPOLL_EVENTS event) {
    return each != nullptr && dbus_watch_get_enabled(each) != FALSE ? event : 0U;
  };
  const bool isPolled = Poll(dbus_watch_get_unix_fd(watch),
                             wants(m_readWatch, EPOLLIN) | wants(m_writeWatch, EPOLLOUT));
  eventfd_write(m_toggled.number, 1);
  m_hasToggled = true;  // not before, or it would be cleared too early and stay raised
  return isPolled ? TRUE : FALSE;
}

bool Channel::Poll(int file, unsigned int events) const {
  epoll_event wanted = {};
  wanted.events = events;
  if (events == 0) {  // a hang-up would be reported even so, again and again
    return epoll_ctl(m_epoll.number, EPOLL_CTL_DEL, file, &wanted) == 0 || errno == ENOENT;
  }
  return epoll_ctl(m_epoll.number, EPOLL_CTL_MOD, file, &wanted) == 0 ||
         epoll_ctl(m_epoll.number, EPOLL_CTL_ADD, file, &wanted) == 0;
}

void Channel::Attach(GMainContext* context) {
  context = context != nullptr ? context : g_main_context_default();
  const Lock lock(*this);
  if (m_isClosed) {
    return;
  }
  if (m_source != nullptr && g_source_is_destroyed(m_source.get()) == FALSE &&
      g_source_get_context(m_source.get()) == context) {
    return;
  }
  if (m_mail == Mail::Keep && m_firstContext == nullptr) {
    dbus_connection_setup_with_g_main(Connection(), context);
    // The watches stay with the channel; GLib would use them without its mutex. So libdbus's own
    // source only dispatches, and may stay where it is if the channel moves.
    OwnWatches();
    m_firstContext = context;
  }
  m_source.reset(g_unix_fd_source_new(m_epoll.number, G_IO_IN));
  g_source_set_callback(m_source.get(), G_SOURCE_FUNC(&OnContext), Connection(), nullptr);
  // Callbacks of requests may wait for others in nested main loops; mail never comes nested.
  g_source_set_can_recurse(m_source.get(), m_mail == Mail::Drop ? TRUE : FALSE);
  g_source_attach(m_source.get(), context);
  Schedule();
}

gboolean Channel::OnContext(gint /*file*/, GIOCondition condition, gpointer connection) {
  const ChannelPtr self = Of(static_cast<DBusConnection*>(connection));
  if (self == nullptr || self->IsForeign()) {
    return G_SOURCE_REMOVE;
  }
  Lock lock(*self);
  GSource* source = g_main_current_source();
  if (source == self->m_source.get()) {
    if (!self->m_takenBack.empty()) {
      Requests takenBack;
      takenBack.swap(self->m_takenBack);
      lock.unlock();
      takenBack.clear();  // and the application's callbacks
      lock.lock();
    }
    if (condition != 0 || self->m_needsMemory) {
      self->ReadAndWrite(lock);
    }
    self->m_sends = false;
    self->EndLateRequests();
    self->WarnOnce(lock);
    if (source == self->m_source.get()) {
      self->DeliverAnswer(lock);
    }
    self->Deliver(lock);
  }
  self->Schedule();
  return source == self->m_source.get() ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
}

bool Channel::HasMail() const {
  return !m_inbox.empty() && m_handler != nullptr && m_deliverer == std::thread::id();
}

void Channel::Schedule() {
  if (m_source == nullptr) {
    return;
  }
  const auto microseconds = [](Clock::time_point time) {  // GLib has the same clock
    return std::chrono::ceil<std::chrono::microseconds>(time.time_since_epoch()).count();
  };
  gint64 time = -1;
  if (HasMail() || m_sends || !m_answered.empty() || !m_takenBack.empty()) {
    time = 0;
  } else if (m_needsMemory) {
    time = microseconds(Clock::now() + kMemoryRetry);
  } else if (!m_requests.empty()) {  // none is answered, and the first is the oldest
    time = microseconds(m_requests.begin()->second->deadline);
  }
  g_source_set_ready_time(m_source.get(), time);  // wakes the context up if that is new
}

void Channel::Deliver(Lock& lock) {
  if (!HasMail()) {
    return;
  }
  const MessagePtr message = std::move(m_inbox.front());
  m_inbox.pop_front();
  m_deliverer = std::this_thread::get_id();
  Lock* const outer = std::exchange(handlerLock, &lock);
  const DBusHandlerResult result = m_handler(Connection(), message.get(), m_handlerUser);
  handlerLock = outer;
  if (!lock.owns_lock()) {
    lock.lock();
  }
  // What libdbus does with a call that nobody handles.
  if (result == DBUS_HANDLER_RESULT_NOT_YET_HANDLED &&
      dbus_message_get_type(message.get()) == DBUS_MESSAGE_TYPE_METHOD_CALL &&
      dbus_message_get_no_reply(message.get()) == FALSE) {
    const MessagePtr error(dbus_message_new_error(message.get(), DBUS_ERROR_UNKNOWN_METHOD,
                                                  "There is no such method here"));
    if (error != nullptr) {
      dbus_connection_send(Connection(), error.get(), nullptr);
    }
  }
  m_deliverer = std::thread::id();
  m_delivered.notify_all();
}

void Channel::EndLateRequests() {
  const Clock::time_point now = Clock::now();
  for (auto each = m_requests.upper_bound(m_lastLate);
       each != m_requests.end() && each->second->deadline <= now; ++each) {
    m_lastLate = each->first;
    if (!each->second->isDone) {
      GiveUp(*each->second);
      Finish(*each->second);
    }
  }
  SendQueued();
}

void Channel::DeliverAnswer(Lock& lock) {
  Requests::node_type answered;
  while (answered.empty() && !m_answered.empty()) {
    answered = m_requests.extract(m_answered.front());
    m_answered.pop_front();
  }
  if (answered.empty()) {
    return;
  }
  Request& request = *answered.mapped();
  if (request.outcome == Outcome::Answered && request.reply == nullptr) {
    request.reply = NewFailure(request.message, m_isLost);
  }
  lock.unlock();
  [&request]() noexcept { request.done(request.outcome, request.reply); }();
  answered = {};  // and its callback
  lock.lock();
}

void Channel::EnterCallback() {
  if (handlerLock != nullptr && handlerLock->owns_lock()) {
    handlerLock->unlock();
  }
}

void Channel::SetHandler(DBusHandleMessageFunction handler, void* user) {
  const Lock lock(*this);
  m_handler = handler;
  m_handlerUser = user;
  Schedule();
}

void Channel::RemoveHandler(std::chrono::milliseconds limit) {
  Lock lock(*this);
  m_handler = nullptr;
  m_delivered.wait_for(lock, limit, [this] {
    return m_deliverer == std::thread::id() || m_deliverer == std::this_thread::get_id();
  });
}

void Channel::Close() {
  if (IsForeign()) {
    return;
  }
  const Lock lock(*this);
  m_handler = nullptr;
  m_source.reset();
  m_isClosed = true;
  SetLost();
  const std::lock_guard<std::mutex> table(tableMutex);
  if (opening == 0) {
    dbus_connection_close(Connection());
  }
}

void Channel::Release(Channel* channel) {
  GMainContext* context = channel->m_firstContext;
  if (channel->IsForeign()) {
    return;
  }
  // dbus-glib's source has no reference to the connection, which must not go while another thread
  // runs the context.
  if (context == nullptr) {
    Destroy(channel);
  } else if (g_main_context_acquire(context) != FALSE) {
    g_main_context_ref(context);
    Destroy(channel);
    g_main_context_release(context);
    g_main_context_unref(context);
  } else {
    g_main_context_invoke_full(context, G_PRIORITY_HIGH, &Destroy, channel, nullptr);
  }
}

gboolean Channel::Destroy(gpointer channel) {
  auto* self = static_cast<Channel*>(channel);
  { const Lock lock(*self); }  // shows a race detector who had it last
  const std::lock_guard<std::mutex> table(tableMutex);
  if (opening > 0) {
    self->m_nextToDestroy = std::exchange(toDestroy, self);
  } else {
    delete self;
  }
  return G_SOURCE_REMOVE;
}

Channel::~Channel() {
  // The connection may stay, and dbus-glib's source with it.
  dbus_connection_close(Connection());
  if (m_hasFilter) {
    dbus_connection_remove_filter(Connection(), &OnMessage, this);
  }
}

}  // namespace esg::internal
