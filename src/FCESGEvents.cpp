// The events of the C interface.

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "ESGEMSProxy.h"
#include "FCESGGuide.h"
#include "FlatInterface.h"
#include "IPCS/EIIPCConnection.h"

namespace failure = esg::failure;
namespace flat = esg::flat;

namespace {

using flat::UserData;

struct Subscription {
  int event;
  FCESGEventCallback callback;
  UserData userData;
  std::atomic<bool> isActive{true};
};

/// The subscriptions. Never destroyed, because events and calls may arrive while the process ends.
class Subscriptions {
 public:
  static Subscriptions& Instance() {
    static Subscriptions& instance = *new Subscriptions;
    return instance;
  }

  std::uint64_t Add(int event, FCESGEventCallback callback, UserData userData) {
    const auto added = std::make_shared<Subscription>();  // destroyed last: see Remove
    added->event = event;
    added->callback = callback;
    added->userData = std::move(userData);
    const std::lock_guard<std::mutex> change(m_change);
    if (Of(event).empty() && !Start(event)) {
      return 0;
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_entries.emplace(++m_lastIdentifier, added);
    flat::Note(ESGFailureReason::None, "", "");
    return m_lastIdentifier;
  }

  bool Remove(std::uint64_t identifier) {
    SubscriptionPtr removed;  // destroyed last: the destructor of its user data may call again
    const std::lock_guard<std::mutex> change(m_change);
    removed = Erase(identifier);
    if (removed != nullptr && Of(removed->event).empty()) {
      EIIPCConnection::GetInstance()->RemoveMatchRule(removed->event);
    }
    return removed != nullptr;
  }

 private:
  using SubscriptionPtr = std::shared_ptr<Subscription>;

  std::vector<SubscriptionPtr> Of(int event) {
    std::vector<SubscriptionPtr> found;
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& [identifier, subscription] : m_entries) {
      if (subscription->event == event) {
        found.push_back(subscription);
      }
    }
    return found;
  }

  SubscriptionPtr Erase(std::uint64_t identifier) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto node = m_entries.extract(identifier);
    if (node.empty()) {
      return nullptr;
    }
    node.mapped()->isActive = false;
    return node.mapped();
  }

  /// Keeps the proxy and all its numbers: a discarded proxy would stay in memory.
  bool Start(int event) {
    if (m_proxy == nullptr) {
      const auto mark = std::make_shared<const int>();
      ESGEMSProxy* proxy = ESGEMSProxy::GetInstance(EIIPCConnection::GetInstance(),
                                                    [mark](int number, const ESGEventData& data) {
                                                      Instance().Dispatch(number, data);
                                                      return 0;
                                                    });
      if (mark.use_count() == 1) {  // another proxy exists, which ignored the callback
        flat::Fail("the process has an event proxy of C++");
        return false;
      }
      m_proxy = proxy;
    }
    esg::internal::CallFailure& failed = esg::internal::LastCallFailure();
    failed = esg::internal::CallFailure{};
    if (m_proxy->SubscribeSignal(event) != 0) {
      failure::Last() = {failure::ReasonOf(failed), failed};
      return false;
    }
    return true;
  }

  void Dispatch(int event, const ESGEventData& data) {
    for (const SubscriptionPtr& subscription : Of(event)) {
      if (subscription->isActive) {  // an earlier callback may have unsubscribed this one
        subscription->callback(event, data.m_param1, data.m_param2, data.m_param3,
                               subscription->userData.get());
      }
    }
  }

  std::mutex m_change;  ///< one change at a time, including the round trip to the bus
  std::uint64_t m_lastIdentifier = 0;
  ESGEMSProxy* m_proxy = nullptr;  ///< has the callback of this class

  std::mutex m_mutex;  ///< guards the entries; held briefly, inside m_change
  std::map<std::uint64_t, SubscriptionPtr> m_entries;
};

}  // namespace

uint64_t FCESGEventsSubscribe(int event, FCESGEventCallback callback, void* userData,
                              FCESGDestroy destroy) {
  return flat::Guarded([&]() -> std::uint64_t {
    UserData kept = flat::Keep(userData, destroy);
    if (callback == nullptr) {
      flat::Fail(flat::kNull);
      return 0;
    }
    return Subscriptions::Instance().Add(event, callback, std::move(kept));
  });
}

int FCESGEventsUnsubscribe(uint64_t identifier) {
  return flat::Guarded([&] { return Subscriptions::Instance().Remove(identifier) ? 1 : 0; });
}
