// gst_cut_buffer_mgr.cpp - follows the recorded time of a time-shift recording's writer, publishes
// the kept span and starts the cuts.
//
// Refused are a span or a cut point below 1. The manager is used by the writer while it is counted
// as running, and by the cut thread while nothing runs, so never by both; only the cut point is
// also cleared from outside, by a thread that has waited too long for its turn.
#include "gst-plexa/gst_cut_buffer_mgr.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "gst-plexa/gst_file_shared_info.h"
#include "gst-plexa/gst_pvr_tools.h"
#include "gst_cut_internal.h"
#include "gst_file_shared_info_internal.h"

#define PLEXA_LOG_AREA "EXT_FMG"
#include "plexa_log.h"

#define NEVER_CUT_ATSC3 "[PLG_ERR] for atsc3 timeshift case, it never cut file"

namespace {

gint32 _cut_point(const GstCutBufferMgr *mgr) { return g_atomic_int_get(&mgr->max_time); }

void _set_cut_point(GstCutBufferMgr *mgr, gint32 time) { g_atomic_int_set(&mgr->max_time, time); }

void _publish(gint32 duration) {
  gst_shared_cut_info_set_fixed_duration(gst_shared_cut_info_get(), duration);
}

void _publish_start(gint32 time, gint64 offset) {
  GstSharedCutInfo *const info = gst_shared_cut_info_get();
  gst_shared_cut_info_set_accumulated_time(info, time);
  gst_shared_cut_info_set_accumulated_offset(info, offset);
}

void _change_span(GstCutBufferMgr *mgr, gint32 duration) {
  const gint32 diff = mgr->fixed_duration - duration;
  if (diff >= 0) {
    PLX_INFO("diff_fixed_duration==0,cut_buffer_mgr->fixed_duration=[%d],cutbuf_starttime=[%d]",
             mgr->fixed_duration, duration);
    mgr->fixed_duration = duration;
    return;
  }
  mgr->next_update_time = mgr->fixed_duration = duration;
  mgr->cutbuf_starttime = plexa::_add_times(mgr->cutbuf_starttime, -diff);
  _set_cut_point(mgr, plexa::_add_times(_cut_point(mgr), -diff));
  _publish_start(0, 0);
}

// ---- The index ----

struct IndexFile {
  gchar *path = nullptr;
  GstPvrFile *file = nullptr;
  GstIndexParser *parser = nullptr;
  bool is_open = false;

