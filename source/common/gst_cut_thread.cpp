// gst_cut_thread.cpp - the task that takes the front of a time-shift recording away under the hands
// of those who have it open.
//
// It waits until no operation runs on the recording and from then on keeps them out until every
// handle stands where it stood. Nothing stops half-way: a step that fails switches cutting off, and
// the steps after it are carried out all the same, so that reading and writing go on. A manager
// that goes while its cut still waits takes its link away under the link lock; the task then ends
// without touching the file, and the record goes with the task. A cut whose slot was given up while
// it waited is dropped, too: the handles that it would move may be another recording's.
#include "gst-plexa/gst_cut_thread.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "gst-plexa/gst_cut_file.h"
#include "gst-plexa/gst_edit_unit.h"
#include "gst-plexa/gst_file_shared_info.h"
#include "gst_cut_internal.h"
#include "gst_file_direct_io_internal.h"
#include "gst_file_shared_info_internal.h"

#define PLEXA_LOG_AREA "EXT_FMG"
#include "plexa_log.h"

namespace {

constexpr gint32 kPatientPasses = 20;  // this many waiting passes do not switch cutting off
constexpr int kPassMs = 20;
constexpr char kTaskName[] = "_gst_cut_thread_loop";

class LinkHold {
 public:
  explicit LinkHold(GstCutParam *param) : param_(param) { g_mutex_lock(&param_->link_lock); }
  ~LinkHold() { g_mutex_unlock(&param_->link_lock); }
  LinkHold(const LinkHold &) = delete;
  LinkHold &operator=(const LinkHold &) = delete;

