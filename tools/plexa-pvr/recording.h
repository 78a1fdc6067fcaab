// recording.h - a recording opened for reading: stream file, index and index parser together.
//
// What cannot be opened, or is no recording, is refused with a Failure that says in one line which
// file is meant and what is wrong with it. Nothing is ever written, but for the end of a cut that a
// crash has interrupted. One thread at a time.
#pragma once

#include <array>
#include <optional>
#include <span>
#include <string>

#include "gst-plexa/gst_index_parser.h"
#include "gst-plexa/gst_pvr_file.h"

namespace plexa::pvr {

inline constexpr gint64 kPacketSize = 188;

// The two files of a recording; both paths are absolute and without symbolic links, as the library
// wants them.
struct RecordingPaths {
  std::string stream;
  std::string index;
};

// From the path of either file. The stream file must exist; the index need not (for a command that
// makes one). A cut of the recording that a crash has interrupted is finished, or called off,
// first.
RecordingPaths find_recording(const std::string &given, bool index_must_exist = true);

// A file that the library has open for reading. The library keeps the address and the path.
class PvrFile {
 public:
  PvrFile(std::string path, guint32 stream_or_index);
  ~PvrFile();
  PvrFile(const PvrFile &) = delete;
  PvrFile &operator=(const PvrFile &) = delete;

  GstPvrFile *get() { return &file_; }
  const std::string &path() const { return path_; }
  gint64 size();
  // Fewer bytes than asked for only at the end of the file. Throws when reading fails.
  gint64 read_at(gint64 offset, void *buffer, gint64 size);

 private:
  const std::string path_;
  GstPvrFile file_{};
};

// A parser record that lets go of what it holds.
struct OwnedParser : GstIndexParser {
  OwnedParser() : GstIndexParser{} {}
  ~OwnedParser() { gst_index_parser_stop(this); }
  OwnedParser(const OwnedParser &) = delete;
  OwnedParser &operator=(const OwnedParser &) = delete;
};

class Recording {
 public:
  // The path of the stream file or of the index.
  explicit Recording(const std::string &given);
  Recording(const Recording &) = delete;
  Recording &operator=(const Recording &) = delete;

  const std::string &stream_path() const { return stream_.path(); }
  const std::string &index_path() const { return index_.path(); }
  PvrFile &stream() { return stream_; }
  PvrFile &index() { return index_; }
  GstIndexParser *parser() { return &parser_; }

  bool legacy() const { return parser_.is_pelko_mdb != FALSE; }
  const char *layout() const { return legacy() ? "legacy" : "current"; }
  // The recorder has ended it.
  bool complete() const { return parser_.base_table.end_time_code != 0; }
  // Not complete, and a recorder is at work on it. Otherwise something has cut it short.
  bool running() const;

  // As they were when the recording was opened; a running recording goes on growing.
  gint64 stream_size() const { return stream_size_; }
  gint64 stream_packets() const { return stream_size_ / kPacketSize; }
  gint64 index_size() const { return index_size_; }
  gint64 gops() const { return gops_; }
  // Where the record of GOP `number` begins in the index.
  gint64 record_offset(gint64 number) const;

  gint32 duration();  // ms

  // The record of one GOP, relative to the start of the recording. Throws when it cannot be read.
  pvr_gop_info_s gop(gint64 number);

  // The number of the first GOP whose time is at or after `time`; gops() when there is none.
  gint64 first_gop_from(gint32 time);

  // Calls visit(number, record) for every GOP from `first` on, until it answers false. Reads the
  // index a window at a time; the visitor may call whatever lookups it likes.
  template <class Visit>
  void for_each_gop(gint64 first, Visit visit) {
    Window window;
    while (first < gops_) {
      for (const pvr_gop_info_s &record : load(first, window)) {
        if (first >= gops_ || !visit(first, record)) return;
        ++first;
      }
    }
  }

  // None: the slot cannot be read.
  std::optional<pvr_channel_info_s> channel(guint16 slot);

  // When index and stream do not fit together in length: one line that says so. Otherwise empty.
  std::string mismatch();

 private:
  explicit Recording(const RecordingPaths &paths);

  using Window = std::array<pvr_gop_info_s, GST_INDEX_CACHE_GOPS>;
  // At least one record, or throws.
  std::span<const pvr_gop_info_s> load(gint64 first, Window &window);
  void check_base_table();
  void start_parser();

  PvrFile stream_;
  PvrFile index_;
  OwnedParser parser_;
  bool legacy_index_ = false;
  gint64 index_size_ = 0;
  gint64 stream_size_ = 0;
  gint64 gops_ = 0;
};

}  // namespace plexa::pvr
