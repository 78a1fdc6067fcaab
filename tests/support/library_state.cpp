// library_state.cpp - see library_state.h.
#include "library_state.h"

#include <filesystem>
#include <iterator>

#include "gst-plexa/gst_file_shared_info.h"

namespace plexa_test {

int open_descriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<int>(std::distance(begin(all), end(all)));
}

bool registry_is_empty() {
  GstSharedInfo *const table = gst_shared_info_get();
  for (guint32 key = 0; key < GST_KEY_MGR_SLOTS; ++key) {
    const GstFileInfo *const item = gst_shared_info_get_item(table, key);
    if (item->read_count != 0 || item->write_count != 0) return false;
  }
  return true;
}

}  // namespace plexa_test
