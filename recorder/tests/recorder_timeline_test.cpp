// Frames stand on one clock that never jumps, whatever their time stamps do.
#include <gtest/gtest.h>

#include "timeline.h"

namespace plexa_test {
namespace {

using plexa::rec::Frame;
using plexa::rec::kPtsRange;
using plexa::rec::pts_distance;
using plexa::rec::Timeline;

Frame stamped(uint64_t pts, std::optional<uint64_t> dts = {}) {
  Frame frame;
  frame.pts = pts;
  frame.dts = dts;
  frame.duration = 3600;
  return frame;
}

Frame unstamped() {
  Frame frame;
  frame.duration = 3600;
  return frame;
}

TEST(PtsDistanceTest, TheShorterWayIsTaken) {
  EXPECT_EQ(pts_distance(1000, 1000), 0);
  EXPECT_EQ(pts_distance(1000, 4600), 3600);
  EXPECT_EQ(pts_distance(4600, 1000), -3600);
  EXPECT_EQ(pts_distance(kPtsRange - 1, 0), 1);
  EXPECT_EQ(pts_distance(0, kPtsRange - 1), -1);
  EXPECT_EQ(pts_distance(0, kPtsRange / 2), -static_cast<int64_t>(kPtsRange / 2));
}

TEST(TimelineTest, TheFirstFrameIsAtZero) {
  Timeline timeline;
  const Timeline::Place place = timeline.place(stamped(123456), true);
  EXPECT_EQ(place.time, 0);
  EXPECT_EQ(place.duration, 3600);
  EXPECT_EQ(place.pts, 123456u);
}

TEST(TimelineTest, ReorderedFramesStandWhereTheyAreShown) {
  Timeline timeline;
  timeline.place(stamped(10000), true);
  EXPECT_EQ(timeline.place(stamped(10000 + 3 * 3600), false).time, 3 * 3600);
  EXPECT_EQ(timeline.place(stamped(10000 + 1 * 3600), false).time, 1 * 3600);
  EXPECT_EQ(timeline.place(stamped(10000 + 2 * 3600), false).time, 2 * 3600);
  EXPECT_EQ(timeline.place(stamped(10000 + 4 * 3600), true).time, 4 * 3600);
  EXPECT_EQ(timeline.discontinuities(), 0u);
}

TEST(TimelineTest, TheWrapIsNoJump) {
  Timeline timeline;
  timeline.place(stamped(kPtsRange - 3600), true);
  EXPECT_EQ(timeline.place(stamped(0), false).time, 3600);
  EXPECT_EQ(timeline.place(stamped(kPtsRange - 1800), false).time, 1800);
  EXPECT_EQ(timeline.discontinuities(), 0u);
}

TEST(TimelineTest, AGapOfTenSecondsIsKeptAndALongerOneIsNot) {
  Timeline timeline;
  timeline.place(stamped(0), true);
  EXPECT_EQ(timeline.place(stamped(900000), true).time, 900000);
  EXPECT_EQ(timeline.discontinuities(), 0u);
  EXPECT_EQ(timeline.place(stamped(900000 + 900001), true).time, 900000 + 3600);
  EXPECT_EQ(timeline.discontinuities(), 1u);
}

TEST(TimelineTest, AJumpBackContinuesBehindTheFrameShownLast) {
  Timeline timeline;
  timeline.place(stamped(5000000), true);
  timeline.place(stamped(5000000 + 3 * 3600), false);
  timeline.place(stamped(5000000 + 1 * 3600), false);
  EXPECT_EQ(timeline.place(stamped(20), false).time, 4 * 3600);
  EXPECT_EQ(timeline.place(stamped(20 + 3600), false).time, 5 * 3600);
}

TEST(TimelineTest, AnEntryIsNeverShownBeforeWhatWentBefore) {
  Timeline timeline;
  timeline.place(stamped(90000), true);
  timeline.place(stamped(90000 + 7200), false);
  EXPECT_EQ(timeline.place(stamped(90000 + 3600), true).time, 3 * 3600);
  EXPECT_EQ(timeline.place(stamped(90000 + 7200), true).time, 4 * 3600);
  EXPECT_EQ(timeline.discontinuities(), 1u);
}

TEST(TimelineTest, FramesWithoutStampsFollowOneAnother) {
  Timeline timeline;
  timeline.place(stamped(90000), true);
  EXPECT_EQ(timeline.place(unstamped(), false).time, 3600);
  EXPECT_EQ(timeline.place(unstamped(), false).time, 7200);
  EXPECT_EQ(timeline.place(stamped(90000 + 3 * 3600), false).time, 3 * 3600);
}

TEST(TimelineTest, AnUnstampedFrameHasTheDelayOfItsKind) {
  Timeline timeline;
  timeline.place(stamped(100000 + 2 * 3600, 100000), true);
  Frame b = stamped(100000 + 3600);
  b.bidirectional = true;
  timeline.place(b, false);
  const Timeline::Place p = timeline.place(unstamped(), false);
  EXPECT_EQ(p.pts, 100000u + 2 * 3600 + 2 * 3600);
  Frame next_b = unstamped();
  next_b.bidirectional = true;
  EXPECT_EQ(timeline.place(next_b, false).pts, 100000u + 3 * 3600);
}

TEST(TimelineTest, AnUnknownDurationIsMeasured) {
  Timeline timeline;
  Frame frame;
  for (const uint64_t pts : {0u, 7200u, 10800u}) {
    frame.pts = pts;
    timeline.place(frame, false);
  }
  frame.pts = 14400;
  EXPECT_EQ(timeline.place(frame, false).duration, 3600);
}

TEST(TimelineTest, AnUnknownDurationThatCannotBeMeasuredIsTheUsualOne) {
  Timeline timeline;
  EXPECT_EQ(timeline.place(Frame{}, true).duration, 3600);
}

TEST(TimelineTest, ADurationThatCannotBeIsNotBelieved) {
  Timeline timeline;
  Frame frame;
  frame.duration = int64_t{1} << 60;
  EXPECT_EQ(timeline.place(frame, true).duration, 3600);
  frame.duration = 1;
  EXPECT_EQ(timeline.place(frame, false).duration, 3600);
}

}  // namespace
}  // namespace plexa_test
