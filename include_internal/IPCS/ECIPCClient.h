#ifndef EC_IPC_CLIENT_H
#define EC_IPC_CLIENT_H

#include "ECIPCManager.h"

/// Posts events to this very process, through the bus.
class ESG_API ECIPCClient : public ECIPCManager {
 public:
  /// The process-wide instance, made on first use (see ECIPCManager for how long that takes).
  static ECIPCClient* GetInstance();

  /// Sends event `number` to the event callback of this process's EIIPCConnection, which must be
  /// attached to a running main context. See ECIPCManager::m_Send for the result.
  bool Send(int number, ESGMessageBuffer& payload) override;
};

#endif
