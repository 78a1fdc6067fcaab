// pes.cpp - see pes.h.
#include "pes.h"

#include <algorithm>

#include "ts_packet.h"

namespace plexa::pvr {

std::vector<uint8_t> pes_packet(std::span<const uint8_t> packets, int pid) {
  std::vector<uint8_t> out;
  for (size_t at = 0; at + TsPacket::kSize <= packets.size(); at += TsPacket::kSize) {
    const TsPacket packet(packets.data() + at);
    if (!packet.in_sync() || packet.pid() != pid) continue;
    if (packet.starts_unit() && at > 0) break;
    const auto payload = packet.payload();
    out.insert(out.end(), payload.begin(), payload.end());
  }
  return out;
}

// The ninth byte of the header counts the rest of the header.
std::span<const uint8_t> elementary_stream(std::span<const uint8_t> pes) {
  constexpr size_t kFixedHeader = 9;
  if (pes.size() < kFixedHeader) return {};
  return pes.subspan(std::min(pes.size(), kFixedHeader + pes[8]));
}

// Clause 2.4.3.7.
std::optional<guint64> pes_pts(std::span<const uint8_t> pes) {
  if (pes.size() < 14 || (pes[7] & 0x80) == 0) return {};
  return (guint64{pes[9]} >> 1 & 7) << 30 | guint64{pes[10]} << 22 | (guint64{pes[11]} >> 1) << 15 |
         guint64{pes[12]} << 7 | guint64{pes[13]} >> 1;
}

bool is_video_pes(std::span<const uint8_t> pes) {
  constexpr uint8_t kExtendedStream = 0xfd;
  return pes.size() >= 9 && pes[0] == 0 && pes[1] == 0 && pes[2] == 1 &&
         ((pes[3] & 0xf0) == 0xe0 || pes[3] == kExtendedStream);
}

}  // namespace plexa::pvr
