// gst_pvr_file.cpp - the one handle that callers hold for a file of a recording.
//
// Open chooses a back-end and copies its operations into the handle; every operation after that is
// a call through this table under the handle's lock, with the front's own checks and the report of
// slow writes. Refused are a handle that was not initialised, a null path, and an operation that
// the table does not have. Any thread may use a handle: the lock is held across the whole back-end
// call, except where an operation says that it takes none.
#include "gst-plexa/gst_pvr_file.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <optional>

#include "gst-plexa/gst_cut_file.h"
#include "gst-plexa/gst_file_shared_info.h"
#include "gst-plexa/gst_normal_file.h"
#include "gst-plexa/gst_socket_file.h"
#include "gst-plexa/gst_zeb.h"
#include "gst_cut_internal.h"
#include "gst_socket_file_internal.h"
#include "gst_socket_protocol.h"

#define PLEXA_LOG_AREA "EXT_FMG"
#include "plexa_log.h"

// In the operation itself, so that the log line carries the operation's name.
#define REQUIRE_HANDLE(file, null_file_message, null_lock_message) \
  do {                                                             \
    if ((file) == nullptr) {                                       \
      PLX_ERROR(null_file_message);                                \
      return -1;                                                   \
    }                                                              \
    if ((file)->var.lock == nullptr) {                             \
      PLX_ERROR(null_lock_message);                                \
      return -1;                                                   \
    }                                                              \
  } while (0)
#define NULL_FILE "[PLG_ERR] pvr_file is NULL"
#define NULL_LOCK "[PLG_ERR] pvr_file->var.lock is NULL"

namespace {

constexpr gint64 kSlowMilliseconds = 50;  // writes and fsyncs above this are reported

// A time-shift buffer holds at most 91 minutes, is cut from one minute before its maximum on, and
// is not cut at all below six minutes.
constexpr gint64 kLongestCutTime = 5460000;
constexpr gint64 kShortestCutTime = 360000;
constexpr gint64 kCutLead = 60000;

class Locked {
 public:
  explicit Locked(const GstPvrFile *file) noexcept : lock_(file->var.lock) { g_mutex_lock(lock_); }
  ~Locked() { g_mutex_unlock(lock_); }
  Locked(const Locked &) = delete;
  Locked &operator=(const Locked &) = delete;

 private:
  GMutex *lock_;
};

// Times one back-end call. Both readings are cut to whole milliseconds before they are subtracted.
class Stopwatch {
 public:
  gint64 milliseconds() const { return now() - start_; }

