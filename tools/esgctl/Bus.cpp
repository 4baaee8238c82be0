#include "Bus.h"

#include <IESGService.h>

#include <optional>
#include <string>

namespace esgctl {
namespace {

constexpr int kStartMilliseconds = 30000;

Failure NoBus(const std::string& why) {
  return {kAway, "The system bus cannot be reached: " + why +
                     "\nStart it, or set DBUS_SYSTEM_BUS_ADDRESS to the one to use."};
}

Failure NoService(const std::string& why) {
  return {kAway, "The guide service is not there: " + why +
                     "\nStart it, for example: esg-guide-service --guide DIR --today"};
}

/// Whether the service is on the bus; no answer if the bus does not give one.
std::optional<bool> IsThere(const esg::tools::Bus& bus, GError** error) {
  g_autoptr(GVariant) reply =
      bus.Call("NameHasOwner", g_variant_new("(s)", kESGServiceName), "(b)", error);
  if (reply == nullptr) {
    return std::nullopt;
  }
  gboolean there = FALSE;
  g_variant_get(reply, "(b)", &there);
  return there != FALSE;
}

bool IsActivatable(const esg::tools::Bus& bus) {
  g_autoptr(GVariant) reply = bus.Call("ListActivatableNames", nullptr, "(as)");
  if (reply == nullptr) {
    return false;
  }
  g_autofree const char** names = nullptr;
  g_variant_get(reply, "(^a&s)", &names);
  return g_strv_contains(names, kESGServiceName) != FALSE;
}

}  // namespace

Bus::Bus() try : m_bus() {
} catch (const std::runtime_error& error) {
  throw NoBus(error.what());
}

void Bus::RequireService() const {
  g_autoptr(GError) error = nullptr;
  const std::optional<bool> there = IsThere(m_bus, &error);
  if (!there) {
    throw NoBus(error->message);
  }
  if (*there) {
    return;
  }
  if (!IsActivatable(m_bus)) {
    throw NoService(std::string("nobody owns ") + kESGServiceName + " on the bus.");
  }
  g_autoptr(GVariant) started =
      m_bus.Call("StartServiceByName", g_variant_new("(su)", kESGServiceName, 0U), "(u)", &error,
                 kStartMilliseconds);
  if (started == nullptr) {
    throw NoService(std::string("the bus cannot start it: ") + error->message);
  }
}

std::unique_ptr<Failure> Bus::WhatIsAway() const {
  g_autoptr(GError) error = nullptr;
  const std::optional<bool> there = IsThere(m_bus, &error);
  if (!there) {
    return std::make_unique<Failure>(NoBus(error->message));
  }
  return *there ? nullptr : std::make_unique<Failure>(NoService("it has just gone."));
}

}  // namespace esgctl
