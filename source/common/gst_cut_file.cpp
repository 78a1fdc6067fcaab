// gst_cut_file.cpp - the back-end of a live time-shift stream, whose front may go at any time.
//
// Every operation that touches the file enters through the registry, which keeps it apart from the
// cuts; what a cut moves, the cut thread moves back. Refused are a recording that the registry has
// no room for, an operation that would have to wait longer than 2 seconds, and a descriptor that a
// cut could not open again. Not thread-safe by itself: the handle above serialises the calls, only
// the recorded time comes in beside it.
#include "gst-plexa/gst_cut_file.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "gst-plexa/gst_cut_buffer_mgr.h"
#include "gst-plexa/gst_file_direct_io.h"
#include "gst-plexa/gst_file_io.h"
#include "gst-plexa/gst_file_shared_info.h"
#include "gst_cut_internal.h"
#include "gst_file_shared_info_internal.h"

#define PLEXA_LOG_AREA "EXT_FMG"
#include "plexa_log.h"

namespace {

GstCutFile *state_of(GstPvrFile *file) { return &file->var.state.cut; }

guint32 _key_of(const GstCutFile *cut) { return static_cast<guint32>(cut->key); }

// One operation between two cuts.
class Operation {
 public:
  explicit Operation(guint32 key) noexcept : key_(key), entered_(plexa::_enter_operation(key)) {}
  ~Operation() {
    if (entered_) plexa::_leave_operation(key_);
  }
  Operation(const Operation &) = delete;
  Operation &operator=(const Operation &) = delete;
  explicit operator bool() const noexcept { return entered_; }
  static Operation last(guint32 key) noexcept {
    plexa::_enter_last_operation(key);
    return {key, true};
  }

  // The operation is the handle's last one.
  void leave_for_good(GstPvrFile *file) noexcept {
    GstCutFile *const cut = &file->var.state.cut;
    entered_ = false;
    plexa::_leave_and_delete_item(key_, cut->read_mode != 0, file);
    cut->key = -1;
  }

