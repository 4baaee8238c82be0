#ifndef EC_IPC_MANAGER_H
#define EC_IPC_MANAGER_H

#include <ESGExport.h>
#include <dbus/dbus.h>

#include <string>

#include "EIIPCConnection.h"

/// The sending side of signals. Derive from it and implement Send with m_Send to broadcast events.
///
/// Any thread may send. Sending does not wait for receivers, but for the bus: while it takes less
/// than is sent, each m_Send waits for up to 0.1 seconds. What is left then goes out with the next
/// one. What others send to this connection is dropped.
class ESG_API ECIPCManager {
 public:
  /// Connects to the system bus, in up to 61 attempts one second apart. Without a bus the object
  /// stays without a connection and its sends go nowhere.
  ECIPCManager();
  ECIPCManager(const ECIPCManager&) = delete;
  ECIPCManager& operator=(const ECIPCManager&) = delete;
  /// Closes the connection and does not release it: one emitter is for the whole process.
  virtual ~ECIPCManager();

  /// Emits `number` with `payload`, to whom and as what the derived class decides.
  virtual bool Send(int number, ESGMessageBuffer& payload) = 0;

  /// Connects to the system bus; what the constructor calls. Called again, it makes a new
  /// connection. false, with an error line in the log, without a bus; the object is then as it was.
  bool m_Connect();

  /// Emits one signal: to the owner of `destination`, or to every subscriber where it is empty.
  /// false, with an error line in the log, when the signal cannot be built, is larger than the bus
  /// takes, or finds more than 64 MiB waiting for the bus; whether it arrives is not reported. A
  /// lost connection drops it.
  bool m_Send(const std::string& destination, eECIPCMessageType type, int number,
              ESGMessageBuffer& payload);

  /// The signal's member.
  const char* m_ConvertMsgTypeToString(eECIPCMessageType type);

 private:
  friend class ECIPCClient;

  /// What the end of the process does; the memory stays.
  ESG_LOCAL void m_End();

  DBusConnection* m_pConnection = nullptr;
  std::string m_connectionId;
};

#endif
