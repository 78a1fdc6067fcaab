// recording_builder.h - a recording for tests: the stream file and its index, GOP by GOP.
//
//   RecordingBuilder(dir.file("rec"))
//       .codec(1)
//       .gop(500, packetise(0x100, pes(0xe0, picture)))   // 500 ms, and the I-frame's packets
//       .write();                                         // rec.kvf and rec.mdb
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "index_builder.h"
#include "ts_builder.h"

namespace plexa_test {

class RecordingBuilder {
 public:
  explicit RecordingBuilder(std::string stem) : stem_(std::move(stem)) {}

  RecordingBuilder &legacy();
  RecordingBuilder &codec(uint8_t code);          // of the channel in slot 0
  RecordingBuilder &video_pid(uint16_t pid);      // of the same; 0x100 otherwise
  RecordingBuilder &finished(bool end_is_known);  // true at first; false: still growing
  // A GOP of the given duration. iframe is whole packets; the GOP's rest follows them.
  RecordingBuilder &gop(uint32_t milliseconds, const Bytes &iframe, const Bytes &rest = {});
  // Changes the record of the last GOP, right or wrong.
  RecordingBuilder &change(const std::function<void(pvr_gop_info_s &)> &change);

  void write() const;

  std::string stream_path() const { return stem_ + ".kvf"; }
  std::string index_path() const { return stem_ + ".mdb"; }
  std::string path(const std::string &extension) const { return stem_ + extension; }

 private:
  IndexBuilder index() const;

  std::string stem_;
  bool legacy_ = false;
  bool finished_ = true;
  uint8_t codec_ = 0;
  uint16_t video_pid_ = 0x100;
  std::vector<pvr_gop_info_s> gops_;
  uint32_t end_time_ = 0;
  Bytes stream_;
};

}  // namespace plexa_test