 private:
  Operation(guint32 key, bool entered) noexcept : key_(key), entered_(entered) {}
  guint32 key_;
  bool entered_;
};

gint64 _total_cut_offset() {
  return gst_shared_cut_info_get_total_cutoffset(gst_shared_cut_info_get());
}

// A negative result stays what it is.
gint64 _logical(gint64 position, gint64 total_cut) {
  gint64 logical = 0;
  if (position < 0) return position;
  return __builtin_add_overflow(position, total_cut, &logical) ? G_MAXINT64 : logical;
}

// An offset that lies out of reach is left to the seek to refuse.
gint64 _physical(gint64 offset, gint64 total_cut) {
  gint64 physical = 0;
  return __builtin_sub_overflow(offset, total_cut, &physical) ? G_MININT64 : physical;
}

// ---- Opening and closing ----

GstCutBufferMgr *_new_manager(const GstCutFile *cut, guint8 is_atsc3) {
  auto *const mgr = static_cast<GstCutBufferMgr *>(malloc(sizeof(GstCutBufferMgr)));
  if (mgr == nullptr) return nullptr;
  if (gst_cut_mgr_create(mgr, cut->own_path, _key_of(cut), is_atsc3)) return mgr;
  free(mgr);
  return nullptr;
}

void _forget_path(GstCutFile *cut) {
  cut->file_path = nullptr;  // the caller's string need not live any longer
  free(cut->own_path);
  cut->own_path = nullptr;
}

// The writers that are open keep what is known of the cuts: the shared record stays.
void _undo_open(GstPvrFile *file) {
  GstCutFile *const cut = state_of(file);
  if (cut->cut_buffer_mgr != nullptr) plexa::_release_cut_mgr(cut->cut_buffer_mgr);
  free(cut->cut_buffer_mgr);
  cut->cut_buffer_mgr = nullptr;
  plexa::_leave_and_delete_item(_key_of(cut), cut->read_mode != 0, file);
  cut->key = -1;
  _forget_path(cut);
}

gint64 _refuse_open(GstCutFile *cut, gint64 result) {
  cut->key = -1;
  _forget_path(cut);
  return result;
}

// In the operation that the registry has entered for the handle.
gint64 _open_entered(GstPvrFile *file, guint8 direct_mode, guint8 is_atsc3, guint8 append_mode) {
  GstCutFile *const cut = state_of(file);
  if (cut->read_mode == 0) cut->cut_buffer_mgr = _new_manager(cut, is_atsc3);
  const gint64 result = gst_file_direct_io_open(file, &cut->descriptor, cut->own_path,
                                                cut->read_mode, direct_mode, append_mode);
  if (result < 0) {
    PLX_ERROR("[PLG_ERR] gst_file_direct_io_open fails,ret < 0");
    _undo_open(file);
    return -1;
  }
  // An emptied file has lost nothing at its front.
  if (cut->read_mode == 0 && append_mode == 0) plexa::_forget_bytes_cut_off(_key_of(cut));
  cut->is_direct = direct_mode;
  plexa::_leave_operation(_key_of(cut));
  return result;
}

// The kernel has let go of the number even when it reports a failure; by now it may be another
// file's.
gint64 _close_descriptor(GstPvrFile *file) {
  GstCutFile *const cut = state_of(file);
  const gint64 result = gst_file_direct_io_close(file, &cut->descriptor);
  cut->descriptor = -1;
  return result;
}

void _destroy_manager(GstCutFile *cut) {
  if (cut->cut_buffer_mgr == nullptr) return;
  gst_cut_mgr_destroy(cut->cut_buffer_mgr);
  free(cut->cut_buffer_mgr);
  cut->cut_buffer_mgr = nullptr;
}

gint64 _close_entered(GstPvrFile *file, Operation &operation) {
  GstCutFile *const cut = state_of(file);
  const gint64 result = _close_descriptor(file);
  _destroy_manager(cut);
  if (cut->key >= 0) operation.leave_for_good(file);
  _forget_path(cut);
  return result;
}

// ---- Writing ----

struct FreeMemory {
  void operator()(void *memory) const noexcept { std::free(memory); }
};

bool _needs_copy(const GstCutFile *cut, const void *buffer, gint64 size) {
  const auto address = reinterpret_cast<std::uintptr_t>(buffer);
  return cut->is_direct != 0 && address % GST_FILE_DIRECT_IO_BLOCK != 0 && size > 0 &&
         size % GST_FILE_DIRECT_IO_BLOCK == 0;
}

gint64 _write(GstPvrFile *file, const void *buffer, gint64 size) {
  GstCutFile *const cut = state_of(file);
  if (!_needs_copy(cut, buffer, size)) {
    return gst_file_direct_io_write(file, &cut->descriptor, buffer, size);
  }
  const std::unique_ptr<void, FreeMemory> copy(valloc(static_cast<size_t>(size)));
  if (copy == nullptr) {
    PLX_ERROR("[PLG_ERR] pbuff is NULL");
    return -1;
  }
  std::memcpy(copy.get(), buffer, static_cast<size_t>(size));
  return gst_file_direct_io_write(file, &cut->descriptor, copy.get(), size);
}

// Takes the recorded time. True: the cut point is reached, nothing else may start from now on, and
// the caller must start the cut. Of several writers one gets to do it. A writer whose slot was
// given up under it has no cuts any more: they would move other handles than its own.
bool _is_cut_due(GstPvrFile *file) {
  GstCutFile *const cut = state_of(file);
  GstCutBufferMgr *const mgr = cut->cut_buffer_mgr;
  if (mgr == nullptr) return false;
  const guint32 time = __atomic_load_n(&cut->last_wrote_time, __ATOMIC_RELAXED);
  gst_cut_mgr_update_time(mgr, static_cast<gint32>(time));
  if (!gst_cut_mgr_is_max_time(mgr)) return false;
  if (g_atomic_int_get(&mgr->cut_param->is_busy) != plexa::kTaskIdle) return false;
  // While the handle is listed the slot is its recording's; asked in this order, the tenancy is.
  const guint32 tenancy = plexa::_tenancy(_key_of(cut));
  if (!plexa::_is_listed(_key_of(cut), file)) return false;
  if (!plexa::_claim_cut(_key_of(cut), mgr->cut_param, tenancy)) return false;
  mgr->cut_param->tenancy = tenancy;
  PLX_INFO("last_wrote_time = [%u], gst_cut_mgr_is_max_time is TRUE", time);
  return true;
}

}  // namespace

