// box_detect.cpp - says that there is a companion box when the environment says so.
//
// Loaded before libgst-plexa (linked, or named in LD_PRELOAD), this definition takes the place of
// the library's own, which reports no box. PLEXA_BOX=1: there is one; anything else, or nothing:
// there is none. Refused is the environment of a program with raised privileges. Stateless; any
// thread may call.
#include <cstdlib>
#include <cstring>

#include "gst-plexa/gst_zeb.h"

__attribute__((visibility("default"))) gint32 gst_zeb_is_connected(void) {
  const char *const box = secure_getenv("PLEXA_BOX");
  return box != nullptr && std::strcmp(box, "1") == 0 ? 1 : 0;
}
