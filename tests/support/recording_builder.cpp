// recording_builder.cpp - see recording_builder.h.
#include "recording_builder.h"

#include "temp_dir.h"

namespace plexa_test {

RecordingBuilder &RecordingBuilder::legacy() {
  legacy_ = true;
  return *this;
}

RecordingBuilder &RecordingBuilder::codec(uint8_t code) {
  codec_ = code;
  return *this;
}

RecordingBuilder &RecordingBuilder::video_pid(uint16_t pid) {
  video_pid_ = pid;
  return *this;
}

RecordingBuilder &RecordingBuilder::finished(bool end_is_known) {
  finished_ = end_is_known;
  return *this;
}

RecordingBuilder &RecordingBuilder::gop(uint32_t milliseconds, const Bytes &iframe,
                                        const Bytes &rest) {
  pvr_gop_info_s record{};
  record.time_code = end_time_;
  record.pts = uint64_t{90} * end_time_;
  record.packet_count = stream_.size() / kPacketSize;
  record.iframe_size = static_cast<uint32_t>(iframe.size() / kPacketSize);
  record.video_pid = video_pid_;
  stream_.insert(stream_.end(), iframe.begin(), iframe.end());
  stream_.insert(stream_.end(), rest.begin(), rest.end());
  end_time_ += milliseconds;
  record.last_frame_time = end_time_;
  record.last_frame_packet_count = stream_.size() / kPacketSize;
  record.video_format = 9;
  record.exist_seq_header = 1;
  record.next_gop_first_time = end_time_;
  record.next_gop_first_packet_count = stream_.size() / kPacketSize;
  record.next_gop_pts = uint64_t{90} * end_time_;
  gops_.push_back(record);
  return *this;
}

RecordingBuilder &RecordingBuilder::change(const std::function<void(pvr_gop_info_s &)> &change) {
  change(gops_.back());
  return *this;
}

IndexBuilder RecordingBuilder::index() const {
  IndexBuilder builder;
  if (legacy_) {
    pvr_pelko_channel_info_s channel{};
    channel.video_pid = video_pid_;
    channel.audio_pid = 0x101;
    channel.pcr_pid = 0x102;
    channel.video_encode_type = codec_;
    builder.legacy().pelko_channel(0, channel);
  } else {
    pvr_channel_info_s channel{};
    channel.video_pid = video_pid_;
    channel.audio_pid = 0x101;
    channel.pcr_pid = 0x102;
    channel.video_encode_type = codec_;
    builder.channel(0, channel);
  }
  for (const pvr_gop_info_s &record : gops_) builder.gop(record);
  const uint32_t end_time = finished_ ? end_time_ : 0;
  builder.base([&](pvr_base_table_s &base) {
    base.end_time_code = end_time;
    base.total_size = stream_.size();
  });
  return builder;
}

void RecordingBuilder::write() const {
  write_file(stream_path(), stream_);
  index().write(index_path());
}

}  // namespace plexa_test
