// gop_match.cpp - see gop_match.h.
#include "gop_match.h"

#include <array>

#include "pes.h"
#include "ts_packet.h"

namespace plexa::pvr {
namespace {

// The header of the PES packet ends within this many packets, foreign ones included.
constexpr gint64 kLook = 32;

// When several pictures lie in the PES packet, the header's time stamp is that of the first one and
// the record's that of the I-frame, at most this far from it.
constexpr guint64 kNear = 90000;
constexpr guint64 kPtsMask = (guint64{1} << 33) - 1;

bool is_near(guint64 a, guint64 b) {
  const guint64 distance = (a - b) & kPtsMask;
  return distance <= kNear || distance >= kPtsMask + 1 - kNear;
}

}  // namespace

GopMatch match_gop(PvrFile &stream, gint64 offset, const pvr_gop_info_s &gop) {
  std::array<uint8_t, kLook * kPacketSize> buffer;
  if (offset < 0) return GopMatch::kNo;
  // One packet decides nearly always.
  if (stream.read_at(offset, buffer.data(), kPacketSize) < kPacketSize) return GopMatch::kNo;
  const TsPacket packet(buffer.data());
  if (!packet.in_sync() || packet.pid() != gop.video_pid || !packet.starts_unit() ||
      packet.is_scrambled()) {
    return GopMatch::kNo;
  }
  const gint64 got = stream.read_at(offset, buffer.data(), gint64{sizeof buffer});
  const auto pes = pes_packet(std::span(buffer).first(static_cast<size_t>(got)), gop.video_pid);
  if (!is_video_pes(pes)) return GopMatch::kNo;
  const auto pts = pes_pts(pes);
  if (!pts) return GopMatch::kPossible;
  if (*pts == gop.pts) return GopMatch::kYes;
  return is_near(*pts, gop.pts) ? GopMatch::kPossible : GopMatch::kNo;
}

}  // namespace plexa::pvr