  IndexFile() = default;
  IndexFile(const IndexFile &) = delete;
  IndexFile &operator=(const IndexFile &) = delete;
  // Everything that has not been handed over.
  ~IndexFile() {
    if (is_open) gst_pvr_file_close(file);
    if (file != nullptr) gst_pvr_file_deinit(file);
    gst_index_parser_stop(parser);  // a start that failed leaves its table
    free(parser);
    free(file);
    free(path);
  }
};

template <class Record>
Record *_allocate() {
  return static_cast<Record *>(calloc(1, sizeof(Record)));
}

bool _open_index_file(GstCutBufferMgr *mgr, IndexFile &index) {
  index.path = gst_pvr_tool_change_extension(mgr->file_path, ".mdb");
  if (index.path == nullptr) {
    PLX_ERROR("[PLG_ERR] cut_buffer_mgr->mdb_file is NULL");
    return false;
  }
  index.file = _allocate<GstPvrFile>();
  index.parser = _allocate<GstIndexParser>();
  if (index.file == nullptr || index.parser == nullptr || gst_pvr_file_init(index.file) != 0) {
    PLX_ERROR("[PLG_ERR] g mutex new lock fail!");
    return false;
  }
  index.is_open =
      gst_pvr_file_open(index.file, index.path, GST_PVR_FILE_READ, GST_PVR_FILE_BUFFER_IO,
                        GST_PVR_FILE_NORMAL, GST_PVR_FILE_INDEX, 0, 0) >= 0;
  if (!index.is_open) PLX_ERROR("[PLG_ERR] open index file failed");
  return index.is_open;
}

// Tried again at the next lookup when it fails.
bool _gst_cut_mgr_open_index_parser(GstCutBufferMgr *mgr) {
  if (mgr->is_atsc3 != 0) {
    PLX_ERROR(NEVER_CUT_ATSC3 ", do not open the index parser");
    return true;
  }
  if (mgr->index_parser != nullptr) return true;
  IndexFile index;
  if (!_open_index_file(mgr, index)) return false;
  gst_index_parser_init(index.parser, index.file);
  if (gst_index_parser_start(index.parser) < 0) {
    PLX_ERROR("[PLG_ERR] gst_index_parser_start failed");
    return false;
  }
  mgr->mdb_file = std::exchange(index.path, nullptr);
  mgr->index_parser = std::exchange(index.parser, nullptr);
  index.file = nullptr;  // the parser keeps it
  index.is_open = false;
  return true;
}

void _gst_cut_mgr_close_index_parser(GstCutBufferMgr *mgr) {
  if (mgr->is_atsc3 != 0) {
    PLX_ERROR(NEVER_CUT_ATSC3);
    return;
  }
  if (mgr->index_parser == nullptr) return;
  GstPvrFile *const file = mgr->index_parser->index_file;
  gst_pvr_file_close(file);
  gst_pvr_file_deinit(file);
  free(file);
  gst_index_parser_stop(mgr->index_parser);
  free(mgr->index_parser);
  mgr->index_parser = nullptr;
}

// The start of the I-frame that the index gives for the time.
bool _gst_cut_mgr_get_offset_by_time(GstCutBufferMgr *mgr, gint32 time, gint64 *offset) {
  const bool is_open = _gst_cut_mgr_open_index_parser(mgr);
  if (mgr->is_atsc3 != 0) {
    PLX_ERROR(NEVER_CUT_ATSC3);
    return true;
  }
  frameData frame{};
  if (is_open) frame = gst_index_parser_get_iframe_by_time(mgr->index_parser, time, 0);
  if (!frame.is_valid) {
    PLX_ERROR("[PLG_ERR] frame_data is invalid");
    return false;
  }
  *offset = static_cast<gint64>(frame.stream_offset);
  return true;
}

// ---- The cut thread's record ----

void _fill_cut_param(GstCutBufferMgr *mgr, gint64 offset) {
  // The shared record dies with any of several writers. What this file has really lost is known
  // all the same, and no more may be cut off than stands before the offset.
  const gint64 cut_off =
      std::max(gst_shared_cut_info_get_total_cutoffset(gst_shared_cut_info_get()),
               plexa::_bytes_cut_off(mgr->key));
  GstCutParam *const param = mgr->cut_param;
  param->key = mgr->key;
  param->file_path = mgr->file_path;
  param->retry_count = 0;
  param->cutbuf_starttime = mgr->cutbuf_starttime;
  param->max_time = _cut_point(mgr);
  // A damaged index can hold any offset.
  if (__builtin_sub_overflow(offset, cut_off, &param->cut_offset)) param->cut_offset = G_MININT64;
  param->removed_bytes = 0;
  param->cut_buffer_mgr = mgr;
}

// A task that is still on its way finds the link gone, and takes the record with it when it ends.
void _let_go_of_cut_param(GstCutBufferMgr *mgr) {
  GstCutParam *const param = mgr->cut_param;
  if (param == nullptr) return;
  mgr->cut_param = nullptr;
  g_mutex_lock(&param->link_lock);
  param->cut_buffer_mgr = nullptr;
  GstTask *const task = param->task;
  g_mutex_unlock(&param->link_lock);
  plexa::_abandon_cut(mgr->key, param);
  if (task != nullptr) {
    gst_object_unref(task);
  } else {
    plexa::_free_cut_param(param);
  }
}

}  // namespace

namespace plexa {

gint32 _add_times(gint32 time, gint32 milliseconds) noexcept {
  const gint64 sum = gint64{time} + milliseconds;
  return static_cast<gint32>(std::clamp<gint64>(sum, G_MININT32, G_MAXINT32));
}

gint32 _subtract_times(gint32 time, gint32 milliseconds) noexcept {
  const gint64 difference = gint64{time} - milliseconds;
  return static_cast<gint32>(std::clamp<gint64>(difference, G_MININT32, G_MAXINT32));
}

void _release_cut_mgr(GstCutBufferMgr *mgr) noexcept {
  _gst_cut_mgr_close_index_parser(mgr);
  free(mgr->mdb_file);
  mgr->mdb_file = nullptr;
  _let_go_of_cut_param(mgr);
}

}  // namespace plexa

