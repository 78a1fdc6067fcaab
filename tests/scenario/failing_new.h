// failing_new.h - lets operator new of this program run out of memory on the calling thread.
#pragma once

namespace plexa_test {

// So many allocations of this thread still succeed; the one behind them fails, and it alone.
void fail_new_after(int successes);
// From here on there is memory again. True: an allocation has failed.
bool stop_failing_new();

}  // namespace plexa_test
