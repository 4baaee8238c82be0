// How a channel is opened, found, closed and destroyed.

#include <map>
#include <utility>

#include "IPCS/internal/Channel.h"
#include "IPCS/internal/Requests.h"

namespace esg::internal {
namespace {

std::mutex tableMutex;

std::map<DBusConnection*, ChannelPtr>& Table() {
  static auto& table = *new std::map<DBusConnection*, ChannelPtr>;  // for calls after exit, too
  return table;
}

/// Opening takes a lock of libdbus's for as long as the bus takes, and closing wants it. So nothing
/// is closed while a thread opens; what has to go is left to that thread. With tableMutex.
int opening = 0;
Channel* toDestroy = nullptr;

}  // namespace

Channel::Channel(ConnectionPtr connection, Mail mail)
    : m_connection(std::move(connection)),
      m_mail(mail),
      m_requests(std::make_unique<Requests>(*this)) {}

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
  self->m_requests->Drop();  // takes the lock, which shows a race detector who had it last
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
