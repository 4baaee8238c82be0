#ifndef EC_IPC_BROADCASTER_H
#define EC_IPC_BROADCASTER_H

#include "ECIPCManager.h"

/// The emitter of a guide service: its events go to every subscriber. See ECIPCManager for
/// connecting, waiting and results. Create one object for the whole process.
class ESG_API ECIPCBroadcaster : public ECIPCManager {
 public:
  bool Send(int number, ESGMessageBuffer& payload) override;
  /// Sends an event without parameters.
  bool Send(int number);
  /// Sends an event with its three parameters.
  bool Send(int number, int first, int second, int third);
};

#endif
