// Opening, finding, closing and destroying a channel.

#include <map>
#include <utility>

#include "IPCS/internal/Channel.h"
#include "IPCS/internal/Requests.h"

namespace esg::internal {
namespace {

std::mutex tableMutex;

std::map<DBusConnection*, ChannelPtr>& Table() {
  static auto& table = *new std::map<DBusConnection*, ChannelPtr>;  // also for calls after exit
  return table;
}

/// While a thread opens a connection, it holds a lock of libdbus until the bus responds, and
/// closing needs that lock. No channel is therefore closed while a thread opens one: that thread
/// destroys those in toDestroy afterwards. tableMutex guards both.
int opening = 0;
Channel* toDestroy = nullptr;

}  // namespace

Channel::Channel(ConnectionPtr connection, Mail mail)
    : m_connection(std::move(connection)),
      m_mail(mail),
      m_requests(std::make_unique<Requests>(*this)) {
  dbus_connection_get_socket(Connection(), &m_socket);
}

ChannelPtr Channel::Open(Mail mail, Error& error) {
  const auto unlock = [] { tableMutex.unlock(); };  // keeps the table consistent in a child
  static const bool isSafe = pthread_atfork([] { tableMutex.lock(); }, unlock, unlock) == 0;
  const NoCancel guard;  // libdbus holds a lock here
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
  // A dropped call gets no reply either.
  dbus_connection_set_route_peer_messages(channel->Connection(), mail == Mail::Drop ? TRUE : FALSE);
  // Other processes may send descriptors; libdbus would accept more than a process may have.
  dbus_connection_set_max_received_unix_fds(channel->Connection(), 1);
  channel->m_hasFilter = dbus_connection_add_filter(channel->Connection(), &OnMessage,
                                                    channel.get(), nullptr) != FALSE;
  if (!isSafe || !channel->m_hasFilter || channel->m_wakeUp.number < 0 || !channel->OwnWatches() ||
      !channel->Poll(channel->m_toggled.number, EPOLLIN)) {
    dbus_set_error_const(&error, DBUS_ERROR_NO_MEMORY, "No resources to wait for replies");
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

void Channel::Close() {
  if (IsForeign()) {
    return;
  }
  const Lock lock(*this);
  m_handler = nullptr;
  m_source.reset();
  m_requests->Close();
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
  // dbus-glib's source holds no reference to the connection. The connection must not be destroyed
  // while another thread runs the context.
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
  // Takes the lock, so that a race detector sees which thread held it last.
  self->m_requests->Drop();
  const std::lock_guard<std::mutex> table(tableMutex);
  if (opening > 0) {
    self->m_nextToDestroy = std::exchange(toDestroy, self);
  } else {
    delete self;
  }
  return G_SOURCE_REMOVE;
}

Channel::~Channel() {
  // The connection may stay alive, and dbus-glib's source with it.
  dbus_connection_close(Connection());
  if (m_hasFilter) {
    dbus_connection_remove_filter(Connection(), &OnMessage, this);
  }
}

}  // namespace esg::internal
