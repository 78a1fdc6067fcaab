// gst_file_io.cpp - buffered access to a local file: one system call an operation.
//
// Nothing is retried and a short transfer goes to the caller as it is. Every failure ends in the
// same place: one log line, the errno in the handle, the result -1. Refused before it is opened is
// a path that resolves to somewhere else. The functions keep no state of their own: any thread may
// call them, the handle above serialises the calls on one descriptor.
#include "gst-plexa/gst_file_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#define PLEXA_LOG_AREA "EXT_FMG"
#include "plexa_log.h"

namespace {

// An index is written in place: its writer goes back to the base table while it records, so that
// append mode must neither truncate it nor tie its writes to the end. A stream only ever grows.
constexpr int kFreshFile = O_WRONLY | O_CREAT | O_TRUNC | O_NOATIME;
constexpr int kAppendedStream = O_WRONLY | O_CREAT | O_APPEND | O_NOATIME;
constexpr int kAppendedIndex = O_WRONLY | O_CREAT | O_NOATIME;
#if defined(__i386__) || defined(__x86_64__)
static_assert(kFreshFile == 0x40241 && kAppendedStream == 0x40441 && kAppendedIndex == 0x40041);
static_assert(O_DIRECT == 0x4000 && O_RDONLY == 0);
#endif

constexpr mode_t kCreatedMode = 0644;
constexpr int kRefusedPath = 56;  // what a path that leads elsewhere leaves in the handle

// Keeps the error number in the handle and writes the line that every failure ends with. errno is
// set as well, so that the text behind the number is the number's own. Another thread may ask for
// the error number without the handle's lock, hence the atomic store.
gint64 _gst_file_io_error(GstPvrFile *file, const char *call, int error_number) {
  g_atomic_int_set(&file->var.error_number, error_number);
  errno = error_number;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"  // -Wpedantic: ISO C++ has no %m, the platform's log does
  PLX_ERROR("[PLG_ERR] %s was failed, errno=[%d:%m]\n", call, error_number);
#pragma GCC diagnostic pop
  return -1;
}

int _gst_file_io_get_flags(const gchar *path, guint8 read_mode, guint8 direct_mode,
                           guint8 append_mode) {
  PLX_INFO("enter gst_file_io_open,file_path:%s,read_mode:%d,direct_mode:%d,append_mode:%d", path,
           read_mode, direct_mode, append_mode);
  const int direct = direct_mode != 0 ? O_DIRECT : 0;
  if (read_mode != 0) return direct | O_RDONLY;
  if (!g_str_has_suffix(path, ".mdb")) {
    return direct | (append_mode != 0 ? kAppendedStream : kFreshFile);
  }
  PLX_INFO("is_mdb_file == TRUE");
  if (append_mode != 0) return direct | kAppendedIndex;
  PLX_INFO("append_mode == FALSE");
  return direct | kFreshFile;
}

// A path that does not resolve (the file may not be there yet) is accepted. The comparison stops at
// the given path's end, which also lets a folder stand for what lies below it.
bool _check_real_path(const gchar *path) {
  char resolved[PATH_MAX + 1];
  if (realpath(path, resolved) == nullptr) return true;
  if (std::strncmp(resolved, path, std::strlen(path)) == 0) return true;
  PLX_ERROR("[PLG_ERR] path is not same with original(Hacked !!). resolved_path[%s]", resolved);
  return false;
}

// The descriptor must not leak into programs that the process starts.
bool _set_close_on_exec(int descriptor) {
  if (fcntl(descriptor, F_SETFD, FD_CLOEXEC) >= 0) return true;
  const int error_number = errno;
  close(descriptor);
  errno = error_number;
  return false;
}

}  // namespace

