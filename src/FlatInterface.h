#ifndef SRC_FLAT_INTERFACE_H
#define SRC_FLAT_INTERFACE_H

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ESGTypes.h"
#include "FCESGGuide.h"
#include "FCESGProgramInfo.h"
#include "Failure.h"

struct FCESGProgramList {
  std::vector<std::pair<unsigned int, FCESGProgramInfo>> entries;
};

/// Functions that the files of the C interface share.
namespace esg::flat {

inline constexpr char kNull[] = "an argument is null";

inline void Note(ESGFailureReason reason, const char* name, const char* text) {
  failure::Note& note = failure::Last();
  note = failure::Note{reason, {}};
  std::snprintf(note.call.name, sizeof note.call.name, "%s", name);
  std::snprintf(note.call.text, sizeof note.call.text, "%s", text);
}

/// Notes a failure inside this process.
inline int Fail(const char* text) {
  Note(ESGFailureReason::Unreadable, "", text);
  return 0;
}

inline bool AreGiven(std::initializer_list<const void*> arguments) {
  return std::find(arguments.begin(), arguments.end(), nullptr) == arguments.end();
}

// Catches only exceptions of the standard library and JsonCpp: the cancellation of a thread is an
// exception too, and must pass.
template <typename Work>
auto Guarded(Work work) -> decltype(work()) {
  try {
    return work();
  } catch (const std::exception& exception) {
    Fail(exception.what());
    return {};
  }
}

// Results in the form that C code owns.

inline FCESGProgramInfo* ToC(FCESGProgramInfo&& program) {
  return new FCESGProgramInfo(std::move(program));
}

inline FCESGProgramList* ToC(ESGProgramMap&& programs) {
  auto list = std::make_unique<FCESGProgramList>();
  list->entries.reserve(programs.size());
  for (auto& [key, program] : programs) {
    list->entries.emplace_back(key, std::move(program));
  }
  return list.release();
}

inline char* ToC(std::string&& text) {
  auto* copy = new char[text.size() + 1];
  std::memcpy(copy, text.c_str(), text.size() + 1);
  return copy;
}

/// The data that an application passes with a callback.
using UserData = std::shared_ptr<void>;

/// Calls `destroy` once, when the last copy is destroyed.
inline UserData Keep(void* userData, FCESGDestroy destroy) {
  return {userData, [destroy](void* data) {
            if (destroy != nullptr) {
              destroy(data);
            }
          }};
}

}  // namespace esg::flat

#endif
