#ifndef GUIDE_BUS_H
#define GUIDE_BUS_H

#include <gio/gio.h>

#include <functional>
#include <memory>
#include <string>

namespace guide {

/// A look at the system bus beside the connections that serve calls and emit events: whether it is
/// there, who owns a name, and when it goes away.
class Bus {
 public:
  /// Connects at once or raises std::runtime_error with the reason.
  Bus();

  /// The process that owns `name`; 0 when nobody does.
  unsigned int OwnerOf(const std::string& name) const;

  /// This process, under the number that OwnerOf would give.
  unsigned int OwnProcess() const;

  /// Calls `lost` once, on the default main context, when the bus closes the connection.
  void OnLost(std::function<void()> lost);

 private:
  struct Unref {
    void operator()(void* object) const { g_object_unref(object); }
  };
  std::unique_ptr<GDBusConnection, Unref> m_connection;
  std::function<void()> m_lost;
};

}  // namespace guide

#endif
