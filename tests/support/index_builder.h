// index_builder.h - ".mdb" files for tests, current and legacy layout.
//
//   IndexBuilder().gops(10, 500, 1000).write(path);   // ten GOPs, 500 ms and 1000 packets each
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "gst-plexa/gst_index_parser.h"

namespace plexa_test {

class IndexBuilder {
 public:
  IndexBuilder();

  IndexBuilder &legacy();  // 256-byte channel records, 100-byte GOP records
  IndexBuilder &base(const std::function<void(pvr_base_table_s &)> &change);
  // A GOP in full; the next_gop_* fields are taken as they are.
  IndexBuilder &gop(const pvr_gop_info_s &record);
  // A run of equal GOPs that goes on where the last one ended. PTS = 90 * time, I-frame = 10
  // packets.
  IndexBuilder &gops(int count, uint32_t milliseconds, uint64_t packets);
  IndexBuilder &channel(uint16_t slot, const pvr_channel_info_s &record);
  IndexBuilder &pelko_channel(uint16_t slot, const pvr_pelko_channel_info_s &record);
  // GOP records begin here, and the base table says so; 0: right behind the channel-info area.
  IndexBuilder &gop_start(uint32_t offset);

  std::vector<uint8_t> bytes() const;
  void write(const std::string &path) const;

 private:
  pvr_base_table_s base_;
  bool legacy_ = false;
  std::vector<pvr_gop_info_s> gops_;
  std::map<uint16_t, std::vector<uint8_t>> channels_;  // position in file: 4088 + 232 * slot
};

}  // namespace plexa_test
