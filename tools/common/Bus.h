#ifndef ESG_TOOLS_BUS_H
#define ESG_TOOLS_BUS_H

#include <gio/gio.h>

#include <functional>
#include <memory>

namespace esg::tools {

/// A connection to the system bus beside those of the library, to know how things stand there: the
/// library waits up to a minute for a bus, and ends the process when none comes.
class Bus {
 public:
  /// Connects within 5 seconds, or raises std::runtime_error with the reason.
  Bus();
  Bus(const Bus&) = delete;
  Bus& operator=(const Bus&) = delete;

  /// Calls the bus itself and waits for the reply, at most 5 seconds unless told otherwise; null
  /// with `error` set where there is none. Does not start services.
  GVariant* Call(const char* method, GVariant* arguments, const char* replyType,
                 GError** error = nullptr, int milliseconds = 5000) const;

  /// Calls `lost` on the default main context when the bus closes the connection.
  void OnLost(std::function<void()> lost);

  GDBusConnection* Connection() const { return m_connection.get(); }

 private:
  std::function<void()> m_lost;
  std::unique_ptr<GDBusConnection, void (*)(gpointer)> m_connection{nullptr, &g_object_unref};
};

}  // namespace esg::tools

#endif
