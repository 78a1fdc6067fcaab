// timeshift_file.cpp - see timeshift_file.h. Not thread-safe.
#include "timeshift_file.h"

#include <unistd.h>

#include <cerrno>

#include "gst-plexa/gst_file_shared_info.h"
#include "paths.h"

namespace plexa::rec {
namespace {

constexpr gint64 kCutHangs =
    -3;                         // the operation has waited two seconds for a cut, and done nothing
constexpr int kMostTries = 15;  // ... so this is half a minute
constexpr useconds_t kPoll = 10000;
constexpr int kMostPolls = 3000;    // half a minute as well
constexpr int32_t kPeriod = 60000;  // the library cuts once a minute

template <class Operation>
gint64 patiently(Operation operation) {
  gint64 result = kCutHangs;
  for (int tries = 0; result == kCutHangs && tries < kMostTries; ++tries) result = operation();
  return result;
}

}  // namespace

TimeshiftFile::TimeshiftFile() : handle_(std::make_unique<Handle>()) {
  gst_pvr_file_init(&handle_->file);
}

TimeshiftFile::~TimeshiftFile() {
  close();
  gst_pvr_file_deinit(&handle_->file);
}

bool TimeshiftFile::fail(gint64 result) {
  error_ = result == kCutHangs ? EBUSY : gst_pvr_file_get_error_num(&handle_->file);
  if (error_ == 0) error_ = EIO;
  return false;
}

bool TimeshiftFile::open(const std::string &path) {
  handle_->path = path;
  const gint64 result = patiently([this] {
    return gst_pvr_file_open(&handle_->file, handle_->path.c_str(), GST_PVR_FILE_WRITE,
                             GST_PVR_FILE_DIRECT_IO, GST_PVR_FILE_TIMESHIFT, GST_PVR_FILE_STREAM, 0,
                             0);
  });
  open_ = result >= 0;
  return open_ || fail(result);
}

bool TimeshiftFile::set_max_time(int64_t milliseconds) {
  const gint64 result =
      patiently([&] { return gst_pvr_file_set_max_time(&handle_->file, milliseconds); });
  if (result == 1) return true;
  error_ = EINVAL;
  return false;
}

size_t TimeshiftFile::write(const uint8_t *data, size_t size, uint32_t time) {
  size_t done = 0;
  while (done < size) {
    const gint64 wrote = patiently([&] {
      gst_pvr_file_set_last_wrote_time(&handle_->file, time);
      return gst_pvr_file_write(&handle_->file, data + done, static_cast<gint64>(size - done));
    });
    if (wrote > 0) {
      done += static_cast<size_t>(wrote);
      if (done % kBlock == 0) continue;
      error_ = ENOSPC;  // what else ends a write past the cache inside a block
      break;
    }
    fail(wrote);
    if (wrote == 0) error_ = EIO;  // a file system that takes nothing and says nothing
    if (error_ != EINTR) break;
  }
  return done;
}

// The new span is set first. Then the cut period is moved so that it ends now: the next write finds
// the cut due, and the one after that comes a minute of recording later.
bool TimeshiftFile::shorten(int32_t span, uint32_t time) {
  if (is_box_in_use()) return false;  // the box's manager is out of reach
  GstCutBufferMgr *const cuts = manager();
  if (cuts == nullptr || time <= kPeriod || time > INT32_MAX) return false;
  if (!wait_for_cut()) return false;  // the manager is the cut's own until it ends
  const auto now = static_cast<gint32>(time);
  return gst_cut_mgr_set_max_time(cuts, span, span, GST_CUT_MGR_CHANGE_SPAN) != FALSE &&
         gst_cut_mgr_set_max_time(cuts, now - kPeriod, now, GST_CUT_MGR_AFTER_CUT) != FALSE;
}

// Null: the library has made it no file that it cuts.
GstCutBufferMgr *TimeshiftFile::manager() const {
  const GstPvrFile &file = handle_->file;
  const bool is_cut_file =
      open_ && file.var.file_mode == GST_PVR_FILE_MODE_DISK && file.is_normal_file == 0;
  return is_cut_file ? file.var.state.cut.cut_buffer_mgr : nullptr;
}

// The mark is cleared early when cutting is switched off; the manager's own task may still be at
// it.
bool TimeshiftFile::is_cutting(gint32 key) const {
  if (gst_shared_info_is_progressing_cut(gst_shared_info_get(), static_cast<guint32>(key))) {
    return true;
  }
  const GstCutBufferMgr *const cuts = manager();
  if (cuts == nullptr || cuts->cut_param == nullptr) return false;
  return g_atomic_int_get(&cuts->cut_param->is_busy) > 0;  // below 0 it got no thread
}

bool TimeshiftFile::wait_for_cut() const {
  const gint32 key = gst_shared_info_pre_add_item(gst_shared_info_get(), handle_->path.c_str());
  for (int polls = 0; key >= 0 && is_cutting(key); ++polls) {
    if (polls == kMostPolls) return false;
    usleep(kPoll);
  }
  return true;
}

bool TimeshiftFile::close() {
  if (!open_) return true;
  GstCutBufferMgr *const cuts = manager();
  has_stopped_cutting_ = cuts != nullptr && !gst_cut_mgr_get_max_time(cuts);
  open_ = false;
  const gint64 result = patiently([this] { return gst_pvr_file_close(&handle_->file); });
  if (result != kCutHangs) return result >= 0 || fail(result);
  fail(result);
  Handle *const left = handle_.release();  // the cut still has it in its list
  handle_ = std::make_unique<Handle>();
  handle_->path = left->path;
  gst_pvr_file_init(&handle_->file);
  return false;
}

int64_t TimeshiftFile::removed() const {
  return gst_shared_cut_info_get_total_cutoffset(gst_shared_cut_info_get());
}

int32_t TimeshiftFile::removed_time() const {
  return gst_shared_cut_info_get_total_cuttime(gst_shared_cut_info_get());
}

}  // namespace plexa::rec