 private:
  static gint64 now() { return g_get_monotonic_time() / 1000; }
  gint64 start_ = now();
};

template <class Operation, class... Arguments>
gint64 call(Operation operation, GstPvrFile *file, Arguments... arguments) {
  return operation != nullptr ? operation(file, arguments...) : -1;
}

struct BackEnd {
  const char *name;  // appears in the log
  bool (*takes)(const GstPvrFile *file, guint32 append_mode);
  std::optional<guint8> is_normal_file;  // what the handle's flag becomes; none: left as it was
  PvrFileOps ops;
};

bool lies_on_the_box(const GstPvrFile *file, guint32) {
  return file->var.file_mode == GST_PVR_FILE_MODE_SOCKET;
}

bool is_live_time_shift_stream(const GstPvrFile *file, guint32 append_mode) {
  return file->var.record_type == GST_PVR_FILE_STREAM &&
         file->var.file_type == GST_PVR_FILE_TIMESHIFT && append_mode == 0;
}

bool takes_every_file(const GstPvrFile *, guint32) { return true; }

// Where the cut file's own functions have other arguments than the table.
gint64 open_cut_file(GstPvrFile *file, const gchar *path, guint8 read_permission, guint8 direct_io,
                     guint32 append_mode, guint8 atsc3) {
  return gst_cut_file_open(file, path, read_permission, direct_io, atsc3, append_mode);
}
gint64 close_cut_file(GstPvrFile *file) { return gst_cut_file_close(file, nullptr, nullptr); }
gint64 get_cut_file_max_time(GstPvrFile *) { return gst_cut_file_get_max_time(); }

// The first row that takes the file is installed. The socket file takes every file while the box is
// in use; the normal file takes whatever is left, and so stands last.
constexpr std::array kBackEnds = {
    BackEnd{"socket",
            lies_on_the_box,
            std::nullopt,
            {gst_socket_file_open, gst_socket_file_close, gst_socket_file_read,
             gst_socket_file_write, gst_socket_file_seek, gst_socket_file_tell,
             gst_socket_file_fsync, gst_socket_file_size, gst_socket_file_set_max_time,
             gst_socket_file_get_max_time, gst_socket_file_set_last_wrote_time}},
    BackEnd{"cut",
            is_live_time_shift_stream,
            guint8{0},
            {open_cut_file, close_cut_file, gst_cut_file_read, gst_cut_file_write,
             gst_cut_file_seek, gst_cut_file_tell, gst_cut_file_fsync, gst_cut_file_size,
             gst_cut_file_set_max_time, get_cut_file_max_time, gst_cut_file_set_last_wrote_time}},
    BackEnd{"normal",
            takes_every_file,
            guint8{1},
            {gst_normal_file_open, gst_normal_file_close, gst_normal_file_read,
             gst_normal_file_write, gst_normal_file_seek, gst_normal_file_tell,
             gst_normal_file_fsync, gst_normal_file_size, gst_normal_file_set_max_time,
             gst_normal_file_get_max_time, gst_normal_file_set_last_wrote_time}},
};

// The record type stands under the file type's label and the file type under the record type's, and
// "stream type" shows the append mode; whoever reads these logs knows them so.
void _gst_pvr_file_new_file(GstPvrFile *file, guint32 append_mode) {
  PLX_ERROR(
      "[PLG_ERR] pvr_file->var.file_mode = [%d], pvr_file->var.file_type = [%d], "
      "pvr_file->var.record_type = [%d], stream type is [%d]",
      file->var.file_mode, file->var.record_type, file->var.file_type, append_mode);
  const auto *const chosen =
      std::find_if(kBackEnds.begin(), kBackEnds.end(),
                   [&](const BackEnd &row) { return row.takes(file, append_mode); });
  PLX_ERROR("[PLG_ERR] create %s file.", chosen->name);
  if (chosen->is_normal_file) file->is_normal_file = *chosen->is_normal_file;
  file->ops = chosen->ops;
}

// What outlives a close that was left out, or one that failed: a socket file's connection, and a
// cut file's place in the list of handles that the next cut goes through. The table tells which
// back-end the state belongs to.
void release_shared_state(GstPvrFile *file) {
  if (file->ops.close == gst_socket_file_close) plexa::socket_file_release(file);
  if (file->ops.close == close_cut_file) plexa::cut_file_release(file);
}

// A handle may be opened again without a close.
void release_open_file(GstPvrFile *file) {
  release_shared_state(file);
  if (file->is_opened != 0 && file->ops.close == gst_normal_file_close) file->ops.close(file);
  file->is_opened = 0;
}

pvr_cut_request_s cut_request(const gchar *name, gint64 start_offset, gint64 end_offset,
                              const gchar *second_name) {
  pvr_cut_request_s request{};
  plexa::put_path(request.kvf_file_name, name);
  request.start_offset = start_offset;
  request.end_offset = end_offset;
  if (second_name == nullptr) return request;
  plexa::put_path(request.second_file_name, second_name);
  request.has_second_file_name = 1;
  return request;
}

gint32 accumulated_time() {
  return gst_shared_cut_info_get_accumulated_time(gst_shared_cut_info_get());
}

}  // namespace

gint32 gst_pvr_file_init(GstPvrFile *file) {
  file->ops = {};
  file->is_normal_file = 1;
  file->is_opened = 0;
  file->read_permission = 1;
  file->var.error_number = 0;
  file->direct_io = 0;
  file->tpbuf = nullptr;
  file->var.lock = g_slice_new(GMutex);
  g_mutex_init(file->var.lock);
  return 0;
}

void gst_pvr_file_deinit(GstPvrFile *file) {
  if (file == nullptr || file->var.lock == nullptr) return;
  release_shared_state(file);
  g_mutex_clear(file->var.lock);
  g_slice_free(GMutex, file->var.lock);
  file->var.lock = nullptr;
}

