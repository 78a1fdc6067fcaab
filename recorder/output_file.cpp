// output_file.cpp - see output_file.h. Not thread-safe.
#include "output_file.h"

#include <cerrno>

namespace plexa::rec {
namespace {

constexpr size_t kBlock = 4096;

}  // namespace

bool OutputFile::exists(const std::string &path) {
  GstPvrFile file{};
  gst_pvr_file_init(&file);
  const bool opened =
      gst_pvr_file_open(&file, path.c_str(), GST_PVR_FILE_READ, GST_PVR_FILE_BUFFER_IO,
                        GST_PVR_FILE_NORMAL, GST_PVR_FILE_STREAM, 0, 0) >= 0;
  if (opened) gst_pvr_file_close(&file);
  gst_pvr_file_deinit(&file);
  return opened;
}

OutputFile::OutputFile() : file_{} { gst_pvr_file_init(&file_); }

OutputFile::~OutputFile() {
  if (open_) gst_pvr_file_close(&file_);
  gst_pvr_file_deinit(&file_);
}

bool OutputFile::fail() {
  error_ = gst_pvr_file_get_error_num(&file_);
  if (error_ == 0) error_ = EIO;
  return false;
}

bool OutputFile::open(const std::string &path, Kind kind, bool direct) {
  path_ = path;  // the handle keeps a pointer to it
  direct_ = direct;
  const bool is_index = kind == Kind::kIndex;
  const guint32 io = direct ? GST_PVR_FILE_DIRECT_IO : GST_PVR_FILE_BUFFER_IO;
  const guint32 ext = is_index ? GST_PVR_FILE_INDEX : GST_PVR_FILE_STREAM;
  open_ = gst_pvr_file_open(&file_, path_.c_str(), GST_PVR_FILE_WRITE, io, GST_PVR_FILE_NORMAL, ext,
                            1, 0) >= 0;
  return open_ || fail();
}

size_t OutputFile::write(const uint8_t *data, size_t size) {
  size_t done = 0;
  while (done < size) {
    const gint64 wrote = gst_pvr_file_write(&file_, data + done, static_cast<gint64>(size - done));
    if (wrote > 0) {
      done += static_cast<size_t>(wrote);
      if (!direct_ || done % kBlock == 0) continue;
      error_ = ENOSPC;  // what else ends a write past the cache inside a block
      break;
    }
    if (wrote < 0) fail();
    if (wrote == 0) error_ = EIO;  // a file system that takes nothing and says nothing
    if (error_ != EINTR) break;
    error_ = 0;
  }
  return done;
}

bool OutputFile::seek(int64_t offset) {
  return gst_pvr_file_seek(&file_, offset, 0) == offset || fail();
}

bool OutputFile::sync() { return gst_pvr_file_fsync(&file_) >= 0 || fail(); }

bool OutputFile::close() {
  if (!open_) return true;
  open_ = false;
  return gst_pvr_file_close(&file_) >= 0 || fail();
}

}  // namespace plexa::rec
