// index_writer.cpp - see index_writer.h. The format: docs/index-file.md. Not thread-safe.
#include "index_writer.h"

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "paths.h"

namespace plexa::rec {
namespace {

template <class T>
std::vector<uint8_t> bytes_of(const T &record) {
  const auto *const first = reinterpret_cast<const uint8_t *>(&record);
  return {first, first + sizeof record};
}

// Readers look for slot n at 232 * n in both layouts, so that is where it goes. In the legacy
// layout a record's reserved end lies under the next record; only its first 232 bytes are written.
int64_t channel_offset(size_t slot) {
  return int64_t{GST_INDEX_BASE_TABLE_SIZE} +
         static_cast<int64_t>(slot * sizeof(pvr_channel_info_s));
}

std::vector<uint8_t> stored_gop(const Gop &gop, Layout layout) {
  std::vector<uint8_t> out = bytes_of(gop_record(gop));
  out.resize(IndexShape(layout).gop_size);  // the layouts agree but for reserved bytes at the end
  return out;
}

}  // namespace

IndexShape::IndexShape(Layout layout)
    : channel_size(layout == Layout::kLegacy ? sizeof(pvr_pelko_channel_info_s)
                                             : sizeof(pvr_channel_info_s)),
      gop_size(layout == Layout::kLegacy ? sizeof(pvr_pelko_gop_info_s) : sizeof(pvr_gop_info_s)),
      gop_start(GST_INDEX_BASE_TABLE_SIZE + GST_INDEX_CHANNEL_SLOTS * channel_size) {}

std::vector<uint8_t> make_index_head(Layout layout) {
  const IndexShape shape(layout);
  pvr_base_table_s base{};
  base.mdb_version = MDB_VERSION;
  base.channel_info_size = shape.channel_size;
  base.gop_start_offset = shape.gop_start;
  std::vector<uint8_t> head = bytes_of(base);
  head.resize(shape.gop_start);
  return head;
}

pvr_gop_info_s gop_record(const Gop &gop) {
  pvr_gop_info_s record{};
  record.pts = gop.pts;
  record.time_code = gop.time;
  record.packet_count = gop.packet;
  record.iframe_size = gop.iframe_packets;
  record.video_pid = gop.video_pid;
  record.last_frame_time = gop.last.time;
  record.last_frame_packet_count = gop.last.packet;
  record.index_of_channel = gop.channel;
  record.exist_seq_header = gop.sequence_header ? 1 : 0;
  record.next_gop_first_time = gop.next_time;
  record.next_gop_first_packet_count = gop.next_packet;
  record.next_gop_pts = gop.next_pts;
  return record;
}

pvr_channel_info_s channel_record(const Channel &channel) {
  pvr_channel_info_s record{};
  record.audio_pid = channel.audio_pid;
  record.video_pid = channel.video_pid;
  record.video_encode_type = static_cast<guint8>(channel.codec);
  record.pcr_pid = channel.pcr_pid;
  return record;
}

Channel channel_from_record(const pvr_channel_info_s &record) {
  Channel channel;
  channel.video_pid = record.video_pid;
  channel.pcr_pid = record.pcr_pid;
  channel.audio_pid = record.audio_pid;
  channel.codec = static_cast<Codec>(record.video_encode_type);
  return channel;
}

std::vector<uint8_t> stored_channel(const Channel &channel, Layout layout) {
  const pvr_channel_info_s current = channel_record(channel);
  if (layout == Layout::kCurrent) return bytes_of(current);
  pvr_pelko_channel_info_s legacy{};
  legacy.audio_pid = current.audio_pid;
  legacy.video_pid = current.video_pid;
  legacy.video_encode_type = current.video_encode_type;
  legacy.pcr_pid = current.pcr_pid;
  std::vector<uint8_t> out = bytes_of(legacy);
  out.resize(sizeof(pvr_channel_info_s));
  return out;
}

bool IndexWriter::begin(const std::string &path, Layout layout) {
  layout_ = layout;
  at_ = 0;
  gops_ = 0;
  end_time_ = 0;
  channels_written_ = 0;
  return file_.open(path, OutputFile::Kind::kIndex, false);
}

bool IndexWriter::create(const std::string &path, Layout layout) {
  return create_from(path, layout, make_index_head(layout), {}, 0);
}

bool IndexWriter::create_from(const std::string &path, Layout layout,
                              const std::vector<uint8_t> &head, const std::vector<uint8_t> &records,
                              size_t channels) {
  if (!begin(path, layout)) return false;
  const size_t gop_size = IndexShape(layout).gop_size;
  std::memcpy(&base_, head.data(), sizeof base_);
  base_.end_time_code = 0;  // readers ask the last record as long as this one grows
  end_ = static_cast<int64_t>(head.size());
  if (!write_at(0, head.data(), head.size())) return false;
  if (!write_at(0, reinterpret_cast<const uint8_t *>(&base_), sizeof base_)) return false;
  channels_written_ = channels;
  if (records.empty()) return true;
  if (!write_at(end_, records.data(), records.size())) return false;
  end_ += static_cast<int64_t>(records.size());
  gops_ = records.size() / gop_size;
  pvr_gop_info_s last{};
  std::memcpy(&last, records.data() + records.size() - gop_size, std::min(gop_size, sizeof last));
  end_time_ = last.next_gop_first_time;
  return true;
}

bool IndexWriter::write_at(int64_t offset, const uint8_t *data, size_t size) {
  if (offset != at_ && !file_.seek(offset)) return false;
  const size_t wrote = file_.write(data, size);
  at_ = offset + static_cast<int64_t>(wrote);
  return wrote == size;
}

bool IndexWriter::write_channels(const std::vector<Channel> &channels, size_t needed) {
  for (; channels_written_ < needed; ++channels_written_) {
    const std::vector<uint8_t> record = stored_channel(channels[channels_written_], layout_);
    if (!write_at(channel_offset(channels_written_), record.data(), record.size())) return false;
  }
  return true;
}

bool IndexWriter::append(const Gop &gop, const std::vector<Channel> &channels) {
  if (!write_channels(channels, size_t{gop.channel} + 1)) return false;
  const std::vector<uint8_t> record = stored_gop(gop, layout_);
  if (!write_at(end_, record.data(), record.size())) return cut_back();
  end_ += static_cast<int64_t>(record.size());
  ++gops_;
  end_time_ = gop.next_time;
  return true;
}

// A part of a record at the end would shift what readers take for the last record.
bool IndexWriter::cut_back() {
  if (!is_box_in_use() && truncate(file_.path().c_str(), static_cast<off_t>(end_)) == 0) at_ = -1;
  return false;
}

bool IndexWriter::finish(uint64_t stream_size) {
  base_.end_time_code = end_time_;
  base_.total_size = stream_size;
  const bool entered = write_at(0, reinterpret_cast<const uint8_t *>(&base_), sizeof base_);
  const bool durable = file_.sync();
  return file_.close() && entered && durable;
}

}  // namespace plexa::rec
