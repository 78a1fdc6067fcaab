// gop_builder.cpp - see gop_builder.h. Not thread-safe.
#include "gop_builder.h"

#include <algorithm>
#include <utility>

namespace plexa::rec {
namespace {

// Streams differ in the best entry that they offer. A lesser one counts only when none better has
// been seen for this many frames, so that an I-picture in the middle of a GOP does not split it.
constexpr uint64_t kPatience = 300;
constexpr int64_t kLastTime = INT32_MAX;                       // readers take times as signed
constexpr uint64_t kLargestPicture = INT32_MAX / kPacketSize;  // and lengths in bytes, too

const Gop::Mark &later(const Gop::Mark &a, const Gop::Mark &b) { return b.time >= a.time ? b : a; }

// Folds the frames that lie within the first `packets` packets into the GOP's last frame.
void settle_gop(Gop &gop, uint64_t packets) {
  std::erase_if(gop.unsettled, [&](const Gop::Mark &mark) {
    if (mark.last_packet >= packets) return false;
    gop.last = later(gop.last, mark);
    return true;
  });
}

}  // namespace

uint32_t GopBuilder::milliseconds(int64_t ticks) {
  // Leading pictures of the first GOP come out before it; the recording begins with its I-picture.
  const int64_t time = std::max<int64_t>(ticks, 0) / kTicksPerMs + origin_;
  if (time > kLastTime) full_ = true;
  return static_cast<uint32_t>(std::min(time, kLastTime));
}

bool GopBuilder::begins_gop(const Frame &frame) {
  bool begins = false;
  switch (frame.entry) {
    case Entry::kClean:
      begins = true;
      since_clean_ = 0;
      break;
    case Entry::kIntra:
      begins = since_clean_ >= kPatience;
      since_intra_ = 0;
      break;
    case Entry::kGradual:
      begins = std::min(since_clean_, since_intra_) >= kPatience;
      break;
    case Entry::kNone:
      break;
  }
  if (frame.entry != Entry::kClean) ++since_clean_;
  if (frame.entry != Entry::kIntra && frame.entry != Entry::kClean) ++since_intra_;
  if (!open_) return begins;
  // Readers find a GOP by its PES packet, so the second one in a PES packet cannot be told apart;
  // and they want its picture whole.
  return begins && frame.pes_packet > open_->packet && !frame.cut_off;
}

void GopBuilder::new_video() {
  since_clean_ = kLongAgo;
  since_intra_ = 0;
}

void GopBuilder::frame(const Frame &frame, uint16_t channel, uint16_t video_pid) {
  const bool begins = begins_gop(frame);
  if (full_ || (!begins && !open_)) return;
  const Timeline::Place place = timeline_.place(frame, begins);
  uint32_t time = milliseconds(place.time);
  if (begins && open_) time = std::max(time, open_->time + 1);
  const uint32_t end_time = std::max(milliseconds(place.time + place.duration), time + 1);
  if (full_) return;
  reached_ = std::max(reached_, end_time);
  if (begins) {
    close(time, frame.pes_packet, place.pts);
    open_ = Gop{};
    open_->pts = place.pts;
    open_->time = time;
    open_->packet = frame.pes_packet;
    open_->iframe_packets =
        static_cast<uint32_t>(std::min(frame.last_packet - frame.pes_packet + 1, kLargestPicture));
    open_->video_pid = video_pid;
    open_->channel = channel;
    open_->sequence_header = frame.sequence_header;
    open_->last = {time, end_time, frame.pes_packet, frame.last_packet};
    return;
  }
  open_->unsettled.push_back({time, end_time, frame.pes_packet, frame.last_packet});
}

void GopBuilder::close(uint32_t time, uint64_t packet, uint64_t pts) {
  if (!open_) return;
  Gop gop = *std::exchange(open_, std::nullopt);
  gop.next_time = time;
  gop.next_packet = packet;
  gop.next_pts = pts;
  complete_.push_back(std::move(gop));
}

void GopBuilder::close_at_end(Gop gop, uint64_t packets) {
  Gop::Mark last = gop.last;
  for (const Gop::Mark &mark : gop.unsettled) last = later(last, mark);
  gop.next_time = std::max(last.end_time, gop.time + 1);
  gop.next_packet = packets;
  gop.next_pts = (gop.pts + uint64_t{gop.next_time - gop.time} * kTicksPerMs) % kPtsRange;
  complete_.push_back(std::move(gop));
}

void GopBuilder::finish(uint64_t packets) {
  if (open_) close_at_end(*std::exchange(open_, std::nullopt), packets);
}

void GopBuilder::settle(uint64_t packets) {
  for (Gop &gop : complete_) settle_gop(gop, packets);
  if (open_) settle_gop(*open_, packets);
}

void GopBuilder::truncate(uint64_t packets) {
  if (open_) complete_.push_back(*std::exchange(open_, std::nullopt));
  std::deque<Gop> gops = std::exchange(complete_, {});
  for (Gop &gop : gops) {
    if (gop.packet + gop.iframe_packets > packets) return;
    const bool whole = gop.next_packet != 0 && gop.next_packet <= packets;
    if (!whole) {
      settle_gop(gop, packets);
      gop.unsettled.clear();
      return close_at_end(std::move(gop), packets);
    }
    complete_.push_back(std::move(gop));
  }
}

std::optional<Gop> GopBuilder::take(uint64_t packets) {
  if (complete_.empty() || complete_.front().next_packet > packets) return {};
  Gop gop = std::move(complete_.front());
  complete_.pop_front();
  settle_gop(gop, packets);
  gop.unsettled.clear();  // in a PES packet of many pictures one may end behind the next I-picture
  // A frame without a time stamp of its own may have been placed a little too late.
  gop.last.time = std::min(gop.last.time, gop.next_time);
  return gop;
}

}  // namespace plexa::rec
