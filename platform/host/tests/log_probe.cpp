// log_probe.cpp - a program that logs, for log_environment_test.cpp.
//
// Writes a line of each priority that matters, then the level in force on standard output. An
// argument is a level that it sets first; "closed" closes the standard descriptors at the start;
// "mute" closes standard error and writes a line that is not wanted, which must not touch errno.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "dlog.h"
#include "plexa_platform_host.h"

int main(int argc, char **argv) {
  const char *const wish = argc > 1 ? argv[1] : "";
  if (strcmp(wish, "closed") == 0) {
    close(STDIN_FILENO);
    close(STDERR_FILENO);
  }
  if (strcmp(wish, "mute") == 0) {
    close(STDERR_FILENO);
    errno = E2BIG;
    __dlog_print(2, 3, "PROBE", "a detail, %d", 3);
    return errno == E2BIG ? 0 : 1;
  }
  PlexaHostLogLevel level = PLEXA_HOST_LOG_LEVEL_OFF;
  if (plexa_host_log_level_from_name(wish, &level) == 0) plexa_host_set_log_level(level);
  __dlog_print(2, 6, "PROBE", "an error, %d", 6);
  __dlog_print(2, 3, "PROBE", "a detail, %d", 3);
  // Standard error is closed, not taken: this goes nowhere, above all not into the log.
  if (strcmp(wish, "closed") == 0 && write(STDERR_FILENO, "stray\n", 6) > 0) return 1;
  printf("%d\n", static_cast<int>(plexa_host_get_log_level()));
  return 0;
}
