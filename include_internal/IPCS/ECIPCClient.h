#ifndef EC_IPC_CLIENT_H
#define EC_IPC_CLIENT_H

#include "ECIPCManager.h"

/// Sends events to its own process, through the bus.
class ESG_API ECIPCClient : public ECIPCManager {
 public:
  /// The process-wide instance, created on first use (see ECIPCManager for how long that blocks).
  static ECIPCClient* GetInstance();

  /// Sends event `number` to the event callback of this process's EIIPCConnection, which must be
  /// attached to a running main context. See ECIPCManager::m_Send for the result.
  bool Send(int number, ESGMessageBuffer& payload) override;
};

#endif
