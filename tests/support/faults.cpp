#include "faults.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/times.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <stdexcept>

namespace plexa_test {
namespace {

constexpr std::array kNames = {
    "access",   "calloc",  "clock_gettime", "close",    "connect", "fcntl",   "fsync",
    "link",     "lseek64", "malloc",        "open64",   "popen",   "pread64", "pthread_mutex_lock",
    "pwrite64", "read",    "realloc",       "realpath", "recv",    "rename",  "send",
    "socket",   "stat64",  "sync",          "times",    "unlink",  "usleep",  "valloc",
    "write"};

int index_of(const char *name) {
  for (size_t i = 0; i < kNames.size(); ++i) {
    if (std::strcmp(kNames[i], name) == 0) return static_cast<int>(i);
  }
  throw std::invalid_argument(std::string("faults.h does not know the call ") + name);
}

struct Rule {
  int seen = 0;
  int fail_at = 0;       // the call with this number fails
  bool fail_on = false;  // every call fails
  int error = 0;
  int short_at = 0;
  long short_bytes = 0;
  bool answered = false;
  long result = 0;
  bool acting = false;
  std::function<void()> action;
  std::function<void(int, const char *, long long)> watcher;
};

struct State {
  std::array<Rule, kNames.size()> rules;
  std::vector<int> order;
  pthread_t owner = pthread_self();
  bool every_thread = false;
};

std::atomic<State *> active{nullptr};
std::recursive_mutex state_lock;
thread_local bool inside = false;  // the bookkeeping's own calls pass through

struct Verdict {
  bool fail = false;
  bool answered = false;
  long result = 0;
  long limit = -1;
};

class Inside {
 public:
  Inside() { inside = true; }
  ~Inside() { inside = false; }
};

Verdict judge_locked(State &state, int call, int fd, const char *path, long long number,
                     std::function<void()> &action) {
  Rule &rule = state.rules[static_cast<size_t>(call)];
  ++rule.seen;
  const std::string_view name = kNames[static_cast<size_t>(call)];
  if (name != "malloc" && name != "calloc" && name != "realloc" && name != "valloc" &&
      name != "clock_gettime" && name != "pthread_mutex_lock") {
    state.order.push_back(call);
  }
  if (rule.watcher) rule.watcher(fd, path, number);
  action = rule.action;
  Verdict verdict;
  if (rule.fail_on || (rule.fail_at != 0 && rule.seen == rule.fail_at)) {
    verdict.fail = true;
    errno = rule.error;
  } else if (rule.answered) {
    verdict.answered = true;
    verdict.result = rule.result;
  }
  if (rule.short_at != 0 && rule.seen == rule.short_at) verdict.limit = rule.short_bytes;
  return verdict;
}

Verdict judge(const char *name, int fd = -1, const char *path = nullptr, long long number = 0) {
  if (inside || active.load(std::memory_order_acquire) == nullptr) return {};
  Inside guard;
  const std::lock_guard hold(state_lock);
  State *const state = active.load(std::memory_order_acquire);
  if (state == nullptr) return {};
  if (!state->every_thread && pthread_equal(state->owner, pthread_self()) == 0) return {};
  std::function<void()> action;
  const Verdict verdict = judge_locked(*state, index_of(name), fd, path, number, action);
  if (action) {
    const int saved = errno;
    action();
    errno = saved;
  }
  return verdict;
}

std::atomic<uint16_t> redirected_from{0};
std::atomic<uint16_t> redirected_to{0};

State &state() { return *active.load(); }
Rule &rule(const std::string &call) {
  return state().rules[static_cast<size_t>(index_of(call.c_str()))];
}

size_t limited(size_t size, const Verdict &verdict) {
  return verdict.limit < 0 ? size : std::min(size, static_cast<size_t>(verdict.limit));
}

}  // namespace

Faults::Faults() {
  const std::lock_guard hold(state_lock);
  if (active.load() != nullptr) throw std::logic_error("one Faults object at a time");
  active.store(new State);
}

Faults::~Faults() {
  const std::lock_guard hold(state_lock);
  delete active.exchange(nullptr);
}

void Faults::fail(const std::string &call, int error, int nth) {
  const std::lock_guard hold(state_lock);
  Rule &r = rule(call);
  r.fail_at = r.seen + nth;
  r.error = error;
}

void Faults::fail_all(const std::string &call, int error) {
  const std::lock_guard hold(state_lock);
  Rule &r = rule(call);
  r.fail_on = true;
  r.error = error;
}

void Faults::shorten(const std::string &call, long bytes, int nth) {
  const std::lock_guard hold(state_lock);
  Rule &r = rule(call);
  r.short_at = r.seen + nth;
  r.short_bytes = bytes;
}

void Faults::answer(const std::string &call, long result) {
  const std::lock_guard hold(state_lock);
  Rule &r = rule(call);
  r.answered = true;
  r.result = result;
}

void Faults::before(const std::string &call, std::function<void()> action) {
  const std::lock_guard hold(state_lock);
  rule(call).action = std::move(action);
}

void Faults::watch(const std::string &call,
                   std::function<void(int, const char *, long long)> watcher) {
  const std::lock_guard hold(state_lock);
  rule(call).watcher = std::move(watcher);
}

void Faults::all_threads() {
  const std::lock_guard hold(state_lock);
  state().every_thread = true;
}

int Faults::count(const std::string &call) const {
  const std::lock_guard hold(state_lock);
  return rule(call).seen;
}

std::vector<std::string> Faults::calls() const {
  const std::lock_guard hold(state_lock);
  std::vector<std::string> out;
  for (const int call : state().order) out.emplace_back(kNames[static_cast<size_t>(call)]);
  return out;
}

void redirect_connect(uint16_t from, uint16_t to) {
  redirected_from = from;
  redirected_to = to;
}

}  // namespace plexa_test