gboolean gst_cut_mgr_create(GstCutBufferMgr *mgr, const gchar *file_path, guint32 key,
                            guint32 is_atsc3) {
  *mgr = {};
  mgr->key = key;
  mgr->file_path = file_path;
  mgr->is_atsc3 = is_atsc3;
  mgr->cut_param = _allocate<GstCutParam>();
  if (mgr->cut_param == nullptr) return FALSE;
  g_mutex_init(&mgr->cut_param->link_lock);
  mgr->cut_param->is_owned_by_task = 1;
  return TRUE;
}

void gst_cut_mgr_destroy(GstCutBufferMgr *mgr) {
  PLX_ERROR("[PLG_ERR] gst_cut_file_close");
  gst_shared_cut_info_remove();
  plexa::_release_cut_mgr(mgr);
}

gboolean gst_cut_mgr_set_max_time(GstCutBufferMgr *mgr, gint32 cutbuf_starttime, gint32 max_time,
                                  gint32 mode) {
  if (cutbuf_starttime < 1 || max_time < 1) {
    PLX_ERROR("[PLG_ERR] Parameter is wrong !!, lCutBufStartTime=[%d], lMaxTime=[%d]",
              cutbuf_starttime, max_time);
    return FALSE;
  }
  if (mode == GST_CUT_MGR_CHANGE_SPAN) {
    _change_span(mgr, cutbuf_starttime);
  } else if (mode == GST_CUT_MGR_FIRST_SETTING || mode == GST_CUT_MGR_AFTER_CUT) {
    if (mode == GST_CUT_MGR_FIRST_SETTING) mgr->fixed_duration = cutbuf_starttime;
    mgr->cutbuf_starttime = mgr->next_update_time = cutbuf_starttime;
    _set_cut_point(mgr, max_time);
  }
  _publish(mgr->fixed_duration);
  return TRUE;
}

gboolean gst_cut_mgr_get_max_time(GstCutBufferMgr *mgr) { return _cut_point(mgr) != 0; }

gboolean gst_cut_mgr_is_max_time(GstCutBufferMgr *mgr) {
  const gint32 cut_point = _cut_point(mgr);
  return cut_point != 0 && mgr->current_time >= cut_point;
}

void gst_cut_mgr_update_time(GstCutBufferMgr *mgr, gint32 recorded_time) {
  mgr->current_time = recorded_time;
  if (mgr->next_update_time == 0 || recorded_time < mgr->next_update_time) return;
  mgr->next_update_time = recorded_time;
  const gint32 start = recorded_time - mgr->fixed_duration;
  gint64 offset = 0;
  if (!_gst_cut_mgr_get_offset_by_time(mgr, start, &offset)) {
    gst_cut_mgr_error_process(mgr);
    return;
  }
  PLX_INFO("accumulated_time:%d", start);
  _publish_start(start, offset);
}

gboolean gst_cut_mgr_do_cut(GstCutBufferMgr *mgr) {
  gint64 offset = 0;
  const gint32 start = plexa::_subtract_times(mgr->current_time, mgr->fixed_duration);
  if (!_gst_cut_mgr_get_offset_by_time(mgr, start, &offset)) {
    gst_cut_mgr_error_process(mgr);
    return FALSE;
  }
  const gint state = plexa::_settle_task(mgr->cut_param);
  if (state == plexa::kTaskIdle) _fill_cut_param(mgr, offset);
  if (plexa::_start_cut_task(mgr->cut_param, state)) return TRUE;
  gst_cut_mgr_error_process(mgr);
  return FALSE;
}

void gst_cut_mgr_error_process(GstCutBufferMgr *mgr) {
  _set_cut_point(mgr, 0);
  gst_shared_info_update_cut_mode(gst_shared_info_get(), mgr->key, FALSE);
}

gboolean gst_cut_mgr_get_time_by_offset(GstCutBufferMgr *mgr, gint64 offset, gint32 *time) {
  if (!_gst_cut_mgr_open_index_parser(mgr)) return FALSE;
  if (mgr->is_atsc3 != 0) {
    PLX_ERROR(NEVER_CUT_ATSC3);
    return TRUE;
  }
  const frameData frame = gst_index_parser_get_iframe_by_offset(mgr->index_parser, offset, 0);
  if (!frame.is_valid) {
    PLX_ERROR("[PLG_ERR] frameData.isValid == FALSE");
    return FALSE;
  }
  *time = static_cast<gint32>(frame.timecode);
  return TRUE;
}
