#include "Bus.h"

#include <stdexcept>
#include <utility>

namespace guide {
namespace {

[[noreturn]] void Raise(GError* error) {
  const std::string reason = error->message;
  g_error_free(error);
  throw std::runtime_error(reason);
}

}  // namespace

Bus::Bus() {
  GError* error = nullptr;
  char* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
  if (address == nullptr) {
    Raise(error);
  }
  m_connection.reset(g_dbus_connection_new_for_address_sync(
      address,
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, &error));
  g_free(address);
  if (!m_connection) {
    Raise(error);
  }
}

unsigned int Bus::OwnerOf(const std::string& name) const {
  GVariant* reply = g_dbus_connection_call_sync(
      m_connection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
      "GetConnectionUnixProcessID", g_variant_new("(s)", name.c_str()), G_VARIANT_TYPE("(u)"),
      G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
  guint32 owner = 0;
  if (reply != nullptr) {
    g_variant_get(reply, "(u)", &owner);
    g_variant_unref(reply);
  }
  return owner;
}

unsigned int Bus::OwnProcess() const {
  return OwnerOf(g_dbus_connection_get_unique_name(m_connection.get()));
}

void Bus::OnLost(std::function<void()> lost) {
  m_lost = std::move(lost);
  g_signal_connect(m_connection.get(), "closed",
                   G_CALLBACK(+[](GDBusConnection*, gboolean, GError*, gpointer bus) {
                     static_cast<Bus*>(bus)->m_lost();
                   }),
                   this);
}

}  // namespace guide
