// dlog.cpp - the log: one message, one write(2), to standard error or to a file.
//
//   E/PVR_SYS_PLG: message
//
// E for priority 6; the host has one log, so the buffer's number is not looked at. Refuses a
// message without a format. Any thread may call: a message takes no lock, only a change of the
// settings does. errno stays what it was.
#include "dlog.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

#include "errno_guard.h"
#include "plexa_platform_host.h"

namespace {

using plexa_host::ErrnoGuard;

constexpr int kHighestPriority = 7;
constexpr int kErrorPriority = 6;
constexpr int kDebugPriority = 3;
constexpr int kSilent = kHighestPriority + 1;
constexpr int kUnread = INT_MIN;  // below every priority: the first message reads the environment

constexpr int kUnopened = -1;

// The lowest priority that is written.
constinit std::atomic<int> g_threshold{kUnread};
// The descriptor that messages go to.
constinit std::atomic<int> g_sink{kUnopened};
// The log file's descriptor, once there was a log file. Its number is never closed, only pointed
// elsewhere with dup3(): a thread that has just read it from g_sink cannot hit a stranger's file.
constinit int g_file = -1;  // under g_settings
constinit std::mutex g_settings;

struct LevelName {
  const char *name;
  PlexaHostLogLevel level;
  int threshold;
};

constexpr LevelName kLevels[] = {
    {"off", PLEXA_HOST_LOG_LEVEL_OFF, kSilent},
    {"error", PLEXA_HOST_LOG_LEVEL_ERROR, kErrorPriority},
    {"debug", PLEXA_HOST_LOG_LEVEL_DEBUG, kDebugPriority},
};
constexpr const LevelName &kDefaultLevel = kLevels[1];

template <class Test>
const LevelName *find_level(Test test) {
  const auto *const found = std::find_if(std::begin(kLevels), std::end(kLevels), test);
  return found == std::end(kLevels) ? nullptr : found;
}

const LevelName *level_named(const char *name) {
  return find_level([name](const LevelName &each) { return strcmp(each.name, name) == 0; });
}

// ---- The text ----------------------------------------------------------------------------------

char letter_of(int priority) {
  constexpr char kLetters[] = "??VDIWEF";
  return kLetters[std::clamp(priority, 0, kHighestPriority)];
}

// Like snprintf: cuts at the capacity and gives the length that the whole text needs, or a negative
// value. "%m" in the format prints the text of `error`.
__attribute__((format(printf, 6, 0))) int format_text(char *to, size_t capacity, int priority,
                                                      const char *tag, int error,
                                                      const char *format, va_list args) {
  const int prefix = snprintf(to, capacity, "%c/%s: ", letter_of(priority), tag);
  if (prefix < 0) return prefix;
  const size_t used = std::min(static_cast<size_t>(prefix), capacity);
  va_list again;  // the caller may need his arguments for a second, longer try
  va_copy(again, args);
  errno = error;
  const int message = vsnprintf(to + used, capacity - used, format, again);
  va_end(again);
  if (message < 0 || message > INT_MAX - prefix - 2) return -1;
  return prefix + message;
}

// A file's name may hold anything; what steers a terminal does not get there. Newlines and tabs
// belong to some messages.
void blank_control_characters(char *text, size_t size) {
  const auto steers = [](char each) {
    const auto byte = static_cast<unsigned char>(each);
    return (byte < 0x20 && byte != '\n' && byte != '\t') || byte == 0x7f;
  };
  std::replace_if(text, text + size, steers, '?');
}

int write_whole(int fd, const char *text, size_t size) {
  size_t done = 0;
  while (done < size) {  // one turn, unless a signal or a full pipe interrupts the write
    const ssize_t now = write(fd, text + done, size - done);
    if (now < 0 && errno == EINTR) continue;
    if (now <= 0) return now < 0 ? -errno : -EIO;
    done += static_cast<size_t>(now);
  }
  return static_cast<int>(size);
}

// Writes the `size` bytes of `text`, which has room for one more.
int write_line(int fd, char *text, size_t size) {
  blank_control_characters(text, size);
  if (size == 0 || text[size - 1] != '\n') text[size++] = '\n';
  return write_whole(fd, text, size);
}

// What is left of a message that cannot be formatted, or is longer than the memory that is left.
int write_remains(int fd, char *text, size_t capacity, const char *why) {
  const size_t reason = strlen(why);
  const size_t kept = strnlen(text, capacity - reason - 2);
  memcpy(text + kept, why, reason);
  return write_line(fd, text, kept + reason);
}

__attribute__((format(printf, 5, 0))) int print(int fd, int priority, const char *tag, int error,
                                                const char *format, va_list args) {
  char local[2048];  // longer than almost every line: no allocation
  const int length = format_text(local, sizeof local, priority, tag, error, format, args);
  if (length < 0) return write_remains(fd, local, sizeof local, " [the message cannot be printed]");
  const size_t size = static_cast<size_t>(length);
  if (size + 1 < sizeof local) return write_line(fd, local, size);

  const std::unique_ptr<char, decltype(&free)> heap(static_cast<char *>(malloc(size + 2)), &free);
  if (!heap) return write_remains(fd, local, sizeof local, " [cut: no memory for the rest]");
  if (format_text(heap.get(), size + 2, priority, tag, error, format, args) != length) {
    return write_remains(fd, local, sizeof local, " [cut: the message changed meanwhile]");
  }
  return write_line(fd, heap.get(), size);
}

// The log's own words, straight to standard error.
__attribute__((format(printf, 1, 2))) void complain(const char *format, ...) {
  const ErrnoGuard keep;  // also a message that is not wanted gets here
  va_list args;
  va_start(args, format);
  print(STDERR_FILENO, kErrorPriority, "PLEXA_HOST", keep.saved(), format, args);
  va_end(args);
}

// ---- The settings ------------------------------------------------------------------------------

// A descriptor above the standard three: one of those may be closed, and the program would take the
// log for its own output.
int open_log(const char *path) {
  const int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY, 0644);
  if (fd < 0 || fd > STDERR_FILENO) return fd;
  const int above = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const ErrnoGuard keep;
  close(fd);
  return above;
}

