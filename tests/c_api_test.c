#include <glib.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "FCESGGuide.h"

#define CHECK(condition) \
  if (!(condition)) {    \
    return __LINE__;     \
  }

/* Each function of this file behaves as a C program does; 0, or the line that found a fault. */

/* Asks twice. */
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

/* Walks through the guide of a service, and finds the same on each way. */
int CheckGuide(const char* id) {
  FCESGProgramInfo* now = NULL;
  FCESGProgramInfo* next = NULL;
  FCESGProgramInfo* found = NULL;
  FCESGProgramList* list = NULL;
  char* text = NULL;
  unsigned int length = 0;

  CHECK(FCESGGuideGetPresentProgram(id, &now))
  CHECK(strcmp(FCESGProgramServiceID(now), id) == 0)
  CHECK(FCESGGuideGetProgram(now, FCESGPositionNext, &next))
  CHECK(FCESGProgramStartTime(next) >= FCESGProgramStartTime(now) + FCESGProgramDuration(now))
  CHECK(FCESGGuideGetProgram(next, FCESGPositionPrevious, &found))
  CHECK(FCESGProgramStartTime(found) == FCESGProgramStartTime(now))
  FCESGProgramDispose(found);
  CHECK(
      FCESGGuideGetProgramItem(id, FCESGProgramEventID(next), FCESGProgramStartTime(next), &found))
  CHECK(strcmp(FCESGProgramTitle(found), FCESGProgramTitle(next)) == 0)
  FCESGProgramDispose(found);

  CHECK(FCESGGuideGetProgramList(id, FCESGProgramStartTime(now),
                                 FCESGProgramStartTime(next) + 1 - FCESGProgramStartTime(now),
                                 &list))
  length = FCESGProgramListLength(list);
  CHECK(length >= 2 && FCESGProgramListElement(list, length) == NULL)
  found = FCESGProgramListElement(list, length - 1);
  CHECK(FCESGProgramListKey(list, length - 1) == FCESGProgramStartTime(next))
  CHECK(strcmp(FCESGProgramSynopsis(found), FCESGProgramSynopsis(next)) == 0)
  FCESGProgramListDispose(list);

  CHECK(FCESGGuideGetServiceFragment(id, 0, &text) && strstr(text, "<Service ") != NULL)
  FCESGTextDispose(text);
  CHECK(FCESGGuideGetScheduleFragment(id, FCESGProgramStartTime(now), 1, 0, &text))
  CHECK(strstr(text, "<Schedule ") != NULL)
  FCESGTextDispose(text);
  CHECK(FCESGGuideGetContentFragment(id, FCESGProgramStartTime(now), 0, 0, &text))
  CHECK(strstr(text, "<Content ") != NULL)
  FCESGTextDispose(text);
  CHECK(FCESGGuideSaveServiceFragment("service.xml", id, 0))
  CHECK(!FCESGGuideSaveScheduleFragment("../schedule.xml", id, 0))
  CHECK(FCESGGuideLastReason() == FCESGReasonNotFound)

  FCESGProgramDispose(now);
  FCESGProgramDispose(next);
  return 0;
}

/* What a chain of queries that do not block has come to. */
struct Chain {
  const char* id;
  char titles[256];
  FCESGReason reason;
  int isDestroyed;
};

static void OnDestroy(void* data) {
  struct Chain* chain = data;
  chain->isDestroyed = 1;
}

static void OnList(FCESGReason reason, FCESGProgramList* list, void* data) {
  struct Chain* chain = data;
  chain->reason = reason;
  if (list != NULL) {
    strncat(chain->titles, FCESGProgramTitle(FCESGProgramListElement(list, 0)), 99);
  }
  FCESGProgramListDispose(list);
}

static void OnProgram(FCESGReason reason, FCESGProgramInfo* program, void* data) {
  struct Chain* chain = data;
  chain->reason = reason;
  if (program != NULL) {
    snprintf(chain->titles, sizeof chain->titles, "%.99s ", FCESGProgramTitle(program));
    FCESGAsyncGetProgramList(chain->id, FCESGProgramStartTime(program), 1, OnList, chain,
                             OnDestroy);
  }
  FCESGProgramDispose(program);
}

/* The present programme and the first of a list, without blocking. */
int CheckLater(const char* id) {
  struct Chain chain = {NULL, "", FCESGReasonNone, 0};
  FCESGProgramInfo* now = NULL;
  char expected[256] = "";
  chain.id = id;
  FCESGGuideConnect();
  CHECK(FCESGAsyncGetPresentProgram(id, OnProgram, &chain, NULL) != 0)
  while (chain.reason == FCESGReasonNone && !chain.isDestroyed) {
    g_main_context_iteration(NULL, TRUE);
  }
  CHECK(chain.reason == FCESGReasonNone)
  CHECK(FCESGGuideGetPresentProgram(id, &now))
  snprintf(expected, sizeof expected, "%s %s", FCESGProgramTitle(now), FCESGProgramTitle(now));
  CHECK(strcmp(chain.titles, expected) == 0)
  FCESGProgramDispose(now);
  return 0;
}
