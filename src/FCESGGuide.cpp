#include "FCESGGuide.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <exception>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "ESGAsync.h"
#include "ESGEMSProxy.h"
#include "Failure.h"
#include "IPCS/EIIPCConnection.h"
#include "Operations.h"

struct FCESGProgramList {
  std::vector<std::pair<unsigned int, FCESGProgramInfo>> entries;
};

namespace {

constexpr bool IsSame(FCESGReason c, ESGFailureReason cpp) {
  return static_cast<int>(c) == static_cast<int>(cpp);
}
static_assert(IsSame(FCESGReasonNone, ESGFailureReason::None) &&
              IsSame(FCESGReasonNotFound, ESGFailureReason::NotFound) &&
              IsSame(FCESGReasonNoBus, ESGFailureReason::NoBus) &&
              IsSame(FCESGReasonNoService, ESGFailureReason::NoService) &&
              IsSame(FCESGReasonNoAnswer, ESGFailureReason::NoAnswer) &&
              IsSame(FCESGReasonAccessDenied, ESGFailureReason::AccessDenied) &&
              IsSame(FCESGReasonTooLarge, ESGFailureReason::TooLarge) &&
              IsSame(FCESGReasonServiceError, ESGFailureReason::ServiceError) &&
              IsSame(FCESGReasonUnreadable, ESGFailureReason::Unreadable));
static_assert(int{FCESGPositionPrevious} == eRelative_Position_Previous &&
              int{FCESGPositionCurrent} == eRelative_Position_Current &&
              int{FCESGPositionNext} == eRelative_Position_Next);

// Failures

constexpr char kNull[] = "an argument is null";

void Note(ESGFailureReason reason, const char* name, const char* text) {
  failure::Note& note = failure::Last();
  note = {reason, {}};
  std::snprintf(note.call.name, sizeof note.call.name, "%s", name);
  std::snprintf(note.call.text, sizeof note.call.text, "%s", text);
}

/// For what could not be done in this process.
int Fail(const char* text) {
  Note(ESGFailureReason::Unreadable, "", text);
  return 0;
}

bool AreGiven(std::initializer_list<const void*> arguments) {
  return std::find(arguments.begin(), arguments.end(), nullptr) == arguments.end();
}

// Other exceptions than the standard library's and JsonCpp's pass, as the end of a cancelled thread
// is one.
template <typename Work>
auto Guarded(Work work) -> decltype(work()) {
  try {
    return work();
  } catch (const std::exception& exception) {
    Fail(exception.what());
    return {};
  }
}

// Results

FCESGProgramInfo* ToC(FCESGProgramInfo&& program) {
  return new FCESGProgramInfo(std::move(program));
}

FCESGProgramList* ToC(ESGProgramMap&& programs) {
  auto list = std::make_unique<FCESGProgramList>();
  list->entries.reserve(programs.size());
  for (auto& [key, program] : programs) {
    list->entries.emplace_back(key, std::move(program));
  }
  return list.release();
}

char* ToC(std::string&& text) {
  auto* copy = new char[text.size() + 1];
  std::memcpy(copy, text.c_str(), text.size() + 1);
  return copy;
}

// Queries that block

/// `make` makes the operation, whose result becomes the output.
template <typename Result, typename Output, typename Make>
int Get(std::initializer_list<const void*> arguments, Output** output, Make make) {
  if (output == nullptr) {
    return Fail(kNull);
  }
  *output = nullptr;
  if (!AreGiven(arguments)) {
    return Fail(kNull);
  }
  return Guarded([&] {
    Result result;
    if (!operations::AskDirectly(make(), result)) {
      return 0;
    }
    *output = ToC(std::move(result));
    return 1;
  });
}

template <typename Make>
int Save(const char* path, const char* globalServiceId, Make make) {
  if (!AreGiven({path, globalServiceId})) {
    return Fail(kNull);
  }
  return Guarded([&] {
    operations::Nothing nothing;
    return operations::AskDirectly(make(), nothing) ? 1 : 0;
  });
}

// Queries that do not

using UserData = std::shared_ptr<void>;

/// In every case `destroy` is called once when all copies are gone.
UserData Keep(void* userData, FCESGDestroy destroy) {
  return {userData, [destroy](void* data) {
            if (destroy != nullptr) {
              destroy(data);
            }
          }};
}

/// As long as it lives, the thread's last failure is another one.
class LastFailure {
 public:
  explicit LastFailure(const ESGFailure& failure) {
    Note(failure.reason, failure.errorName.c_str(), failure.errorText.c_str());
  }
  ~LastFailure() { failure::Last() = m_before; }
  LastFailure(const LastFailure&) = delete;
  LastFailure& operator=(const LastFailure&) = delete;

