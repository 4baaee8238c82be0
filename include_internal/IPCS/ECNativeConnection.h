#ifndef EC_NATIVE_CONNECTION_H
#define EC_NATIVE_CONNECTION_H

#include <ESGExport.h>
#include <dbus/dbus.h>

#include <string>

class IESGCallListener;

/// The service side of calls: owns a bus name and passes every call to a listener.
class ESG_API ECNativeConnection {
 public:
  ECNativeConnection();
  ECNativeConnection(const ECNativeConnection&) = delete;
  ECNativeConnection& operator=(const ECNativeConnection&) = delete;
  /// Waits at most half a second for a call that another thread is serving, because that call may
  /// in turn wait for this thread. If it takes longer, the listener must stay valid until it ends.
  ~ECNativeConnection();

  /// Connects to the system bus (up to 60 attempts one second apart), requests `name` and serves
  /// calls to it while the default GLib main context runs. Borrows `listener`, which must outlive
  /// this object. Returns true also if another process still owns the name and this one waits in
  /// the queue for it. Returns false, with an error line in the log, if there is no bus or the bus
  /// refuses the name. A further call replaces name and listener and does not wait for a call that
  /// is being served. Never calls the listener itself.
  bool Start(const std::string& name, IESGCallListener* listener);

  /// Called with every message that arrives.
  static DBusHandlerResult m_MessageHandlerHelper(DBusConnection* connection, DBusMessage* message,
                                                  void* user);
  DBusHandlerResult m_MessageHandler(DBusMessage* message) noexcept;

 private:
  /// m_MessageHandlerHelper, and the introspection that tools such as busctl use.
  ESG_LOCAL static DBusHandlerResult m_Serve(DBusConnection* connection, DBusMessage* message,
                                             void* user);

  DBusConnection* m_pConnection = nullptr;
  bool m_started = false;
  IESGCallListener* m_listener = nullptr;
  std::string m_name;
};

#endif
