// gst_cut_fixture.h - a time-shift recording for tests: its index, handles on its stream, and a
// platform that really takes the front of the file away.
#pragma once

#include <fcntl.h>
#include <gst/gst.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "fake_platform.h"
#include "faults.h"
#include "gst-plexa/gst_cut_buffer_mgr.h"
#include "gst-plexa/gst_cut_file.h"
#include "gst-plexa/gst_file_shared_info.h"
#include "gst_cut_internal.h"
#include "gst_file_shared_info_internal.h"
#include "index_builder.h"
#include "library_state.h"
#include "log_capture.h"
#include "temp_dir.h"

namespace plexa_test {

inline constexpr gint64 kUnit = 192512;  // what is taken away at once; a GOP of the fixture's index
inline constexpr guint8 kReads = 1;
inline constexpr guint8 kWrites = 0;

inline std::string fmg(const std::string &message) { return "[EXT_FMG] " + message; }
inline std::string fmg_error(const std::string &message) {
  return "[EXT_FMG] [PLG_ERR] " + message;
}

inline std::vector<uint8_t> bytes_at(gint64 offset, gint64 count) {
  return counting_bytes(static_cast<size_t>(count), static_cast<size_t>(offset));
}

// Nothing that a test has to wait for takes this long.
inline bool wait_until(const std::function<bool()> &is_so) {
  for (int i = 0; i < 20000; ++i) {
    if (is_so()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return false;
}

// A handle whose storage held anything before, opened and closed as the table does it.
class CutHandle {
 public:
  CutHandle() {
    std::memset(static_cast<void *>(&file_), 0x5A, sizeof file_);
    gst_pvr_file_init(&file_);
    state() = {};
    state().key = state().descriptor = -1;
  }
  ~CutHandle() {
    if (state().key >= 0) close();
    gst_pvr_file_deinit(&file_);
  }
  CutHandle(const CutHandle &) = delete;
  CutHandle &operator=(const CutHandle &) = delete;

  gint64 open(const std::string &path, guint8 read_mode, guint8 direct_mode = 0,
              guint8 is_atsc3 = 0, guint32 append_mode = 0) {
    path_ = path;
    return gst_cut_file_open(&file_, path_.c_str(), read_mode, direct_mode, is_atsc3, append_mode);
  }
  gint64 close() { return gst_cut_file_close(&file_, nullptr, nullptr); }
  gint64 seek(gint64 offset, gint32 whence = SEEK_SET) {
    return gst_cut_file_seek(&file_, offset, whence);
  }
  gint64 tell() { return gst_cut_file_tell(&file_); }
  gint64 size() { return gst_cut_file_size(&file_); }
  gint64 write(const std::vector<uint8_t> &bytes) {
    return gst_cut_file_write(&file_, bytes.data(), static_cast<gint64>(bytes.size()));
  }
  std::vector<uint8_t> read(gint64 count) {
    std::vector<uint8_t> bytes(static_cast<size_t>(count));
    const gint64 got = gst_cut_file_read(&file_, bytes.data(), count);
    bytes.resize(static_cast<size_t>(std::max<gint64>(got, 0)));
    return bytes;
  }

  GstCutFile &state() { return file_.var.state.cut; }
  GstCutBufferMgr *mgr() { return state().cut_buffer_mgr; }
  guint32 key() { return static_cast<guint32>(state().key); }
  int error() { return file_.var.error_number; }
  GstPvrFile *get() { return &file_; }
  GstPvrFile *operator->() { return &file_; }

 private:
  GstPvrFile file_;
  std::string path_;
};

// What the platform was asked to remove.
struct Removal {
  gint64 start;
  gint64 end;
};

class CutTest : public ::testing::Test {
 protected:
  CutTest() {
    forget_everything();
    fake_platform().reset();
    fake_platform().truncate_range = [this](int fd, int64_t start, int64_t end,
                                            const std::string &) {
      return remove_range(fd, start, end);
    };
    LogCapture::clear();
  }
  ~CutTest() override {
    expect_nothing_at_work();
    forget_everything();
    fake_platform().reset();
  }

  // One GOP a second, one unit each.
  void write_index(int gops) { index_of(gops).write(index_path_); }
  static IndexBuilder index_of(int gops) {
    return IndexBuilder().gop_start(GST_INDEX_BASE_TABLE_SIZE).gops(gops, 1000, 1024);
  }
  static gint32 total_cut_time() {
    return gst_shared_cut_info_get_total_cuttime(gst_shared_cut_info_get());
  }
  static gint64 total_cut() {
    return gst_shared_cut_info_get_total_cutoffset(gst_shared_cut_info_get());
  }
  static void given_total_cut(gint64 bytes) {
    gst_shared_cut_info_set_total_cutoffset(gst_shared_cut_info_get(), bytes);
  }
  static gint32 span() { return gst_shared_cut_info_get_fixed_duration(gst_shared_cut_info_get()); }
  static gint32 start_time() {
    return gst_shared_cut_info_get_accumulated_time(gst_shared_cut_info_get());
  }
  static gint64 start_offset() {
    return gst_shared_cut_info_get_accumulated_offset(gst_shared_cut_info_get());
  }
  static bool is_cutting(guint32 key = 0) {
    return gst_shared_info_is_progressing_cut(gst_shared_info_get(), key) != FALSE;
  }
  static void mark_cut(bool is_cutting, guint32 key = 0) {
    gst_shared_info_update_cut_mode(gst_shared_info_get(), key, is_cutting);
  }
  static gint32 running(guint32 key = 0) {
    return gst_shared_info_get_actioncount(gst_shared_info_get(), key);
  }
  // For a watcher, which runs with a lock of its own: what the item says, looked at without the
  // registry's mutex. Nobody else is about.
  static const GstFileInfo &glance(guint32 key = 0) {
    return g_lib_shared_info.registry->items[key];
  }
  static GstFileInfo &item(guint32 key = 0) {
    return *gst_shared_info_get_item(gst_shared_info_get(), key);
  }
  // Is nothing inside, no cut at work? Looked at as a cut would look.
  static bool is_idle(guint32 key = 0) {
    gst_shared_info_get();  // without a registry no cut begins
    if (plexa::_begin_cut(key) != plexa::CutStart::kStarted) return false;
    const gboolean mode = gst_shared_info_is_progressing_cut(gst_shared_info_get(), key);
    plexa::_end_cut(key);
    gst_shared_info_update_cut_mode(gst_shared_info_get(), key, mode);
    return true;
  }

  // Puts the recorded time in and writes one unit where it belongs.
  gint64 write_unit(CutHandle &writer, gint32 time) {
    gst_cut_file_set_last_wrote_time(writer.get(), static_cast<guint32>(time));
    const gint64 result = writer.write(bytes_at(written_, kUnit));
    if (result > 0) written_ += result;
    return result;
  }
  // Until the task is through with its cut, its thread included.
  static void finish_cut(GstCutParam *param) {
    ASSERT_TRUE(wait_until([param] { return g_atomic_int_get(&param->is_busy) <= 0; }));
    if (param->task != nullptr && param->is_busy == 0) gst_task_join(param->task);
  }
  static void finish_cut(CutHandle &writer) { finish_cut(writer.mgr()->cut_param); }

  std::vector<Removal> removals() {
    const std::lock_guard hold(removals_lock_);
    return removals_;
  }

  TempDir dir_;
  const std::string rec_ = dir_.file("rec.kvf");
  const std::string index_path_ = dir_.file("rec.mdb");
  // How the platform answers: 0 removes, 1 pretends to, otherwise this errno.
  std::atomic<int> removal_error_{0};
  std::function<void()> while_removing_;
  gint64 written_ = 0;

 private:
  static void forget_everything() {
    gst_shared_cut_info_remove();
    gst_shared_info_remove(gst_shared_info_get());
  }
  // A count that a test forgot would keep every cut of the tests behind it waiting.
  static void expect_nothing_at_work() {
    for (guint32 key = 0; key < GST_KEY_MGR_SLOTS; ++key) EXPECT_TRUE(is_idle(key)) << key;
  }
  int remove_range(int fd, int64_t start, int64_t end) {
    {
      const std::lock_guard hold(removals_lock_);
      removals_.push_back({start, end});
    }
    if (while_removing_) while_removing_();
    if (removal_error_ != 0) {
      errno = removal_error_;
      return -1;
    }
    std::vector<uint8_t> rest(1 << 16);
    int64_t to = start;
    for (int64_t from = end;;) {
      const ssize_t got = pread64(fd, rest.data(), rest.size(), from);
      if (got <= 0) break;
      if (pwrite64(fd, rest.data(), static_cast<size_t>(got), to) != got) return -1;
      from += got;
      to += got;
    }
    return ftruncate64(fd, to);
  }

  std::mutex removals_lock_;
  std::vector<Removal> removals_;
};

}  // namespace plexa_test
