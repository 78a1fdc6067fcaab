// crash_point.cpp - see crash_point.h.
#include "crash_point.h"

#include <fcntl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace plexa_test {
namespace {

constexpr char kProgram[] = PLEXA_PVR_PROGRAM;

[[noreturn]] void become_program(const std::vector<std::string> &arguments) {
  std::vector<char *> pointers{const_cast<char *>(kProgram)};
  for (const std::string &text : arguments) pointers.push_back(const_cast<char *>(text.c_str()));
  pointers.push_back(nullptr);
  const int null = ::open("/dev/null", O_RDWR);
  for (const int number : {0, 1, 2}) ::dup2(null, number);
  // The leak check cannot work under ptrace.
  ::setenv("ASAN_OPTIONS", "detect_leaks=0:exitcode=99", 1);
  ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
  ::raise(SIGSTOP);
  ::execv(kProgram, pointers.data());
  ::_exit(127);
}

// Standard output and error are no files.
bool is_file(uint64_t descriptor) { return descriptor > 2; }

bool changes_files(const __ptrace_syscall_info &call) {
  const uint64_t *const argument = call.entry.args;
  switch (call.entry.nr) {
    case SYS_write:
      return is_file(argument[0]);
    case SYS_openat:
      return (argument[2] & (O_CREAT | O_TRUNC)) != 0;
#ifdef SYS_open
    case SYS_open:
      return (argument[1] & (O_CREAT | O_TRUNC)) != 0;
#endif
#ifdef SYS_rename
    case SYS_rename:
    case SYS_unlink:
#endif
#ifdef SYS_ftruncate64
    case SYS_ftruncate64:
#endif
    case SYS_ftruncate:
    case SYS_renameat:
    case SYS_renameat2:
    case SYS_unlinkat:
    case SYS_pwrite64:
    case SYS_fsync:
    case SYS_fdatasync:
    case SYS_fallocate:
      return true;
    default:
      return false;
  }
}

int wait_for(pid_t child) {
  int status = 0;
  while (::waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) throw std::runtime_error("waitpid");
  }
  return status;
}

// False: the program has ended.
bool go_to_next_stop(pid_t child, int &status) {
  const int signal = WSTOPSIG(status) & ~0x80;
  const bool deliver = signal != SIGTRAP && signal != SIGSTOP;
  ::ptrace(PTRACE_SYSCALL, child, nullptr, deliver ? signal : 0);
  status = wait_for(child);
  return WIFSTOPPED(status);
}

bool is_changing_call(pid_t child, int status) {
  if (WSTOPSIG(status) != (SIGTRAP | 0x80)) return false;
  __ptrace_syscall_info call{};
  const auto size = reinterpret_cast<void *>(sizeof call);
  if (::ptrace(PTRACE_GET_SYSCALL_INFO, child, size, &call) <= 0) {
    throw std::runtime_error("the kernel tells nothing about system calls");
  }
  return call.op == PTRACE_SYSCALL_INFO_ENTRY && changes_files(call);
}

}  // namespace

bool crash_before(int call, const std::vector<std::string> &arguments) {
  const pid_t child = ::fork();
  if (child < 0) throw std::runtime_error("fork");
  if (child == 0) become_program(arguments);
  int status = wait_for(child);
  if (!WIFSTOPPED(status)) throw std::runtime_error("the program cannot be watched");
  ::ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
  int seen = 0;
  while (go_to_next_stop(child, status)) {
    if (!is_changing_call(child, status) || ++seen < call) continue;
    ::kill(child, SIGKILL);
    while (!WIFSIGNALED(wait_for(child))) {
    }
    return true;
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw std::runtime_error("plexa-pvr failed under observation");
  }
  return false;
}

}  // namespace plexa_test
