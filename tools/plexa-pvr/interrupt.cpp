// interrupt.cpp - see interrupt.h.
#include "interrupt.h"

#include <csignal>

namespace plexa::pvr {
namespace {

std::atomic<bool> g_interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "set inside a signal handler");

void on_signal(int) { g_interrupted = true; }

}  // namespace

const std::atomic<bool> &catch_interrupts() {
  struct sigaction action {};
  action.sa_handler = on_signal;
  action.sa_flags = static_cast<int>(SA_RESTART | SA_RESETHAND);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction old {};
    // Started under nohup or in the background: what is ignored stays ignored.
    if (sigaction(signal, nullptr, &old) == 0 && old.sa_handler == SIG_IGN) continue;
    sigaction(signal, &action, nullptr);
  }
  return g_interrupted;
}

}  // namespace plexa::pvr
