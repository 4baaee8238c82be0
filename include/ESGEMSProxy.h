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
/// Events arrive while the default GLib main context runs, on the thread that runs it, and may do
/// so as soon as SubscribeSignal has been called, before it has returned. A service that restarts
/// needs no new subscription. A bus that goes away ends the flow of events for the life of the
/// process.
class ESG_API ESGEMSProxy : public IESGEMS {
 public:
  /// The one instance, made on first use with `connection` (must not be null) and `callback`; while
  /// an instance exists, both arguments are ignored. The library owns the instance and never
  /// deletes it. Unsubscribing the last event forgets it; the next call makes a new one with the
  /// arguments given then. Does not block.
  static ESGEMSProxy* GetInstance(EIIPCConnection* connection,
                                  std::function<int(int, ESGEventData)> callback);

  /// Not for applications; see GetInstance().
  ESGEMSProxy(EIIPCConnection* connection, std::function<int(int, ESGEventData)> callback);
  ESGEMSProxy(const ESGEMSProxy&) = delete;
  ESGEMSProxy& operator=(const ESGEMSProxy&) = delete;
  ~ESGEMSProxy() override;

  int SubscribeSignal(int event) override;
  int UnsubscribeSignal(int event) override;

  /// What the connection calls with each event; not for applications. A payload above 16 bytes ends
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
