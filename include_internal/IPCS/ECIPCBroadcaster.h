#ifndef EC_IPC_BROADCASTER_H
#define EC_IPC_BROADCASTER_H

#include "ECIPCManager.h"

/// The emitter of a guide service: its events go to every subscriber. See ECIPCManager for
/// connecting, waiting and results; one object is for the whole process.
class ESG_API ECIPCBroadcaster : public ECIPCManager {
 public:
  bool Send(int number, ESGMessageBuffer& payload) override;
  /// An event without parameters.
  bool Send(int number);
  /// An event with its three parameters.
  bool Send(int number, int first, int second, int third);
};

#endif
