#include <stddef.h>

#include "FCESGProgramAPI.h"

#define CHECK(condition) \
  if (!(condition)) {    \
    return __LINE__;     \
  }

/* Asks twice, as a C program does; 0, or the line that found a fault. */
int CheckPresentProgram(const char* id, int found, unsigned int start, unsigned int duration) {
  FCESGProgramInfo* programs[2] = {NULL, NULL};
  int i = 0;
  for (i = 0; i < 2; ++i) {
    CHECK(FCESGProgramAPIGetPresentProgram(id, &programs[i]) == found)
    CHECK(programs[i] != NULL)
    CHECK(FCESGProgramStartTime(programs[i]) == start)
    CHECK(FCESGProgramDuration(programs[i]) == duration)
  }
  CHECK(programs[0] != programs[1])
  FCESGProgramDispose(programs[0]);
  FCESGProgramDispose(programs[1]);
  FCESGProgramDispose(NULL);
  return 0;
}
