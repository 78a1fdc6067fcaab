// gst_index_fixture.h - an index parser on a real file, and on a back-end that a test scripts.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "faults.h"
#include "gst-plexa/gst_index_parser.h"
#include "gst_index_parser_internal.h"
#include "index_builder.h"
#include "log_capture.h"
#include "temp_dir.h"

namespace plexa_test {

// A message as the parser's area has it.
inline std::string par(const std::string &message) { return "[EXT_PAR] " + message; }

// The lines of the parser itself, in order, without those of the layers below.
inline std::vector<std::string> parser_lines() {
  std::vector<std::string> out;
  for (const std::string &message : LogCapture::messages()) {
    if (message.starts_with("[EXT_PAR] ")) out.push_back(message.substr(10));
  }
  return out;
}

// Opens what a builder made through the real layers. Small files: GOPs begin behind the base table
// unless the builder says otherwise.
class IndexFileTest : public ::testing::Test {
 protected:
  ~IndexFileTest() override { close_index(); }

  static IndexBuilder small_index() { return IndexBuilder().gop_start(GST_INDEX_BASE_TABLE_SIZE); }

  const std::string &path() const { return path_; }

  void open_index(const IndexBuilder &index) {
    index.write(path_);
    open_handle();
  }
  void open_handle() {
    gst_pvr_file_init(&file_);
    ASSERT_GE(gst_pvr_file_open(&file_, path_.c_str(), GST_PVR_FILE_READ, GST_PVR_FILE_BUFFER_IO,
                                GST_PVR_FILE_NORMAL, GST_PVR_FILE_INDEX, 0, 0),
              0);
    is_open_ = true;
    gst_index_parser_init(&parser_, &file_);
    gst_index_parser_set_mdb_file_type(&parser_, path_.c_str());
    LogCapture::clear();
  }
  // Opened and started, with an empty log.
  void start_index(const IndexBuilder &index) {
    open_index(index);
    ASSERT_EQ(gst_index_parser_start(&parser_), 1);
    LogCapture::clear();
  }
  void close_index() {
    gst_index_parser_stop(&parser_);
    if (is_open_) gst_pvr_file_close(&file_);
    gst_pvr_file_deinit(&file_);
    is_open_ = false;
  }
  void resize_file(size_t size) {
    std::vector<uint8_t> bytes = read_file(path_);
    bytes.resize(size);
    write_file(path_, bytes);
  }

  TempDir dir_;
  std::string path_ = dir_.file("recording.mdb");
  GstPvrFile file_{};
  bool is_open_ = false;
  GstIndexParser parser_{};
};

// A back-end that answers what the test says: GOPs without number that no file holds, reads that
// deliver more than was asked for, a file that changes under the search.
class ScriptedIndexTest : public ::testing::Test {
 protected:
  ScriptedIndexTest() {
    self() = this;
    gst_pvr_file_init(&file_);
    file_.ops.seek = [](GstPvrFile *, gint64 offset, gint32) { return self()->do_seek(offset); };
    file_.ops.read = [](GstPvrFile *, void *buffer, gint64 size) {
      return self()->do_read(buffer, size);
    };
    file_.ops.size = [](GstPvrFile *) { return self()->do_size(); };
    gst_index_parser_init(&parser_, &file_);
    parser_.base_table_size = GST_INDEX_BASE_TABLE_SIZE;
    parser_.channel_info_size = sizeof(pvr_channel_info_s);
    parser_.gop_info_size = sizeof(pvr_gop_info_s);
    parser_.gop_start_offset = GST_INDEX_BASE_TABLE_SIZE;
    LogCapture::clear();
  }
  ~ScriptedIndexTest() override {
    gst_index_parser_stop(&parser_);
    gst_pvr_file_deinit(&file_);
  }

  // The parser as start leaves it, on a file of this many GOPs; nothing loaded yet.
  void begin(gint64 gops) {
    gops_ = gops;
    ASSERT_EQ(gst_index_parser_cache_initial_gop(&parser_, 1), 0);
    parser_.is_started = TRUE;
    LogCapture::clear();
  }

  // GOP k: 500 ms, 1000 packets.
  static pvr_gop_info_s even_gop(gint64 k) {
    pvr_gop_info_s gop{};
    gop.time_code = static_cast<guint32>(k * 500);
    gop.pts = static_cast<guint64>(k) * 45000;
    gop.packet_count = static_cast<guint64>(k) * 1000;
    gop.next_gop_first_time = gop.time_code + 500;
    gop.next_gop_first_packet_count = gop.packet_count + 1000;
    return gop;
  }

  GstPvrFile file_{};
  GstIndexParser parser_{};
  gint64 gops_ = 0;
  std::function<pvr_gop_info_s(gint64)> gop_ = even_gop;
  // How many records a read that begins at this GOP delivers; negative: the read fails so.
  std::function<gint64(gint64)> records_ = [this](gint64 first) {
    return std::min<gint64>(32, gops_ - first);
  };
  std::function<gint64(void *, gint64)> read_;  // instead of records
  std::function<gint64()> size_ = [this] {
    return GST_INDEX_BASE_TABLE_SIZE + gops_ * gint64{sizeof(pvr_gop_info_s)};
  };
  gint64 position_ = 0;
  gint64 seek_result_ = 0;  // negative: seeks fail so
  int seeks_ = 0;
  int reads_ = 0;
  int sizes_ = 0;

 private:
  static ScriptedIndexTest *&self() {
    static ScriptedIndexTest *test;
    return test;
  }
  gint64 do_seek(gint64 offset) {
    ++seeks_;
    position_ = offset;
    return seek_result_ < 0 ? seek_result_ : offset;
  }
  gint64 do_read(void *buffer, gint64 size) {
    ++reads_;
    if (read_) return read_(buffer, size);
    const gint64 first = (position_ - GST_INDEX_BASE_TABLE_SIZE) / gint64{sizeof(pvr_gop_info_s)};
    const gint64 count = records_(first);
    if (count < 0) return count;
    for (gint64 i = 0; i < std::min(count, size / gint64{sizeof(pvr_gop_info_s)}); ++i) {
      const pvr_gop_info_s gop = gop_(first + i);
      std::memcpy(static_cast<guint8 *>(buffer) + i * gint64{sizeof gop}, &gop, sizeof gop);
    }
    return count * gint64{sizeof(pvr_gop_info_s)};
  }
  gint64 do_size() {
    ++sizes_;
    return size_();
  }
};

}  // namespace plexa_test