gint64 gst_cut_file_open(GstPvrFile *file, const gchar *path, guint8 read_mode, guint8 direct_mode,
                         guint8 is_atsc3, guint32 append_mode) {
  PLX_INFO("file_path:%s,read_mode:%d,direct_mode:%d,append_mode:%d",
           path != nullptr ? path : "(null)", read_mode, direct_mode, append_mode);
  // The handle's storage may hold anything: a close after a failed open must find nothing.
  GstCutFile *const cut = state_of(file);
  *cut = {};
  cut->key = cut->descriptor = -1;
  cut->file_path = path;
  cut->read_mode = read_mode;
  file->tpbuf = nullptr;
  switch (plexa::_open_item(path, read_mode != 0, file, &cut->key)) {
    case plexa::Opening::kNoKey:
      PLX_ERROR("[PLG_ERR] key is pre_allocated unsuccessfully, cut_file->key<0");
      return _refuse_open(cut, -1);
    case plexa::Opening::kBusy:
      return _refuse_open(cut, GST_CUT_FILE_BUSY);
    case plexa::Opening::kRefused:
      PLX_ERROR("[PLG_ERR] key is allocated unsuccessfully, cut_file->key<0");
      return _refuse_open(cut, -1);
    case plexa::Opening::kOpened:
      break;
  }
  cut->own_path = strdup(path);
  return _open_entered(file, direct_mode, is_atsc3, append_mode != 0 ? 1 : 0);
}

gint64 gst_cut_file_close(GstPvrFile *file, gint64 *total_cut_offset, gint32 *total_cut_time) {
  GstCutFile *const cut = state_of(file);
  cut->file_path = nullptr;
  Operation operation(_key_of(cut));
  if (!operation) return GST_CUT_FILE_BUSY;
  GstSharedCutInfo *const info = gst_shared_cut_info_get();
  if (total_cut_offset != nullptr) {
    *total_cut_offset = gst_shared_cut_info_get_total_cutoffset(info);
  }
  if (total_cut_time != nullptr) *total_cut_time = gst_shared_cut_info_get_total_cuttime(info);
  return _close_entered(file, operation);
}

void plexa::cut_file_release(GstPvrFile *file) noexcept {
  if (state_of(file)->key < 0) return;
  Operation operation = Operation::last(_key_of(state_of(file)));
  _close_entered(file, operation);
}

gint64 gst_cut_file_read(GstPvrFile *file, void *buffer, gint64 size) {
  GstCutFile *const cut = state_of(file);
  const Operation operation(_key_of(cut));
  if (!operation) return GST_CUT_FILE_BUSY;
  const gint64 result = gst_file_direct_io_read(file, &cut->descriptor, buffer, size);
  if (result < 0 && cut->descriptor < 0) g_atomic_int_set(&file->var.error_number, EBADF);
  return result;
}

gint64 gst_cut_file_write(GstPvrFile *file, const void *buffer, gint64 size) {
  GstCutFile *const cut = state_of(file);
  const Operation operation(_key_of(cut));
  if (!operation) return GST_CUT_FILE_BUSY;
  const bool is_cut_due = _is_cut_due(file);
  const gint64 result = _write(file, buffer, size);
  if (result < 1) {
    PLX_ERROR("[PLG_ERR] gst_cut_file_write failed,ret<1");
    // A failed write has always taken its count back twice.
    gst_shared_info_decrease_actioncount(gst_shared_info_get(), _key_of(cut));
  }
  if (is_cut_due && !gst_cut_mgr_do_cut(cut->cut_buffer_mgr)) {
    plexa::_give_back_cut(_key_of(cut), cut->cut_buffer_mgr->cut_param);
  }
  return result;
}

