#include <FCESGProgramAPI.h>

int main(void) {
  FCESGProgramInfo* program;
  const int found = FCESGProgramAPIGetPresentProgram("urn:example:one", &program);
  const unsigned int start = FCESGProgramStartTime(program);
  const unsigned int duration = FCESGProgramDuration(program);
  FCESGProgramDispose(program);
  return found == 1 && start == 3900000000u && duration == 1800u ? 0 : 1;
}
