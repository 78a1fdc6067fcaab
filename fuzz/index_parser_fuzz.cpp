// index_parser_fuzz.cpp - any bytes as an index file, with times, offsets and PTS that come from
// the bytes themselves; and as single records of the legacy layout.
//
// The file is a real one, read through the real layers, in the layout that it claims and in the
// other one, and cut in half under a parser that has it open.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "gst-plexa/gst_index_parser.h"

namespace {

void expect(bool condition) {
  if (!condition) std::abort();
}

// Where a file costs no disk: the library flushes a file to the disk when it closes it.
std::string fast_folder() {
  const char *const memory = "/dev/shm";
  return access(memory, W_OK) == 0 ? memory : std::filesystem::current_path().string();
}

// One file for all inputs; an input replaces its content.
class IndexFile {
 public:
  IndexFile() : fd_(mkostemps(path_.data(), 4, O_CLOEXEC)) { expect(fd_ >= 0); }
  ~IndexFile() {
    close(fd_);
    unlink(path_.c_str());
  }
  IndexFile(const IndexFile &) = delete;
  IndexFile &operator=(const IndexFile &) = delete;

  void hold(const uint8_t *data, size_t size) {
    truncate_to(0);
    expect(pwrite(fd_, data, size, 0) == static_cast<ssize_t>(size));
  }
  void truncate_to(size_t size) { expect(ftruncate(fd_, static_cast<off_t>(size)) == 0); }
  const char *path() const { return path_.c_str(); }

 private:
  std::string path_ = fast_folder() + "/plexa-fuzz-XXXXXX.mdb";
  int fd_;
};

class Parser {
 public:
  Parser(const char *path, bool other_layout) {
    gst_pvr_file_init(&file_);
    expect(gst_pvr_file_open(&file_, path, GST_PVR_FILE_READ, GST_PVR_FILE_BUFFER_IO,
                             GST_PVR_FILE_NORMAL, GST_PVR_FILE_INDEX, 0, 0) >= 0);
    gst_index_parser_init(&parser_, &file_);
    gst_index_parser_set_mdb_file_type(&parser_, path);
    if (other_layout) parser_.is_pelko_mdb = !parser_.is_pelko_mdb;
  }
  ~Parser() {
    gst_index_parser_stop(&parser_);
    gst_pvr_file_close(&file_);
    gst_pvr_file_deinit(&file_);
  }
  Parser(const Parser &) = delete;
  Parser &operator=(const Parser &) = delete;
  GstIndexParser *get() { return &parser_; }

 private:
  GstPvrFile file_{};
  GstIndexParser parser_{};
};

void expect_sound(const GstIndexParser &parser, const frameData &frame) {
  if (!frame.is_valid) {
    expect(frame.stream_offset == G_MAXUINT64 && frame.timecode == G_MAXUINT32);
    return;
  }
  expect(frame.cached_index <= parser.cached_end_index);
  expect(parser.cached_end_index < GST_INDEX_CACHE_GOPS);
}

void ask(GstIndexParser *parser, gint64 number) {
  const gint32 time = static_cast<gint32>(number);
  const gint32 interval = static_cast<gint32>(number >> 32);
  pvr_channel_info_s channel;
  expect_sound(*parser, gst_index_parser_get_iframe_by_time(parser, time, 0));
  expect_sound(*parser, gst_index_parser_get_iframe_by_time(parser, time & 0xffff, interval));
  expect_sound(*parser, gst_index_parser_get_iframe_by_offset(parser, number, 0));
  expect_sound(*parser, gst_index_parser_get_iframe_by_offset(parser, number, interval));
  gst_index_parser_get_time_by_offset(parser, number);
  gst_index_parser_get_estimated_bitrate(parser, time);
  gst_index_parser_get_channel_info_by_time(parser, time, &channel);
  gst_index_parser_get_channel_info_by_index(parser, static_cast<gint16>(number), &channel);
  gst_index_parser_binary_search_by_pts(parser, 0, gst_index_parser_get_max_gop_index(parser) - 1,
                                        static_cast<guint64>(number));
  gst_index_parser_binary_search_by_time(parser, time, interval, time);
  gst_index_parser_binary_search_by_offset(parser, time, interval, number);
  gst_index_parser_read_gop(parser, time);
  expect_sound(*parser, gst_index_parser_get_iframe_by_time(parser, interval, time));
}

std::vector<gint64> numbers_of(const uint8_t *data, size_t size) {
  std::vector<gint64> numbers = {0, -1, 188000, std::numeric_limits<gint64>::max(),
                                 std::numeric_limits<gint64>::min()};
  const size_t own = std::min<size_t>(size / sizeof(gint64), 4);
  for (size_t i = 0; i < own; ++i) {
    gint64 number = 0;
    std::memcpy(&number, data + size - (i + 1) * sizeof number, sizeof number);
    numbers.push_back(number);
  }
  return numbers;
}

void ask_everything(IndexFile &file, const uint8_t *data, size_t size, bool other_layout) {
  Parser parser(file.path(), other_layout);
  gst_index_parser_start(parser.get());
  const std::vector<gint64> numbers = numbers_of(data, size);
  for (const gint64 number : numbers) ask(parser.get(), number);
  gst_index_parser_get_total_time(parser.get());
  gst_index_parser_get_total_size(parser.get());
  file.truncate_to(size / 2);
  for (const gint64 number : numbers) ask(parser.get(), number);
  gst_index_parser_get_total_time(parser.get());
}

// The record in a block of exactly its size, so that one byte too many is seen.
template <class Pelko, class Nolva>
void convert(const uint8_t *data, size_t size, void (*converter)(const Pelko *, Nolva *)) {
  if (size < sizeof(Pelko)) return;
  const auto pelko = std::make_unique<uint8_t[]>(sizeof(Pelko));
  const auto nolva = std::make_unique<Nolva>();
  std::memcpy(pelko.get(), data, sizeof(Pelko));
  converter(reinterpret_cast<const Pelko *>(pelko.get()), nolva.get());
  expect(std::memcmp(pelko.get(), data, sizeof(Pelko)) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static IndexFile file;
  for (const bool other_layout : {false, true}) {
    file.hold(data, size);
    ask_everything(file, data, size, other_layout);
  }
  convert(data, size, gst_index_parser_convert_pelko_gop_info_to_nolva);
  convert(data, size, gst_index_parser_convert_pelko_channel_info_to_nolva);
  return 0;
}
