// recorder.h - makes recordings: the writer side of libgst-plexa.
//
// A recording is a stream file of 188-byte transport packets and an index (".mdb") beside it that
// describes every group of pictures. The three functions below write them through the library's
// public interface (gst_pvr_file_*). record() can also make a time-shift recording, whose stream
// file the library cuts at its front so that it never holds more than a set span of time. Input
// that is not a transport stream, that has no video which can be indexed, or whose video is
// scrambled is refused before any file is touched.
//
// Each call works on the caller's thread (record() stores on a second one of its own) and may be
// made from several threads at the same time for different recordings. Nothing is thrown.
#ifndef PLEXA_RECORDER_RECORDER_H_
#define PLEXA_RECORDER_RECORDER_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace plexa::rec {

enum class Layout {
  kCurrent,  // 232-byte channel records, 104-byte GOP records
  kLegacy,   // 256-byte channel records, 100-byte GOP records: for migration and tests
};

struct Progress {
  uint64_t bytes_in = 0;     // of the input read so far
  uint64_t bytes_total = 0;  // of the input; 0: unknown (a pipe)
  uint32_t recorded_ms = 0;  // time code reached
  uint64_t gops = 0;         // records appended so far
};

// Whoever plays a time-shift recording while it is made, in the recorder's own process. What these
// are called from is stated beside each; they should not take long, for the recording waits.
class TimeshiftObserver {
 public:
  virtual ~TimeshiftObserver() = default;
  // These packets are the next ones of the recording, in the order in which they will be stored;
  // possibly before it has begun. record()'s thread.
  virtual void taken(const uint8_t *packets, size_t count) = 0;
  // The files exist and are open for writing, nothing is stored yet. record()'s thread.
  virtual void began(const std::string &stream_path) = 0;
  // The recording is stored up to this byte, counted from its start. The storing thread.
  virtual void stored(uint64_t bytes) = 0;
  // Nothing more will be stored. Until this returns the stream file stays open, and with it offsets
  // mean what they did; when it is closed, the library counts from the first byte left. record()'s
  // thread; called once when began() was, but not when record() runs out of memory.
  virtual void ended() = 0;
};

// A time-shift recording. Only one at a time in a process: the library keeps one record of what has
// been cut off. On a companion box the cuts are the box's own, and no reserve is kept.
struct Timeshift {
  int64_t max_time_ms = 0;                // 6 to 91 minutes; the library cuts a minute before
  uint64_t reserve = uint64_t{64} << 20;  // bytes of the disk that stay free
  TimeshiftObserver *observer = nullptr;
};

struct Options {
  int program = 0;  // programme number to index; 0: the first one with video
  Layout layout = Layout::kCurrent;
  bool direct = false;     // record: write the stream file past the page cache
  bool overwrite = false;  // record: replace an existing recording instead of refusing
  bool follow = false;     // record: at the end of a file, wait for more until `stop` says so
  double speed = 0;        // record: of the recorded time, 1 is real time; 0: as fast as it goes
  std::optional<Timeshift> timeshift;              // record: only in the current layout
  std::function<void(const Progress &)> progress;  // called about ten times a second, same thread
  const std::atomic<bool> *stop = nullptr;         // becomes true: end the recording cleanly, here
};

struct Summary {
  uint64_t packets = 0;            // of the recording
  uint64_t gops = 0;               // records of the index
  uint32_t duration_ms = 0;        // end time code
  unsigned channels = 0;           // channel records in use
  uint64_t bytes = 0;              // of the stream file
  uint64_t removed = 0;            // of them, cut off at the front (time-shift)
  uint64_t resyncs = 0;            // times the packet grid was lost and found again
  uint64_t continuity_errors = 0;  // on the video PID
  uint64_t discontinuities = 0;    // of the presentation time
  bool disk_full = false;          // the recording ended because the disk takes no more
  std::string note;  // one line about what ended or shortened the work; empty: nothing did
};

struct Outcome {
  bool ok = false;
  std::string error;  // one clear line when ok is false
  Summary summary;
};

// Records `input_fd` (file, pipe, growing file) until its end. The index takes the stream path with
// the extension ".mdb". An existing stream file or index is refused unless `overwrite` is set, and
// even then is not touched before the input has proved to hold video that can be indexed.
Outcome record(int input_fd, const std::string &stream_path, const Options &options);

// Makes the index of `stream_path` anew, in a temporary file that replaces the old index only when
// it is complete.
Outcome rebuild_index(const std::string &stream_path, const Options &options);

// Keeps the records of an existing index that agree with the stream and redoes only what follows
// them. An index that has nothing sound is made anew, as by rebuild_index(). `layout` is used only
// then.
Outcome repair_index(const std::string &stream_path, const Options &options);

}  // namespace plexa::rec

#endif  // PLEXA_RECORDER_RECORDER_H_