 private:
  GstCutParam *param_;
};

bool _is_manager_gone(GstCutParam *param) {
  const LinkHold hold(param);
  return param->cut_buffer_mgr == nullptr;
}

void _switch_cutting_off(GstCutParam *param) {
  const LinkHold hold(param);
  if (param->cut_buffer_mgr != nullptr) gst_cut_mgr_error_process(param->cut_buffer_mgr);
}

void _wait_for_turn(GstCutParam *param) {
  if (param->retry_count >= kPatientPasses) _switch_cutting_off(param);
  plexa::_wait_for_operations(param->key, kPassMs);
  ++param->retry_count;
}

// A claim that the task holds is given back last: whoever gets it next finds a task that has been
// told to stop, and waits for its end before starting it again. Operations are let in behind it,
// too, so that the writer's very next write may start the next cut.
void _stop(GstCutParam *param) {
  if (param->task != nullptr) gst_task_stop(param->task);
  g_atomic_int_set(&param->is_busy, plexa::kTaskIdle);
}

// The writer's new opening sets its next cut point; what was switched off before must stay off.
void _run_steps(GstCutParam *param) {
  const plexa::KeptBounceBuffers kept;
  bool stays_on = gst_cut_mgr_get_max_time(param->cut_buffer_mgr) != FALSE;
  for (const auto step : {plexa::_gst_cut_thread_close_all, plexa::_gst_cut_thread_cut,
                          plexa::_gst_cut_thread_open_all, plexa::_gst_cut_thread_seek_all}) {
    if (step(param)) continue;
    _switch_cutting_off(param);
    stays_on = false;
  }
  if (!stays_on) _switch_cutting_off(param);
}

// Another writer that has no cuts (no span was set, or they were switched off) gets none because of
// this one's.
gint64 _open_again(const GstCutParam *param, GstPvrFile *file, gint32 next_max_time) {
  GstCutBufferMgr *const mgr = file->var.state.cut.cut_buffer_mgr;
  if (mgr != nullptr && mgr != param->cut_buffer_mgr && !gst_cut_mgr_get_max_time(mgr)) {
    return plexa::_reopen(file);
  }
  return gst_cut_file_io_open(file, param->max_time, next_max_time);
}

// A close or an open of a recording's file can end its registration; what was listed is then gone.
bool _is_registered(const GstCutParam *param) {
  return gst_shared_info_get_item(gst_shared_info_get(), param->key) != nullptr;
}

gint64 _file_size(const gchar *path) {
  struct stat64 status {};
  return stat64(path, &status) == 0 ? status.st_size : -1;
}

// The removal may have happened although a step behind it failed. Then the file is shorter, and
// every handle has to move with its bytes.
gint64 _lost_all_the_same(gint64 size_before, gint64 size_now) {
  const gint64 lost = size_before - size_now;
  return size_before >= 0 && size_now >= 0 && lost > 0 && lost % GST_EDIT_UNIT_SIZE == 0 ? lost : 0;
}

// There is one record for all recordings. Of two cuts that end at once, neither may lose what the
// other has added to the sums.
std::mutex g_books;

bool _store_cut(GstCutParam *param) {
  const std::lock_guard hold(g_books);
  GstSharedCutInfo *const info = gst_shared_cut_info_get();
  const gint64 total = gst_shared_cut_info_get_total_cutoffset(info);
  const gint64 new_total = total + param->removed_bytes;
  gint32 time = 0;
  if (!gst_cut_mgr_get_time_by_offset(param->cut_buffer_mgr, new_total, &time)) return false;
  PLX_INFO("total_cut_offset:[%lld],new_total_cut_offset:[%lld],total_cut_time:[%d]",
           static_cast<long long>(total), static_cast<long long>(new_total), time);
  gst_shared_cut_info_set_total_cuttime(info, time);
  gst_shared_cut_info_set_total_cutoffset(info, new_total);
  gst_shared_cut_info_set_accumulated_time(info, time);
  gst_shared_cut_info_set_accumulated_offset(info, new_total);
  return true;
}

void _free_with_task(void *cut_param) {
  plexa::_free_cut_param(static_cast<GstCutParam *>(cut_param));
}

void _make_task(GstCutParam *param) {
  PLX_ERROR("[PLG_ERR] gst_cut_thread_create_task");
  GstTask *const task = gst_task_new(plexa::_gst_cut_thread_loop, param, nullptr);
  if (!GST_IS_TASK(task)) return;
  param->task = task;
  if (param->is_owned_by_task != 0) {
    g_object_set_data_full(G_OBJECT(task), kTaskName, param, _free_with_task);
  }
  g_rec_mutex_init(&param->task_lock);
  gst_task_set_lock(task, &param->task_lock);
  if (!gst_object_set_name(GST_OBJECT(task), kTaskName)) {
    PLX_ERROR("[PLG_ERR] _gst_cut_thread_loop set object name fail.");
  }
}

}  // namespace

