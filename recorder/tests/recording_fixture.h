// recording_fixture.h - records into a temporary folder and looks at what came out.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "faults.h"
#include "gst-plexa/gst_index_parser.h"
#include "log_capture.h"
#include "recorder.h"
#include "temp_dir.h"
#include "test_stream.h"

namespace plexa_test {

using plexa::rec::Layout;
using plexa::rec::Options;
using plexa::rec::Outcome;

// An index file as it stands, read without the library.
struct IndexFile {
  pvr_base_table_s base{};
  std::vector<pvr_gop_info_s> gops;  // legacy ones lack the reserved end
  size_t torn_bytes = 0;             // behind the last whole record
  bool legacy = false;

  static IndexFile read(const std::string &path);
};

// What must hold for a recording at every moment, whatever stopped it. `whole`: it was completed.
::testing::AssertionResult is_usable(const std::string &stream, bool whole = true);

// Every GOP is found by the library's lookups, by time and by offset, and at the place that they
// name stands a packet of the video PID at which a PES packet begins.
::testing::AssertionResult lookups_find_every_gop(const std::string &stream);

class RecordingTest : public ::testing::Test {
 protected:
  std::string stream() const { return dir_.file("rec.kvf"); }
  std::string index() const { return dir_.file("rec.mdb"); }
  std::string input() const { return dir_.file("input.ts"); }

  // Records these bytes as they come out of a file.
  Outcome record(const Bytes &bytes, const Options &options = {});
  // Records what a pipe gives, `piece` bytes at a time.
  Outcome record_pipe(const Bytes &bytes, size_t piece, const Options &options = {});

  IndexFile index_file() const { return IndexFile::read(index()); }
  std::vector<std::string> files() const;  // in the folder, but for the input
  void remove_recording();

  TempDir dir_;
};

// Opens a file for reading for as long as it is in scope.
class OpenFile {
 public:
  explicit OpenFile(const std::string &path);
  ~OpenFile();
  OpenFile(const OpenFile &) = delete;
  OpenFile &operator=(const OpenFile &) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

}  // namespace plexa_test