gint64 gst_cut_file_seek(GstPvrFile *file, gint64 offset, gint32 whence) {
  GstCutFile *const cut = state_of(file);
  const Operation operation(_key_of(cut));
  if (!operation) return GST_CUT_FILE_BUSY;
  const gint64 total_cut = _total_cut_offset();
  if (whence == SEEK_SET) {
    offset = _physical(offset, total_cut);
  } else if (whence != SEEK_CUR && whence != SEEK_END) {
    offset = 0;
  }
  return _logical(gst_file_io_seek(file, &cut->descriptor, offset, whence), total_cut);
}

gint64 gst_cut_file_tell(GstPvrFile *file) {
  GstCutFile *const cut = state_of(file);
  const Operation operation(_key_of(cut));
  if (!operation) return GST_CUT_FILE_BUSY;
  const gint64 total_cut = _total_cut_offset();
  return _logical(gst_file_io_tell(file, &cut->descriptor), total_cut);
}

gint64 gst_cut_file_size(GstPvrFile *file) {
  GstCutFile *const cut = state_of(file);
  const Operation operation(_key_of(cut));
  if (!operation) return GST_CUT_FILE_BUSY;
  const gint64 total_cut = _total_cut_offset();
  return _logical(gst_file_io_size(file, cut->file_path), total_cut);
}

gint64 gst_cut_file_fsync(GstPvrFile *file) {
  const gchar *const path = state_of(file)->file_path;
  PLX_ERROR("[PLG_ERR] This mode does not need fsync, file_path:[%s]",
            path != nullptr ? path : "(null)");
  return -1;
}

gint64 gst_cut_file_set_max_time(GstPvrFile *file, guint32 cutbuf_starttime, guint32 max_time) {
  GstCutFile *const cut = state_of(file);
  const Operation operation(_key_of(cut));
  if (!operation) return GST_CUT_FILE_BUSY;
  if (cut->cut_buffer_mgr == nullptr) return -1;
  const gboolean is_set =
      gst_cut_mgr_set_max_time(cut->cut_buffer_mgr, static_cast<gint32>(cutbuf_starttime),
                               static_cast<gint32>(max_time), GST_CUT_MGR_FIRST_SETTING);
  return is_set ? 1 : -1;
}

gint64 gst_cut_file_get_max_time(void) {
  return gst_shared_cut_info_get_fixed_duration(gst_shared_cut_info_get());
}

// Comes in without the handle's lock, while a write may be reading it.
gint64 gst_cut_file_set_last_wrote_time(GstPvrFile *file, guint32 time) {
  __atomic_store_n(&state_of(file)->last_wrote_time, time, __ATOMIC_RELAXED);
  return 1;
}

// ---- For the cut thread ----

gint64 gst_cut_file_set_offset_backup(GstPvrFile *file) {
  GstCutFile *const cut = state_of(file);
  cut->offset_backup = gst_file_io_tell(file, &cut->descriptor);
  return 1;
}

gint64 gst_cut_file_get_offset_backup(GstPvrFile *file) { return state_of(file)->offset_backup; }

gint64 gst_cut_file_io_close(GstPvrFile *file) { return _close_descriptor(file); }

gint64 plexa::_reopen(GstPvrFile *file) {
  GstCutFile *const cut = state_of(file);
  if (cut->descriptor > 0) _close_descriptor(file);  // a cut that stopped half-way left it open
  cut->is_direct = 1;
  return gst_file_direct_io_open(file, &cut->descriptor, cut->own_path, cut->read_mode, 1, 1);
}

gint64 gst_cut_file_io_open(GstPvrFile *file, gint32 cutbuf_starttime, gint32 max_time) {
  const gint64 result = plexa::_reopen(file);
  GstCutBufferMgr *const mgr = state_of(file)->cut_buffer_mgr;
  if (mgr != nullptr) {
    gst_cut_mgr_set_max_time(mgr, cutbuf_starttime, max_time, GST_CUT_MGR_AFTER_CUT);
  }
  return result;
}

gint64 gst_cut_file_io_seek(GstPvrFile *file, gint64 offset, gint32 whence) {
  return gst_file_io_seek(file, &state_of(file)->descriptor, offset, whence);
}
