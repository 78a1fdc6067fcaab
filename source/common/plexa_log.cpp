// plexa_log.cpp - the wall-clock stamp of a log line.
#include "plexa_log.h"

#include <charconv>
#include <ctime>

namespace plexa {
namespace {

// Room for a 64-bit second count, the dot, three digits and the terminator.
struct Stamp {
  time_t second = -1;
  long millisecond = -1;
  char text[32];
};

void write_stamp(Stamp &stamp, const timespec &now, long millisecond) noexcept {
  char *const end = stamp.text + sizeof stamp.text - 1;
  char *at = stamp.text;
  if (now.tv_sec != stamp.second || stamp.millisecond < 0) {
    at = std::to_chars(at, end, static_cast<long long>(now.tv_sec)).ptr;
  } else {
    while (*at != '.') ++at;  // same second: only the part behind the dot changes
  }
  *at++ = '.';
  at = std::to_chars(at, end, millisecond).ptr;
  *at = '\0';
  stamp.second = now.tv_sec;
  stamp.millisecond = millisecond;
}

}  // namespace

const char *log_stamp() noexcept {
  thread_local Stamp stamp;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const long millisecond = now.tv_nsec / 1000000;
  if (now.tv_sec != stamp.second || millisecond != stamp.millisecond) {
    write_stamp(stamp, now, millisecond);
  }
  return stamp.text;
}

}  // namespace plexa
