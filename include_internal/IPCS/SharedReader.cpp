#include "IPCS/SharedReader.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>

namespace ipcs {
namespace {

dbus_int32_t readerSlot = -1;

}  // namespace

DBusConnection* SharedReader::OpenSystemBus(Error& error) {
  DBusConnection* connection = ipcs::OpenSystemBus(error);
  if (connection != nullptr && !Attach(connection)) {
    dbus_set_error_const(error.Out(), DBUS_ERROR_NO_MEMORY, "No resources to wait for replies");
    CloseAndRelease(connection);
    return nullptr;
  }
  return connection;
}

bool SharedReader::Attach(DBusConnection* connection) {
  const int wakeDescriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wakeDescriptor < 0) {
    return false;
  }
  auto* reader = new SharedReader(connection, wakeDescriptor);
  const auto release = [](void* data) { delete static_cast<SharedReader*>(data); };
  if (dbus_connection_allocate_data_slot(&readerSlot) == FALSE ||
      dbus_connection_set_data(connection, readerSlot, reader, release) == FALSE) {
    delete reader;
    return false;
  }
  dbus_connection_set_wakeup_main_function(connection, &OnWakeUp, reader, nullptr);
  // Whether a watch is enabled is looked up when it matters, so nothing is to be done on a toggle.
  const auto onToggleWatch = [](DBusWatch* /*watch*/, void* /*reader*/) {};
  return dbus_connection_set_watch_functions(connection, &OnAddWatch, &OnRemoveWatch, onToggleWatch,
                                             reader, nullptr) != FALSE &&
         dbus_connection_set_timeout_functions(connection, &OnAddTimeout, &OnRemoveTimeout,
                                               &OnToggleTimeout, reader, nullptr) != FALSE;
}

SharedReader& SharedReader::Of(DBusConnection* connection) {
  return *static_cast<SharedReader*>(dbus_connection_get_data(connection, readerSlot));
}

SharedReader::SharedReader(DBusConnection* connection, int wakeDescriptor)
    : m_connection(connection), m_wakeDescriptor(wakeDescriptor) {}

SharedReader::~SharedReader() { close(m_wakeDescriptor); }

bool SharedReader::Send(DBusMessage* message, Caller& caller) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  // Room first: from sending on nothing here may fail, and OnAddTimeout must not throw through
  // libdbus.
  m_callers.reserve(m_callers.size() + 1);
  m_limits.reserve(m_limits.size() + 1);

  DBusPendingCall* pending = nullptr;
  if (dbus_connection_send_with_reply(m_connection, message, &pending, DBUS_TIMEOUT_USE_DEFAULT) ==
      FALSE) {
    return false;
  }
  caller.pending.reset(pending);
  if (pending != nullptr) {
    if (dbus_pending_call_set_notify(pending, &OnReply, &caller, nullptr) == FALSE) {
      dbus_pending_call_cancel(pending);
      return false;
    }
    m_callers.push_back(&caller);
  }
  return true;
}

MessagePtr SharedReader::Wait(DBusMessage* message, Caller& caller) {
  std::unique_lock<std::mutex> lock(m_mutex);
  while (!caller.done && dbus_connection_get_is_connected(m_connection) != FALSE) {
    if (m_reading) {
      caller.wake.wait(lock);
    } else {
      ReadOnce(lock);
    }
  }
  m_callers.erase(std::find(m_callers.begin(), m_callers.end(), &caller));
  if (!m_reading) {
    PassOn();
  }
  if (!caller.done) {
    // A reply may still be queued, and the caller is about to go.
    dbus_pending_call_cancel(caller.pending.get());
    // libdbus's own words, which its blocking wait would have given.
    return MessagePtr(
        dbus_message_new_error(message, DBUS_ERROR_DISCONNECTED,
                               "Connection was disconnected before a reply was received"));
  }
  return MessagePtr(dbus_pending_call_steal_reply(caller.pending.get()));
}

void SharedReader::PassOn() {
  const auto next = std::find_if(m_callers.begin(), m_callers.end(),
                                 [](const Caller* caller) { return !caller->done; });
  if (next != m_callers.end()) {
    (*next)->wake.notify_one();
  }
}

void SharedReader::Close() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  dbus_connection_close(m_connection);
  Wake();
  PassOn();
}

