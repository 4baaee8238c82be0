#ifndef IPCS_MAIN_LOOP_H
#define IPCS_MAIN_LOOP_H

#include <dbus/dbus.h>
#include <glib.h>

#include <chrono>
#include <functional>

namespace ipcs {

/// Attaches a connection to a GLib main context; null means the default one.
void AttachToMainLoop(DBusConnection* connection, GMainContext* context);

/// Runs `work` while nothing is dispatched from `connection`'s main context: at once where no other
/// thread runs that context, otherwise on the thread that does. A connection that is attached to a
/// running context must be closed and released this way, or the context uses it after it is gone.
///
/// Returns when the work is done. false when that took longer than `limit`; the work is then given
/// up.
bool RunInMainLoop(DBusConnection* connection, std::chrono::milliseconds limit,
                   const std::function<void()>& work);

}  // namespace ipcs

#endif
