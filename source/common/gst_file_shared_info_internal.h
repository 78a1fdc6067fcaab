// gst_file_shared_info_internal.h - the library's only process-wide state, and the release of a
// slot, for the module itself and its tests. Nothing else touches the state directly.
#pragma once

#include <pthread.h>

#include "gst-plexa/gst_file_shared_info.h"

namespace plexa {

// Static storage, zero at load. The two mutexes are never held together and never across I/O.
struct LibSharedInfo {
  GstSharedInfo *registry;         // null until the first gst_shared_info_get()
  pthread_mutex_t registry_mutex;  // guards the table and every item in it
  GstSharedCutInfo *cut_info;      // null until the first use, and after a remove
  pthread_mutex_t cut_info_mutex;  // guards the record
};

// Clears the slot of the key and zeroes its item; frees the list of handles. The registry mutex is
// held by the caller.
void _release_slot(GstSharedInfo *table, guint32 key) noexcept;

}  // namespace plexa

extern "C" plexa::LibSharedInfo g_lib_shared_info;
