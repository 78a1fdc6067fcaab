// packet_grid.cpp - see packet_grid.h. Not thread-safe.
#include "packet_grid.h"

#include <cstring>

namespace plexa::rec {
namespace {

constexpr size_t kStampedStride = 192;
constexpr size_t kStampSize = 4;
constexpr size_t kStrides[] = {188, kStampedStride, 204};

}  // namespace

struct PacketGrid::Scan {
  uint8_t *data;
  size_t size;
  bool at_end;
  size_t at = 0;  // what lies before is done with
  Packets out = {};

  bool sync(size_t position) const { return position < size && data[position] == kSyncByte; }

  // The packet at `position` belongs to the recording. Packets kept before it lie in front of it.
  void keep(size_t position) {
    if (out.count == 0) out.data = data + position;
    uint8_t *const place = out.data + out.count * kPacketSize;
    if (place != data + position) std::memmove(place, data + position, kPacketSize);
    ++out.count;
  }
};

PacketGrid::Packets PacketGrid::scan(uint8_t *data, size_t size, bool at_end) {
  Scan scan{data, size, at_end};
  for (;;) {
    if (!in_step_ && search(scan) != Fit::kYes) break;
    if (!follow(scan) || !step_over(scan)) break;
  }
  scan.out.consumed = at_end ? size : scan.at;
  return scan.out;
}

// Do packets with this distance begin here? At the end of the data fewer of them must do.
PacketGrid::Fit PacketGrid::fits(const Scan &scan, size_t at, size_t stride) const {
  size_t seen = 0;
  while (seen < kConfirm && at + seen * stride < scan.size) {
    if (!scan.sync(at + seen * stride)) return Fit::kNo;
    ++seen;
  }
  if (seen == kConfirm) return Fit::kYes;
  if (!scan.at_end) return Fit::kNeedMore;
  if (at + kPacketSize > scan.size) return Fit::kNo;
  const bool ends_the_data = at + kPacketSize == scan.size || at + stride == scan.size;
  const bool is_all_there_is = stride_ == 0 && at == 0;
  return seen > 1 || ends_the_data || is_all_there_is ? Fit::kYes : Fit::kNo;
}

PacketGrid::Fit PacketGrid::fits_any(const Scan &scan, size_t at) {
  const size_t usual = stride_ != 0 ? stride_ : kPacketSize;
  Fit best = fits(scan, at, usual);
  if (best == Fit::kYes) {
    stride_ = usual;
    return best;
  }
  for (const size_t stride : kStrides) {
    const Fit fit = fits(scan, at, stride);
    if (fit == Fit::kNeedMore) best = fit;
    if (fit != Fit::kYes) continue;
    stride_ = stride;
    return fit;
  }
  return best;
}

// Looks for packets from scan.at on and leaves it where they begin, or may begin.
PacketGrid::Fit PacketGrid::search(Scan &scan) {
  while (scan.at < scan.size) {
    const void *const found = std::memchr(scan.data + scan.at, kSyncByte, scan.size - scan.at);
    if (found == nullptr) break;
    scan.at = static_cast<size_t>(static_cast<const uint8_t *>(found) - scan.data);
    const size_t before = stride_;
    Fit fit = fits_any(scan, scan.at);
    if (fit == Fit::kYes && stride_ == kStampedStride) {
      // A time stamp in front of every packet may begin with a sync byte for a while, too.
      const Fit behind_stamp = fits(scan, scan.at + kStampSize, stride_);
      if (behind_stamp == Fit::kYes) scan.at += kStampSize;
      if (behind_stamp == Fit::kNeedMore) fit = behind_stamp;
    }
    in_step_ = fit == Fit::kYes;
    if (!in_step_) stride_ = before;
    if (fit != Fit::kNo) return fit;
    ++scan.at;
  }
  scan.at = scan.size;
  return Fit::kNeedMore;
}

// Keeps packets while the next one begins where it should. False: the data is used up; true: the
// packet at scan.at is not followed by another.
bool PacketGrid::follow(Scan &scan) {
  while (scan.at + stride_ < scan.size) {
    if (scan.data[scan.at + stride_] != kSyncByte) return true;
    scan.keep(scan.at);
    scan.at += stride_;
  }
  if (scan.at_end && scan.at + kPacketSize <= scan.size) scan.keep(scan.at);
  return false;
}

// The packet at scan.at has a sync byte, the one behind it has not: either that byte is damaged, or
// something else stands between the two, or bytes of the first are missing. False: more data is
// needed to tell.
bool PacketGrid::step_over(Scan &scan) {
  const size_t last_good = scan.at;
  const Fit same_grid = fits(scan, last_good + 2 * stride_, stride_);
  if (same_grid == Fit::kNeedMore) return false;
  ++resyncs_;
  if (same_grid == Fit::kYes) {
    scan.keep(last_good);
    scan.at = last_good + 2 * stride_;
    return true;
  }
  scan.at = last_good + 1;
  in_step_ = false;
  const Fit other = search(scan);
  if (other == Fit::kNeedMore && scan.at < last_good + kPacketSize && !scan.at_end) {
    // Whether the packet is whole cannot be told yet: come back to it with more data.
    scan.at = last_good;
    in_step_ = true;
    --resyncs_;
    return false;
  }
  if (scan.at >= last_good + kPacketSize) scan.keep(last_good);
  return other == Fit::kYes;
}

}  // namespace plexa::rec
