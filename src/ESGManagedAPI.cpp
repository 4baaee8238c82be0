#include <memory>
#include <string>

#include "ESGAPI.h"
#include "FCESGProgramAPI.h"
#include "FCESGProgramInfo.h"
#include "IESGService.h"
#include "Log.h"

int FCESGProgramAPIGetPresentProgram(const char* globalServiceId, FCESGProgramInfo** program) {
  auto* record = new FCESGProgramInfo();
  IESGService* service = ESGAPI::GetESGServiceAPI();
  const std::string id(globalServiceId);  // a null id throws here, and the record leaks
  std::unique_ptr<FCESGProgramInfo> owner(record);
  const bool found = service->GetPresentProgram(id, *record);
  *program = owner.release();
  return found ? 1 : 0;
}

unsigned int FCESGProgramStartTime(FCESGProgramInfo* program) { return program->GetStartTime(); }

unsigned int FCESGProgramDuration(FCESGProgramInfo* program) { return program->Duration(); }

void FCESGProgramDispose(FCESGProgramInfo* program) {
  ESG_LOGI("Free: %p\n", static_cast<void*>(program));
  delete program;
}
