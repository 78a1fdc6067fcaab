// recorder_fuzz.cpp - any bytes as the input of a recording.
//
// The first two bytes choose the programme and the size of the pieces in which the input comes; the
// rest goes the recorder's way up to where files begin: packets are found, a programme is chosen,
// GOPs are made. What comes out must be fit for an index: linked, rising, inside the recording.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "packet_grid.h"
#include "probe.h"
#include "sanitizer_options.h"
#include "session.h"
#include "stream_indexer.h"

namespace {

using plexa::rec::Gop;
using plexa::rec::kPacketSize;

constexpr size_t kSelectors = 2;

void require(bool holds) {
  if (!holds) std::abort();
}

// The packets of the input, 188 bytes each.
std::vector<uint8_t> find_packets(const uint8_t *data, size_t size, size_t piece) {
  plexa::rec::PacketGrid grid;
  std::vector<uint8_t> out;
  std::vector<uint8_t> kept;
  for (size_t at = 0;; at += piece) {
    const size_t part = at < size ? std::min(piece, size - at) : 0;
    const size_t whole = kept.size() + part;
    const auto block = std::make_unique<uint8_t[]>(whole);  // exactly as large as it says
    std::copy(kept.begin(), kept.end(), block.get());
    if (part > 0) std::memcpy(block.get() + kept.size(), data + at, part);
    const auto found = grid.scan(block.get(), whole, part == 0);
    require(found.consumed <= whole);
    out.insert(out.end(), found.data, found.data + found.count * kPacketSize);
    kept.assign(block.get() + found.consumed, block.get() + whole);
    require(kept.size() <= plexa::rec::PacketGrid::kMostKept);
    if (part == 0) return out;
  }
}

void check_gop(const Gop &gop, const std::optional<Gop> &before, uint64_t packets,
               size_t channels) {
  require(gop.iframe_packets > 0 && gop.packet + gop.iframe_packets <= packets);
  require(gop.next_packet > gop.packet && gop.next_packet <= packets);
  require(gop.next_time > gop.time && gop.next_time <= INT32_MAX);
  require(gop.last.time >= gop.time && gop.last.time <= gop.next_time);
  require(gop.channel < channels && gop.unsettled.empty());
  if (!before) return require(gop.time == 0);
  require(before->next_packet == gop.packet && before->next_time == gop.time);
  require(before->next_pts == gop.pts);
}

void check_gops(plexa::rec::StreamIndexer &indexer, uint64_t packets) {
  std::optional<Gop> before;
  while (std::optional<Gop> gop = indexer.gops().take(packets)) {
    check_gop(*gop, before, packets, indexer.channels().size());
    before = gop;
  }
  require(!indexer.gops().has_gop());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < kSelectors || !plexa::rec::prepare_gstreamer()) return 0;
  const int programme = data[0];
  const size_t piece = size_t{data[1]} * 16 + 1;
  const std::vector<uint8_t> packets = find_packets(data + kSelectors, size - kSelectors, piece);
  const size_t count = packets.size() / kPacketSize;

  plexa::rec::Probe probe(programme);
  probe.packets(packets.data(), count);
  if (!probe.finish()) {
    require(!probe.refusal(nullptr).empty());
    return 0;
  }
  plexa::rec::StreamIndexer indexer(probe.start());
  indexer.packets(packets.data(), count, 0);
  indexer.finish(count);
  require(!probe.refusal(&indexer).empty());
  // A disk that ran full half-way, now and then.
  const uint64_t stored = data[1] % 3 == 0 ? count / 2 : count;
  indexer.gops().truncate(stored);
  check_gops(indexer, stored);
  return 0;
}
