// timeline.cpp - see timeline.h. Not thread-safe.
#include "timeline.h"

#include <algorithm>

namespace plexa::rec {
namespace {

constexpr int64_t kSecond = 90000;
// A larger step is a new time base, not a gap: reordering never reaches this far, and a recording
// with a hole of an hour is better played without it.
constexpr int64_t kLargestStep = 10 * kSecond;
constexpr int64_t kUsualDuration = kSecond / 25;
constexpr int64_t kShortestDuration = kSecond / 120;
constexpr int64_t kLongestDuration = 2 * kSecond;
constexpr uint64_t kLongestDelay = 2 * kSecond;

bool is_duration(int64_t ticks) { return ticks >= kShortestDuration && ticks <= kLongestDuration; }

}  // namespace

int64_t pts_distance(uint64_t from, uint64_t to) {
  const uint64_t forward = (to - from) % kPtsRange;
  return forward < kPtsRange / 2 ? static_cast<int64_t>(forward)
                                 : static_cast<int64_t>(forward) - static_cast<int64_t>(kPtsRange);
}

Timeline::Place Timeline::place(const Frame &frame, bool entry) {
  const int64_t duration = duration_of(frame);
  const uint64_t pts = stamp(frame, duration);
  const int64_t time = advance(pts, duration, entry, frame.pts.has_value());
  return {time, duration, pts};
}

int64_t Timeline::duration_of(const Frame &frame) const {
  if (is_duration(frame.duration)) return frame.duration;
  return measured_ > 0 ? measured_ : kUsualDuration;
}

// The frame's PTS; a frame without one is decoded one duration after the frame before it and comes
// out with the delay that its kind had before.
uint64_t Timeline::stamp(const Frame &frame, int64_t duration) {
  uint64_t &delay = delay_[frame.bidirectional ? 1 : 0];
  if (!frame.pts) {
    last_dts_ = (last_dts_ + static_cast<uint64_t>(duration)) % kPtsRange;
    return (last_dts_ + delay) % kPtsRange;
  }
  const uint64_t dts = frame.dts.value_or(*frame.pts);
  const int64_t step = pts_distance(last_dts_, dts);
  if (started_ && is_duration(step)) measured_ = measured_ > 0 ? std::min(measured_, step) : step;
  last_dts_ = dts;
  delay = std::min((*frame.pts - dts) % kPtsRange, kLongestDelay);
  return *frame.pts;
}

int64_t Timeline::advance(uint64_t pts, int64_t duration, bool entry, bool stamped) {
  int64_t time = 0;
  if (started_) {
    const int64_t step = pts_distance(last_pts_, pts);
    time = last_time_ + step;
    const bool jumps = step > kLargestStep || step < -kLargestStep || (entry && time <= latest_);
    if (jumps) {
      time = latest_end_;
      discontinuities_ += stamped ? 1 : 0;
    }
  }
  if (!started_ || time >= latest_) {
    latest_ = time;
    latest_end_ = time + duration;
  }
  started_ = true;
  last_pts_ = pts;
  last_time_ = time;
  return time;
}

}  // namespace plexa::rec
