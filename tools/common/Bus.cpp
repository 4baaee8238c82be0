#include "common/Bus.h"

#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>
#include <utility>

namespace esg::tools {
namespace {

constexpr std::chrono::seconds kConnectTime{5};

/// A connect alone would wait for ever on a socket that accepts and stays silent.
GDBusConnection* Connect(const char* address, GError** error) {
  g_autoptr(GCancellable) cancellable = g_cancellable_new();
  std::promise<void> connected;
  std::thread deadline([cancellable, done = connected.get_future()] {
    if (done.wait_for(kConnectTime) == std::future_status::timeout) {
      g_cancellable_cancel(cancellable);
    }
  });
  GDBusConnection* const connection = g_dbus_connection_new_for_address_sync(
      address,
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, cancellable, error);
  connected.set_value();
  deadline.join();
  return connection;
}

}  // namespace

Bus::Bus() {
  g_autoptr(GError) error = nullptr;
  g_autofree char* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
  if (address != nullptr) {
    m_connection.reset(Connect(address, &error));
  }
  if (m_connection == nullptr) {
    throw std::runtime_error(g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED) != FALSE
                                 ? "it accepts the connection but does not respond."
                                 : error->message);
  }
}

GVariant* Bus::Call(const char* method, GVariant* arguments, const char* replyType, GError** error,
                    int milliseconds) const {
  return g_dbus_connection_call_sync(m_connection.get(), "org.freedesktop.DBus",
                                     "/org/freedesktop/DBus", "org.freedesktop.DBus", method,
                                     arguments, G_VARIANT_TYPE(replyType),
                                     G_DBUS_CALL_FLAGS_NO_AUTO_START, milliseconds, nullptr, error);
}

void Bus::OnLost(std::function<void()> lost) {
  m_lost = std::move(lost);
  g_signal_connect(m_connection.get(), "closed",
                   G_CALLBACK(+[](GDBusConnection*, gboolean, GError*, gpointer bus) {
                     static_cast<Bus*>(bus)->m_lost();
                   }),
                   this);
}

}  // namespace esg::tools
