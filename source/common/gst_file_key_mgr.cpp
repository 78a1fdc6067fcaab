// gst_file_key_mgr.cpp - gives each open recording one of the registry's four slots.
//
// A recording is its path without the extension, so that its stream file and its index file meet
// on one slot. Refused: a path without a ".", a fifth recording, a key above 3. Takes no lock: the
// registry calls with its mutex held.
#include "gst-plexa/gst_file_key_mgr.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "gst-plexa/gst_file_shared_info.h"
#include "gst-plexa/gst_pvr_tools.h"

#define PLEXA_LOG_AREA "EXT_FMG"
#include "plexa_log.h"

namespace {

struct Free {
  void operator()(gchar *text) const { free(text); }
};
using Text = std::unique_ptr<gchar, Free>;

// The slot of the recording, else the first free slot, else -1. All four are looked at, since the
// match may stand behind a slot that has become free.
gint32 _find_key(const GstSharedInfo *table, const gchar *path_no_ext) {
  gint32 first_free = -1;
  for (gint32 key = 0; key < GST_KEY_MGR_SLOTS; ++key) {
    const GstKeyInfo &slot = table->slots[key];
    if (slot.used != 0 && strcmp(slot.path, path_no_ext) == 0) return key;
    if (slot.used == 0 && first_free < 0) first_free = key;
  }
  return first_free;
}

void _take_slot(GstKeyInfo &slot, const gchar *path_no_ext) {
  slot = {};
  slot.used = 1;
  memcpy(slot.path, path_no_ext, strnlen(path_no_ext, sizeof slot.path - 1));
}

}  // namespace

void gst_key_mgr_init_all_key_info(GstSharedInfo *table) {
  for (GstKeyInfo &slot : table->slots) slot = {};
}

void gst_key_mgr_init_key_info(GstSharedInfo *table, guint32 key) {
  if (key >= GST_KEY_MGR_SLOTS) {
    PLX_ERROR("[PLG_ERR] wrong key[%d]", static_cast<gint32>(key));
    return;
  }
  table->slots[key] = {};
}

gboolean gst_key_mgr_free_key(GstSharedInfo *table, guint32 key) {
  gst_key_mgr_init_key_info(table, key);
  return TRUE;
}

gint32 gst_key_mgr_pre_allocate_key(GstSharedInfo *table, const gchar *path) {
  const Text path_no_ext(gst_pvr_tool_extract_filepath_no_ext(path));
  if (path_no_ext == nullptr) {
    PLX_ERROR("[PLG_ERR] path_no_ext is NULL");
    return -1;
  }
  return _find_key(table, path_no_ext.get());
}

gint32 gst_key_mgr_allocate_key(GstSharedInfo *table, const gchar *path) {
  const Text path_no_ext(gst_pvr_tool_extract_filepath_no_ext(path));
  if (path_no_ext == nullptr) {
    PLX_ERROR("[PLG_ERR] path_no_ext is NULL");
    return -1;
  }
  const gint32 index = _find_key(table, path_no_ext.get());
  if (index < 0) {
    PLX_ERROR("[PLG_ERR] Range error !!, index=[%d]", index);
    PLX_ERROR("[PLG_ERR] allocate key failed");
    return -1;
  }
  if (table->slots[index].used != 0) {
    PLX_INFO("Already be used, index:%d", index);
    return index;
  }
  _take_slot(table->slots[index], path_no_ext.get());
  return index;
}
