// ts_builder.cpp - see ts_builder.h.
#include "ts_builder.h"

#include <algorithm>

namespace plexa_test {

Bytes ts_packet(uint16_t pid, const Bytes &payload, const PacketOptions &options) {
  Bytes packet(kPacketSize, 0xff);
  packet[0] = 0x47;
  packet[1] = static_cast<uint8_t>((options.unit_start ? 0x40 : 0) | (pid >> 8));
  packet[2] = static_cast<uint8_t>(pid);
  packet[3] =
      static_cast<uint8_t>((options.scrambling << 6) | (options.adaptation_length ? 0x30 : 0x10) |
                           (options.continuity & 15));
  size_t at = 4;
  if (options.adaptation_length) {
    packet[4] = *options.adaptation_length;
    if (*options.adaptation_length > 0) packet[5] = options.random_access ? 0x40 : 0x00;
    at = std::min<size_t>(kPacketSize, 5u + *options.adaptation_length);
  }
  const size_t size = std::min(payload.size(), kPacketSize - at);
  std::copy_n(payload.begin(), size, packet.begin() + static_cast<std::ptrdiff_t>(at));
  return packet;
}

Bytes pes(uint8_t stream_id, const Bytes &data, std::optional<uint64_t> pts,
          uint8_t header_data_length) {
  Bytes out = {
      0, 0, 1, stream_id, 0, 0, 0x80, static_cast<uint8_t>(pts ? 0x80 : 0), header_data_length};
  Bytes header(header_data_length, 0xff);
  if (pts && header_data_length >= 5) {
    const uint64_t t = *pts;
    header[0] = static_cast<uint8_t>(0x21 | ((t >> 29) & 0x0e));
    header[1] = static_cast<uint8_t>(t >> 22);
    header[2] = static_cast<uint8_t>(((t >> 14) & 0xfe) | 1);
    header[3] = static_cast<uint8_t>(t >> 7);
    header[4] = static_cast<uint8_t>(((t << 1) & 0xfe) | 1);
  }
  out.insert(out.end(), header.begin(), header.end());
  out.insert(out.end(), data.begin(), data.end());
  return out;
}

Bytes packetise(uint16_t pid, const Bytes &pes_packet, uint8_t first_continuity) {
  Bytes out;
  uint8_t continuity = first_continuity;
  for (size_t at = 0; at < pes_packet.size(); ++continuity) {
    PacketOptions options;
    options.unit_start = at == 0;
    options.continuity = continuity;
    const size_t left = pes_packet.size() - at;
    size_t room = kPacketSize - 4;
    if (left < room) {
      options.adaptation_length = static_cast<uint8_t>(room - left - 1);
      room = left;
    }
    const auto from = pes_packet.begin() + static_cast<std::ptrdiff_t>(at);
    const Bytes packet =
        ts_packet(pid, Bytes(from, from + static_cast<std::ptrdiff_t>(room)), options);
    out.insert(out.end(), packet.begin(), packet.end());
    at += room;
  }
  return out;
}

Bytes join(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes &part : parts) out.insert(out.end(), part.begin(), part.end());
  return out;
}

Bytes repeat(uint8_t value, size_t count) { return Bytes(count, value); }

BitWriter &BitWriter::u(int bits, uint32_t value) {
  for (int i = bits - 1; i >= 0; --i) {
    if (used_ % 8 == 0) bytes_.push_back(0);
    if (((value >> i) & 1u) != 0) bytes_.back() |= static_cast<uint8_t>(0x80 >> (used_ % 8));
    ++used_;
  }
  return *this;
}

BitWriter &BitWriter::ue(uint32_t value) {
  const uint64_t code = uint64_t{value} + 1;
  int length = 0;
  while ((code >> length) > 1) ++length;
  u(length, 0);
  u(1, 1);
  return u(length, static_cast<uint32_t>(code - (uint64_t{1} << length)));
}

BitWriter &BitWriter::se(int32_t value) {
  return ue(value > 0 ? static_cast<uint32_t>(value) * 2 - 1
                      : static_cast<uint32_t>(-static_cast<int64_t>(value)) * 2);
}

Bytes h264_sps(const SpsOptions &options) {
  BitWriter bits;
  bits.u(8, options.profile).u(4, 0).u(4, 0).u(8, 30).ue(0);
  if (options.profile == 100 || options.profile == 110 || options.profile == 122 ||
      options.profile == 144) {
    bits.ue(1).ue(0).ue(0).u(1, 0).u(1, 0);
  }
  bits.ue(options.log2_max_frame_num_minus4).ue(options.poc_type);
  if (options.poc_type == 0) bits.ue(0);
  bits.ue(1).u(1, 0).ue(44).ue(17).u(1, options.frame_mbs_only ? 1 : 0).u(1, 1).u(8, 0xff);
  return join({{0, 0, 1, 0x67}, bits.bytes()});
}

Bytes h264_slice(uint8_t nal_type, uint32_t frame_num, int frame_num_width,
                 std::optional<bool> field_pic, const Bytes &tail) {
  BitWriter bits;
  bits.ue(0).ue(7).ue(0).u(frame_num_width, frame_num);
  if (field_pic) bits.u(1, *field_pic ? 1 : 0);
  bits.u(8, 0xff);
  return join({{0, 0, 1, static_cast<uint8_t>(0x60 | nal_type)}, bits.bytes(), tail});
}

}  // namespace plexa_test