gint64 gst_pvr_file_open(GstPvrFile *file, const gchar *path, guint32 permission, guint32 io,
                         guint32 type, guint32 ext, guint32 append_mode, guint32 atsc3) {
  REQUIRE_HANDLE(file, NULL_LOCK, NULL_LOCK);
  const Locked locked(file);
  if (path == nullptr) {
    PLX_ERROR(NULL_FILE);  // the path is what is missing; the text has always named the file
    return -1;
  }
  release_open_file(file);
  PLX_INFO(
      "file_path=[%s], permission=[%d](0:Write, 1:Read), io=[%d](0:BufferIO, 1:DirectIO), "
      "type=[%d](0:Normal, 1:Timeshift), ext=[%d](0:Stream, 1:Index), append_mode=[%d], ext=[%d] "
      "(0:normal, 1: atsc3.0)",
      path, permission, io, type, ext, append_mode, atsc3);
  file->read_permission = permission != 0 ? 1 : 0;
  file->direct_io = io != 0 ? 1 : 0;
  file->var.file_type = type;
  file->var.record_type = ext;
  file->var.file_mode =
      gst_zeb_is_need_socket() == 1 ? GST_PVR_FILE_MODE_SOCKET : GST_PVR_FILE_MODE_DISK;
  PLX_INFO("file mode = [%d](0:Socket, 1:Disk)", file->var.file_mode);
  _gst_pvr_file_new_file(file, append_mode);
  const gint64 result = file->ops.open(file, path, file->read_permission, file->direct_io,
                                       append_mode, atsc3 != 0 ? 1 : 0);
  file->is_opened = result >= 0 ? 1 : 0;
  if (result < 0) {
    PLX_ERROR("[PLG_ERR] pvr_file open failed, ret = [%lld]", static_cast<long long>(result));
  }
  return result;
}

gint64 gst_pvr_file_close(GstPvrFile *file) {
  REQUIRE_HANDLE(file, NULL_FILE, NULL_LOCK);
  const Locked locked(file);
  if (file->ops.close == nullptr) return -1;
  const gint64 result = file->ops.close(file);
  file->is_opened = 0;
  return result;
}

gint64 gst_pvr_file_read(GstPvrFile *file, void *buffer, gint64 size) {
  REQUIRE_HANDLE(file, NULL_FILE, NULL_LOCK);
  const Locked locked(file);
  if (size <= 0) {
    PLX_ERROR(NULL_FILE);  // a bad size has always been reported so
    return 0;
  }
  const gint64 result = call(file->ops.read, file, buffer, size);
  if (result <= 0) {
    PLX_ERROR("[PLG_ERR] pvr_file->read() ret[%lld]", static_cast<long long>(result));
  }
  return result;
}

gint64 gst_pvr_file_write(GstPvrFile *file, const void *buffer, gint64 size) {
  REQUIRE_HANDLE(file, NULL_FILE, NULL_LOCK);
  const Locked locked(file);
  if (size <= 0) {
    PLX_ERROR("[PLG_ERR] size < 0 [%lld]", static_cast<long long>(size));
    return 0;
  }
  if (file->ops.write == nullptr) return -1;
  const Stopwatch stopwatch;
  const gint64 result = file->ops.write(file, buffer, size);
  const gint64 elapsed = stopwatch.milliseconds();
  if (elapsed > kSlowMilliseconds) {
    PLX_ERROR("[PLG_ERR] write  takes [%lld]ms, write size=[%lld], return count=[%lld]",
              static_cast<long long>(elapsed), static_cast<long long>(size),
              static_cast<long long>(result));
  }
  return result;
}

gint64 gst_pvr_file_seek(GstPvrFile *file, gint64 offset, gint32 whence) {
  REQUIRE_HANDLE(file, NULL_FILE, NULL_LOCK);
  const Locked locked(file);
  return call(file->ops.seek, file, offset, whence);
}

gint64 gst_pvr_file_tell(GstPvrFile *file) {
  REQUIRE_HANDLE(file, NULL_FILE ", pls check", NULL_LOCK ", pls check");
  const Locked locked(file);
  return call(file->ops.tell, file);
}

gint64 gst_pvr_file_size(GstPvrFile *file) {
  REQUIRE_HANDLE(file, "[PLG_ERR] [dorvik]pvr_file is null",
                 "[PLG_ERR] [dorvik]pvr_file->var.lock is null");
  const Locked locked(file);
  return call(file->ops.size, file);
}

gint64 gst_pvr_file_fsync(GstPvrFile *file) {
  REQUIRE_HANDLE(file, NULL_FILE, NULL_LOCK);
  const Locked locked(file);
  if (file->ops.fsync == nullptr) return -1;
  const Stopwatch stopwatch;
  const gint64 result = file->ops.fsync(file);
  const gint64 elapsed = stopwatch.milliseconds();
  if (elapsed > kSlowMilliseconds) {
    PLX_ERROR("[PLG_ERR] fsync  takes [%lld]ms, return count=[%lld]",
              static_cast<long long>(elapsed), static_cast<long long>(result));
  }
  return result;
}

