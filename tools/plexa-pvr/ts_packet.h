// ts_packet.h - one transport packet, looked at without copying. ISO/IEC 13818-1 clause 2.4.3.
//
// The packet's 188 bytes are the caller's. Whatever they hold, no byte outside them is read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace plexa::pvr {

inline constexpr std::uint8_t kSyncByte = 0x47;

class TsPacket {
 public:
  static constexpr size_t kSize = 188;

  explicit TsPacket(const uint8_t *bytes) : bytes_(bytes) {}

  const uint8_t *bytes() const { return bytes_; }
  bool in_sync() const { return bytes_[0] == kSyncByte; }
  int pid() const { return (bytes_[1] & 0x1f) << 8 | bytes_[2]; }
  bool starts_unit() const { return (bytes_[1] & 0x40) != 0; }
  bool is_scrambled() const { return (bytes_[3] & 0xc0) != 0; }

  std::span<const uint8_t> payload() const {
    const bool has_payload = (bytes_[3] & 0x10) != 0;
    const bool has_adaptation = (bytes_[3] & 0x20) != 0;
    const size_t at = has_adaptation ? size_t{5} + bytes_[4] : size_t{4};
    if (!has_payload || at >= kSize) return {};
    return {bytes_ + at, kSize - at};
  }

 private:
  const uint8_t *bytes_;
};

}  // namespace plexa::pvr
