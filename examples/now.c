/* Prints when the programme that is on now started and when it ends: now SERVICE-ID */

#include <FCESGProgramAPI.h>
#include <stdint.h>
#include <stdio.h>
#include <time.h>

/* The broadcast counts seconds from 1900, Unix from 1970. The 32-bit subtraction wraps, so it is
 * also correct after 2036, when the count of the broadcast restarts at 0. */
static time_t unix_time(unsigned int ntp) { return (time_t)(uint32_t)(ntp - 2208988800U); }

static void print_time(const char* label, time_t when) {
  char text[32];
  strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", localtime(&when));
  printf("%s %s\n", label, text);
}

int main(int argc, char** argv) {
  FCESGProgramInfo* program = NULL;
  int found = 0;

  if (argc != 2) {
    fprintf(stderr, "usage: now SERVICE-ID\n");
    return 2;
  }
  found = FCESGProgramAPIGetPresentProgram(argv[1], &program);
  if (found) {
    const time_t start = unix_time(FCESGProgramStartTime(program));
    print_time("from ", start);
    print_time("until", start + (time_t)FCESGProgramDuration(program));
  } else {
    fprintf(stderr, "now: nothing on air on %s, or no guide service\n", argv[1]);
  }
  FCESGProgramDispose(program); /* also after a failure */
  return found ? 0 : 1;
}
