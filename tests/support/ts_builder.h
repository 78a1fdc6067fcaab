// ts_builder.h - transport packets, PES packets and pictures, small enough to read in a test.
// ISO/IEC 13818-1 clause 2.4.3.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace plexa_test {

using Bytes = std::vector<uint8_t>;

inline constexpr size_t kPacketSize = 188;

struct PacketOptions {
  bool unit_start = false;
  bool random_access = false;
  std::optional<uint8_t> adaptation_length = {};  // written as it is, right or wrong
  uint8_t continuity = 0;
  uint8_t scrambling = 0;
};

// One packet. The payload starts behind the header (and the adaptation field); what it leaves free
// is filled by stuffing 0xFF at the packet's end.
Bytes ts_packet(uint16_t pid, const Bytes &payload, const PacketOptions &options = {});

// PES header with a PTS (and header data stuffing up to header_data_length) before the data.
Bytes pes(uint8_t stream_id, const Bytes &data, std::optional<uint64_t> pts = {},
          uint8_t header_data_length = 5);

// A whole PES packet over as many transport packets as it needs, the last one stuffed through its
// adaptation field so that the payload comes out exactly.
Bytes packetise(uint16_t pid, const Bytes &pes_packet, uint8_t first_continuity = 0);

Bytes join(std::initializer_list<Bytes> parts);
Bytes repeat(uint8_t value, size_t count);

// MSB-first bit writer for headers (Exp-Golomb codes of ITU-T H.264 clause 9.1).
class BitWriter {
 public:
  BitWriter &u(int bits, uint32_t value);
  BitWriter &ue(uint32_t value);
  BitWriter &se(int32_t value);
  Bytes bytes() const { return bytes_; }  // the last byte is filled with zero bits

 private:
  Bytes bytes_;
  int used_ = 0;
};

// H.264 NAL units with start code; no emulation prevention needed for these values.
struct SpsOptions {
  uint8_t profile = 77;
  bool frame_mbs_only = true;
  uint32_t log2_max_frame_num_minus4 = 0;
  uint32_t poc_type = 2;
};
Bytes h264_sps(const SpsOptions &options = {});
Bytes h264_slice(uint8_t nal_type, uint32_t frame_num, int frame_num_width,
                 std::optional<bool> field_pic, const Bytes &tail = {});

}  // namespace plexa_test