// The handle serves for its lock alone and need not hold the file open.
gint32 gst_pvr_file_rename(GstPvrFile *file, const gchar *old_path, const gchar *new_path) {
  REQUIRE_HANDLE(file, NULL_LOCK, NULL_LOCK);
  const Locked locked(file);
  if (old_path == nullptr || new_path == nullptr) {
    PLX_ERROR(NULL_FILE);
    return -1;
  }
  if (gst_zeb_is_need_socket() == 1) {
    return static_cast<gint32>(gst_socket_file_rename(file, old_path, new_path));
  }
  if (access(old_path, F_OK) == 0) {
    PLX_ERROR("[PLG_ERR] file is exist [%s]", old_path);
  } else {
    PLX_ERROR("[PLG_ERR] file is not exist [%s]", old_path);
  }
  PLX_INFO("rename normal/cut/talm+zeb file !");
  const int result = std::rename(old_path, new_path);
  if (result == 0) return 1;
  PLX_ERROR("[PLG_ERR] rename [%s] to [%s] failed %lld", old_path, new_path,
            static_cast<long long>(result));
  return -1;
}

// A handle for the call, never opened: the request needs one with a lock. After a failure its lock
// is deliberately not given back.
gint32 gst_pvr_file_cut_file(const gchar *kvf_file_name, gint64 start_offset, gint64 end_offset,
                             const gchar *second_file_name) {
  if (kvf_file_name == nullptr) {
    PLX_ERROR(NULL_FILE);
    return GST_PVR_FILE_CUT_FAILED;
  }
  PLX_INFO("kvf_file_name = [%s], start_offset = [%lld], end_offset = [%lld]", kvf_file_name,
           static_cast<long long>(start_offset), static_cast<long long>(end_offset));
  GstPvrFile file;
  if (gst_pvr_file_init(&file) != 0) {
    PLX_ERROR("[PLG_ERR] g mutex new lock fail!");
    return GST_PVR_FILE_CUT_FAILED;
  }
  const pvr_cut_request_s request =
      cut_request(kvf_file_name, start_offset, end_offset, second_file_name);
  if (gst_socket_file_cut_file(&file, &request) == 1) {
    gst_pvr_file_deinit(&file);
    return 0;
  }
  PLX_ERROR("[PLG_ERR] gst_socket_file_cut_file failed");
  return GST_PVR_FILE_CUT_FAILED;
}

// No lock: the question must not wait behind a blocked read or write.
gint32 gst_pvr_file_get_error_num(GstPvrFile *file) {
  if (file == nullptr) {
    PLX_ERROR(NULL_FILE);
    return -1;
  }
  const gint32 error_number = g_atomic_int_get(&file->var.error_number);
  PLX_ERROR("pvr_file->var.error_number =[%d]", error_number);
  return error_number;
}

gint64 gst_pvr_file_set_max_time(GstPvrFile *file, gint64 max_time) {
  REQUIRE_HANDLE(file, NULL_FILE, NULL_LOCK);
  PLX_INFO("max_time = [%lld]", static_cast<long long>(max_time));
  const Locked locked(file);
  guint32 cut_time = 0;
  const guint32 cut_buf_start_time = gst_pvr_file_get_calculated_max_time(max_time, &cut_time);
  PLX_INFO("cut_buf_start_time = [%d],cut_time = [%d]", cut_buf_start_time, cut_time);
  return call(file->ops.set_max_time, file, cut_buf_start_time, cut_time);
}

gint64 gst_pvr_file_get_max_time(GstPvrFile *file) {
  REQUIRE_HANDLE(file, NULL_FILE, NULL_LOCK);
  const Locked locked(file);
  return call(file->ops.get_max_time, file);
}

// No lock: a writer reports its time before every write, and the back-end guards the value.
void gst_pvr_file_set_last_wrote_time(GstPvrFile *file, guint32 time) {
  if (file == nullptr) {
    PLX_ERROR(NULL_FILE);
    return;
  }
  call(file->ops.set_last_wrote_time, file, time);
}

guint32 gst_pvr_file_get_calculated_max_time(gint64 max_time, guint32 *cut_time) {
  gint64 kept = std::min(max_time, kLongestCutTime);
  if (kept < kShortestCutTime) kept = 0;
  if (cut_time != nullptr) *cut_time = static_cast<guint32>(kept);
  return static_cast<guint32>(kept > 0 ? kept - kCutLead : 0);
}

gint32 gst_pvr_file_get_rel_start_time(void) {
  const gint32 time = accumulated_time();
  PLX_INFO("accumulated_time=[%d ms]", time);
  return time;
}

// 32-bit arithmetic, widened afterwards: a time before the accumulated one wraps, and the other
// conversion wraps it back.
gint64 gst_pvr_file_convert_abs_rel(guint32 absolute_time) {
  return absolute_time - static_cast<guint32>(accumulated_time());
}

gint64 gst_pvr_file_convert_rel_abs(guint32 relative_time) {
  return relative_time + static_cast<guint32>(accumulated_time());
}
