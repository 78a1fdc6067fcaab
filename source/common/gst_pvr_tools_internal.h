// gst_pvr_tools_internal.h - inner functions of the tools that the tests reach.
#pragma once

#include <glib.h>
#include <time.h>

namespace plexa {

// Milliseconds of a tick count, at so many ticks a second; what sysconf() answers is not trusted.
guint32 tick_milliseconds(clock_t ticks, long ticks_per_second) noexcept;

}  // namespace plexa