using plexa_test::judge;
using plexa_test::limited;
using plexa_test::Verdict;

// The wrappers. __real_X is what X was before the linker put the wrapper in its place.
extern "C" {

#define PLX_WRAP(type, name, params, args, fd, path, number, failure) \
  type __real_##name params;                                          \
  type __wrap_##name params;                                          \
  type __wrap_##name params {                                         \
    const Verdict verdict = judge(#name, fd, path, number);           \
    if (verdict.fail) return failure;                                 \
    if (verdict.answered) return static_cast<type>(verdict.result);   \
    return __real_##name args;                                        \
  }

PLX_WRAP(int, access, (const char *path, int mode), (path, mode), -1, path, mode, -1)
PLX_WRAP(int, fsync, (int fd), (fd), fd, nullptr, 0, -1)
PLX_WRAP(int, link, (const char *from, const char *to), (from, to), -1, to, 0, -1)
PLX_WRAP(int, rename, (const char *from, const char *to), (from, to), -1, from, 0, -1)
PLX_WRAP(int, unlink, (const char *path), (path), -1, path, 0, -1)
PLX_WRAP(clock_t, times, (struct tms * buffer), (buffer), -1, nullptr, 0, clock_t{-1})
PLX_WRAP(int, usleep, (useconds_t delay), (delay), -1, nullptr, delay, -1)
PLX_WRAP(off64_t, lseek64, (int fd, off64_t offset, int whence), (fd, offset, whence), fd, nullptr,
         offset, off64_t{-1})
PLX_WRAP(int, pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex), -1, nullptr, 0, EINVAL)

// A close that is told to fail still releases the descriptor, as the kernel does.
int __real_close(int fd);
int __wrap_close(int fd);
int __wrap_close(int fd) {
  const Verdict verdict = judge("close", fd);
  const int error = errno;
  const int result = __real_close(fd);
  if (!verdict.fail) return result;
  errno = error;
  return -1;
}

void __real_sync();
void __wrap_sync();
void __wrap_sync() {
  if (!judge("sync").answered) __real_sync();
}

FILE *__real_popen(const char *command, const char *type);
FILE *__wrap_popen(const char *command, const char *type);
FILE *__wrap_popen(const char *command, const char *type) {
  const auto length = static_cast<long long>(std::strlen(type));
  return judge("popen", -1, command, length).fail ? nullptr : __real_popen(command, type);
}

char *__real_realpath(const char *path, char *resolved);
char *__wrap_realpath(const char *path, char *resolved);
char *__wrap_realpath(const char *path, char *resolved) {
  return judge("realpath", -1, path).fail ? nullptr : __real_realpath(path, resolved);
}

