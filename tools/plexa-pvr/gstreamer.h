// gstreamer.h - GStreamer as a command needs it. Main thread, before the first use of GStreamer.
#pragma once

namespace plexa::pvr {

// For its parsing libraries alone: no plug-in is looked for, which makes a short command shorter.
void start_gstreamer_parsers();

}  // namespace plexa::pvr
