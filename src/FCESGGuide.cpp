#include "FCESGGuide.h"

#include <initializer_list>
#include <string>
#include <utility>

#include "ESGAsync.h"
#include "FlatInterface.h"
#include "Operations.h"

namespace failure = esg::failure;
namespace operations = esg::operations;
namespace flat = esg::flat;

namespace {

using flat::AreGiven;
using flat::Fail;
using flat::Guarded;
using flat::kNull;
using flat::ToC;

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

/// `make` creates the operation, whose result becomes the output.
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
  // Not const, because the functions of FCESGProgramAPI.h, which only read, take no const pointer.
  return index < FCESGProgramListLength(list)
             ? const_cast<FCESGProgramInfo*>(&list->entries[index].second)
             : nullptr;
}

unsigned int FCESGProgramListKey(const FCESGProgramList* list, unsigned int index) {
  return index < FCESGProgramListLength(list) ? list->entries[index].first : 0;
}

void FCESGProgramListDispose(FCESGProgramList* list) { delete list; }

// NOLINTNEXTLINE(readability-non-const-parameter): the function frees the list
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
