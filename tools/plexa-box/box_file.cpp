// box_file.cpp - see box_file.h.
#include "box_file.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <utility>

#include "gst-plexa/gst_file_shared_info.h"
#include "gst-plexa/gst_pvr_tools.h"

namespace plexa::box {
namespace {

constexpr int kMostWriters = GST_SHARED_INFO_MAX_WRITERS;
// A writer whose stream is cut has the library read the index, once for each writer.
constexpr int kMostReaders = GST_SHARED_INFO_MAX_READERS - kMostWriters;

struct Openings {
  int readers = 0;
  int writers = 0;
};

// What is open, in all connections; under the lock.
std::mutex g_lock;
std::multiset<std::string> g_open;
std::map<std::string, Openings> g_recordings;
std::string g_timeshift;  // the one time-shift stream
int g_timeshift_opens = 0;

// As the library names it: stream and index are one recording.
std::string recording_of(const std::string &path) {
  const std::unique_ptr<gchar, decltype(&std::free)> name(
      gst_pvr_tool_extract_filepath_no_ext(path.c_str()), &std::free);
  return name != nullptr ? name.get() : path;
}

// The library refuses one reader or writer too many as well, but at the cost of one that is open,
// which any client could use to have it forget another one's recording. All or nothing, also when
// memory runs out.
bool enter_account(const std::string &path, const std::string &recording, bool reads,
                   bool is_timeshift) {
  std::string name = is_timeshift ? path : std::string();
  std::multiset<std::string> entry{path};
  const std::lock_guard hold(g_lock);
  if (is_timeshift && g_timeshift_opens > 0 && g_timeshift != name) return false;
  Openings &openings = g_recordings[recording];
  int &count = reads ? openings.readers : openings.writers;
  if (count == (reads ? kMostReaders : kMostWriters)) return false;
  ++count;
  g_open.merge(entry);
  if (!is_timeshift) return true;
  g_timeshift.swap(name);
  ++g_timeshift_opens;
  return true;
}

void leave_account(const std::string &path, const std::string &recording, bool reads,
                   bool is_timeshift) noexcept {
  const std::lock_guard hold(g_lock);
  g_open.extract(path);
  if (is_timeshift) --g_timeshift_opens;
  const auto at = g_recordings.find(recording);
  if (at == g_recordings.end()) return;
  --(reads ? at->second.readers : at->second.writers);
  if (at->second.readers == 0 && at->second.writers == 0) g_recordings.erase(at);
}

bool is_timeshift_stream(const GstSocketOpenFlags &flags) {
  return flags.is_ts != 0 && flags.is_index == 0;
}

}  // namespace

// Under the lock: what is opened afterwards is another file.
bool remove_unless_open(const std::string &path) {
  const std::lock_guard hold(g_lock);
  return !g_open.contains(path) && ::unlink(path.c_str()) == 0;
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

bool BoxFile::enter() {
  recording_ = recording_of(path_);
  return enter_account(path_, recording_, is_reader_, is_timeshift_);
}

void BoxFile::leave() const noexcept {
  const int saved = errno;
  leave_account(path_, recording_, is_reader_, is_timeshift_);
  errno = saved;
}

gint64 BoxFile::open(const std::string &path, const GstSocketOpenFlags &flags, guint8 is_atsc3) {
  path_ = path;
  is_reader_ = flags.read_mode != 0;
  is_timeshift_ = is_timeshift_stream(flags);
  if (!enter()) {
    errno = EBUSY;
    return -1;
  }
  const gint64 result = patiently([&] {
    errno = EBUSY;  // for want of a place among what is open, which sets none
    return gst_pvr_file_open(&file_, path_.c_str(), flags.read_mode, flags.direct_mode, flags.is_ts,
                             flags.is_index, 0, is_atsc3);
  });
  is_open_ = result >= 0;
  if (!is_open_) leave();
  return result;
}

// The file counts as open as long as a cut is in the way.
gint64 BoxFile::close() {
  if (!is_open_) return -1;
  const gint64 result = patiently([this] { return gst_pvr_file_close(&file_); });
  if (result == kCutHangs) return result;
  is_open_ = false;
  leave();
  return result;
}

gint64 BoxFile::read(void *buffer, gint64 size) {
  return patiently([&] { return gst_pvr_file_read(&file_, buffer, size); });
}

gint64 BoxFile::position() {
  return patiently([this] { return gst_pvr_file_tell(&file_); });
}

void BoxFile::step_back(gint64 size) {
  patiently([&] { return gst_pvr_file_seek(&file_, -size, SEEK_CUR); });
}

// One piece is one range in any case: the library lets no cut into a read.
Pieces::Pieces(BoxFile &file, bool are_several)
    : file_(file), is_checked_(are_several && file.may_be_cut()) {
  if (is_checked_) expected_ = file_.position();
}

// A position that has moved by something else than the bytes read tells of a cut just before the
// read or just behind it; which of the two, nobody knows. The first piece has none before it that
// it must join, so it stands. A later one goes back to the file, for the next request: after a cut
// behind the read there is nothing to go back to, and the position is right as it is.
gint64 Pieces::next(void *buffer, gint64 size) {
  if (is_torn_) return 0;
  const gint64 got = file_.read(buffer, size);
  if (!is_checked_ || got <= 0) return got;
  const bool is_first = std::exchange(is_first_, false);
  expected_ += got;
  is_torn_ = file_.position() != expected_;
  if (!is_torn_ || is_first) return got;
  file_.step_back(got);
  return 0;
}

}  // namespace plexa::box