#define PLX_WRAP_ALLOCATION(name, params, args, size)                                 \
  void *__real_##name params;                                                         \
  void *__wrap_##name params;                                                         \
  void *__wrap_##name params {                                                        \
    if (judge(#name, -1, nullptr, static_cast<long long>(size)).fail) return nullptr; \
    return __real_##name args;                                                        \
  }

PLX_WRAP_ALLOCATION(malloc, (size_t size), (size), size)
PLX_WRAP_ALLOCATION(calloc, (size_t count, size_t size), (count, size), count *size)
PLX_WRAP_ALLOCATION(realloc, (void *memory, size_t size), (memory, size), size)
PLX_WRAP_ALLOCATION(valloc, (size_t size), (size), size)

#define PLX_WRAP_TRANSFER(name, call, params, args, fd, size)                       \
  ssize_t __real_##name params;                                                     \
  ssize_t __wrap_##name params;                                                     \
  ssize_t __wrap_##name params {                                                    \
    const Verdict verdict = judge(call, fd, nullptr, static_cast<long long>(size)); \
    if (verdict.fail) return -1;                                                    \
    if (verdict.answered) return verdict.result;                                    \
    size = limited(size, verdict);                                                  \
    return __real_##name args;                                                      \
  }

PLX_WRAP_TRANSFER(read, "read", (int fd, void *buffer, size_t size), (fd, buffer, size), fd, size)
PLX_WRAP_TRANSFER(write, "write", (int fd, const void *buffer, size_t size), (fd, buffer, size), fd,
                  size)
PLX_WRAP_TRANSFER(send, "send", (int fd, const void *buffer, size_t size, int flags),
                  (fd, buffer, size, flags), fd, size)
PLX_WRAP_TRANSFER(recv, "recv", (int fd, void *buffer, size_t size, int flags),
                  (fd, buffer, size, flags), fd, size)
PLX_WRAP_TRANSFER(pread64, "pread64", (int fd, void *buffer, size_t size, off64_t at),
                  (fd, buffer, size, at), fd, size)
PLX_WRAP_TRANSFER(pwrite64, "pwrite64", (int fd, const void *buffer, size_t size, off64_t at),
                  (fd, buffer, size, at), fd, size)

PLX_WRAP(int, socket, (int domain, int type, int protocol), (domain, type, protocol), -1, nullptr,
         type, -1)

int __real_connect(int fd, const sockaddr *address, socklen_t size);
int __wrap_connect(int fd, const sockaddr *address, socklen_t size);
int __wrap_connect(int fd, const sockaddr *address, socklen_t size) {
  if (address->sa_family != AF_INET || size != sizeof(sockaddr_in)) {
    return __real_connect(fd, address, size);
  }
  sockaddr_in to;
  std::memcpy(&to, address, sizeof to);
  char text[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &to.sin_addr, text, sizeof text);
  if (judge("connect", fd, text, ntohs(to.sin_port)).fail) return -1;
  const uint16_t other = plexa_test::redirected_to;
  if (other != 0 && ntohs(to.sin_port) == plexa_test::redirected_from) to.sin_port = htons(other);
  return __real_connect(fd, reinterpret_cast<const sockaddr *>(&to), sizeof to);
}

int __real_open64(const char *path, int flags, mode_t mode);
int __wrap_open64(const char *path, int flags, ...);
int __wrap_open64(const char *path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(args, mode_t) : 0;
  va_end(args);
  return judge("open64", -1, path, flags).fail ? -1 : __real_open64(path, flags, mode);
}

#define PLX_WRAP_FCNTL(name)                                                                      \
  int __real_##name(int fd, int command, void *argument);                                         \
  int __wrap_##name(int fd, int command, ...);                                                    \
  int __wrap_##name(int fd, int command, ...) {                                                   \
    va_list args;                                                                                 \
    va_start(args, command);                                                                      \
    void *const argument = va_arg(args, void *);                                                  \
    va_end(args);                                                                                 \
    return judge("fcntl", fd, nullptr, command).fail ? -1 : __real_##name(fd, command, argument); \
  }

#define PLX_WRAP_STAT(name)                                                   \
  int __real_##name(const char *path, void *status);                          \
  int __wrap_##name(const char *path, void *status);                          \
  int __wrap_##name(const char *path, void *status) {                         \
    return judge("stat64", -1, path).fail ? -1 : __real_##name(path, status); \
  }

#define PLX_WRAP_CLOCK(name)                                                                 \
  int __real_##name(clockid_t clock, void *now);                                             \
  int __wrap_##name(clockid_t clock, void *now);                                             \
  int __wrap_##name(clockid_t clock, void *now) {                                            \
    return judge("clock_gettime", -1, nullptr, clock).fail ? -1 : __real_##name(clock, now); \
  }

#if defined(__i386__)
PLX_WRAP_FCNTL(__fcntl_time64)
PLX_WRAP_STAT(__stat64_time64)
PLX_WRAP_CLOCK(__clock_gettime64)
#else
PLX_WRAP_FCNTL(fcntl)
PLX_WRAP_STAT(stat64)
PLX_WRAP_CLOCK(clock_gettime)
#endif
}
