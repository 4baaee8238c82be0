#include "Bus.h"

#include <IESGService.h>

#include <algorithm>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace esgctl {
namespace {

constexpr guint kConnectSeconds = 5;
constexpr int kCallMilliseconds = 5000;
constexpr int kStartMilliseconds = 30000;

template <typename T>
struct Owned {
  T* value = nullptr;
  void (*release)(T*);

  explicit Owned(void (*releaseValue)(T*)) : release(releaseValue) {}
  Owned(const Owned&) = delete;
  Owned& operator=(const Owned&) = delete;
  ~Owned() {
    if (value != nullptr) {
      release(value);
    }
  }
};

struct Error : Owned<GError> {
  Error() : Owned<GError>(g_error_free) {}
  std::string Text() const {
    if (g_error_matches(value, G_IO_ERROR, G_IO_ERROR_CANCELLED) != FALSE) {
      return "it takes the connection, but does not answer.";
    }
    return value == nullptr ? "no reason given" : value->message;
  }
};

/// What an asynchronous connect hands back.
struct Attempt {
  GDBusConnection* connection = nullptr;
  Error error;
  bool done = false;
};

void OnConnected(GObject*, GAsyncResult* result, gpointer data) {
  auto* const attempt = static_cast<Attempt*>(data);
  attempt->connection = g_dbus_connection_new_for_address_finish(result, &attempt->error.value);
  attempt->done = true;
}

gboolean OnDeadline(gpointer cancellable) {
  g_cancellable_cancel(static_cast<GCancellable*>(cancellable));
  return G_SOURCE_CONTINUE;
}

/// A blocking connect would wait for ever on a socket that accepts and stays mute.
GDBusConnection* Connect(const char* address, Attempt& attempt) {
  GCancellable* const cancellable = g_cancellable_new();
  const guint deadline = g_timeout_add_seconds(kConnectSeconds, OnDeadline, cancellable);
  g_dbus_connection_new_for_address(
      address,
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, cancellable, OnConnected, &attempt);
  while (!attempt.done) {
    g_main_context_iteration(nullptr, TRUE);
  }
  g_source_remove(deadline);
  g_object_unref(cancellable);
  return attempt.connection;
}

using Reply = std::unique_ptr<GVariant, void (*)(GVariant*)>;

/// A call of the bus itself.
Reply Ask(GDBusConnection* connection, const char* method, GVariant* arguments, const char* type,
          int milliseconds, Error& error) {
  return {g_dbus_connection_call_sync(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                      "org.freedesktop.DBus", method, arguments,
                                      G_VARIANT_TYPE(type), G_DBUS_CALL_FLAGS_NO_AUTO_START,
                                      milliseconds, nullptr, &error.value),
          g_variant_unref};
}

Failure NoBus(const std::string& why) {
  return {Status::Away, "The system bus cannot be reached: " + why +
                            "\nStart it, or set DBUS_SYSTEM_BUS_ADDRESS to the one to use."};
}

Failure NoService(const std::string& why) {
  return {Status::Away, "The guide service is not there: " + why +
                            "\nStart it, for example: esg-guide-service --guide DIR --today"};
}

/// Whether the service is on the bus; no answer if the bus does not give one.
std::optional<bool> IsThere(GDBusConnection* connection, Error& error) {
  const Reply reply = Ask(connection, "NameHasOwner", g_variant_new("(s)", kESGServiceName), "(b)",
                          kCallMilliseconds, error);
  if (reply == nullptr) {
    return std::nullopt;
  }
  gboolean there = FALSE;
  g_variant_get(reply.get(), "(b)", &there);
  return there != FALSE;
}

bool IsActivatable(GDBusConnection* connection) {
  Error error;
  const Reply reply =
      Ask(connection, "ListActivatableNames", nullptr, "(as)", kCallMilliseconds, error);
  if (reply == nullptr) {
    return false;
  }
  const Reply list(g_variant_get_child_value(reply.get(), 0), g_variant_unref);
  const gchar** const names = g_variant_get_strv(list.get(), nullptr);
  const bool found = g_strv_contains(names, kESGServiceName) != FALSE;
  g_free(names);
  return found;
}

}  // namespace

Bus::Bus() {
  Error error;
  Owned<char> address([](char* text) { g_free(text); });
  address.value = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &error.value);
  if (address.value == nullptr) {
    throw NoBus(error.Text());
  }
  Attempt attempt;
  m_connection.reset(Connect(address.value, attempt));
  if (m_connection == nullptr) {
    throw NoBus(attempt.error.Text());
  }
}

void Bus::RequireService() const {
  Error error;
  const std::optional<bool> there = IsThere(m_connection.get(), error);
  if (!there) {
    throw NoBus(error.Text());
  }
  if (*there) {
    return;
  }
  if (!IsActivatable(m_connection.get())) {
    throw NoService(std::string("nobody owns ") + kESGServiceName + " on the bus.");
  }
  if (Ask(m_connection.get(), "StartServiceByName", g_variant_new("(su)", kESGServiceName, 0U),
          "(u)", kStartMilliseconds, error) == nullptr) {
    throw NoService("the bus cannot start it: " + error.Text());
  }
}

std::unique_ptr<Failure> Bus::WhatIsAway() const {
  Error error;
  const std::optional<bool> there = IsThere(m_connection.get(), error);
  if (!there) {
    return std::make_unique<Failure>(NoBus(error.Text()));
  }
  return *there ? nullptr : std::make_unique<Failure>(NoService("it has just gone."));
}

}  // namespace esgctl
