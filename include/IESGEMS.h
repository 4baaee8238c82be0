#ifndef I_ESG_EMS_H
#define I_ESG_EMS_H

#include <cstdint>
#include <functional>

#include "ESGExport.h"

/// @file
/// Events of the service.

/// What comes with an event. The event's number tells what the three mean; all are -1 where the
/// event carries nothing.
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
/// arrival. While it runs nothing else of that loop does, so ask with ESGAsync instead of
/// IESGService, and hand long work to another thread. It may subscribe, unsubscribe and make a new
/// proxy. It must not throw: an exception ends the process.
using ESGEventCallback = std::function<int(int, ESGEventData)>;

/// Subscription to numbered events of the service. Get it from ESGEMSProxy::GetInstance().
///
/// Any thread may call. Both operations block for one round trip to the bus, and wait at most its
/// default time limit of 25 seconds. The order of the operations is part of the binary interface.
class ESG_API IESGEMS {
 public:
  virtual ~IESGEMS();

  /// 0 on success, -1 on failure; the log has the reason.
  virtual int SubscribeSignal(int event) = 0;

  /// 0 on success, -1 on failure, an event that was never subscribed included. Unsubscribing the
  /// last event ends the subscription as a whole: get a new instance before subscribing again.
  ///
  /// Do not unsubscribe again through an instance that has been forgotten in this way. It has no
  /// events left, so the call forgets the new instance too and clears its handler: the new
  /// instance's events stop.
  virtual int UnsubscribeSignal(int event) = 0;
};

#endif
