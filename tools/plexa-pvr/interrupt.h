// interrupt.h - Ctrl-C as a request to end cleanly.
//
// The first SIGINT, SIGTERM or SIGHUP sets a flag that long work looks at; a second one ends the
// program at once. Called from the main thread; the flag may be read by any.
#pragma once

#include <atomic>

namespace plexa::pvr {

// From now on, interruptions set the returned flag.
const std::atomic<bool> &catch_interrupts();

}  // namespace plexa::pvr
