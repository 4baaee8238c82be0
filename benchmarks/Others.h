#ifndef BENCHMARKS_OTHERS_H
#define BENCHMARKS_OTHERS_H

#include <gio/gio.h>
#include <systemd/sd-bus.h>

#include <functional>
#include <string>
#include <string_view>

/// The same call through the D-Bus libraries that an application might use instead.
namespace others {

using Taker = std::function<void(std::string_view payload)>;

GDBusConnection* OpenGDBus();
/// Passes the payload to `take` without a copy.
void CallGDBus(GDBusConnection* connection, const char* method, const std::string& request,
               const Taker& take);

sd_bus* OpenSdBus();
void CallSdBus(sd_bus* bus, const char* method, const std::string& request, const Taker& take);

}  // namespace others

#endif