void SharedReader::ReadOnce(std::unique_lock<std::mutex>& lock) {
  pollfd polled[] = {{-1, 0, 0}, {m_wakeDescriptor, POLLIN, 0}};
  pollfd& socket = polled[0];
  for (DBusWatch* watch : m_watches) {
    if (dbus_watch_get_enabled(watch) != FALSE) {
      const bool reads = (dbus_watch_get_flags(watch) & DBUS_WATCH_READABLE) != 0;
      socket.fd = dbus_watch_get_unix_fd(watch);
      socket.events = static_cast<short>(socket.events | (reads ? POLLIN : POLLOUT));
    }
  }
  const int limit = MillisecondsToNextExpiry();

  m_reading = true;
  m_polling = true;
  lock.unlock();
  const int ready = poll(polled, 2, limit);
  lock.lock();
  m_polling = false;

  if (polled[1].revents != 0) {
    std::uint64_t count = 0;
    static_cast<void>(read(m_wakeDescriptor, &count, sizeof(count)));
  }
  if ((socket.revents & POLLOUT) != 0) {
    Handle(DBUS_WATCH_WRITABLE);
  }
  if ((socket.revents & ~POLLOUT) != 0) {
    // After an error or a hang-up there may still be something to read; reading finds out.
    Handle(DBUS_WATCH_READABLE);
  }
  if (ready <= 0 || limit == 0) {
    HandleExpired();
  }
  // Runs OnReply for the replies among what came in, and drops the rest.
  while (dbus_connection_dispatch(m_connection) == DBUS_DISPATCH_DATA_REMAINS) {
  }
  m_reading = false;
}

void SharedReader::Handle(unsigned int flag) {
  // Looked up afresh: handling one watch may remove the other.
  const auto watch = std::find_if(m_watches.begin(), m_watches.end(), [flag](DBusWatch* candidate) {
    return (dbus_watch_get_flags(candidate) & flag) != 0;
  });
  if (watch != m_watches.end()) {
    dbus_watch_handle(*watch, flag);
  }
}

int SharedReader::MillisecondsToNextExpiry() const {
  if (m_limits.empty()) {
    return -1;
  }
  const auto next =
      std::min_element(m_limits.begin(), m_limits.end(),
                       [](const TimeLimit& a, const TimeLimit& b) { return a.expiry < b.expiry; });
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(next->expiry - Clock::now());
  return static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
}

void SharedReader::HandleExpired() {
  const Clock::time_point now = Clock::now();
  const auto isExpired = [now](const TimeLimit& limit) { return limit.expiry <= now; };
  for (auto expired = std::find_if(m_limits.begin(), m_limits.end(), isExpired);
       expired != m_limits.end();
       expired = std::find_if(m_limits.begin(), m_limits.end(), isExpired)) {
    // Handling removes the time-out; should libdbus lack the memory, it is tried again later.
    expired->expiry = now + std::chrono::seconds(1);
    dbus_timeout_handle(expired->timeout);
  }
}

void SharedReader::Wake() const {
  const std::uint64_t one = 1;
  static_cast<void>(write(m_wakeDescriptor, &one, sizeof(one)));
}

void SharedReader::OnReply(DBusPendingCall* /*pending*/, void* caller) {
  auto* waiting = static_cast<Caller*>(caller);
  waiting->done = true;
  waiting->wake.notify_one();
}

void SharedReader::OnWakeUp(void* reader) {
  // Raised for every message that comes in as well; only a sleeping reader needs it.
  auto* self = static_cast<SharedReader*>(reader);
  if (self->m_polling) {
    self->Wake();
  }
}

dbus_bool_t SharedReader::OnAddWatch(DBusWatch* watch, void* reader) {
  static_cast<SharedReader*>(reader)->m_watches.push_back(watch);
  return TRUE;
}

void SharedReader::OnRemoveWatch(DBusWatch* watch, void* reader) {
  auto& watches = static_cast<SharedReader*>(reader)->m_watches;
  watches.erase(std::remove(watches.begin(), watches.end(), watch), watches.end());
}

dbus_bool_t SharedReader::OnAddTimeout(DBusTimeout* timeout, void* reader) {
  auto& limits = static_cast<SharedReader*>(reader)->m_limits;
  if (dbus_timeout_get_enabled(timeout) != FALSE) {
    if (limits.size() == limits.capacity()) {
      return FALSE;
    }
    limits.push_back(
        {timeout, Clock::now() + std::chrono::milliseconds(dbus_timeout_get_interval(timeout))});
  }
  return TRUE;
}

void SharedReader::OnRemoveTimeout(DBusTimeout* timeout, void* reader) {
  auto& limits = static_cast<SharedReader*>(reader)->m_limits;
  limits.erase(
      std::remove_if(limits.begin(), limits.end(),
                     [timeout](const TimeLimit& limit) { return limit.timeout == timeout; }),
      limits.end());
}

void SharedReader::OnToggleTimeout(DBusTimeout* timeout, void* reader) {
  OnRemoveTimeout(timeout, reader);
  OnAddTimeout(timeout, reader);
}

}  // namespace ipcs
