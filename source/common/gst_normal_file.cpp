// gst_normal_file.cpp - the back-end of every local file that is not a live time-shift stream.
//
// Plain file access through the buffered or the direct layer, as the handle's direct_io says, and a
// place in the registry for as long as the file is open, so that readers and writers of a recording
// know of each other. Refused are a file that the registry has no room for, and negative sizes. Not
// thread-safe by itself: the handle above serialises the calls.
#include "gst-plexa/gst_normal_file.h"

#include "gst-plexa/gst_file_direct_io.h"
#include "gst-plexa/gst_file_io.h"
#include "gst-plexa/gst_file_shared_info.h"

#define PLEXA_LOG_AREA "EXT_FMG"
#include "plexa_log.h"

namespace {

constexpr guint8 kNotListed = 0;  // only a file that can be cut has its handle in the list

GstNormalFile *state_of(GstPvrFile *file) { return &file->var.state.normal; }

void _gst_normal_file_free_key(GstPvrFile *file) {
  GstNormalFile *const normal = state_of(file);
  if (normal->key < 0) return;
  gst_shared_info_delete_item(gst_shared_info_get(), static_cast<guint32>(normal->key),
                              normal->read_mode, kNotListed, file);
  normal->key = -1;
}

gint64 open_descriptor(GstPvrFile *file, guint8 read_mode, guint8 direct_mode,
                       guint32 append_mode) {
  GstNormalFile *const normal = state_of(file);
  const auto open = file->direct_io != 0 ? gst_file_direct_io_open : gst_file_io_open;
  const guint8 append = append_mode != 0 ? 1 : 0;  // 256 means append, too
  return open(file, &normal->descriptor, normal->path, read_mode, direct_mode, append);
}

// A negative size never reaches a layer: its low 32 bits would be a length of nearly 4 GiB.
gint64 read_descriptor(GstPvrFile *file, void *buffer, gint64 size) {
  gint32 *const descriptor = &state_of(file)->descriptor;
  if (size < 0) return -1;
  if (file->direct_io != 0) return gst_file_direct_io_read(file, descriptor, buffer, size);
  return gst_file_io_read(file, descriptor, buffer, static_cast<guint32>(size));
}

gint64 write_descriptor(GstPvrFile *file, const void *buffer, gint64 size) {
  gint32 *const descriptor = &state_of(file)->descriptor;
  if (size < 0) return -1;
  if (file->direct_io != 0) return gst_file_direct_io_write(file, descriptor, buffer, size);
  return gst_file_io_write(file, descriptor, buffer, static_cast<guint32>(size));
}

}  // namespace

gint64 gst_normal_file_open(GstPvrFile *file, const gchar *path, guint8 read_mode,
                            guint8 direct_mode, guint32 append_mode, guint8 /*atsc3*/) {
  PLX_INFO("enter gst_normal_file_open,file_path:%s,read_mode:%d,direct_mode:%d,append_mode:%d",
           path != nullptr ? path : "(null)", read_mode, direct_mode, append_mode);
  // The handle's storage may hold anything: a close after a failed open must find nothing.
  GstNormalFile *const normal = state_of(file);
  *normal = {-1, -1, path, read_mode};
  file->tpbuf = nullptr;
  normal->key = gst_shared_info_add_item(gst_shared_info_get(), path, read_mode, kNotListed, file);
  if (normal->key < 0) {
    normal->path = nullptr;
    return -1;
  }
  const gint64 result = open_descriptor(file, read_mode, direct_mode, append_mode);
  if (result >= 0) return result;
  PLX_ERROR("[PLG_ERR] gst_normal_file_open failed:ret=[%lld]", static_cast<long long>(result));
  normal->path = nullptr;  // the caller's string need not outlive a failed open
  _gst_normal_file_free_key(file);
  return result;
}

gint64 gst_normal_file_close(GstPvrFile *file) {
  GstNormalFile *const normal = state_of(file);
  normal->path = nullptr;
  const auto close = file->direct_io != 0 ? gst_file_direct_io_close : gst_file_io_close;
  const gint64 result = close(file, &normal->descriptor);
  _gst_normal_file_free_key(file);  // in any case: a dead writer must not block the recording
  return result;
}

gint64 gst_normal_file_read(GstPvrFile *file, void *buffer, gint64 size) {
  const gint64 result = read_descriptor(file, buffer, size);
  if (result < 0) {
    PLX_ERROR("[PLG_ERR] gst_normal_file_read failed, ret:%lld", static_cast<long long>(result));
  }
  return result;
}

gint64 gst_normal_file_write(GstPvrFile *file, const void *buffer, gint64 size) {
  const gint64 result = write_descriptor(file, buffer, size);
  if (result < 0) {
    PLX_ERROR("[PLG_ERR] gst_normal_file_write failed, ret:%lld", static_cast<long long>(result));
  }
  return result;
}

gint64 gst_normal_file_seek(GstPvrFile *file, gint64 offset, gint32 whence) {
  const gint64 result = gst_file_io_seek(file, &state_of(file)->descriptor, offset, whence);
  if (result < 0) {
    PLX_ERROR("[PLG_ERR] gst_normal_file_seek failed, ret:%lld", static_cast<long long>(result));
  }
  return result;
}

gint64 gst_normal_file_tell(GstPvrFile *file) {
  const gint64 result = gst_file_io_tell(file, &state_of(file)->descriptor);
  if (result < 0) {
    PLX_ERROR("[PLG_ERR] gst_normal_file_tell failed, ret:%lld", static_cast<long long>(result));
  }
  return result;
}

gint64 gst_normal_file_size(GstPvrFile *file) {
  const gint64 result = gst_file_io_size(file, state_of(file)->path);
  if (result < 0) {
    PLX_ERROR("[PLG_ERR] gst_normal_file_size failed, ret:%lld", static_cast<long long>(result));
  }
  return result;
}

gint64 gst_normal_file_fsync(GstPvrFile *file) {
  const gint64 result = gst_file_io_fsync(file, &state_of(file)->descriptor);
  if (result < 0) {
    PLX_ERROR("[PLG_ERR] gst_normal_file_fsync failed, ret:%lld", static_cast<long long>(result));
  }
  return result;
}

// A normal file has no maximum time.
gint64 gst_normal_file_set_max_time(GstPvrFile *, guint32, guint32) { return -1; }
gint64 gst_normal_file_get_max_time(GstPvrFile *) { return -1; }
gint64 gst_normal_file_set_last_wrote_time(GstPvrFile *, guint32) { return -1; }
