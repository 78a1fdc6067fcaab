// gst_index_lookup_test.cpp - the questions asked of a recording's index.
#include <gmock/gmock.h>

#include <limits>

#include "gst_index_fixture.h"

namespace plexa_test {
namespace {

using ::testing::ElementsAre;

// The whole of what not-found frame data says.
void expect_invalid(const frameData &frame) {
  EXPECT_EQ(frame.stream_offset, G_MAXUINT64);
  EXPECT_EQ(frame.mdb_offset, G_MAXUINT32);
  EXPECT_EQ(frame.length, G_MAXUINT32);
  EXPECT_EQ(frame.timecode, G_MAXUINT32);
  EXPECT_EQ(frame.channel_index, 0xFFFF);
  EXPECT_EQ(frame.has_seq_header, 0);
  EXPECT_EQ(frame.is_valid, 0);
  EXPECT_EQ(frame.next_gop_frame_offset, 0u);
  EXPECT_EQ(frame.pts, 0u);
  EXPECT_EQ(frame.next_gop_pts, 0u);
  EXPECT_EQ(frame.next_gop_timecode, 0u);
  EXPECT_EQ(frame.last_frame_timecode, 0u);
  EXPECT_EQ(frame.video_pid, 0);
  EXPECT_EQ(frame.video_format, 0);
  EXPECT_EQ(frame.cached_index, 0u);
}

class LookupTest : public IndexFileTest {
 protected:
  frameData at_time(gint32 time, gint32 interval = 0) {
    return gst_index_parser_get_iframe_by_time(&parser_, time, interval);
  }
  frameData at_offset(gint64 offset, gint32 interval = 0) {
    return gst_index_parser_get_iframe_by_offset(&parser_, offset, interval);
  }
  static std::vector<std::string> errors() { return LogCapture::messages(kError); }
};

// --- I-frame by time

TEST_F(LookupTest, FrameTellsEverythingOfItsGop) {
  pvr_gop_info_s gop{};
  gop.pts = 0x123456789ull;
  gop.time_code = 1500;
  gop.packet_count = 350;
  gop.iframe_size = 12;
  gop.video_pid = 0x1FFE;
  gop.video_format = 9;
  gop.last_frame_time = 1960;
  gop.index_of_channel = 4095;
  gop.exist_seq_header = 1;
  gop.next_gop_first_time = 2000;
  gop.next_gop_first_packet_count = 450;
  gop.next_gop_pts = 0x12345F000ull;
  start_index(small_index()
                  .base([](auto &b) {
                    b.start_time_code = 1000;
                    b.start_packet_count = 50;
                  })
                  .gop(gop));
  const frameData frame = at_time(700);
  EXPECT_EQ(frame.stream_offset, 300u * 188);
  EXPECT_EQ(frame.next_gop_frame_offset, 400u * 188);
  EXPECT_EQ(frame.pts, 0x123456789ull);
  EXPECT_EQ(frame.next_gop_pts, 0x12345F000ull);
  EXPECT_EQ(frame.mdb_offset, GST_INDEX_BASE_TABLE_SIZE);
  EXPECT_EQ(frame.length, 12u * 188);
  EXPECT_EQ(frame.timecode, 500u);
  EXPECT_EQ(frame.next_gop_timecode, 1000u);
  EXPECT_EQ(frame.last_frame_timecode, 960u);
  EXPECT_EQ(frame.channel_index, 4095);
  EXPECT_EQ(frame.video_pid, 0x1FFE);
  EXPECT_EQ(frame.video_format, 9);
  EXPECT_EQ(frame.has_seq_header, 1);
  EXPECT_EQ(frame.is_valid, 1);
  EXPECT_EQ(frame.cached_index, 0u);
}

TEST_F(LookupTest, FrameIsToldAtTheEnd) {
  start_index(small_index().gops(200, 500, 1000));
  at_time(100 * 500);
  EXPECT_EQ(parser_lines().back(),
            "cached_current_index=" + std::to_string(parser_.cached_current_index) +
                ", iframe_size=10, packet_count=100000, stream_offset=18800000, gop_idx=100");
  EXPECT_TRUE(errors().empty()) << LogCapture::dump();
}

TEST_F(LookupTest, EveryTimeFindsTheGopThatItLiesIn) {
  start_index(small_index().gops(300, 500, 1000));
  for (gint32 time = 0; time < 300 * 500; time += 77) {
    const frameData frame = at_time(time);
    ASSERT_TRUE(frame.is_valid) << time;
    ASSERT_EQ(frame.timecode, static_cast<guint32>(time) / 500 * 500);
    ASSERT_EQ(frame.mdb_offset, GST_INDEX_BASE_TABLE_SIZE + frame.timecode / 500 * 104);
  }
}

TEST_F(LookupTest, LegacyFramesAnswerAlikeWithPlacesOfTheCurrentLayout) {
  start_index(small_index().legacy().gops(300, 500, 1000));
  for (gint32 time = 0; time < 300 * 500; time += 777) {
    const frameData frame = at_time(time);
    ASSERT_TRUE(frame.is_valid) << time;
    ASSERT_EQ(frame.timecode, static_cast<guint32>(time) / 500 * 500);
    ASSERT_EQ(frame.stream_offset, frame.timecode / 500 * 188000ull);
    ASSERT_EQ(frame.mdb_offset, GST_INDEX_BASE_TABLE_SIZE + frame.timecode / 500 * 104);
  }
}

TEST_F(LookupTest, NegativeTimeIsRefused) {
  start_index(small_index().gops(3, 500, 1000));
  expect_invalid(at_time(-1));
  EXPECT_THAT(errors(), ElementsAre(par("[PLG_ERR] Input time is less then zero: -1\n")));
}

TEST_F(LookupTest, TimeZeroHasNothingBeforeIt) {
  start_index(small_index().gops(3, 500, 1000));
  expect_invalid(at_time(0, -1));
  EXPECT_THAT(errors(), ElementsAre(par("[PLG_ERR] Time is zero, interval is minus")));
  EXPECT_EQ(at_time(0, 0).timecode, 0u);
  EXPECT_EQ(at_time(0, 1).timecode, 500u);
}

TEST_F(LookupTest, ParserThatCannotLoadAnswersNothing) {
  open_index(small_index());
  gst_index_parser_start(&parser_);
  LogCapture::clear();
  expect_invalid(at_time(0));
  EXPECT_TRUE(
      logged_in_order({par("GOPTable is not Initialzed. Try to load GOPs"),
                       par("[PLG_ERR] ReadGOP Failed"), par("[PLG_ERR] GOP is not loaded")}));
  LogCapture::clear();
  expect_invalid(at_offset(0));
  EXPECT_NOT_LOGGED(kError, par("[PLG_ERR] GOP is not loaded"));
  EXPECT_LOGGED(kError, par("[PLG_ERR] ReadGOP Failed"));
}

TEST_F(LookupTest, ParserThatFailedToStartAnswersOnceTheFileHasAGop) {
  open_index(small_index());
  gst_index_parser_start(&parser_);
  small_index().gops(2, 500, 1000).write(path());
  EXPECT_EQ(at_time(500).timecode, 500u);
  EXPECT_TRUE(parser_.is_started);
}

TEST_F(LookupTest, FailedMoveAnswersNothing) {
  start_index(small_index().gops(300, 500, 1000));
  Faults faults;
  faults.fail_all("read", EIO);
  expect_invalid(at_time(140000));
  EXPECT_EQ(errors().back(), par("[PLG_ERR] locateCurrentInxToTime Failed"));
  expect_invalid(at_offset(188000 * 299));
  EXPECT_EQ(errors().back(),
            par("[PLG_ERR] gst_index_parser_locate_current_idx_to_offset() Failed"));
}

TEST_F(LookupTest, IntervalStepsInTheWindow) {
  start_index(small_index().gops(300, 500, 1000));
  at_time(100 * 500);
  Faults faults;
  EXPECT_EQ(at_time(100 * 500, 3).timecode, 103u * 500);
  EXPECT_EQ(at_time(100 * 500 + 7, -3).timecode, 97u * 500);
  EXPECT_EQ(faults.count("read"), 0);
  EXPECT_EQ(parser_.cached_start_abs_index + parser_.cached_current_index, 97u);
}

TEST_F(LookupTest, IntervalStepsOutOfTheWindow) {
  start_index(small_index().gops(300, 500, 1000));
  const frameData far = at_time(100 * 500, 150);
  EXPECT_EQ(far.timecode, 250u * 500);
  EXPECT_EQ(far.cached_index, 16u);
  EXPECT_EQ(at_time(250 * 500, -249).timecode, 500u);
}

TEST_F(LookupTest, IntervalBehindTheLastGopIsNoErrorAndNoFrame) {
  start_index(small_index().gops(40, 500, 1000));
  at_time(39 * 500);
  LogCapture::clear();
  expect_invalid(at_time(39 * 500, 1));
  expect_invalid(at_time(39 * 500, G_MAXINT32));
  EXPECT_TRUE(parser_lines().empty()) << LogCapture::dump();
}

TEST_F(LookupTest, IntervalBeforeTheFirstGopIsNoErrorAndNoFrame) {
  start_index(small_index().gops(40, 500, 1000));
  expect_invalid(at_time(500, -2));
  expect_invalid(at_time(500, G_MININT32));
  EXPECT_TRUE(parser_lines().empty()) << LogCapture::dump();
}

TEST_F(LookupTest, FailedStepAnswersNothing) {
  start_index(small_index().gops(300, 500, 1000));
  Faults faults;
  faults.fail("read", EIO);
  expect_invalid(at_time(0, 200));
  EXPECT_EQ(errors().back(), par("[PLG_ERR] ReadGOP Failed"));
  faults.fail("read", EIO);
  expect_invalid(at_offset(0, 200));
  EXPECT_EQ(errors().back(), par("[PLG_ERR] ReadGOP Failed"));
}

TEST_F(LookupTest, TimeBehindTheRecordingGivesItsLastGop) {
  start_index(small_index().gops(300, 500, 1000));
  EXPECT_EQ(at_time(G_MAXINT32).timecode, 299u * 500);
}

TEST_F(LookupTest, RecordingThatGrowsIsFollowed) {
  start_index(small_index().gops(10, 500, 1000));
  EXPECT_EQ(at_time(700 * 500).timecode, 9u * 500);
  small_index().gops(900, 500, 1000).write(path());
  EXPECT_EQ(at_time(700 * 500).timecode, 700u * 500);
}

TEST_F(LookupTest, RecordingThatShrankNeverAnswersFromOutsideItsFile) {
  start_index(small_index().gops(900, 500, 1000));
  at_time(890 * 500);
  small_index().gops(20, 500, 1000).write(path());
  const frameData frame = at_time(400 * 500);
  EXPECT_TRUE(!frame.is_valid || frame.timecode < 20u * 500) << frame.timecode;
  expect_invalid(at_time(0, 100));
}

TEST_F(LookupTest, NoLookupAllocates) {
  start_index(small_index().gops(3000, 500, 1000));
  pvr_channel_info_s channel;
  Faults faults;
  for (gint32 time = 0; time < 3000 * 500; time += 77777) at_time(time, 40);
  for (gint64 offset = 0; offset < 3000 * 188000; offset += 7777777) at_offset(offset);
  gst_index_parser_get_time_by_offset(&parser_, 5);
  gst_index_parser_get_channel_info_by_time(&parser_, 700, &channel);
  for (const char *call : {"malloc", "calloc", "valloc"}) EXPECT_EQ(faults.count(call), 0) << call;
}

TEST_F(LookupTest, WalkingForwardCostsOneLoadPerSixteenGops) {
  start_index(small_index().gops(3300, 500, 1000));
  Faults faults;
  guint32 time = 0;
  for (int i = 0; i < 3200; ++i) {
    const frameData next = at_time(static_cast<gint32>(time), 1);
    ASSERT_EQ(next.timecode, time + 500);
    time = next.timecode;
  }
  EXPECT_LE(faults.count("read"), 3200 / 16);
  EXPECT_EQ(faults.count("lseek64"), faults.count("read"));
}

TEST_F(LookupTest, FarJumpAsksTheSizeOnce) {
  start_index(small_index().gops(3000, 500, 1000));
  Faults faults;
  EXPECT_EQ(at_time(2500 * 500).timecode, 2500u * 500);
  EXPECT_GT(faults.count("read"), 4);
  EXPECT_EQ(faults.count("stat64"), 1);
}

// --- I-frame by offset

TEST_F(LookupTest, EveryOffsetFindsTheGopThatItLiesIn) {
  start_index(small_index().gops(300, 500, 1000));
  for (gint64 offset = 0; offset < 300 * 188000; offset += 99991) {
    const frameData frame = at_offset(offset);
    ASSERT_TRUE(frame.is_valid) << offset;
    ASSERT_EQ(frame.stream_offset, static_cast<guint64>(offset) / 188000 * 188000);
  }
}

TEST_F(LookupTest, OffsetStepsLikeTime) {
  start_index(small_index().gops(300, 500, 1000));
  EXPECT_EQ(at_offset(188000 * 100 + 1, 2).timecode, 102u * 500);
  EXPECT_EQ(at_offset(188000 * 100 + 1, 150).timecode, 250u * 500);
  expect_invalid(at_offset(0, -1));
  expect_invalid(at_offset(188000 * 299, 1));
}

TEST_F(LookupTest, FrameByOffsetEndsWithoutALine) {
  start_index(small_index().gops(30, 500, 1000));
  at_offset(0);
  EXPECT_TRUE(parser_lines().empty()) << LogCapture::dump();
}

TEST_F(LookupTest, OffsetOutsideTheRecordingGivesItsNearestGop) {
  start_index(small_index().gops(300, 500, 1000));
  EXPECT_EQ(at_offset(std::numeric_limits<gint64>::max()).timecode, 299u * 500);
  EXPECT_EQ(at_offset(-1).timecode, 0u);
}

// --- time by offset

class TimeByOffsetTest : public LookupTest {
 protected:
  // One GOP of 500 ms from byte 0 to byte `end`, which is a packet's end.
  void one_gop(guint64 packets, guint32 milliseconds = 500) {
    start_index(small_index().gops(1, milliseconds, packets));
  }
  gint32 time_at(gint64 offset) { return gst_index_parser_get_time_by_offset(&parser_, offset); }
};

TEST_F(TimeByOffsetTest, IsInterpolatedInWholePercent) {
  one_gop(5000);  // 940000 bytes
  EXPECT_EQ(time_at(0), 0);
  EXPECT_EQ(time_at(470000), 250);
  EXPECT_EQ(time_at(939999), 495) << "99 percent";
  EXPECT_EQ(time_at(9399), 0) << "not yet one percent";
  EXPECT_EQ(time_at(9400), 5);
}

TEST_F(TimeByOffsetTest, BehindTheLastGopThereIsNone) {
  one_gop(5000);
  EXPECT_EQ(time_at(940000), -1);
  EXPECT_LOGGED(kInfo, par("Given Offset(940000) is not in IndexFile.\n"));
  EXPECT_EQ(time_at(std::numeric_limits<gint64>::max()), -1);
}

TEST_F(TimeByOffsetTest, BeforeTheGopItIsTheGopsTime) {
  start_index(small_index().gops(1, 500, 1000).base([](auto &b) {
    b.start_packet_count = static_cast<guint64>(-10);
  }));
  EXPECT_EQ(at_offset(0).stream_offset, 1880u);
  EXPECT_EQ(time_at(7), 0);
  EXPECT_EQ(time_at(-7), 0);
}

TEST_F(TimeByOffsetTest, WhereNothingIsFoundItIsTold) {
  open_index(small_index());
  gst_index_parser_start(&parser_);
  EXPECT_EQ(time_at(1234567890123), -1);
  EXPECT_EQ(errors().back(), par("[PLG_ERR] Fail to get GOP Info at fileoffset 1234567890123\n"));
  EXPECT_EQ(gst_index_parser_get_time_by_offset(nullptr, 0), -1);
}

TEST_F(TimeByOffsetTest, PlaceComparesSigned) {
  pvr_gop_info_s gop{};
  gop.next_gop_first_packet_count = static_cast<guint64>(-1);  // byte -188
  start_index(small_index().gop(gop));
  EXPECT_EQ(time_at(5), -1);
  EXPECT_LOGGED(kInfo, par("Given Offset(5) is not in IndexFile.\n"));
}

TEST_F(TimeByOffsetTest, NoRecordMakesItOverflow) {
  const guint64 far = std::numeric_limits<guint64>::max() / 188 / 2;
  for (const guint64 first : {guint64{0}, far, ~far, guint64{1} << 63}) {
    for (const guint64 next : {guint64{0}, far, ~far, guint64{1} << 63}) {
      pvr_gop_info_s gop{};
      gop.packet_count = first;
      gop.next_gop_first_packet_count = next;
      gop.next_gop_first_time = G_MAXUINT32;
      start_index(small_index().gop(gop));
      for (const gint64 offset : {std::numeric_limits<gint64>::min(), gint64{-1}, gint64{0},
                                  gint64{1} << 62, std::numeric_limits<gint64>::max()}) {
        time_at(offset);  // the sanitizer build watches
      }
      EXPECT_TRUE(at_offset(0).is_valid);
      close_index();
    }
  }
}

TEST_F(TimeByOffsetTest, GopLongerThanAnyFileIsNotDivided) {
  pvr_gop_info_s gop{};
  gop.packet_count = guint64{1} << 61;                 // x 188 wraps to -2^63
  gop.next_gop_first_packet_count = guint64{3} << 60;  // x 188 wraps to 2^62
  gop.next_gop_first_time = 500;
  start_index(small_index().gop(gop));
  EXPECT_EQ(time_at(gint64{1} << 61), 0);
}

TEST_F(TimeByOffsetTest, LastStepIsComputedIn32Bits) {
  one_gop(5000, 60000000);  // a GOP of 16 hours: x 50 passes 2^31
  EXPECT_EQ(time_at(470000), static_cast<gint32>(60000000u * 50) / 100);
}

TEST_F(TimeByOffsetTest, TimeThatRunsBackwardsIsTruncatedTowardsZero) {
  pvr_gop_info_s gop{};
  gop.time_code = 1000;
  gop.next_gop_first_time = 995;
  gop.next_gop_first_packet_count = 5000;
  start_index(small_index().gop(gop));
  EXPECT_EQ(time_at(470000), 998) << "1000 + trunc(-5 * 50 / 100)";
}

// --- bit rate

using BitrateTest = TimeByOffsetTest;

TEST_F(BitrateTest, IsTheGopsBytesOverItsTime) {
  one_gop(5000);
  EXPECT_EQ(gst_index_parser_get_estimated_bitrate(&parser_, 100), 15040000);
  EXPECT_EQ(parser_lines().back(), "Bitrate at 100 is 15040000 bps\n");
  EXPECT_TRUE(errors().empty());
}

TEST_F(BitrateTest, GopWithoutTimeHasNone) {
  one_gop(5000, 0);
  EXPECT_EQ(gst_index_parser_get_estimated_bitrate(&parser_, 0), -1);
  EXPECT_THAT(errors(), ElementsAre(par("[PLG_ERR] divide[0] = frameData.NextGOPTimecode[0] - "
                                        "frameData.timecode[0]")));
}

TEST_F(BitrateTest, GopThatRunsBackwardsHasNone) {
  pvr_gop_info_s gop{};
  gop.time_code = 1000;
  gop.next_gop_first_time = 900;
  start_index(small_index().gop(gop));
  EXPECT_EQ(gst_index_parser_get_estimated_bitrate(&parser_, 1000), -1);
  EXPECT_THAT(errors(), ElementsAre(par("[PLG_ERR] divide[-100] = frameData.NextGOPTimecode[900] - "
                                        "frameData.timecode[1000]")));
}

TEST_F(BitrateTest, WhereNothingIsFoundItIsTold) {
  one_gop(5000);
  EXPECT_EQ(gst_index_parser_get_estimated_bitrate(&parser_, -5), -1);
  EXPECT_THAT(errors(), ElementsAre(par("[PLG_ERR] Input time is less then zero: -5\n"),
                                    par("[PLG_ERR] Can not Find GOP for -5")));
  EXPECT_EQ(gst_index_parser_get_estimated_bitrate(nullptr, 0), -1);
}

TEST_F(BitrateTest, NoRecordMakesItOverflow) {
  pvr_gop_info_s gop{};
  gop.packet_count = guint64{1} << 62;
  gop.next_gop_first_packet_count = 0x7FFFFFFFFFFFFFFull;
  gop.next_gop_first_time = 1;
  start_index(small_index().gop(gop));
  gst_index_parser_get_estimated_bitrate(&parser_, 0);  // the sanitizer build watches
  EXPECT_TRUE(errors().empty()) << LogCapture::dump();
}

// --- channels

class ChannelTest : public LookupTest {
 protected:
  static pvr_channel_info_s channel(guint16 video_pid) {
    pvr_channel_info_s record;
    std::memset(&record, 0x3C, sizeof record);
    record.video_pid = video_pid;
    return record;
  }
  static bool same(const pvr_channel_info_s &a, const pvr_channel_info_s &b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
  }
  gboolean read(gint16 slot) {
    return gst_index_parser_get_channel_info_by_index(&parser_, slot, &out_);
  }
  pvr_channel_info_s out_{};
};

TEST_F(ChannelTest, SlotIsReadUnchanged) {
  start_index(IndexBuilder().channel(0, channel(1)).channel(4095, channel(2)).gops(1, 500, 1000));
  EXPECT_TRUE(read(0));
  EXPECT_TRUE(same(out_, channel(1)));
  EXPECT_TRUE(read(4095));
  EXPECT_TRUE(same(out_, channel(2)));
  EXPECT_THAT(parser_lines(),
              ElementsAre("Get_channel_info_by_index(index_parser,: at time 0 ",
                          "Get_channel_info_by_index(index_parser,: at time 4095 "));
}

TEST_F(ChannelTest, SlotBehindTheLastIsRefusedWithoutTouchingTheFile) {
  start_index(IndexBuilder().gops(1, 500, 1000));
  Faults faults;
  for (const gint16 slot : {gint16{4096}, gint16{-1}, gint16{-32768}}) EXPECT_FALSE(read(slot));
  EXPECT_FALSE(gst_index_parser_get_channel_info_by_index(&parser_, 0, nullptr));
  EXPECT_FALSE(gst_index_parser_get_channel_info_by_index(nullptr, 0, &out_));
  EXPECT_TRUE(faults.calls().empty());
  EXPECT_TRUE(LogCapture::messages().empty());
}

TEST_F(ChannelTest, FailedSeekIsTold) {
  start_index(IndexBuilder().gops(1, 500, 1000));
  Faults faults;
  faults.fail("lseek64", EIO);
  EXPECT_FALSE(read(0));
  EXPECT_EQ(errors().back(), par("[PLG_ERR] m_IndexFile->Seek Failed"));
}

TEST_F(ChannelTest, AnythingButAWholeRecordIsRefused) {
  for (const bool legacy : {false, true}) {
    IndexBuilder index;
    start_index((legacy ? index.legacy() : index).gops(1, 500, 1000));
    Faults faults;
    faults.shorten("read", legacy ? 255 : 231);
    EXPECT_FALSE(read(0));
    EXPECT_EQ(errors().back(), par(legacy ? "[PLG_ERR] read mdb file failed, ret = [255]"
                                          : "[PLG_ERR] read mdb file failed, ret = [231]"));
    faults.fail("read", EIO);
    EXPECT_FALSE(read(0));
    EXPECT_EQ(errors().back(), par("[PLG_ERR] read mdb file failed, ret = [-1]"));
    close_index();
  }
}

TEST_F(ChannelTest, LegacySlotsLieInStepsOfTheCurrentRecord) {
  pvr_pelko_channel_info_s pelko{};
  pelko.video_pid = 0x123;
  pelko.pcr_pid = 0x456;
  pelko.carried_210 = 0xAB;
  start_index(IndexBuilder().legacy().pelko_channel(3, pelko).gops(1, 500, 1000));
  Faults faults;
  std::vector<long long> places;
  faults.watch("lseek64", [&](int, const char *, long long at) { places.push_back(at); });
  EXPECT_TRUE(read(3));
  EXPECT_THAT(places, ElementsAre(4088 + 3 * 232));
  EXPECT_EQ(out_.video_pid, 0x123);
  EXPECT_EQ(out_.pcr_pid, 0x456);
  EXPECT_EQ(out_.carried_184, 0xABu);
}

TEST_F(ChannelTest, ByTimeItIsTheGopsChannel) {
  pvr_gop_info_s gop{};
  gop.index_of_channel = 7;
  start_index(IndexBuilder().channel(7, channel(77)).gop(gop));
  EXPECT_TRUE(gst_index_parser_get_channel_info_by_time(&parser_, 123, &out_));
  EXPECT_EQ(out_.video_pid, 77);
  EXPECT_EQ(parser_lines().front(), "GetChannelInfoByTime: 123");
}

TEST_F(ChannelTest, ByTimeGopWithAWrongSlotHasNone) {
  pvr_gop_info_s gop{};
  gop.index_of_channel = 0xFFFF;
  start_index(IndexBuilder().gop(gop));
  EXPECT_FALSE(gst_index_parser_get_channel_info_by_time(&parser_, 0, &out_));
  EXPECT_FALSE(gst_index_parser_get_channel_info_by_time(&parser_, 0, nullptr));
}

TEST_F(ChannelTest, ByTimeWhereNothingIsFoundItIsTold) {
  start_index(IndexBuilder().gops(1, 500, 1000));
  EXPECT_FALSE(gst_index_parser_get_channel_info_by_time(&parser_, -1, &out_));
  EXPECT_EQ(errors().back(), par("[PLG_ERR] Can not Find GOP for -1"));
  EXPECT_FALSE(gst_index_parser_get_channel_info_by_time(nullptr, 0, &out_));
}

// --- not-found frame data

TEST(InvalidFrameData, OtherFieldsKeepWhatTheyHeld) {
  GstIndexParser parser{};
  frameData frame;
  std::memset(&frame, 0x11, sizeof frame);
  gst_index_parser_set_invalid_frame_data(&parser, &frame);
  EXPECT_EQ(frame.stream_offset, G_MAXUINT64);
  EXPECT_EQ(frame.mdb_offset, G_MAXUINT32);
  EXPECT_EQ(frame.length, G_MAXUINT32);
  EXPECT_EQ(frame.timecode, G_MAXUINT32);
  EXPECT_EQ(frame.channel_index, 0xFFFF);
  EXPECT_EQ(frame.has_seq_header, 0);
  EXPECT_EQ(frame.is_valid, 0);
  EXPECT_EQ(frame.next_gop_frame_offset, 0x1111111111111111ull);
  EXPECT_EQ(frame.next_gop_timecode, 0x11111111u);
  EXPECT_EQ(frame.video_pid, 0x1111);
  EXPECT_EQ(frame.video_format, 0x11);
  EXPECT_EQ(frame.cached_index, 0x11111111u);
}

TEST(InvalidFrameData, NeedsBothRecords) {
  frameData frame{};
  frame.is_valid = 1;
  gst_index_parser_set_invalid_frame_data(nullptr, &frame);
  EXPECT_EQ(frame.is_valid, 1);
  GstIndexParser parser{};
  gst_index_parser_set_invalid_frame_data(&parser, nullptr);
}

TEST(InvalidFrameData, IsWhatANullParserAnswers) {
  expect_invalid(gst_index_parser_get_iframe_by_time(nullptr, 0, 0));
  expect_invalid(gst_index_parser_get_iframe_by_offset(nullptr, 0, 0));
}

// --- a file that changes under the parser

class ChangingFileTest : public ScriptedIndexTest {};

TEST_F(ChangingFileTest, StepToAGopThatVanishedAnswersNothing) {
  begin(1000);
  gst_index_parser_read_gop(&parser_, 0);
  records_ = [](gint64) { return 3; };  // the size says 1000, the read delivers GOPs 484..486
  expect_invalid(gst_index_parser_get_iframe_by_time(&parser_, 0, 500));
  expect_invalid(gst_index_parser_get_iframe_by_offset(&parser_, 484 * 188000, 500));
}

TEST_F(ChangingFileTest, EveryPrefixOfAnIndexIsSafe) {
  const std::vector<uint8_t> whole =
      IndexBuilder().gop_start(GST_INDEX_BASE_TABLE_SIZE).gops(5, 500, 1000).bytes();
  for (size_t size = 0; size <= whole.size(); size += size < 4080 ? 16 : 1) {
    size_ = [&] { return static_cast<gint64>(size); };
    read_ = [&](void *buffer, gint64 wanted) -> gint64 {
      const gint64 left = std::max<gint64>(static_cast<gint64>(size) - position_, 0);
      const gint64 count = std::min(left, wanted);
      if (count > 0) std::memcpy(buffer, whole.data() + position_, static_cast<size_t>(count));
      return count;
    };
    gst_index_parser_init(&parser_, &file_);
    const size_t gops = size < 4088 ? 0 : (size - 4088) / 104;
    EXPECT_EQ(gst_index_parser_start(&parser_) == 1, gops > 0) << size;
    const frameData frame = gst_index_parser_get_iframe_by_time(&parser_, 5000, 0);
    EXPECT_EQ(frame.is_valid != 0, gops > 0) << size;
    EXPECT_EQ(frame.timecode, gops > 0 ? (gops - 1) * 500 : G_MAXUINT32) << size;
    gst_index_parser_get_total_time(&parser_);
    gst_index_parser_stop(&parser_);
  }
}

}  // namespace
}  // namespace plexa_test