int point_file_to(int fd) {
  int result;
  do result = dup3(fd, g_file, O_CLOEXEC);
  while (result < 0 && errno == EINTR);
  return result;
}

// Takes `fd` over. Needs g_settings.
int use_file(int fd) {
  if (g_file < 0) {
    g_file = fd;
  } else {
    const int result = point_file_to(fd);
    const ErrnoGuard keep;
    close(fd);
    if (result < 0) return -1;
  }
  g_sink.store(g_file, std::memory_order_release);
  return 0;
}

// Needs g_settings.
void use_standard_error() {
  g_sink.store(STDERR_FILENO, std::memory_order_release);
  // Lets go of the file. Where standard error is closed that fails, and the file stays open unused.
  if (g_file >= 0) point_file_to(STDERR_FILENO);
}

int open_sink_of_environment() {
  const std::lock_guard<std::mutex> lock(g_settings);
  if (g_sink.load(std::memory_order_relaxed) != kUnopened) return g_sink.load();
  const char *const path = secure_getenv("PLEXA_HOST_LOG_FILE");
  if (path != nullptr && *path != '\0') {
    const int fd = open_log(path);
    if (fd >= 0) {
      use_file(fd);
      return g_sink.load();
    }
    complain("PLEXA_HOST_LOG_FILE: cannot open \"%s\": %s; logging to standard error", path,
             strerror(errno));
  }
  use_standard_error();
  return STDERR_FILENO;
}

int read_level_of_environment() {
  const std::lock_guard<std::mutex> lock(g_settings);
  if (g_threshold.load(std::memory_order_relaxed) != kUnread) return g_threshold.load();
  const char *const name = secure_getenv("PLEXA_HOST_LOG");
  const LevelName *level = name == nullptr ? &kDefaultLevel : level_named(name);
  if (level == nullptr) {
    complain("PLEXA_HOST_LOG: \"%s\" is none of off, error and debug; taking %s", name,
             kDefaultLevel.name);
    level = &kDefaultLevel;
  }
  g_threshold.store(level->threshold, std::memory_order_release);
  return level->threshold;
}

int current_threshold() {
  const int threshold = g_threshold.load(std::memory_order_acquire);
  return threshold == kUnread ? read_level_of_environment() : threshold;
}

int current_sink() {
  const int sink = g_sink.load(std::memory_order_acquire);
  return sink == kUnopened ? open_sink_of_environment() : sink;
}

}  // namespace

int __dlog_print(int /*buffer*/, int priority, const char *tag, const char *format, ...) {
  // All that an unwanted message costs.
  if (std::min(priority, kHighestPriority) < current_threshold()) return 0;
  const ErrnoGuard keep;
  if (format == nullptr) return -EINVAL;
  va_list args;
  va_start(args, format);
  const int result =
      print(current_sink(), priority, tag == nullptr ? "" : tag, keep.saved(), format, args);
  va_end(args);
  return result;
}

void plexa_host_set_log_level(PlexaHostLogLevel level) {
  const LevelName *const found =
      find_level([level](const LevelName &each) { return each.level == level; });
  const std::lock_guard<std::mutex> lock(g_settings);
  g_threshold.store(found == nullptr ? kDefaultLevel.threshold : found->threshold,
                    std::memory_order_release);
}

PlexaHostLogLevel plexa_host_get_log_level() {
  const int threshold = current_threshold();
  return find_level([threshold](const LevelName &each) { return each.threshold == threshold; })
      ->level;
}

int plexa_host_log_level_from_name(const char *name, PlexaHostLogLevel *level) {
  const LevelName *const found = name == nullptr ? nullptr : level_named(name);
  if (found == nullptr || level == nullptr) {
    errno = EINVAL;
    return -1;
  }
  *level = found->level;
  return 0;
}

int plexa_host_set_log_file(const char *path) {
  const int fd = path == nullptr ? -1 : open_log(path);
  if (path != nullptr && fd < 0) return -1;
  const std::lock_guard<std::mutex> lock(g_settings);
  if (fd >= 0) return use_file(fd);
  use_standard_error();
  return 0;
}
