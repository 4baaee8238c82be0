#ifndef EC_IPC_MANAGER_H
#define EC_IPC_MANAGER_H

#include <ESGExport.h>
#include <dbus/dbus.h>

#include <string>

#include "EIIPCConnection.h"

/// Emits signals. Derive from it and implement Send with m_Send to broadcast events.
///
/// Any thread may send. Sending does not wait for receivers. While the bus accepts less than is
/// sent, each m_Send waits for up to 0.1 seconds; the next one sends the rest. Messages that others
/// send to this connection are dropped.
class ESG_API ECIPCManager {
 public:
  /// Connects to the system bus, in up to 61 attempts one second apart. Without a bus the object
  /// stays without a connection and its sends go nowhere.
  ECIPCManager();
  ECIPCManager(const ECIPCManager&) = delete;
  ECIPCManager& operator=(const ECIPCManager&) = delete;
  /// Closes the connection and does not release it: a process needs only one emitter.
  virtual ~ECIPCManager();

  /// Emits `number` with `payload`. The derived class decides the receiver and the type.
  virtual bool Send(int number, ESGMessageBuffer& payload) = 0;

  /// Connects to the system bus; the constructor calls this. A further call creates a new
  /// connection. Without a bus, writes an error line to the log, returns false and changes nothing.
  bool m_Connect();

  /// Emits one signal: to the owner of `destination`, or to every subscriber if it is empty.
  /// Returns false, with an error line in the log, if the signal cannot be built, is larger than
  /// the bus accepts, or more than 64 MiB wait for the bus. Does not report whether the signal
  /// arrives. A lost connection drops it.
  bool m_Send(const std::string& destination, eECIPCMessageType type, int number,
              ESGMessageBuffer& payload);

  /// The signal's member.
  const char* m_ConvertMsgTypeToString(eECIPCMessageType type);

 private:
  friend class ECIPCClient;

  /// Runs at the end of the process; closes the connection and keeps the memory.
  ESG_LOCAL void m_End();

  DBusConnection* m_pConnection = nullptr;
  std::string m_connectionId;
};

#endif
