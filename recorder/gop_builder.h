// gop_builder.h - makes the GOPs of the index out of frames.
//
// A GOP begins at a picture at which decoding can begin and lasts to the next such picture; it is
// complete when that one is known. Frames in front of the first such picture belong to no GOP. One
// object serves one thread.
#ifndef PLEXA_RECORDER_GOP_BUILDER_H_
#define PLEXA_RECORDER_GOP_BUILDER_H_

#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "media.h"
#include "timeline.h"

namespace plexa::rec {

// Times in milliseconds, positions in packets of the recording.
struct Gop {
  // A frame, as far as the end of a GOP is concerned.
  struct Mark {
    uint32_t time = 0;
    uint32_t end_time = 0;
    uint64_t packet = 0;       // where its PES packet begins
    uint64_t last_packet = 0;  // where it ends
  };

  uint64_t pts = 0;
  uint32_t time = 0;
  uint64_t packet = 0;
  uint32_t iframe_packets = 0;
  uint16_t video_pid = kNoPid;
  uint16_t channel = 0;
  bool sequence_header = false;
  Mark last;  // the frame that comes out last, of those that are settled
  uint32_t next_time = 0;
  uint64_t next_packet = 0;
  uint64_t next_pts = 0;
  std::vector<Mark> unsettled;  // frames that may still fall victim to a full disk
};

class GopBuilder {
 public:
  // The first GOP gets the time `origin`. `resumed`: the first picture is known to begin a GOP.
  GopBuilder(uint32_t origin, bool resumed)
      : origin_(origin), since_intra_(resumed ? kLongAgo : 0) {}

  // The frames in coding order.
  void frame(const Frame &frame, uint16_t channel, uint16_t video_pid);
  // Another video follows: what entries it offers is to be seen, as at the beginning.
  void new_video();
  // The recording ends behind this many packets, which closes the last GOP.
  void finish(uint64_t packets);
  // The first `packets` packets are stored and will stay.
  void settle(uint64_t packets);
  // The recording ends behind this many packets, although more were looked at: closes the GOP that
  // lies across the end and forgets what follows. A GOP whose I-picture is not whole is forgotten.
  void truncate(uint64_t packets);

  bool has_gop() const { return open_ || !complete_.empty(); }
  // The oldest complete GOP, which ends at or before this packet; none when there is none.
  std::optional<Gop> take(uint64_t packets);
  uint64_t discontinuities() const { return timeline_.discontinuities(); }
  // No later frame can be given a time: the index holds 31 bits of milliseconds.
  bool is_full() const { return full_; }
  uint32_t time() const { return reached_; }  // of the latest frame

 private:
  static constexpr uint64_t kLongAgo = UINT64_MAX / 2;

  bool begins_gop(const Frame &frame);
  void close(uint32_t time, uint64_t packet, uint64_t pts);
  void close_at_end(Gop gop, uint64_t packets);
  uint32_t milliseconds(int64_t ticks);

  uint32_t origin_;
  Timeline timeline_;
  std::optional<Gop> open_;
  std::deque<Gop> complete_;
  // Frames since an entry better than this one was seen.
  uint64_t since_clean_ = kLongAgo;
  uint64_t since_intra_;
  uint32_t reached_ = 0;
  bool full_ = false;
};

}  // namespace plexa::rec

#endif  // PLEXA_RECORDER_GOP_BUILDER_H_
