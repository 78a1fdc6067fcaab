// timeshift_file.h - the stream file of a time-shift recording, through the library's file handle.
//
// The library cuts the file at its front while it is written and read. Here are the writer's
// duties: the recorded time goes before every write, an operation that met a cut which hangs is
// repeated for half a minute, and short writes are completed. Offsets are counted from the
// recording's start, whatever has been cut off. One object serves one thread at a time.
#ifndef PLEXA_RECORDER_TIMESHIFT_FILE_H_
#define PLEXA_RECORDER_TIMESHIFT_FILE_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "gst-plexa/gst_cut_buffer_mgr.h"
#include "gst-plexa/gst_pvr_file.h"

namespace plexa::rec {

class TimeshiftFile {
 public:
  static constexpr size_t kBlock = 4096;  // addresses and sizes of writes are multiples

  TimeshiftFile();
  ~TimeshiftFile();
  TimeshiftFile(const TimeshiftFile &) = delete;
  TimeshiftFile &operator=(const TimeshiftFile &) = delete;

  // Opens the file and empties it. False: error().
  bool open(const std::string &path);
  // The most that the file is to hold, in milliseconds. False: the library refuses it.
  bool set_max_time(int64_t milliseconds);
  // Writes at the end. `time`: recorded time up to which the index describes the recording. Bytes
  // written; fewer than `size`: error() says why.
  size_t write(const uint8_t *data, size_t size, uint32_t time);
  // Keeps `span` milliseconds from now on and has the next write cut off what is older. Between
  // writes only. False: this is not possible.
  bool shorten(int32_t span, uint32_t time);
  // Waits for a cut that is going on, but not for ever. False: it is still going on.
  bool wait_for_cut() const;
  // When a cut hangs for too long the handle is left to it, open.
  bool close();

  bool is_open() const { return open_; }
  // When the file was closed, the library had given up cutting it. A box does not tell.
  bool has_stopped_cutting() const { return has_stopped_cutting_; }
  int64_t removed() const;       // bytes cut off so far
  int32_t removed_time() const;  // milliseconds cut off so far
  int error() const { return error_; }
  const std::string &path() const { return handle_->path; }

 private:
  struct Handle {
    GstPvrFile file{};
    std::string path;  // the file keeps a pointer to it
  };

  GstCutBufferMgr *manager() const;
  bool is_cutting(gint32 key) const;
  bool fail(gint64 result);

  std::unique_ptr<Handle> handle_;
  bool open_ = false;
  bool has_stopped_cutting_ = false;
  int error_ = 0;
};

}  // namespace plexa::rec

#endif  // PLEXA_RECORDER_TIMESHIFT_FILE_H_
