#include "Others.h"

#include "Bare.h"
#include "IPCS/internal/Wire.h"

namespace others {

GDBusConnection* OpenGDBus() {
  GDBusConnection* connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
  bare::Require(connection != nullptr, "no bus for GDBus");
  return connection;
}

void CallGDBus(GDBusConnection* connection, const char* method, const std::string& request,
               const Taker& take) {
  GVariant* bytes =
      g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, request.data(), request.size(), 1);
  GVariant* reply = g_dbus_connection_call_sync(
      connection, kESGServiceName, esg::internal::kCallPath, kESGServiceName,
      esg::internal::kCallMember,
      g_variant_new("(si@ay)", method, static_cast<gint32>(request.size()), bytes),
      G_VARIANT_TYPE("(iiay)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
  bare::Require(reply != nullptr, "no answer for GDBus");
  GVariant* payload = g_variant_get_child_value(reply, 2);
  gsize size = 0;
  const auto* data = static_cast<const char*>(g_variant_get_fixed_array(payload, &size, 1));
  take({data, size});
  g_variant_unref(payload);
  g_variant_unref(reply);
}

sd_bus* OpenSdBus() {
  sd_bus* bus = nullptr;
  bare::Require(sd_bus_open_system(&bus) >= 0, "no bus for sd-bus");
  return bus;
}

void CallSdBus(sd_bus* bus, const char* method, const std::string& request, const Taker& take) {
  sd_bus_message* call = nullptr;
  sd_bus_message* reply = nullptr;
  const void* data = nullptr;
  std::size_t size = 0;
  const bool done =
      sd_bus_message_new_method_call(bus, &call, kESGServiceName, esg::internal::kCallPath,
                                     kESGServiceName, esg::internal::kCallMember) >= 0 &&
      sd_bus_message_append(call, "si", method, static_cast<int>(request.size())) >= 0 &&
      sd_bus_message_append_array(call, 'y', request.data(), request.size()) >= 0 &&
      sd_bus_call(bus, call, 0, nullptr, &reply) >= 0 && sd_bus_message_skip(reply, "ii") >= 0 &&
      sd_bus_message_read_array(reply, 'y', &data, &size) >= 0;
  bare::Require(done, "no answer for sd-bus");
  take({static_cast<const char*>(data), size});
  sd_bus_message_unref(reply);
  sd_bus_message_unref(call);
}

}  // namespace others
