#include "ESGEMSProxy.h"

#include <memory>
#include <utility>

#include "Assertion.h"
#include "IPCS/EIIPCConnection.h"
#include "IPCS/ESGMessageBuffer.h"
#include "Log.h"

ESGEventData::~ESGEventData() = default;

IESGEMS::~IESGEMS() = default;

/// Holds the callback, so that a delivery keeps the one that it started with, and so that events
/// that arrive while the process ends find none.
class ESGEMSProxy::CallbackHolder {
 public:
  constexpr CallbackHolder() noexcept = default;
  CallbackHolder(const CallbackHolder&) = delete;
  CallbackHolder& operator=(const CallbackHolder&) = delete;
  ~CallbackHolder() { Set(nullptr); }

  std::shared_ptr<const ESGEventCallback> Get() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_callback;
  }
  /// Destroys the previous callback without the lock, because it belongs to the application.
  void Set(std::shared_ptr<const ESGEventCallback> callback) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_callback.swap(callback);
  }

 private:
  mutable std::mutex m_mutex;
  std::shared_ptr<const ESGEventCallback> m_callback;
};

ESGEMSProxy::CallbackHolder ESGEMSProxy::m_callback;
std::map<int, void*> ESGEMSProxy::m_userDataMap;
std::atomic<EIIPCConnection*> ESGEMSProxy::m_pConnection{nullptr};
ESGEMSProxy* ESGEMSProxy::m_pImp = nullptr;
std::mutex ESGEMSProxy::m_instanceMutex;

ESGEMSProxy* ESGEMSProxy::GetInstance(EIIPCConnection* connection,
                                      std::function<int(int, ESGEventData)> callback) {
  const std::lock_guard<std::mutex> lock(m_instanceMutex);
  if (m_pImp == nullptr) {
    m_pImp = new ESGEMSProxy(connection, std::move(callback));
  }
  return m_pImp;
}

ESGEMSProxy::ESGEMSProxy(EIIPCConnection* connection,
                         std::function<int(int, ESGEventData)> callback) {
  m_pConnection = connection;
  m_callback.Set(std::make_shared<const ESGEventCallback>(std::move(callback)));
  connection->SetGMainLoop(nullptr);
}

ESGEMSProxy::~ESGEMSProxy() = default;

int ESGEMSProxy::SubscribeSignal(int event) {
  ESG_LOGI("Subscribe event : %d\n", event);
  {
    const std::lock_guard<std::mutex> lock(m_instanceMutex);
    if (m_eventList.empty()) {
      m_pConnection.load()->SetEventCallbackFunction(&OnEventReceived);
    }
    m_eventList.insert(event);
  }
  // No lock is held during the round trip to the bus.
  EIIPCConnection* connection = m_pConnection;
  return connection != nullptr && connection->AddMatchRule(event) ? 0 : -1;
}

int ESGEMSProxy::UnsubscribeSignal(int event) {
  ESG_LOGI("UnSubscribe event : %d\n", event);
  {
    const std::lock_guard<std::mutex> lock(m_instanceMutex);
    m_eventList.erase(event);
    if (!m_eventList.empty()) {
      ESG_LOGE("Subscribe and UnSubcribe number is different. m_eventList.size :%zu\n",
               m_eventList.size());
    } else {
      ESG_LOGI("Destroy Call back Function\n");
      // Discarded, not deleted: the application may still have the pointer.
      m_pImp = nullptr;
      m_pConnection.load()->UnSetEventCallbackFunction();
    }
  }
  EIIPCConnection* connection = m_pConnection;
  return connection != nullptr && connection->RemoveMatchRule(event) ? 0 : -1;
}

void ESGEMSProxy::OnEventReceived(int event, ESGMessageBuffer& data) {
  ESGEventData eventData;
  // One integer more than an event carries is allowed.
  constexpr unsigned int kMaxPayload = 4 * sizeof(int);
  ESG_ASSERT(kMaxPayload >= data.GetFullBufferSize(), "sizeof(params) >= data.GetFullBufferSize()",
             "src/ESGEMSProxy");
  ESG_LOGI("event = %d\n", event);
  if (data.GetFullBufferSize() != 0) {
    eventData.m_param1 = data.PopInt();
    eventData.m_param2 = data.PopInt();
    eventData.m_param3 = data.PopInt();
  }
  const auto callback = m_callback.Get();
  if (callback != nullptr && *callback) {
    (*callback)(event, eventData);
  }
}
