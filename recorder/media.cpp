// media.cpp - the transport packet header. ISO/IEC 13818-1 clause 2.4.3. Pure functions.
#include "media.h"

#include <cstring>

namespace plexa::rec {

Payload packet_payload(const uint8_t *packet) {
  const unsigned control = (packet[3] >> 4) & 3u;
  if ((control & 1u) == 0) return {};
  if (control == 1) return {packet + 4, kPacketSize - 4};
  const size_t at = size_t{5} + packet[4];
  if (at >= kPacketSize) return {};
  return {packet + at, kPacketSize - at};
}

bool packet_starts_unit(const uint8_t *packet) { return (packet[1] & 0x40) != 0; }

bool packet_is_damaged(const uint8_t *packet) {
  return packet[0] != kSyncByte || (packet[1] & 0x80) != 0;
}

bool packet_is_scrambled(const uint8_t *packet) { return (packet[3] & 0xc0) != 0; }

unsigned packet_counter(const uint8_t *packet) { return packet[3] & 15u; }

bool packet_may_jump(const uint8_t *packet) {
  const bool has_flags = (packet[3] & 0x20) != 0 && packet[4] > 0;
  return has_flags && (packet[5] & 0x80) != 0;
}

void make_null_packet(uint8_t *packet) {
  constexpr uint8_t kHeader[] = {kSyncByte, kNoPid >> 8, kNoPid & 0xff, 0x10};
  std::memset(packet, 0xff, kPacketSize);
  std::memcpy(packet, kHeader, sizeof kHeader);
}

}  // namespace plexa::rec
