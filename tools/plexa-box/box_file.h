// box_file.h - a file of the box's disk while a client has it open.
//
// The library's handle, with what a client's connection needs beside it: an operation that met a
// cut which takes long is repeated where the protocol has no way to say so, and a time-shift stream
// is opened for one recording at a time, because the library keeps one record of what has been cut
// off. A fourth writer and the 98th reader of a recording are refused before the library sees them.
// One object serves one thread at a time.
#pragma once

#include <chrono>
#include <string>

#include "gst-plexa/gst_file_socket_io.h"
#include "gst-plexa/gst_pvr_file.h"

namespace plexa::box {

// An operation that waited two seconds for a cut, and did nothing.
inline constexpr gint64 kCutHangs = -3;

class BoxFile {
 public:
  explicit BoxFile(std::chrono::seconds patience);
  ~BoxFile();  // closes
  BoxFile(const BoxFile &) = delete;
  BoxFile &operator=(const BoxFile &) = delete;

  // Opens the file for one purpose: a file opened for writing is emptied.
  gint64 open(const std::string &path, const GstSocketOpenFlags &flags, guint8 is_atsc3);
  gint64 close();
  gint64 read(void *buffer, gint64 size);
  gint64 position();
  void step_back(gint64 size);  // or not at all, when there is not so much before the position

  GstPvrFile *get() { return &file_; }
  bool is_open() const { return is_open_; }
  // Written in blocks, the last of a call filled up: past the page cache, or into a stream that is
  // cut.
  bool is_in_blocks() const { return file_.direct_io != 0 || is_timeshift_; }
  // Its front may go between any two operations, and the position with it.
  bool may_be_cut() const { return is_timeshift_; }
  const std::string &path() const { return path_; }

 private:
  template <class Operation>
  gint64 patiently(Operation operation) const;
  bool enter();  // into the account of what is open
  void leave() const noexcept;

  const std::chrono::seconds patience_;
  GstPvrFile file_{};
  std::string path_;       // the library keeps a pointer to it
  std::string recording_;  // the file's, as the library names it
  bool is_open_ = false;
  bool is_reader_ = false;
  bool is_timeshift_ = false;
};

// The bytes of one request, piece by piece, all out of one range. A cut that takes the bytes which
// come next leaves the position behind them; then there is no next piece.
class Pieces {
 public:
  Pieces(BoxFile &file, bool are_several);
  // Bytes read; 0 when the file ends, or where a cut has torn the range.
  gint64 next(void *buffer, gint64 size);

 private:
  BoxFile &file_;
  const bool is_checked_;
  bool is_first_ = true;
  bool is_torn_ = false;
  gint64 expected_ = 0;
};

// False: some client has the file open, or is about to; or it cannot be removed.
bool remove_unless_open(const std::string &path);

}  // namespace plexa::box
