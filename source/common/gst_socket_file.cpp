// gst_socket_file.cpp - the back-end of every file while the companion box is in use.
//
// Adapts the handle's operations to the box's client, whose state lies in the handle, and keeps the
// errno of its failures. Refused are sizes that the protocol has no room for. The handle above
// serialises the calls; the last wrote time, which the front passes on without the lock, takes it
// here, because it is an exchange on the connection like any other. Rename and cut have a
// connection and a state of their own.
#include "gst-plexa/gst_socket_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "gst_file_socket_io_internal.h"
#include "gst_socket_file_internal.h"

#define PLEXA_LOG_AREA "EXT_FMG"
#include "plexa_log.h"

namespace {

GstFileSocketIo *client_of(GstPvrFile *file) { return &file->var.state.socket.socket_io; }

// Passes a client's result on. Another thread may ask for the error number without the handle's
// lock, hence the atomic store.
gint64 noted(GstPvrFile *file, gint64 result) {
  if (result < 0 && errno != 0) g_atomic_int_set(&file->var.error_number, errno);
  return result;
}

bool too_large(gint64 size) { return size > gint64{G_MAXUINT32}; }

// A negative size is no size at all; its low 32 bits would be one of nearly 4 GiB.
guint32 client_size(gint64 size) { return static_cast<guint32>(std::max<gint64>(size, 0)); }

// The box keeps the time of a time-shift recording that is being written directly.
bool keeps_wrote_time(const GstSocketOpenFlags &flags) {
  return flags.direct_mode != 0 && flags.read_mode == 0 && flags.is_ts != 0;
}

}  // namespace

void plexa::socket_file_release(GstPvrFile *file) { plexa::release(client_of(file)); }

gint64 gst_socket_file_open(GstPvrFile *file, const gchar *path, guint8 read_mode,
                            guint8 direct_mode, guint32 /*append_mode*/, guint8 atsc3) {
  PLX_INFO("[ZEB::Client] Open socket file. filepath=[%s]", path != nullptr ? path : "");
  GstSocketFile *const socket = &file->var.state.socket;
  socket->path = path;
  socket->flags = {read_mode, direct_mode, static_cast<guint8>(file->var.file_type != 0 ? 1 : 0),
                   static_cast<guint8>(file->var.record_type != 0 ? 1 : 0)};
  gst_file_socket_io_init(&socket->socket_io);
  return noted(file, gst_file_socket_io_open(&socket->socket_io, path, &socket->flags, atsc3));
}

gint64 gst_socket_file_close(GstPvrFile *file) {
  file->var.state.socket.path = nullptr;
  return noted(file, gst_file_socket_io_close(client_of(file)));
}

gint64 gst_socket_file_read(GstPvrFile *file, void *buffer, gint64 size) {
  if (too_large(size)) {
    PLX_ERROR("[PLG_ERR] [ZEB::Client] size too large [%lld]", static_cast<long long>(size));
    return -1;
  }
  return noted(file, gst_file_socket_io_read(client_of(file), buffer, client_size(size)));
}

gint64 gst_socket_file_write(GstPvrFile *file, const void *buffer, gint64 size) {
  if (too_large(size)) {
    PLX_ERROR("[PLG_ERR] [ZEB::Client] size too large [%lld]", static_cast<long long>(size));
    return -1;
  }
  return noted(file, gst_file_socket_io_write(client_of(file), buffer, client_size(size)));
}

gint64 gst_socket_file_seek(GstPvrFile *file, gint64 offset, gint32 whence) {
  return noted(file, gst_file_socket_io_seek(client_of(file), offset, whence));
}

gint64 gst_socket_file_tell(GstPvrFile *file) {
  return noted(file, gst_file_socket_io_tell(client_of(file)));
}

gint64 gst_socket_file_fsync(GstPvrFile *file) {
  return noted(file, gst_file_socket_io_fsync(client_of(file)));
}

gint64 gst_socket_file_size(GstPvrFile *file) {
  return noted(file, gst_file_socket_io_size(client_of(file)));
}

gint64 gst_socket_file_set_max_time(GstPvrFile *file, guint32 /*cut_buf_start_time*/,
                                    guint32 cut_time) {
  return noted(file,
               gst_file_socket_io_set_max_time(client_of(file), static_cast<gint32>(cut_time)));
}

gint64 gst_socket_file_get_max_time(GstPvrFile *file) {
  return gst_file_socket_io_get_max_time(client_of(file));
}

gint64 gst_socket_file_set_last_wrote_time(GstPvrFile *file, guint32 time) {
  if (file->var.lock == nullptr) {
    PLX_ERROR("[PLG_ERR] pvr_file->var.lock is NULL");
    return 1;
  }
  g_mutex_lock(file->var.lock);
  if (keeps_wrote_time(file->var.state.socket.flags)) {
    noted(file, gst_file_socket_io_set_last_wrote_time(client_of(file), time));
  }
  g_mutex_unlock(file->var.lock);
  return 1;
}

gint64 gst_socket_file_rename(GstPvrFile *file, const gchar *old_path, const gchar *new_path) {
  GstFileSocketIo socket_io;
  gst_file_socket_io_init(&socket_io);
  if (noted(file, gst_file_socket_io_rename(&socket_io, old_path, new_path)) == 1) return 1;
  PLX_ERROR("[PLG_ERR] socket_io rename failed!");
  return -1;
}

// The client's messages show the beginning of the request, the stream file's name, as the path.
gint64 gst_socket_file_cut_file(GstPvrFile *file, const pvr_cut_request_s *request) {
  gchar name[sizeof request->kvf_file_name + 1] =
      {};  // a terminator, should the caller's have none
  if (request != nullptr) std::memcpy(name, request->kvf_file_name, sizeof request->kvf_file_name);
  GstFileSocketIo socket_io;
  gst_file_socket_io_init(&socket_io);
  socket_io.file_path = name;
  if (gst_file_socket_io_cut_file(&socket_io, request) == 1) return 1;
  noted(file, -1);
  PLX_ERROR("[PLG_ERR] gst_file_socket_io_cut_file failed");
  return 0;
}
