// plexa_pvr_support.h - the program plexa-pvr as a child process, and recordings for it to work on.
//
//   const Ended run = pvr({"info", recording.stream});
//   EXPECT_EQ(run.exit_code, 0) << run.err;
//
// Streams come from real encoders (gst-launch-1.0) and are kept in the build folder between runs.
#pragma once

#include <json-glib/json-glib.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "gst-plexa/gst_index_parser.h"

namespace plexa_test {

struct Ended {
  int exit_code = -1;  // -1: it did not end by itself
  int signal = 0;      // that ended it
  std::string out;
  std::string err;
};

struct RunOptions {
  std::string input{};                     // standard input{}; empty: /dev/null
  std::string folder{};                    // working folder
  std::vector<std::string> environment{};  // NAME=VALUE, added to this process's own
  int64_t file_limit = -1;                 // bytes that a file may have: a disk that becomes full
  std::string output{};           // standard output goes to this file instead of Ended::out
  bool obey_permissions = false;  // also when the tests run as root
};

// Any program.
Ended run(const std::vector<std::string> &command, const RunOptions &options = {});
// plexa-pvr with these arguments.
Ended pvr(const std::vector<std::string> &arguments, const RunOptions &options = {});

// plexa-pvr running beside the test: standard input is a pipe, standard error a pipe or a terminal.
class RunningPvr {
 public:
  RunningPvr(const std::vector<std::string> &arguments, bool error_is_terminal = false);
  ~RunningPvr();
  RunningPvr(const RunningPvr &) = delete;
  RunningPvr &operator=(const RunningPvr &) = delete;

  void feed(const std::vector<uint8_t> &data, size_t from, size_t to);
  void close_input();
  void interrupt() const;
  // What standard error has brought so far, after waiting a moment for more.
  const std::string &errors(int milliseconds = 20);
  // Waits for the end, with the input closed or still open.
  Ended finish(bool with_open_input = false);

 private:
  pid_t child_ = -1;
  int input_ = -1;
  int output_ = -1;
  int error_ = -1;
  std::string err_;
};

// A line on standard error and nothing else: "plexa-pvr: " and these words somewhere behind it.
bool complains_once(const Ended &run, const std::string &words);

// Six seconds of moving picture, 320x240, 25 frames a second, an I-frame every 480 ms.
std::string h264_stream();   // with B-frames, and an audio stream
std::string mpeg2_stream();  // open GOPs
std::string h265_stream();
// Ten minutes at 400 kbit/s, most of it null packets: two pictures a second, an I-frame every five.
std::string ten_minutes_stream();

struct RecordingFiles {
  std::string stream;
  std::string index;
};
// Recorded by plexa-pvr.
RecordingFiles record(const std::string &input, const std::string &stream,
                      const std::vector<std::string> &options = {});

// The index's GOP records as they stand in the file (current layout), and a change to one of them.
std::vector<pvr_gop_info_s> gop_records(const std::string &index);
void write_gop(const std::string &index, size_t number, const pvr_gop_info_s &record);
void change_base(const std::string &index, void (*change)(pvr_base_table_s &));
// Bytes of a file in place.
void poke(const std::string &path, int64_t at, const std::vector<uint8_t> &bytes);
void append(const std::string &path, const std::vector<uint8_t> &bytes);
void truncate_to(const std::string &path, int64_t size);
void copy_file(const std::string &from, const std::string &to);
int64_t size_of(const std::string &path);
// A size below a megabyte as the program writes it: "914.4 kB".
std::string kilobytes(int64_t bytes);

// A parsed JSON document; the test fails when the text is none.
class JsonText {
 public:
  explicit JsonText(const std::string &text);
  bool valid() const { return root_ != nullptr; }
  // By path: "bit_rate.mean", "frames.3.time_ms". Missing: a failure of the test, and 0 or "".
  int64_t number(const std::string &path) const;
  std::string text(const std::string &path) const;
  bool flag(const std::string &path) const;
  bool is_null(const std::string &path) const;
  size_t count(const std::string &path) const;  // of an array
  // This member of every element of an array.
  std::vector<int64_t> numbers(const std::string &array, const std::string &member) const;
  std::vector<std::string> texts(const std::string &array, const std::string &member) const;

 private:
  struct Unref {
    void operator()(JsonParser *parser) const { g_object_unref(parser); }
  };
  JsonNode *find(const std::string &path) const;
  std::unique_ptr<JsonParser, Unref> parser_;
  JsonNode *root_ = nullptr;
};

}  // namespace plexa_test