namespace plexa {

bool _gst_cut_thread_close_all(GstCutParam *param) {
  if (!_is_registered(param)) {
    PLX_ERROR("[PLG_ERR] file_info is NULL");
    return false;
  }
  bool is_closing = true;
  GstPvrFile *file = nullptr;
  for (gint32 i = 0; (file = _listed_handle(param->key, i)) != nullptr; ++i) {
    gst_cut_file_set_offset_backup(file);
    if (!is_closing || gst_cut_file_io_close(file) >= 1) continue;
    PLX_ERROR("[PLG_ERR] gst_cut_file_io_close failed,ret<1");
    is_closing = false;  // the rest stay open; where they stand is noted all the same
  }
  return is_closing;
}

bool _gst_cut_thread_cut(GstCutParam *param) {
  const gint64 size_before = _file_size(param->file_path);
  const gint64 removed = gst_edit_unit_do_partial_delete(param->file_path, 0, param->cut_offset);
  // A failure is a positive number, too, but never a whole number of units.
  const bool is_cut = removed > 0 && removed % GST_EDIT_UNIT_SIZE == 0;
  param->removed_bytes =
      is_cut ? removed : _lost_all_the_same(size_before, _file_size(param->file_path));
  _add_bytes_cut_off(param->key, param->removed_bytes);
  if (!is_cut) {
    PLX_ERROR("[PLG_ERR] invalid cut_offset,cut_param->cut_offset <= 0");
    return false;
  }
  return _store_cut(param);
}

bool _gst_cut_thread_open_all(GstCutParam *param) {
  const gint32 diff = _subtract_times(param->max_time, param->cutbuf_starttime);
  PLX_INFO("diff_time:%d,max_time:%d,cutbuf_starttime:%d", diff, param->max_time,
           param->cutbuf_starttime);
  if (!_is_registered(param)) {
    PLX_ERROR("[PLG_ERR] file_info is NULL");
    return false;
  }
  const gint32 next_max_time = _add_times(param->max_time, diff);
  GstPvrFile *file = nullptr;
  for (gint32 i = 0; (file = _listed_handle(param->key, i)) != nullptr; ++i) {
    if (_open_again(param, file, next_max_time) >= 1) continue;
    PLX_ERROR("[PLG_ERR] gst_cut_file_io_open failed, ret < 1");
    return false;
  }
  return true;
}

bool _gst_cut_thread_seek_all(GstCutParam *param) {
  if (!_is_registered(param)) {
    PLX_ERROR("[PLG_ERR] file_info is NULL");
    return false;
  }
  GstPvrFile *file = nullptr;
  for (gint32 i = 0; (file = _listed_handle(param->key, i)) != nullptr; ++i) {
    const gint64 position =
        std::max<gint64>(gst_cut_file_get_offset_backup(file) - param->removed_bytes, 0);
    if (gst_cut_file_io_seek(file, position, SEEK_SET) >= 0) continue;
    PLX_ERROR("[PLG_ERR] gst_cut_file_io_seek failed,ret<0");
    return false;
  }
  return true;
}

void _gst_cut_thread_loop(void *cut_param) {
  auto *const param = static_cast<GstCutParam *>(cut_param);
  if (param == nullptr) return;
  const CutStart start =
      _is_manager_gone(param) ? CutStart::kNoRegistry : _begin_cut(param->key, param->tenancy);
  if (start == CutStart::kBusy) return _wait_for_turn(param);
  if (start == CutStart::kStarted) {
    // The manager cannot go any more, unless it went while this pass began.
    if (!_is_manager_gone(param)) _run_steps(param);
    g_atomic_int_set(&param->is_busy, kTaskEnding);
    _unmark_cut(param->key);
  }
  PLX_ERROR("[PLG_ERR] _gst_cut_thread_loop gst_task_stop");
  _stop(param);
  if (start == CutStart::kStarted) return _end_cut(param->key, param);
  // A cut that will not be: a manager that goes no longer finds the claim, nor takes its mark back.
  _abandon_cut(param->key, param);
}

gint _settle_task(GstCutParam *param) noexcept {
  const gint state = g_atomic_int_get(&param->is_busy);
  if (param->task == nullptr || state == kTaskBusy || state == kTaskLost) return state;
  gst_task_join(param->task);  // its last pass is over, or about to be
  return kTaskIdle;
}

bool _start_cut_task(GstCutParam *param, gint state) noexcept {
  gst_shared_info_get();  // from here on a registry that is not there has been removed
  if (param->task == nullptr) _make_task(param);
  PLX_ERROR("[PLG_ERR] gst_task_start");
  if (param->task == nullptr || state == kTaskLost) return false;
  // Its cut is still to come, or has just been: one that has told itself to stop must not go on.
  if (state == kTaskBusy) return true;
  g_atomic_int_set(&param->is_busy, kTaskBusy);
  if (gst_task_start(param->task)) return true;
  // The task counts as running although it has no thread: to wait for it would be to wait for ever.
  gst_task_stop(param->task);
  g_atomic_int_set(&param->is_busy, kTaskLost);
  return false;
}

void _free_cut_param(GstCutParam *param) noexcept {
  if (param->task != nullptr) g_rec_mutex_clear(&param->task_lock);
  g_mutex_clear(&param->link_lock);
  std::free(param);
}

}  // namespace plexa

void gst_cut_thread_create_task(GstCutParam *cut_param) {
  plexa::_start_cut_task(cut_param, plexa::_settle_task(cut_param));
}
