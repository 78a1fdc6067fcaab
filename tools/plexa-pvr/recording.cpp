// recording.cpp - see recording.h.
#include "recording.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "cut_journal.h"
#include "failure.h"
#include "gst-plexa/gst_pvr_tools.h"
#include "paths.h"
#include "text.h"

namespace plexa::pvr {
namespace {

constexpr char kStreamExtension[] = ".kvf";
constexpr char kIndexExtension[] = ".mdb";

// What a stream file may hold behind the last GOP of a finished recording: the padding of a last
// block that was written past the page cache.
constexpr gint64 kPadding = 4096;

// GOP records beyond this cannot be numbered by the parser's 32-bit lookups.
constexpr gint64 kMostGops = G_MAXINT32 - 2 * gint64{GST_INDEX_CACHE_GOPS};

std::string resolved(const std::string &path) {
  char *const real = ::realpath(path.c_str(), nullptr);
  if (real == nullptr) throw path_failure(path, errno);
  std::string copy(real);
  std::free(real);
  return copy;
}

// Opening a FIFO would wait, a directory would open and then fail at the first read.
void require_regular_file(const std::string &path) {
  struct stat64 status {};
  if (::stat64(path.c_str(), &status) != 0) throw path_failure(path, errno);
  if (S_ISDIR(status.st_mode)) throw path_failure(path, "is a directory, not a recording");
  if (!S_ISREG(status.st_mode)) throw path_failure(path, "is no regular file");
}

void require_extension(const std::string &path) {
  const size_t name = path.rfind('/') + 1;
  const size_t dot = path.rfind('.');
  if (dot == std::string::npos || dot <= name) {
    throw path_failure(path, "not a recording: its name has no extension (.kvf, .mdb)");
  }
}

std::string with_extension(const std::string &path, const char *extension) {
  gchar *const changed = gst_pvr_tool_change_extension(path.c_str(), extension);
  std::string copy(changed != nullptr ? changed : "");
  std::free(changed);
  return copy;
}

bool is_missing(const std::string &path) {
  struct stat64 status {};
  return ::stat64(path.c_str(), &status) != 0 && (errno == ENOENT || errno == ENOTDIR);
}

void require_partner(const std::string &path, const std::string &of, const char *what) {
  if (is_missing(path)) {
    throw path_failure(path, format("no such file; it is the %s of %s", what, display(of).c_str()));
  }
  require_regular_file(path);
}

guint32 gop_table_start(const pvr_base_table_s &table) {
  if (table.gop_start_offset != 0) return table.gop_start_offset;
  return GST_INDEX_BASE_TABLE_SIZE + GST_INDEX_CHANNEL_SLOTS * table.channel_info_size;
}

// On a companion box a path is the box's, and what is wrong with it shows when it is opened.
RecordingPaths paths_on_box(const std::string &given) {
  const std::string path = (given[0] == '/' ? "" : "/") + given;
  require_extension(path);
  return {path.ends_with(kIndexExtension) ? with_extension(path, kStreamExtension) : path,
          with_extension(path, kIndexExtension)};
}

RecordingPaths find_paths(const std::string &given, bool index_must_exist) {
  if (given.empty()) throw Failure("the path of the recording is empty");
  if (rec::is_box_in_use()) return paths_on_box(given);
  if (!index_must_exist && given.ends_with(kIndexExtension) && is_missing(given)) {
    return find_paths(with_extension(given, kStreamExtension), false);
  }
  const std::string path = resolved(given);
  require_regular_file(path);
  require_extension(path);
  if (path.ends_with(kIndexExtension)) {
    const std::string stream = with_extension(path, kStreamExtension);
    require_partner(stream, path, "stream file");
    return {resolved(stream), path};
  }
  const std::string index = with_extension(path, kIndexExtension);
  if (!index_must_exist) return {path, index};
  require_partner(index, path, "index ('plexa-pvr index' makes it anew)");
  return {path, resolved(index)};
}

}  // namespace

RecordingPaths find_recording(const std::string &given, bool index_must_exist) {
  const RecordingPaths paths = find_paths(given, index_must_exist);
  if (!rec::is_box_in_use()) settle_interrupted_cut(paths);  // no cut of ours works there
  return paths;
}

PvrFile::PvrFile(std::string path, guint32 stream_or_index) : path_(std::move(path)) {
  if (gst_pvr_file_init(&file_) != 0) throw Failure("out of memory");
  if (gst_pvr_file_open(&file_, path_.c_str(), GST_PVR_FILE_READ, GST_PVR_FILE_BUFFER_IO,
                        GST_PVR_FILE_NORMAL, stream_or_index, 0, 0) >= 0) {
    return;
  }
  const int error = gst_pvr_file_get_error_num(&file_);
  gst_pvr_file_deinit(&file_);
  throw path_failure(path_, error != 0 ? g_strerror(error) : "cannot be opened");
}

PvrFile::~PvrFile() {
  gst_pvr_file_close(&file_);
  gst_pvr_file_deinit(&file_);
}

gint64 PvrFile::size() {
  const gint64 size = gst_pvr_file_size(&file_);
  if (size < 0) throw path_failure(path_, gst_pvr_file_get_error_num(&file_));
  return size;
}

gint64 PvrFile::read_at(gint64 offset, void *buffer, gint64 size) {
  gint64 done = 0;
  if (gst_pvr_file_seek(&file_, offset, SEEK_SET) < 0) {
    throw path_failure(path_, gst_pvr_file_get_error_num(&file_));
  }
  while (done < size) {
    const gint64 got = gst_pvr_file_read(&file_, static_cast<guint8 *>(buffer) + done, size - done);
    if (got < 0) throw path_failure(path_, gst_pvr_file_get_error_num(&file_));
    if (got == 0) break;
    done += got;
  }
  return done;
}

Recording::Recording(const std::string &given) : Recording(find_recording(given)) {}

Recording::Recording(const RecordingPaths &paths)
    : stream_(paths.stream, GST_PVR_FILE_STREAM), index_(paths.index, GST_PVR_FILE_INDEX) {
  check_base_table();
  start_parser();
  // After the index: a running recorder writes the packets first, then the record about them.
  stream_size_ = stream_.size();
}

void Recording::check_base_table() {
  pvr_base_table_s table{};
  index_size_ = index_.size();
  if (index_.read_at(0, &table, sizeof table) < gint64{sizeof table}) {
    throw path_failure(index_path(),
                       format("truncated index: %lld bytes, and its base table takes "
                              "%u",
                              static_cast<long long>(index_size_), GST_INDEX_BASE_TABLE_SIZE));
  }
  if (table.mdb_version >> 16 != MDB_VERSION >> 16) {
    throw path_failure(index_path(),
                       format("not an index, or of another version (0x%08x instead of 0x%08x)",
                              table.mdb_version, MDB_VERSION));
  }
  legacy_index_ = table.channel_info_size == sizeof(pvr_pelko_channel_info_s);
  if (!legacy_index_ && table.channel_info_size != sizeof(pvr_channel_info_s)) {
    throw path_failure(index_path(), format("not an index: channel records of %u bytes (known are "
                                            "232 and 256)",
                                            table.channel_info_size));
  }
  if (index_size_ < gint64{gop_table_start(table)}) {
    throw path_failure(index_path(),
                       format("truncated index: %lld bytes, and its GOP records "
                              "begin at %u",
                              static_cast<long long>(index_size_), gop_table_start(table)));
  }
}

void Recording::start_parser() {
  gst_index_parser_init(&parser_, index_.get());
  parser_.is_pelko_mdb = legacy_index_;
  const gint64 record =
      legacy_index_ ? gint64{sizeof(pvr_pelko_gop_info_s)} : gint64{sizeof(pvr_gop_info_s)};
  if (gst_index_parser_start(&parser_) < 1) {
    const bool empty = index_size_ - gint64{parser_.gop_start_offset} < record;
    throw path_failure(index_path(),
                       empty ? "the index holds no GOP record" : "the index cannot be read");
  }
  gops_ = (index_size_ - gint64{parser_.gop_start_offset}) / record;
  if (gops_ > kMostGops) {
    throw path_failure(index_path(),
                       format("not an index: %lld GOP records", static_cast<long long>(gops_)));
  }
}

// The recorder holds a lock on the stream file for as long as it works.
bool Recording::running() const {
  if (complete() || rec::is_box_in_use()) return false;
  const int descriptor = ::open64(stream_path().c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return false;
  const bool locked = ::flock(descriptor, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  ::close(descriptor);
  return locked;
}

gint64 Recording::record_offset(gint64 number) const {
  return gint64{parser_.gop_start_offset} + number * gint64{parser_.gop_info_size};
}

gint32 Recording::duration() { return gst_index_parser_get_total_time(&parser_); }

std::span<const pvr_gop_info_s> Recording::load(gint64 first, Window &window) {
  // A window begins this far before the GOP that it is loaded for.
  constexpr gint64 kLead = 16;
  const gint32 loaded =
      gst_index_parser_read_gop(&parser_, static_cast<gint32>(std::min(first + kLead, kMostGops)));
  const gint64 skip = first - gint64{parser_.cached_start_abs_index};
  if (loaded < 1 || skip < 0 || skip >= loaded) {
    throw path_failure(index_path(),
                       format("GOP record %lld cannot be read", static_cast<long long>(first)));
  }
  const auto count = static_cast<size_t>(loaded - skip);
  std::copy_n(parser_.gop_cache + skip, count, window.begin());
  return {window.data(), count};
}

pvr_gop_info_s Recording::gop(gint64 number) {
  Window window;
  return load(number, window).front();
}

gint64 Recording::first_gop_from(gint32 time) {
  const frameData frame = gst_index_parser_get_iframe_by_time(&parser_, time, 0);
  if (!frame.is_valid) throw path_failure(index_path(), "the time cannot be looked up");
  const gint64 number = gint64{parser_.cached_start_abs_index} + frame.cached_index;
  return frame.timecode >= static_cast<guint32>(time) ? number : number + 1;
}

std::optional<pvr_channel_info_s> Recording::channel(guint16 slot) {
  pvr_channel_info_s info{};
  if (!gst_index_parser_get_channel_info_by_index(&parser_, static_cast<gint16>(slot), &info)) {
    return {};
  }
  return info;
}

std::string Recording::mismatch() {
  const guint64 end = gop(gops_ - 1).next_gop_first_packet_count;
  const auto packets = static_cast<guint64>(stream_packets());
  if (end > packets) {
    return format(
        "%s: index longer than the stream: it describes %llu packets, the stream holds "
        "%llu",
        display(index_path()).c_str(), static_cast<unsigned long long>(end),
        static_cast<unsigned long long>(packets));
  }
  if (complete() && stream_size_ - static_cast<gint64>(end) * kPacketSize >= kPadding) {
    return format(
        "%s: index shorter than the stream: it describes %llu packets, the stream holds "
        "%llu",
        display(index_path()).c_str(), static_cast<unsigned long long>(end),
        static_cast<unsigned long long>(packets));
  }
  return {};
}

}  // namespace plexa::pvr
