#ifndef EC_NATIVE_CONNECTION_H
#define EC_NATIVE_CONNECTION_H

#include <ESGExport.h>
#include <dbus/dbus.h>

#include <string>

class IESGCallListener;

/// The service side of calls: owns a bus name and hands every call to a listener.
class ESG_API ECNativeConnection {
 public:
  ECNativeConnection();
  ECNativeConnection(const ECNativeConnection&) = delete;
  ECNativeConnection& operator=(const ECNativeConnection&) = delete;
  /// Waits for a call that another thread is just serving, for half a second at most: it may wait
  /// for this thread. If it takes longer, the listener has to stay until it is over.
  ~ECNativeConnection();

  /// Connects to the system bus (up to 60 attempts one second apart), asks for `name` and serves
  /// calls to it while the default GLib main context runs. `listener` must outlive this object and
  /// is not owned. true also when another process still owns the name and this one waits in the
  /// queue for it. false, with an error line in the log, without a bus or when the bus refuses the
  /// name. Called again, it replaces name and listener and does not wait for the call that is being
  /// served. Never runs the listener itself.
  bool Start(const std::string& name, IESGCallListener* listener);

  /// What libdbus calls with every message that arrives.
  static DBusHandlerResult m_MessageHandlerHelper(DBusConnection* connection, DBusMessage* message,
                                                  void* user);
  DBusHandlerResult m_MessageHandler(DBusMessage* message) noexcept;

 private:
  /// m_MessageHandlerHelper, and what tools such as busctl ask for.
  ESG_LOCAL static DBusHandlerResult m_Serve(DBusConnection* connection, DBusMessage* message,
                                             void* user);

  DBusConnection* m_pConnection = nullptr;
  bool m_started = false;
  IESGCallListener* m_listener = nullptr;
  std::string m_name;
};

#endif
