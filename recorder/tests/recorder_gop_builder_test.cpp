// Frames become GOPs, and GOPs speak of stored packets only.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "gop_builder.h"

namespace plexa_test {
namespace {

using plexa::rec::Entry;
using plexa::rec::Frame;
using plexa::rec::Gop;
using plexa::rec::GopBuilder;

constexpr uint64_t kAll = UINT64_MAX;

class GopBuilderTest : public ::testing::Test {
 protected:
  // A frame of ten packets, 40 ms after the one before it.
  void frame(Entry entry) {
    Frame next;
    next.entry = entry;
    next.pes_packet = packet_;
    next.last_packet = packet_ + 9;
    next.pts = pts_;
    next.duration = 3600;
    gops_.frame(next, 3, 0x100);
    packet_ += 10;
    pts_ += 3600;
  }
  void frames(int count, Entry entry = Entry::kNone) {
    for (int i = 0; i < count; ++i) frame(entry);
  }
  std::vector<Gop> take(uint64_t packets = kAll) {
    std::vector<Gop> out;
    while (std::optional<Gop> gop = gops_.take(packets)) out.push_back(*gop);
    return out;
  }

  GopBuilder gops_{0, false};
  uint64_t packet_ = 100;
  uint64_t pts_ = 90000;
};

TEST_F(GopBuilderTest, AGopIsCompleteWhenTheNextBegins) {
  frame(Entry::kClean);
  frames(4);
  EXPECT_TRUE(gops_.has_gop());
  EXPECT_TRUE(take().empty());
  frame(Entry::kClean);
  const std::vector<Gop> gops = take();
  ASSERT_EQ(gops.size(), 1u);
  EXPECT_EQ(gops[0].packet, 100u);
  EXPECT_EQ(gops[0].iframe_packets, 10u);
  EXPECT_EQ(gops[0].next_packet, 150u);
  EXPECT_EQ(gops[0].next_time, 200u);
  EXPECT_EQ(gops[0].next_pts, 90000u + 5 * 3600);
  EXPECT_EQ(gops[0].last.time, 160u);
  EXPECT_EQ(gops[0].last.packet, 140u);
  EXPECT_EQ(gops[0].channel, 3);
  EXPECT_EQ(gops[0].video_pid, 0x100);
}

TEST_F(GopBuilderTest, FramesInFrontOfTheFirstEntryBelongToNoGop) {
  frames(3);
  EXPECT_FALSE(gops_.has_gop());
  frame(Entry::kClean);
  frame(Entry::kClean);
  ASSERT_EQ(take().size(), 1u);
}

TEST_F(GopBuilderTest, TheLastFrameIsTheOneShownLast) {
  frame(Entry::kClean);
  pts_ += 3600;
  frame(Entry::kNone);  // shown third
  pts_ -= 2 * 3600;
  frame(Entry::kNone);  // shown second
  pts_ += 3600;
  frame(Entry::kClean);
  const std::vector<Gop> gops = take();
  ASSERT_EQ(gops.size(), 1u);
  EXPECT_EQ(gops[0].last.time, 80u);
  EXPECT_EQ(gops[0].last.packet, 110u);
}

TEST_F(GopBuilderTest, TheEndOfTheRecordingClosesTheLastGop) {
  frame(Entry::kClean);
  frames(2);
  gops_.finish(1000);
  const std::vector<Gop> gops = take();
  ASSERT_EQ(gops.size(), 1u);
  EXPECT_EQ(gops[0].next_packet, 1000u);
  EXPECT_EQ(gops[0].next_time, 120u);
  EXPECT_EQ(gops[0].next_pts, 90000u + 3 * 3600);
}

TEST_F(GopBuilderTest, TimesBeginAtTheOrigin) {
  GopBuilder later(5000, false);
  Frame first;
  first.entry = Entry::kClean;
  first.pts = 1;
  later.frame(first, 0, 1);
  later.finish(10);
  EXPECT_EQ(later.take(kAll)->time, 5000u);
}

TEST_F(GopBuilderTest, AGopWaitsForItsPacketsToBeStored) {
  frame(Entry::kClean);
  frame(Entry::kNone);
  frame(Entry::kClean);
  EXPECT_TRUE(take(119).empty());
  EXPECT_EQ(take(120).size(), 1u);
}

TEST_F(GopBuilderTest, ALesserEntrySplitsNoGopWhileBetterOnesCome) {
  frame(Entry::kClean);
  frames(5);
  frame(Entry::kIntra);
  frames(5);
  frame(Entry::kGradual);
  frame(Entry::kClean);
  EXPECT_EQ(take().size(), 1u);
}

TEST_F(GopBuilderTest, ALesserEntryCountsWhenNoBetterOneComesForLong) {
  frame(Entry::kClean);
  frames(299);
  frame(Entry::kIntra);
  EXPECT_TRUE(take().empty());
  frame(Entry::kIntra);
  frame(Entry::kIntra);
  EXPECT_EQ(take().size(), 2u);
}

TEST_F(GopBuilderTest, PlainIPicturesCountFromTheStart) {
  frames(3, Entry::kIntra);
  EXPECT_EQ(take().size(), 2u);
}

TEST_F(GopBuilderTest, GradualRefreshCountsWhenNoIPictureComesForLong) {
  frame(Entry::kGradual);
  frames(298);
  EXPECT_FALSE(gops_.has_gop());
  frame(Entry::kGradual);
  EXPECT_FALSE(gops_.has_gop());
  frame(Entry::kGradual);
  EXPECT_TRUE(gops_.has_gop());
}

TEST_F(GopBuilderTest, AResumedIndexBelievesItsFirstPicture) {
  GopBuilder resumed(5000, true);
  Frame first;
  first.entry = Entry::kGradual;
  resumed.frame(first, 0, 1);
  EXPECT_TRUE(resumed.has_gop());
}

TEST_F(GopBuilderTest, TwoEntriesInOnePesPacketBeginOneGop) {
  frame(Entry::kClean);
  packet_ -= 10;
  frame(Entry::kClean);
  frame(Entry::kClean);
  EXPECT_EQ(take().size(), 1u);
}

TEST_F(GopBuilderTest, TimesRiseEvenWithinAMillisecond) {
  for (int i = 0; i < 5; ++i) {
    frame(Entry::kClean);
    pts_ -= 3599;
  }
  gops_.finish(packet_);
  const std::vector<Gop> gops = take();
  ASSERT_EQ(gops.size(), 5u);
  for (size_t i = 1; i < gops.size(); ++i) EXPECT_GT(gops[i].time, gops[i - 1].time);
}

// --- a disk that takes no more

TEST_F(GopBuilderTest, ATruncatedGopEndsWithItsLastWholeFrame) {
  frame(Entry::kClean);
  frames(4);
  frame(Entry::kClean);
  gops_.truncate(135);  // inside the fourth frame
  const std::vector<Gop> gops = take();
  ASSERT_EQ(gops.size(), 1u);
  EXPECT_EQ(gops[0].next_packet, 135u);
  EXPECT_EQ(gops[0].last.time, 80u);
  EXPECT_EQ(gops[0].last.packet, 120u);
  EXPECT_EQ(gops[0].next_time, 120u);
}

TEST_F(GopBuilderTest, AGopWhoseIPictureIsNotWholeIsForgotten) {
  frame(Entry::kClean);
  frames(4);
  frame(Entry::kClean);
  frames(4);
  gops_.truncate(159);
  const std::vector<Gop> gops = take();
  ASSERT_EQ(gops.size(), 1u);
  EXPECT_EQ(gops[0].next_packet, 150u);
}

TEST_F(GopBuilderTest, NothingIsLeftWhenTheFirstIPictureIsNotWhole) {
  frame(Entry::kClean);
  frames(4);
  gops_.truncate(109);
  EXPECT_TRUE(take().empty());
  EXPECT_FALSE(gops_.has_gop());
}

TEST_F(GopBuilderTest, SettledFramesNeedNoMemory) {
  frame(Entry::kClean);
  frames(4);
  gops_.settle(130);  // three frames whole
  gops_.truncate(142);
  const std::vector<Gop> gops = take();
  ASSERT_EQ(gops.size(), 1u);
  EXPECT_TRUE(gops[0].unsettled.empty());
  EXPECT_EQ(gops[0].last.packet, 130u);
}

TEST_F(GopBuilderTest, AFrameThatEndsBehindTheNextGopsPesPacketIsLeftAside) {
  frame(Entry::kClean);
  Frame shared;  // begins in the next I-picture's PES packet
  shared.pes_packet = 110;
  shared.last_packet = 119;
  shared.pts = 90000 + 3600;
  shared.duration = 3600;
  gops_.frame(shared, 3, 0x100);
  pts_ += 3600;
  frame(Entry::kClean);
  frame(Entry::kNone);
  frame(Entry::kClean);
  gops_.truncate(115);
  const std::vector<Gop> gops = take(115);
  ASSERT_EQ(gops.size(), 1u);
  EXPECT_TRUE(gops[0].unsettled.empty());
  EXPECT_EQ(gops[0].last.packet, 100u);
}

TEST_F(GopBuilderTest, AllOfItIsKeptWhenNothingIsMissing) {
  frame(Entry::kClean);
  frame(Entry::kNone);
  frame(Entry::kClean);
  frame(Entry::kNone);
  gops_.finish(140);
  gops_.truncate(140);
  const std::vector<Gop> gops = take();
  ASSERT_EQ(gops.size(), 2u);
  EXPECT_EQ(gops[1].next_packet, 140u);
}

TEST_F(GopBuilderTest, TheTimeCannotPassWhatReadersUnderstand) {
  GopBuilder late(INT32_MAX - 100, false);
  Frame next;
  next.entry = Entry::kClean;
  next.duration = 3600;
  for (uint64_t i = 0; i < 10 && !late.is_full(); ++i) {
    next.pts = 90000 + i * 3600;
    next.pes_packet = next.last_packet = i + 1;
    late.frame(next, 0, 1);
  }
  EXPECT_TRUE(late.is_full());
  late.finish(100);
  uint32_t last = 0;
  while (const std::optional<Gop> gop = late.take(kAll)) last = gop->next_time;
  EXPECT_LE(last, static_cast<uint32_t>(INT32_MAX));
  EXPECT_GT(last, static_cast<uint32_t>(INT32_MAX) - 100);
}

TEST_F(GopBuilderTest, ALengthThatReadersCannotHoldIsCutShort) {
  Frame huge;
  huge.entry = Entry::kClean;
  huge.last_packet = uint64_t{1} << 40;
  gops_.frame(huge, 0, 1);
  gops_.finish(uint64_t{1} << 41);
  const std::optional<Gop> gop = gops_.take(kAll);
  ASSERT_TRUE(gop);
  EXPECT_EQ(gop->iframe_packets, INT32_MAX / 188u);
}

}  // namespace
}  // namespace plexa_test