 private:
  const failure::Note m_before = failure::Last();
};

template <typename Result, typename Output>
auto Deliver(void (*callback)(FCESGReason, Output*, void*), UserData userData) {
  return [callback, userData = std::move(userData)](const ESGFailure& failure, Result result) {
    if (callback == nullptr) {
      return;
    }
    const LastFailure during(failure);
    Output* const output =
        failure ? nullptr : Guarded([&result] { return ToC(std::move(result)); });
    callback(FCESGGuideLastReason(), output, userData.get());
  };
}

auto DeliverSave(FCESGSaveCallback callback, UserData userData) {
  return [callback, userData = std::move(userData)](const ESGFailure& failure) {
    if (callback != nullptr) {
      const LastFailure during(failure);
      callback(FCESGGuideLastReason(), userData.get());
    }
  };
}

/// `start` is to move what keeps the user data on, so that no copy is left on this thread.
template <typename Start>
std::uint64_t Later(std::initializer_list<const void*> arguments, void* userData,
                    FCESGDestroy destroy, Start start) {
  return Guarded([&]() -> std::uint64_t {
    UserData kept = Keep(userData, destroy);
    if (!AreGiven(arguments)) {
      Fail(kNull);
      return 0;
    }
    const ESGAsync::Identifier identifier = start(std::move(kept));
    Note(identifier != 0 ? ESGFailureReason::None : ESGFailureReason::NoBus, "", "");
    return identifier;
  });
}

// Events

struct Subscription {
  int event;
  FCESGEventCallback callback;
  UserData userData;
  std::atomic<bool> isActive{true};
};

/// Who has subscribed to what. It stays, for events and calls while the process ends.
class Subscriptions {
 public:
  static Subscriptions& Instance() {
    static Subscriptions& instance = *new Subscriptions;
    return instance;
  }

