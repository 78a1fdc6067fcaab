// timeline.h - lays the frames of a recording on one clock that never jumps.
//
// Presentation time stamps wrap every 26.5 hours, start anew when programmes or recordings meet,
// and are missing where a PES packet holds several pictures. One object serves one thread.
#ifndef PLEXA_RECORDER_TIMELINE_H_
#define PLEXA_RECORDER_TIMELINE_H_

#include <cstdint>

#include "media.h"

namespace plexa::rec {

inline constexpr uint64_t kPtsRange = uint64_t{1} << 33;

// The way from `from` to `to` on the PTS circle, the shorter one. ISO/IEC 13818-1 clause 2.4.3.7.
int64_t pts_distance(uint64_t from, uint64_t to);

class Timeline {
 public:
  struct Place {
    int64_t time = 0;      // presentation, in ticks from the first frame placed
    int64_t duration = 0;  // ticks
    uint64_t pts = 0;      // as carried, or what it would have been
  };

  // The frames in coding order. `entry`: the frame begins a GOP, and so comes out after everything
  // that was placed before it.
  Place place(const Frame &frame, bool entry);

  uint64_t discontinuities() const { return discontinuities_; }

 private:
  int64_t duration_of(const Frame &frame) const;
  uint64_t stamp(const Frame &frame, int64_t duration);
  int64_t advance(uint64_t pts, int64_t duration, bool entry, bool stamped);

  bool started_ = false;
  uint64_t last_pts_ = 0;
  int64_t last_time_ = 0;
  int64_t latest_end_ = 0;  // where the frame that comes out last so far ends
  int64_t latest_ = 0;      // ... and begins
  uint64_t last_dts_ = 0;
  int64_t measured_ = 0;        // shortest distance of two frames, 0: none measured
  uint64_t delay_[2] = {0, 0};  // from decoding to presentation; [1]: B-pictures
  uint64_t discontinuities_ = 0;
};

}  // namespace plexa::rec

#endif  // PLEXA_RECORDER_TIMELINE_H_