gint64 gst_file_io_open(GstPvrFile *file, gint32 *descriptor, const gchar *path, guint8 read_mode,
                        guint8 direct_mode, guint8 append_mode) {
  if (path == nullptr) return _gst_file_io_error(file, "open64", EFAULT);
  const int flags = _gst_file_io_get_flags(path, read_mode, direct_mode, append_mode);
  if (!_check_real_path(path)) return _gst_file_io_error(file, "fcntl", kRefusedPath);
  const int opened = open64(path, flags, kCreatedMode);
  if (opened < 0) {
    PLX_ERROR(
        "[PLG_ERR] gst_file_io_open error, file path=[%s], read_mode=[%d], direct_mode=[%d], "
        "append_mode=[%d]",
        path, read_mode, direct_mode, append_mode);
    return _gst_file_io_error(file, "open64", errno);
  }
  PLX_INFO(
      "gst_file_io_open success, handle=[%d], file path=[%s], read_mode=[%d], direct_mode=[%d], "
      "append_mode=[%d]",
      opened, path, read_mode, direct_mode, append_mode);
  if (!_set_close_on_exec(opened)) return _gst_file_io_error(file, "fcntl", errno);
  *descriptor = opened;
  return 1;
}

gint64 gst_file_io_close(GstPvrFile *file, gint32 *descriptor) {
  int result = -1;
  if (*descriptor > 0) {
    fsync(*descriptor);  // best effort: a reader's descriptor or a pipe may refuse it
    result = close(*descriptor);
  } else {
    errno = EBADF;
  }
  if (result < 0) {
    PLX_ERROR("[PLG_ERR] gst_file_io_close error, handle=[%d]", *descriptor);
    return _gst_file_io_error(file, "close", errno);
  }
  *descriptor = -1;
  return 1;
}

gint64 gst_file_io_read(GstPvrFile *file, gint32 *descriptor, void *buffer, guint32 count) {
  const ssize_t result = read(*descriptor, buffer, count);
  if (result >= 0) [[likely]]
    return result;
  PLX_ERROR("[PLG_ERR] gst_file_io_read error, handle=[%d]", *descriptor);
  return _gst_file_io_error(file, "read", errno);
}

gint64 gst_file_io_write(GstPvrFile *file, gint32 *descriptor, const void *buffer, guint32 count) {
  const ssize_t result = write(*descriptor, buffer, count);
  if (result >= 0) [[likely]]
    return result;
  PLX_ERROR("[PLG_ERR] gst_file_io_write error, handle=[%d]", *descriptor);
  return _gst_file_io_error(file, "write", errno);
}

gint64 gst_file_io_seek(GstPvrFile *file, gint32 *descriptor, gint64 offset, gint32 whence) {
  const off64_t result = lseek64(*descriptor, offset, whence);
  if (result >= 0) [[likely]]
    return result;
  PLX_ERROR("[PLG_ERR] gst_file_io_seek error, handle=[%d]", *descriptor);
  return _gst_file_io_error(file, "lseek64", errno);
}

gint64 gst_file_io_tell(GstPvrFile *file, gint32 *descriptor) {
  const off64_t result = lseek64(*descriptor, 0, SEEK_CUR);
  if (result >= 0) [[likely]]
    return result;
  PLX_ERROR("[PLG_ERR] gst_file_io_tell error, handle=[%d]", *descriptor);
  return _gst_file_io_error(file, "tell", errno);
}

gint64 gst_file_io_size(GstPvrFile *file, const gchar *path) {
  struct stat64 status {};
  if (path == nullptr) {
    errno = EFAULT;
  } else if (stat64(path, &status) == 0) {
    return status.st_size;
  }
  PLX_ERROR("[PLG_ERR] gst_file_io_size error, file_path=[%s]", path != nullptr ? path : "(null)");
  return _gst_file_io_error(file, "stat64", errno);
}

gint64 gst_file_io_fsync(GstPvrFile *file, gint32 *descriptor) {
  const int result = fsync(*descriptor);
  if (result >= 0) return result;
  PLX_ERROR("[PLG_ERR] gst_file_io_fsync error, handle=[%d]", *descriptor);
  return _gst_file_io_error(file, "fsync", errno);
}
