// box_file.cpp - see box_file.h.
#include "box_file.h"

#include <mutex>
#include <set>

namespace plexa::box {
namespace {

// What is open, in all connections; under the lock.
std::mutex g_lock;
std::multiset<std::string> g_open;
std::string g_timeshift;  // the one time-shift stream
int g_timeshift_opens = 0;

bool enter_timeshift(const std::string &path) {
  const std::lock_guard hold(g_lock);
  if (g_timeshift_opens > 0 && g_timeshift != path) return false;
  g_timeshift = path;
  ++g_timeshift_opens;
  return true;
}

void leave_timeshift() {
  const std::lock_guard hold(g_lock);
  --g_timeshift_opens;
}

void note_open(const std::string &path) {
  const std::lock_guard hold(g_lock);
  g_open.insert(path);
}

void note_closed(const std::string &path) {
  const std::lock_guard hold(g_lock);
  g_open.extract(path);
}

bool is_timeshift_stream(const GstSocketOpenFlags &flags) {
  return flags.is_ts != 0 && flags.is_index == 0;
}

}  // namespace

bool is_in_use(const std::string &path) {
  const std::lock_guard hold(g_lock);
  return g_open.contains(path);
}

template <class Operation>
gint64 BoxFile::patiently(Operation operation) const {
  const auto end = std::chrono::steady_clock::now() + patience_;
  gint64 result = operation();
  while (result == kCutHangs && std::chrono::steady_clock::now() < end) result = operation();
  return result;
}

BoxFile::BoxFile(std::chrono::seconds patience) : patience_(patience) { gst_pvr_file_init(&file_); }

// While a cut is at work on the file the handle is the cut's, too: it has to be waited for.
BoxFile::~BoxFile() {
  while (close() == kCutHangs) {
  }
  gst_pvr_file_deinit(&file_);
}

gint64 BoxFile::open(const std::string &path, const GstSocketOpenFlags &flags, guint8 is_atsc3) {
  is_timeshift_ = is_timeshift_stream(flags);
  if (is_timeshift_ && !enter_timeshift(path)) return -1;
  path_ = path;
  const gint64 result = patiently([&] {
    return gst_pvr_file_open(&file_, path_.c_str(), flags.read_mode, flags.direct_mode, flags.is_ts,
                             flags.is_index, 0, is_atsc3);
  });
  is_open_ = result >= 0;
  if (is_open_) {
    note_open(path_);
  } else if (is_timeshift_) {
    leave_timeshift();
  }
  return result;
}

// The file counts as open as long as a cut is in the way.
gint64 BoxFile::close() {
  if (!is_open_) return -1;
  const gint64 result = patiently([this] { return gst_pvr_file_close(&file_); });
  if (result == kCutHangs) return result;
  is_open_ = false;
  note_closed(path_);
  if (is_timeshift_) leave_timeshift();
  return result;
}

gint64 BoxFile::read(void *buffer, gint64 size) {
  return patiently([&] { return gst_pvr_file_read(&file_, buffer, size); });
}

}  // namespace plexa::box
