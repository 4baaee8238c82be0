// The queries of the C interface that do not block.

#include <cstdint>
#include <initializer_list>
#include <string>
#include <utility>

#include "ESGAsync.h"
#include "FCESGGuide.h"
#include "FlatInterface.h"

namespace failure = esg::failure;
namespace flat = esg::flat;

namespace {

using flat::Guarded;
using flat::ToC;
using flat::UserData;

/// Replaces the thread's last failure during its lifetime.
class LastFailure {
 public:
  explicit LastFailure(const ESGFailure& failure) {
    flat::Note(failure.reason, failure.errorName.c_str(), failure.errorText.c_str());
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

/// `start` must move the owner of the user data on, so that no copy stays on this thread.
template <typename Start>
std::uint64_t Later(std::initializer_list<const void*> arguments, void* userData,
                    FCESGDestroy destroy, Start start) {
  return Guarded([&]() -> std::uint64_t {
    UserData kept = flat::Keep(userData, destroy);
    if (!flat::AreGiven(arguments)) {
      flat::Fail(flat::kNull);
      return 0;
    }
    const ESGAsync::Identifier identifier = start(std::move(kept));
    flat::Note(identifier != 0 ? ESGFailureReason::None : ESGFailureReason::NoBus, "", "");
    return identifier;
  });
}

}  // namespace

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
