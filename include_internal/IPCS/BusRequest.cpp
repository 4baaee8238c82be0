#include "IPCS/BusRequest.h"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "IPCS/MainLoop.h"

namespace ipcs {
namespace {

/// Longer than the bus takes, short for a callback that waits.
constexpr std::chrono::milliseconds kPatience(100);

/// Tells the caller of the answer, and stays until the last of both is done with it.
struct Bell {
  std::mutex mutex;
  std::condition_variable rings;
  bool rang = false;

  bool WaitFor(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(mutex);
    return rings.wait_for(lock, limit, [this] { return rang; });
  }
};
using BellPtr = std::shared_ptr<Bell>;

void Ring(DBusPendingCall* /*pending*/, void* user) {
  const BellPtr& bell = *static_cast<BellPtr*>(user);
  const std::lock_guard<std::mutex> lock(bell->mutex);
  bell->rang = true;
  bell->rings.notify_one();
}

void Release(void* user) { delete static_cast<BellPtr*>(user); }

PendingCallPtr Send(DBusConnection* connection, DBusMessage* request, const BellPtr& bell) {
  DBusPendingCall* sent = nullptr;
  dbus_connection_send_with_reply(connection, request, &sent, DBUS_TIMEOUT_USE_DEFAULT);
  PendingCallPtr pending(sent);
  auto user = std::make_unique<BellPtr>(bell);
  if (pending != nullptr &&
      dbus_pending_call_set_notify(pending.get(), &Ring, user.get(), &Release) != FALSE) {
    static_cast<void>(user.release());  // it is the pending call's now
  }
  return pending;
}

}  // namespace

MessagePtr AskBus(DBusConnection* connection, const MessagePtr& request, DBusError* error) {
  if (request == nullptr) {
    dbus_set_error_const(error, DBUS_ERROR_NO_MEMORY, "No memory for a request to the bus");
    return nullptr;
  }
  const BellPtr bell = std::make_shared<Bell>();
  const std::thread::id caller = std::this_thread::get_id();
  PendingCallPtr pending;
  bool isSent = false;
  const auto step = [&] {
    if (!isSent) {
      isSent = true;
      pending = Send(connection, request.get(), bell);
    }
    if (pending != nullptr && std::this_thread::get_id() == caller) {
      dbus_pending_call_block(pending.get());
    }
  };
  do {
    if (!RunInMainLoop(connection, kPatience, step)) {
      step();
    }
  } while (pending != nullptr && !bell->WaitFor(kPatience) &&
           dbus_pending_call_get_completed(pending.get()) == FALSE &&
           dbus_connection_get_is_connected(connection) != FALSE);

  MessagePtr reply;
  if (pending != nullptr && dbus_pending_call_get_completed(pending.get()) != FALSE) {
    reply.reset(dbus_pending_call_steal_reply(pending.get()));
  } else if (pending != nullptr) {
    dbus_pending_call_cancel(pending.get());
  }
  if (reply == nullptr) {
    dbus_set_error_const(error, DBUS_ERROR_DISCONNECTED, "Connection is closed");
  } else if (dbus_set_error_from_message(error, reply.get()) != FALSE) {
    reply.reset();
  }
  return reply;
}

}  // namespace ipcs
