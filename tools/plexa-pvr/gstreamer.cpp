// gstreamer.cpp - see gstreamer.h.
#include "gstreamer.h"

#include <gst/gst.h>

namespace plexa::pvr {

void start_gstreamer_parsers() {
  g_setenv("GST_REGISTRY_DISABLE", "yes", TRUE);
  gst_init(nullptr, nullptr);
}

}  // namespace plexa::pvr
