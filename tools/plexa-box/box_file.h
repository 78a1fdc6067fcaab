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

  GstPvrFile *get() { return &file_; }
  bool is_open() const { return is_open_; }
  // Written in blocks, the last of a call filled up: past the page cache, or into a stream that is
  // cut.
  bool is_in_blocks() const { return file_.direct_io != 0 || is_timeshift_; }
  const std::string &path() const { return path_; }

 private:
  template <class Operation>
  gint64 patiently(Operation operation) const;
  bool enter() const;  // into the account of what is open
  void leave() const;

  const std::chrono::seconds patience_;
  GstPvrFile file_{};
  std::string path_;  // the library keeps a pointer to it
  bool is_open_ = false;
  bool is_reader_ = false;
  bool is_timeshift_ = false;
};

// True when some client has the file open.
bool is_in_use(const std::string &path);

}  // namespace plexa::box
