#ifndef ESG_EMS_PROXY_H
#define ESG_EMS_PROXY_H

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <set>

#include "ESGExport.h"
#include "IESGEMS.h"

class EIIPCConnection;
class ESGMessageBuffer;

/// The process-wide event proxy.
///
///     IESGEMS* events = ESGEMSProxy::GetInstance(EIIPCConnection::GetInstance(), callback);
///     events->SubscribeSignal(5);
///
/// Events arrive while the default GLib main context runs, on the thread that runs it. The first
/// may arrive before SubscribeSignal has returned. If the service restarts, subscriptions stay
/// valid. If the bus is lost, no more events arrive for the life of the process.
class ESG_API ESGEMSProxy : public IESGEMS {
 public:
  /// The only instance, created on first use with `connection` (must not be null) and `callback`.
  /// While an instance exists, both arguments are ignored. The library owns the instance and never
  /// deletes it. Unsubscribing the last event discards it, and the next call creates a new one from
  /// its arguments. Does not block.
  static ESGEMSProxy* GetInstance(EIIPCConnection* connection,
                                  std::function<int(int, ESGEventData)> callback);

  /// Not for applications; see GetInstance().
  ESGEMSProxy(EIIPCConnection* connection, std::function<int(int, ESGEventData)> callback);
  ESGEMSProxy(const ESGEMSProxy&) = delete;
  ESGEMSProxy& operator=(const ESGEMSProxy&) = delete;
  ~ESGEMSProxy() override;

  int SubscribeSignal(int event) override;
  int UnsubscribeSignal(int event) override;

  /// The connection calls this with each event; not for applications. A payload above 16 bytes ends
  /// the process.
  static void OnEventReceived(int event, ESGMessageBuffer& data);

 private:
  class CallbackHolder;

  std::set<int> m_eventList;

  static CallbackHolder m_callback;
  static std::map<int, void*> m_userDataMap;  ///< reserved
  static std::atomic<EIIPCConnection*> m_pConnection;
  static ESGEMSProxy* m_pImp;
  static std::mutex m_instanceMutex;  ///< guards m_pImp, m_eventList and the event handler
};

#endif
