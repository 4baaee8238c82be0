#ifndef I_ESG_EMS_H
#define I_ESG_EMS_H

#include <cstdint>
#include <functional>

#include "ESGExport.h"

/// @file
/// Events of the service.

/// The parameters of an event. The number of the event defines what they mean. All are -1 if the
/// event carries none.
struct ESG_API ESGEventData {
  ESGEventData() = default;
  ESGEventData(const ESGEventData&) = default;
  ESGEventData& operator=(const ESGEventData&) = default;
  virtual ~ESGEventData();

  /// The event's integers, in their order.
  std::int32_t m_param1 = -1;
  std::int32_t m_param2 = -1;
  std::int32_t m_param3 = -1;
};

/// Called with the event's number and data; the result is ignored.
///
/// Runs on the thread of the default GLib main context, one event at a time in the order of
/// arrival. While it runs, nothing else runs on that loop: use ESGAsync instead of IESGService, and
/// give long work to another thread. It may subscribe, unsubscribe and create a new proxy. It must
/// not throw: an exception ends the process.
using ESGEventCallback = std::function<int(int, ESGEventData)>;

/// Subscription to numbered events of the service. Get it from ESGEMSProxy::GetInstance().
///
/// Any thread may call. Both operations block for one round trip to the bus, at most 25 seconds.
/// The order of the operations is part of the binary interface.
class ESG_API IESGEMS {
 public:
  virtual ~IESGEMS();

  /// 0 on success, -1 on failure; the log has the reason.
  virtual int SubscribeSignal(int event) = 0;

  /// 0 on success, -1 on failure. An event that was never subscribed to is a failure. Unsubscribing
  /// the last event discards the instance: get a new one before subscribing again.
  ///
  /// Do not unsubscribe through a discarded instance. It has no events left, so the call discards
  /// the new instance too and clears its handler: the events of the new instance stop.
  virtual int UnsubscribeSignal(int event) = 0;
};

#endif
