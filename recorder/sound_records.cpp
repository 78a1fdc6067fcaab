// sound_records.cpp - see sound_records.h. Not thread-safe.
#include "sound_records.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <istream>
#include <optional>
#include <set>
#include <utility>

#include "stream_scan.h"
#include "video_scanner.h"

namespace plexa::rec {
namespace {

// A picture tells its coding long before this.
constexpr uint64_t kMostPackets = 4096;

// Up to `most` bytes from the stream's position on.
std::vector<uint8_t> read_some(std::istream &in, uint64_t most) {
  constexpr uint64_t kPiece = 1 << 20;  // so that memory follows what is there
  std::vector<uint8_t> out;
  while (in && out.size() < most) {
    const size_t before = out.size();
    const auto wanted = static_cast<size_t>(std::min(kPiece, most - before));
    out.resize(before + wanted);
    in.read(reinterpret_cast<char *>(out.data() + before), static_cast<std::streamsize>(wanted));
    out.resize(before + static_cast<size_t>(in.gcount()));
  }
  return out;
}

bool is_known(Codec codec) {
  return codec == Codec::kMpeg2 || codec == Codec::kH264 || codec == Codec::kH265;
}

// Is this the packet at which a picture of this PID begins?
bool begins_picture(const uint8_t *packet, uint16_t pid) {
  return !packet_is_damaged(packet) && packet_pid(packet) == pid && packet_starts_unit(packet) &&
         !packet_is_scrambled(packet) && packet_payload(packet).size > 0;
}

bool lies_between(uint64_t value, uint64_t first, uint64_t last) {
  return value >= first && value <= last;
}

// The entry picture in the I-frame when it is read in this coding.
std::optional<Frame> entry_picture(Codec codec, const pvr_gop_info_s &gop,
                                   const StreamScan &stream) {
  std::optional<Frame> found;
  VideoScanner scanner(codec, [&](const Frame &frame) {
    if (!found && frame.entry != Entry::kNone) found = frame;
  });
  const uint64_t end = gop.packet_count + std::min<uint64_t>(gop.iframe_size, kMostPackets);
  std::array<uint8_t, kPacketSize> packet{};
  for (uint64_t at = gop.packet_count; at < end && !found; ++at) {
    if (!stream.packet(at, packet.data())) break;
    if (!packet_is_damaged(packet.data()) && packet_pid(packet.data()) == gop.video_pid) {
      scanner.packet(packet.data(), at);
    }
  }
  scanner.finish();
  return found;
}

// A picture that reads in no coding, since its headers came long before, contradicts nothing.
bool contradicts(Codec codec, const pvr_gop_info_s &gop, const StreamScan &stream) {
  if (const auto picture = entry_picture(codec, gop, stream)) {
    return picture->pts && *picture->pts != gop.pts;
  }
  const auto reads_as = [&](Codec other) {
    return other != codec && entry_picture(other, gop, stream).has_value();
  };
  return reads_as(Codec::kMpeg2) || reads_as(Codec::kH264) || reads_as(Codec::kH265);
}

}  // namespace

void SoundRecords::load(const std::string &index_path, const StreamScan &stream) {
  if (!read(index_path, stream.packets())) return;
  const size_t size = IndexShape(layout_).gop_size;
  const uint64_t whole = gops_.size() / size;
  size_t channels = 0;
  std::set<uint16_t> looked_at;
  for (count_ = 0; count_ < whole; ++count_) {
    const pvr_gop_info_s gop = record(count_);
    if (!is_sound(gop, stream)) break;
    if (count_ > 0 && !follows(gop, record(count_ - 1))) break;
    // Of each channel the first picture; the others hang together with it.
    const bool is_new = looked_at.insert(gop.index_of_channel).second;
    if (is_new && contradicts(channel(gop.index_of_channel).codec, gop, stream)) break;
    channels = std::max<size_t>(channels, size_t{gop.index_of_channel} + 1);
  }
  for (unsigned slot = 0; slot < channels; ++slot) channels_.push_back(channel(slot));
  complete_ = count_ > 0 && count_ * size == gops_.size() && agrees_with_base(stream);
}

// A GOP is a packet at least: of a file that goes on behind so many records no more is read than
// shows that it does.
bool SoundRecords::read(const std::string &index_path, uint64_t packets) {
  std::ifstream in(index_path, std::ios::binary);
  if (!in.read(reinterpret_cast<char *>(&base_), sizeof base_)) return false;
  if (base_.mdb_version >> 16 != MDB_VERSION >> 16) return false;
  // A recording that was cut at its front does not begin with the packet that the records count
  // from.
  if (base_.start_packet_count != 0) return false;
  layout_ = base_.channel_info_size == IndexShape(Layout::kLegacy).channel_size ? Layout::kLegacy
                                                                                : Layout::kCurrent;
  const IndexShape shape(layout_);
  if (base_.channel_info_size != shape.channel_size) return false;
  const uint64_t most = packets * shape.gop_size;  // bytes of records
  const uint64_t start = base_.gop_start_offset != 0 ? base_.gop_start_offset : shape.gop_start;
  if (start < shape.gop_start || start > shape.gop_start + most) return false;
  in.seekg(0);
  std::vector<uint8_t> head = read_some(in, start);
  if (head.size() < start) return false;
  head_ = std::move(head);
  gops_ = read_some(in, most + 1);
  return true;
}

pvr_gop_info_s SoundRecords::record(uint64_t number) const {
  const size_t size = IndexShape(layout_).gop_size;
  pvr_gop_info_s gop{};
  std::memcpy(&gop, gops_.data() + number * size, std::min(size, sizeof gop));
  return gop;
}

// Slots lie 232 bytes apart in both layouts. A slot always has a legacy record's length behind it.
Channel SoundRecords::channel(unsigned slot) const {
  const uint8_t *const at =
      head_.data() + GST_INDEX_BASE_TABLE_SIZE + size_t{slot} * sizeof(pvr_channel_info_s);
  pvr_channel_info_s current{};
  if (layout_ == Layout::kCurrent) {
    std::memcpy(&current, at, sizeof current);
  } else {
    pvr_pelko_channel_info_s legacy{};
    std::memcpy(&legacy, at, sizeof legacy);
    gst_index_parser_convert_pelko_channel_info_to_nolva(&legacy, &current);
  }
  return channel_from_record(current);
}

bool SoundRecords::is_sound(const pvr_gop_info_s &gop, const StreamScan &stream) const {
  if (gop.index_of_channel >= GST_INDEX_CHANNEL_SLOTS || gop.video_pid >= kPids) return false;
  const Channel described = channel(gop.index_of_channel);
  if (described.video_pid != gop.video_pid || !is_known(described.codec)) return false;
  const uint64_t packets = stream.packets();
  const bool inside = gop.iframe_size > 0 && gop.packet_count < packets &&
                      gop.iframe_size <= packets - gop.packet_count;
  const bool goes_on =
      gop.next_gop_first_packet_count > gop.packet_count &&
      gop.next_gop_first_packet_count <= packets && gop.next_gop_first_time > gop.time_code &&
      gop.time_code >= base_.start_time_code && gop.time_code <= INT32_MAX &&
      lies_between(gop.last_frame_time, gop.time_code, gop.next_gop_first_time) &&
      lies_between(gop.last_frame_packet_count, gop.packet_count, gop.next_gop_first_packet_count);
  if (!inside || !goes_on) return false;
  std::array<uint8_t, kPacketSize> packet{};
  return stream.packet(gop.packet_count, packet.data()) &&
         begins_picture(packet.data(), gop.video_pid);
}

bool SoundRecords::follows(const pvr_gop_info_s &gop, const pvr_gop_info_s &before) const {
  return gop.packet_count == before.next_gop_first_packet_count &&
         gop.time_code == before.next_gop_first_time && gop.pts == before.next_gop_pts;
}

bool SoundRecords::agrees_with_base(const StreamScan &stream) const {
  const pvr_gop_info_s gop = last();
  return base_.end_time_code == gop.next_gop_first_time &&
         base_.total_size == stream.packets() * kPacketSize &&
         gop.next_gop_first_packet_count == stream.packets();
}

std::vector<uint8_t> SoundRecords::bytes_before_last() const {
  const auto size = static_cast<std::ptrdiff_t>((count_ - 1) * IndexShape(layout_).gop_size);
  return {gops_.begin(), gops_.begin() + size};
}

uint32_t SoundRecords::duration() const {
  return count_ == 0 ? 0 : last().next_gop_first_time - base_.start_time_code;
}

}  // namespace plexa::rec