  std::uint64_t Add(int event, FCESGEventCallback callback, UserData userData) {
    const auto added = std::make_shared<Subscription>();  // goes last: see Remove
    added->event = event;
    added->callback = callback;
    added->userData = std::move(userData);
    const std::lock_guard<std::mutex> change(m_change);
    if (Of(event).empty() && !Start(event)) {
      return 0;
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_entries.emplace(++m_lastIdentifier, added);
    Note(ESGFailureReason::None, "", "");
    return m_lastIdentifier;
  }

  bool Remove(std::uint64_t identifier) {
    SubscriptionPtr removed;  // goes last: its user data may call again
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

  /// The proxy is kept, with all its numbers, as one that is forgotten stays in memory.
  bool Start(int event) {
    if (m_proxy == nullptr) {
      const auto mark = std::make_shared<const int>();
      ESGEMSProxy* proxy = ESGEMSProxy::GetInstance(EIIPCConnection::GetInstance(),
                                                    [mark](int number, const ESGEventData& data) {
                                                      Instance().Dispatch(number, data);
                                                      return 0;
                                                    });
      if (mark.use_count() == 1) {  // there is another one, which has not taken the callback
        Fail("the process has an event proxy of C++");
        return false;
      }
      m_proxy = proxy;
    }
    esg::internal::CallFailure& failed = esg::internal::LastCallFailure();
    failed = {};
    if (m_proxy->SubscribeSignal(event) != 0) {
      failure::Last() = {failure::ReasonOf(failed), failed};
      return false;
    }
    return true;
  }

  void Dispatch(int event, const ESGEventData& data) {
    for (const SubscriptionPtr& subscription : Of(event)) {
      if (subscription->isActive) {  // no callback before it has unsubscribed this one
        subscription->callback(event, data.m_param1, data.m_param2, data.m_param3,
                               subscription->userData.get());
      }
    }
  }

  std::mutex m_change;  ///< one change at a time, round trips to the bus included
  std::uint64_t m_lastIdentifier = 0;
  ESGEMSProxy* m_proxy = nullptr;  ///< with our callback

  std::mutex m_mutex;  ///< guards the entries; held for moments, within the other
  std::map<std::uint64_t, SubscriptionPtr> m_entries;
};

}  // namespace

// Records

const char* FCESGProgramTitle(const FCESGProgramInfo* program) {
  return program != nullptr ? program->Title().c_str() : "";
}

const char* FCESGProgramSynopsis(const FCESGProgramInfo* program) {
  return program != nullptr ? program->Synopsis().c_str() : "";
}

const char* FCESGProgramGenre(const FCESGProgramInfo* program) {
  return program != nullptr ? program->Genre().c_str() : "";
}

const char* FCESGProgramEventID(const FCESGProgramInfo* program) {
  return program != nullptr ? program->GetEventID().c_str() : "";
}

const char* FCESGProgramServiceID(const FCESGProgramInfo* program) {
  return program != nullptr ? program->GlobalServiceID().c_str() : "";
}

unsigned int FCESGProgramIconCount(const FCESGProgramInfo* program) {
  return program != nullptr ? static_cast<unsigned int>(program->PrivateExt().contentIcons.size())
                            : 0;
}

const FCESGIcon* FCESGProgramIcon(const FCESGProgramInfo* program, unsigned int index) {
  return index < FCESGProgramIconCount(program) ? &program->PrivateExt().contentIcons[index]
                                                : nullptr;
}

const char* FCESGIconUri(const FCESGIcon* icon) { return icon != nullptr ? icon->uri.c_str() : ""; }

const char* FCESGIconMimeType(const FCESGIcon* icon) {
  return icon != nullptr ? icon->mimeType.c_str() : "";
}

int32_t FCESGIconWidth(const FCESGIcon* icon) { return icon != nullptr ? icon->width : 0; }

int32_t FCESGIconHeight(const FCESGIcon* icon) { return icon != nullptr ? icon->height : 0; }

int32_t FCESGIconDataSize(const FCESGIcon* icon) { return icon != nullptr ? icon->dataSize : 0; }

// Lists

unsigned int FCESGProgramListLength(const FCESGProgramList* list) {
  return list != nullptr ? static_cast<unsigned int>(list->entries.size()) : 0;
}

FCESGProgramInfo* FCESGProgramListElement(const FCESGProgramList* list, unsigned int index) {
  // Not const, for the functions of FCESGProgramAPI.h, which only read.
  return index < FCESGProgramListLength(list)
             ? const_cast<FCESGProgramInfo*>(&list->entries[index].second)
             : nullptr;
}

unsigned int FCESGProgramListKey(const FCESGProgramList* list, unsigned int index) {
  return index < FCESGProgramListLength(list) ? list->entries[index].first : 0;
}

void FCESGProgramListDispose(FCESGProgramList* list) { delete list; }

// NOLINTNEXTLINE(readability-non-const-parameter): what is disposed of is not const
void FCESGTextDispose(char* text) { delete[] text; }

// Queries

int FCESGGuideGetPresentProgram(const char* globalServiceId, FCESGProgramInfo** program) {
  return Get<FCESGProgramInfo>({globalServiceId}, program,
                               [&] { return operations::GetPresentProgram(globalServiceId); });
}

int FCESGGuideGetProgram(const FCESGProgramInfo* program, int position, FCESGProgramInfo** result) {
  return Get<FCESGProgramInfo>({program}, result, [&] {
    return operations::GetProgram(*program, static_cast<eRelative_Position>(position));
  });
}

int FCESGGuideGetProgramItem(const char* globalServiceId, const char* contentId,
                             unsigned int startTime, FCESGProgramInfo** program) {
  return Get<FCESGProgramInfo>({globalServiceId, contentId}, program, [&] {
    return operations::GetProgramItem(globalServiceId, contentId, startTime);
  });
}

int FCESGGuideGetProgramList(const char* globalServiceId, unsigned int startTime,
                             unsigned int duration, FCESGProgramList** list) {
  return Get<ESGProgramMap>({globalServiceId}, list, [&] {
    return operations::GetProgramList(globalServiceId, startTime, duration);
  });
}

int FCESGGuideGetScheduleFragment(const char* globalServiceId, unsigned int startTime,
                                  unsigned int duration, int bb, char** xmlFragment) {
  return Get<std::string>({globalServiceId}, xmlFragment, [&] {
    return operations::GetScheduleFragment(globalServiceId, startTime, duration, bb != 0);
  });
}

int FCESGGuideGetServiceFragment(const char* globalServiceId, int bb, char** xmlFragment) {
  return Get<std::string>({globalServiceId}, xmlFragment,
                          [&] { return operations::GetServiceFragment(globalServiceId, bb != 0); });
}

int FCESGGuideGetContentFragment(const char* globalServiceId, unsigned int startTime,
                                 unsigned int duration, int bb, char** xmlFragment) {
  return Get<std::string>({globalServiceId}, xmlFragment, [&] {
    return operations::GetContentFragment(globalServiceId, startTime, duration, bb != 0);
  });
}

int FCESGGuideSaveContentFragment(const char* path, const char* globalServiceId, int bb) {
  return Save(path, globalServiceId,
              [&] { return operations::SaveContentFragment(path, globalServiceId, bb != 0); });
}

int FCESGGuideSaveScheduleFragment(const char* path, const char* globalServiceId, int bb) {
  return Save(path, globalServiceId,
              [&] { return operations::SaveScheduleFragment(path, globalServiceId, bb != 0); });
}

int FCESGGuideSaveServiceFragment(const char* path, const char* globalServiceId, int bb) {
  return Save(path, globalServiceId,
              [&] { return operations::SaveServiceFragment(path, globalServiceId, bb != 0); });
}

// Failures

FCESGReason FCESGGuideLastReason(void) { return static_cast<FCESGReason>(failure::Last().reason); }

const char* FCESGGuideLastErrorName(void) { return failure::Last().call.name; }

const char* FCESGGuideLastErrorText(void) { return failure::Last().call.text; }

const char* FCESGReasonText(FCESGReason reason) {
  return ESGFailureText(static_cast<ESGFailureReason>(reason));
}

void FCESGGuideConnect(void) {
  Guarded([] {
    ESGAsync::Connect();
    return 0;
  });
}

// Queries that do not block

uint64_t FCESGAsyncGetPresentProgram(const char* globalServiceId, FCESGProgramCallback callback,
                                     void* userData, FCESGDestroy destroy) {
  return Later({globalServiceId}, userData, destroy, [&](UserData kept) {
    return ESGAsync::GetPresentProgram(globalServiceId,
                                       Deliver<FCESGProgramInfo>(callback, std::move(kept)));
  });
}

uint64_t FCESGAsyncGetProgram(const FCESGProgramInfo* program, int position,
                              FCESGProgramCallback callback, void* userData, FCESGDestroy destroy) {
  return Later({program}, userData, destroy, [&](UserData kept) {
    return ESGAsync::GetProgram(*program, static_cast<eRelative_Position>(position),
                                Deliver<FCESGProgramInfo>(callback, std::move(kept)));
  });
}

uint64_t FCESGAsyncGetProgramItem(const char* globalServiceId, const char* contentId,
                                  unsigned int startTime, FCESGProgramCallback callback,
                                  void* userData, FCESGDestroy destroy) {
  return Later({globalServiceId, contentId}, userData, destroy, [&](UserData kept) {
    return ESGAsync::GetProgramItem(globalServiceId, contentId, startTime,
                                    Deliver<FCESGProgramInfo>(callback, std::move(kept)));
  });
}

uint64_t FCESGAsyncGetProgramList(const char* globalServiceId, unsigned int startTime,
                                  unsigned int duration, FCESGProgramListCallback callback,
                                  void* userData, FCESGDestroy destroy) {
  return Later({globalServiceId}, userData, destroy, [&](UserData kept) {
    return ESGAsync::GetProgramList(globalServiceId, startTime, duration,
                                    Deliver<ESGProgramMap>(callback, std::move(kept)));
  });
}

uint64_t FCESGAsyncGetScheduleFragment(const char* globalServiceId, unsigned int startTime,
                                       unsigned int duration, int bb,
                                       FCESGFragmentCallback callback, void* userData,
                                       FCESGDestroy destroy) {
  return Later({globalServiceId}, userData, destroy, [&](UserData kept) {
    return ESGAsync::GetScheduleFragment(globalServiceId, startTime, duration, bb != 0,
                                         Deliver<std::string>(callback, std::move(kept)));
  });
}

uint64_t FCESGAsyncGetServiceFragment(const char* globalServiceId, int bb,
                                      FCESGFragmentCallback callback, void* userData,
                                      FCESGDestroy destroy) {
  return Later({globalServiceId}, userData, destroy, [&](UserData kept) {
    return ESGAsync::GetServiceFragment(globalServiceId, bb != 0,
                                        Deliver<std::string>(callback, std::move(kept)));
  });
}

uint64_t FCESGAsyncGetContentFragment(const char* globalServiceId, unsigned int startTime,
                                      unsigned int duration, int bb, FCESGFragmentCallback callback,
                                      void* userData, FCESGDestroy destroy) {
  return Later({globalServiceId}, userData, destroy, [&](UserData kept) {
    return ESGAsync::GetContentFragment(globalServiceId, startTime, duration, bb != 0,
                                        Deliver<std::string>(callback, std::move(kept)));
  });
}

uint64_t FCESGAsyncSaveContentFragment(const char* path, const char* globalServiceId, int bb,
                                       FCESGSaveCallback callback, void* userData,
                                       FCESGDestroy destroy) {
  return Later({path, globalServiceId}, userData, destroy, [&](UserData kept) {
    return ESGAsync::SaveContentFragment(path, globalServiceId, bb != 0,
                                         DeliverSave(callback, std::move(kept)));
  });
}

uint64_t FCESGAsyncSaveScheduleFragment(const char* path, const char* globalServiceId, int bb,
                                        FCESGSaveCallback callback, void* userData,
                                        FCESGDestroy destroy) {
  return Later({path, globalServiceId}, userData, destroy, [&](UserData kept) {
    return ESGAsync::SaveScheduleFragment(path, globalServiceId, bb != 0,
                                          DeliverSave(callback, std::move(kept)));
  });
}

uint64_t FCESGAsyncSaveServiceFragment(const char* path, const char* globalServiceId, int bb,
                                       FCESGSaveCallback callback, void* userData,
                                       FCESGDestroy destroy) {
  return Later({path, globalServiceId}, userData, destroy, [&](UserData kept) {
    return ESGAsync::SaveServiceFragment(path, globalServiceId, bb != 0,
                                         DeliverSave(callback, std::move(kept)));
  });
}

int FCESGAsyncCancel(uint64_t identifier) {
  return Guarded([&] { return ESGAsync::Cancel(identifier) ? 1 : 0; });
}

// Events

uint64_t FCESGEventsSubscribe(int event, FCESGEventCallback callback, void* userData,
                              FCESGDestroy destroy) {
  return Guarded([&]() -> std::uint64_t {
    UserData kept = Keep(userData, destroy);
    if (callback == nullptr) {
      Fail(kNull);
      return 0;
    }
    return Subscriptions::Instance().Add(event, callback, std::move(kept));
  });
}

int FCESGEventsUnsubscribe(uint64_t identifier) {
  return Guarded([&] { return Subscriptions::Instance().Remove(identifier) ? 1 : 0; });
}
