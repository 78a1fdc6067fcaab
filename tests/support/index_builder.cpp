// index_builder.cpp - see index_builder.h.
#include "index_builder.h"

#include <algorithm>
#include <cstring>

#include "temp_dir.h"

namespace plexa_test {
namespace {

template <class Record>
void put(std::vector<uint8_t> &file, size_t at, const Record &record, size_t size) {
  if (file.size() < at + size) file.resize(at + size);
  std::memcpy(file.data() + at, &record, size);
}

}  // namespace

IndexBuilder::IndexBuilder() {
  std::memset(&base_, 0, sizeof base_);
  base_.mdb_version = MDB_VERSION;
  base_.channel_info_size = sizeof(pvr_channel_info_s);
}

IndexBuilder &IndexBuilder::legacy() {
  legacy_ = true;
  base_.channel_info_size = sizeof(pvr_pelko_channel_info_s);
  return *this;
}

IndexBuilder &IndexBuilder::base(const std::function<void(pvr_base_table_s &)> &change) {
  change(base_);
  return *this;
}

IndexBuilder &IndexBuilder::gop(const pvr_gop_info_s &record) {
  gops_.push_back(record);
  return *this;
}

IndexBuilder &IndexBuilder::gops(int count, uint32_t milliseconds, uint64_t packets) {
  for (int i = 0; i < count; ++i) {
    pvr_gop_info_s record{};
    record.time_code = gops_.empty() ? base_.start_time_code : gops_.back().next_gop_first_time;
    record.packet_count =
        gops_.empty() ? base_.start_packet_count : gops_.back().next_gop_first_packet_count;
    record.pts = uint64_t{90} * record.time_code;
    record.iframe_size = 10;
    record.video_pid = 0x100;
    record.last_frame_time = record.time_code + milliseconds - std::min(40u, milliseconds);
    record.last_frame_packet_count = record.packet_count + packets - 1;
    record.exist_seq_header = 1;
    record.next_gop_first_time = record.time_code + milliseconds;
    record.next_gop_first_packet_count = record.packet_count + packets;
    record.next_gop_pts = uint64_t{90} * record.next_gop_first_time;
    gops_.push_back(record);
  }
  return *this;
}

IndexBuilder &IndexBuilder::channel(uint16_t slot, const pvr_channel_info_s &record) {
  auto &bytes = channels_[slot];
  bytes.resize(sizeof record);
  std::memcpy(bytes.data(), &record, sizeof record);
  return *this;
}

IndexBuilder &IndexBuilder::pelko_channel(uint16_t slot, const pvr_pelko_channel_info_s &record) {
  auto &bytes = channels_[slot];
  bytes.resize(sizeof record);
  std::memcpy(bytes.data(), &record, sizeof record);
  return *this;
}

IndexBuilder &IndexBuilder::gop_start(uint32_t offset) {
  base_.gop_start_offset = offset;
  return *this;
}

std::vector<uint8_t> IndexBuilder::bytes() const {
  std::vector<uint8_t> file;
  put(file, 0, base_, sizeof base_);
  const uint32_t default_start =
      GST_INDEX_BASE_TABLE_SIZE + GST_INDEX_CHANNEL_SLOTS * (legacy_ ? 256u : 232u);
  const size_t start = base_.gop_start_offset != 0 ? base_.gop_start_offset : default_start;
  file.resize(std::max<size_t>(start, file.size()));
  for (const auto &[slot, record] : channels_) {
    const size_t at = GST_INDEX_BASE_TABLE_SIZE + size_t{232} * slot;
    if (file.size() < at + record.size()) file.resize(at + record.size());
    std::copy(record.begin(), record.end(), file.begin() + static_cast<std::ptrdiff_t>(at));
  }
  const size_t size = legacy_ ? sizeof(pvr_pelko_gop_info_s) : sizeof(pvr_gop_info_s);
  for (size_t i = 0; i < gops_.size(); ++i) put(file, start + i * size, gops_[i], size);
  return file;
}

void IndexBuilder::write(const std::string &path) const { write_file(path, bytes()); }

}  // namespace plexa_test
