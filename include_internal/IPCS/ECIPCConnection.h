#ifndef EC_IPC_CONNECTION_H
#define EC_IPC_CONNECTION_H

#include <ESGExport.h>
#include <dbus/dbus.h>

#include <atomic>
#include <mutex>
#include <string>

#include "EIIPCConnection.h"

namespace esg::internal {
struct ProcessCalls;
}

/// The client connection: one private bus connection for calls, another for signals.
class ESG_API ECIPCConnection : public EIIPCConnection {
 public:
  ECIPCConnection();
  ECIPCConnection(const ECIPCConnection&) = delete;
  ECIPCConnection& operator=(const ECIPCConnection&) = delete;
  ~ECIPCConnection() override;

  bool Connect() override;
  bool AddMatchRule(int event) override;
  bool RemoveMatchRule(int event) override;
  int Call(const std::string& destination, const char* method, ESGMessageBuffer& in,
           ESGMessageBuffer& out) override;
  void SetEventCallbackFunction(EIIPCCallback callback) override;
  void UnSetEventCallbackFunction() override;
  void SetDataCallbackFunction(EIIPCCallback callback) override;
  const std::string& GetConnectionId() override;
  void SetGMainLoop(GMainContext* context) override;

  /// `Event`, `Data`, or -1 for a message of another kind.
  int m_GetMessageType(DBusMessage* message);

  /// Called with every message that arrives.
  DBusHandlerResult m_MessageHandler(DBusMessage* message) noexcept;
  static DBusHandlerResult m_MessageHandlerHelper(DBusConnection* connection, DBusMessage* message,
                                                  void* user);

  /// The member name of the signal, in match rules and messages.
  const char* m_ConvertMsgTypeToString(eECIPCMessageType type);
  /// Writes the match rule for these signals; `out` holds 256 bytes.
  void m_CreateMatchRule(eECIPCMessageType type, int event, char* out);
  /// Releases both connections.
  void m_ReleaseAllConnections();

 protected:
  bool m_Connect() override;

 private:
  friend class EIIPCConnection;
  friend struct esg::internal::ProcessCalls;

  /// Runs at the end of the process; closes the connections and keeps the memory.
  ESG_LOCAL void m_End();

  // Written under m_instanceMutex and read without it: a callback just cleared may run once more.
  std::atomic<EIIPCCallback> m_eventCallback{nullptr};
  std::atomic<EIIPCCallback> m_dataCallback{nullptr};
  DBusConnection* m_pConnection = nullptr;
  DBusConnection* m_pConnection_gmainloop = nullptr;
  std::atomic<bool> m_connected{false};
  std::string m_connectionId;

  static std::mutex m_instanceMutex;
};

#endif
