// confine.cpp - see confine.h. The kernel's rules can only be added to, never taken back.
#include "confine.h"

#include <fcntl.h>
#include <linux/landlock.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#ifndef LANDLOCK_ACCESS_FS_REFER
#define LANDLOCK_ACCESS_FS_REFER (1ULL << 13)
#endif
#ifndef LANDLOCK_ACCESS_FS_TRUNCATE
#define LANDLOCK_ACCESS_FS_TRUNCATE (1ULL << 14)
#endif

namespace plexa::box {
namespace {

constexpr uint64_t kFirstVersion = (LANDLOCK_ACCESS_FS_MAKE_SYM << 1) - 1;
constexpr uint64_t kReading = LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR;
// No programs, devices, pipes, sockets or links.
constexpr uint64_t kServing = kReading | LANDLOCK_ACCESS_FS_WRITE_FILE |
                              LANDLOCK_ACCESS_FS_MAKE_REG | LANDLOCK_ACCESS_FS_MAKE_DIR |
                              LANDLOCK_ACCESS_FS_REMOVE_FILE | LANDLOCK_ACCESS_FS_REFER |
                              LANDLOCK_ACCESS_FS_TRUNCATE;

uint64_t known_to_version(long version) {
  uint64_t known = kFirstVersion;
  if (version >= 2) known |= LANDLOCK_ACCESS_FS_REFER;
  if (version >= 3) known |= LANDLOCK_ACCESS_FS_TRUNCATE;
  return known;
}

bool allow(int ruleset, int folder, uint64_t access) {
  landlock_path_beneath_attr rule = {};
  rule.allowed_access = access;
  rule.parent_fd = folder;
  return syscall(SYS_landlock_add_rule, ruleset, LANDLOCK_RULE_PATH_BENEATH, &rule, 0) == 0;
}

// What a sanitizer looks at when the program ends.
bool allow_sanitizers([[maybe_unused]] int ruleset) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  const int processes = ::open("/proc", O_PATH | O_DIRECTORY | O_CLOEXEC);
  const bool allowed = allow(ruleset, processes, kReading);
  ::close(processes);
  return allowed;
#else
  return true;
#endif
}

bool enforce(int ruleset, int folder, uint64_t known) {
  return allow(ruleset, folder, kServing & known) && allow_sanitizers(ruleset) &&
         prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         syscall(SYS_landlock_restrict_self, ruleset, 0) == 0;
}

}  // namespace

bool confine(int folder) {
  const long version =
      syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
  if (version < 1) return false;
  landlock_ruleset_attr attributes = {};
  attributes.handled_access_fs = known_to_version(version);
  const auto ruleset =
      static_cast<int>(syscall(SYS_landlock_create_ruleset, &attributes, sizeof attributes, 0));
  if (ruleset < 0) return false;
  const bool enforced = enforce(ruleset, folder, attributes.handled_access_fs);
  const int saved = errno;
  ::close(ruleset);
  errno = saved;
  return enforced;
}

}  // namespace plexa::box
