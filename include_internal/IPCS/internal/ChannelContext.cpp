// The main context reads for a channel and delivers its mail.

#include <dbus/dbus-glib-lowlevel.h>
#include <glib-unix.h>

#include <new>
#include <utility>

#include "IPCS/internal/Channel.h"

namespace esg::internal {
namespace {

/// Set while a handler runs on this thread; unlocked once it enters the application's code.
thread_local Channel::Lock* handlerLock = nullptr;

}  // namespace

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
    // The channel keeps the watches, because GLib would use them without the mutex. dbus-glib's
    // source therefore only dispatches, and may stay if the channel moves to another context.
    OwnWatches();
    m_firstContext = context;
  }
  m_source.reset(g_unix_fd_source_new(m_epoll.number, G_IO_IN));
  g_source_set_callback(m_source.get(), G_SOURCE_FUNC(&OnContext), Connection(), nullptr);
  // The callback of a request may wait for other requests in a nested main loop; mail is never
  // nested.
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
    if (condition != 0 || self->m_needsMemory) {
      self->ReadAndWrite(lock);
    }
    if (source == self->m_source.get()) {  // and the channel has not moved meanwhile
      self->Deliver(lock);
    }
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
  gint64 time = -1;
  if (HasMail()) {
    time = 0;
  } else if (m_needsMemory) {
    time = GLibTime(Clock::now() + kMemoryRetry);
  }
  g_source_set_ready_time(m_source.get(), time);  // wakes the context if the time has changed
}

gint64 Channel::GLibTime(Clock::time_point time) {  // GLib uses the same clock
  return std::chrono::ceil<std::chrono::microseconds>(time.time_since_epoch()).count();
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
  // libdbus sends the same reply to a call that no handler accepts.
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

}  // namespace esg::internal
