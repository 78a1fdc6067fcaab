// gst_index_search_test.cpp - moving the window to a time, a PTS or an offset, and the current
// slot.
#include <gmock/gmock.h>

#include <cmath>

#include "gst_index_fixture.h"

namespace plexa_test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsSupersetOf;
using ::testing::Le;
using ::testing::Not;

const char kEndOfFile[] = "But, already GOP is cached to the end ";
const char kBiggerTime[] = "Target Time is NOT cached. Look bigger part!";
const char kSmallerTime[] = "Target Time is NOT Cached. Look smaller part!";
const char kBiggerOffset[] = "Target Offset is NOT Cached. Look bigger part!";
const char kSmallerOffset[] = "Target Offset is NOT Cached. Look smaller part!";
const char kTimeFailed[] = "[PLG_ERR] BinarySearchByTime Failed";
const char kBiggerOffsetFailed[] = "[PLG_ERR] Binary_search_by_offset(index_parser, Failed";
const char kSmallerOffsetFailed[] = "[PLG_ERR] Binary_search_by_offset(index_parser, Failed)";

gint64 offset_of_gop(gint64 k) { return k * 188000; }

class SearchTest : public ScriptedIndexTest {
 protected:
  bool holds(gint64 gop) const {
    return parser_.cached_start_abs_index <= gop && gop <= parser_.cached_end_abs_index;
  }
  gint32 by_time(gint32 start, gint32 end, gint32 time) {
    return gst_index_parser_binary_search_by_time(&parser_, start, end, time);
  }
  gint32 by_pts(gint32 start, gint32 end, guint64 pts) {
    return gst_index_parser_binary_search_by_pts(&parser_, start, end, pts);
  }
  gint32 by_offset(gint32 start, gint32 end, gint64 offset) {
    return gst_index_parser_binary_search_by_offset(&parser_, start, end, offset);
  }
  static long count_errors(const char *message) { return LogCapture::count(kError, par(message)); }
};

// --- by time

TEST_F(SearchTest, RangeOfOneGopIsFoundAtOnce) {
  begin(100);
  EXPECT_EQ(by_time(7, 7, 0), 1);
  EXPECT_EQ(by_pts(7, 7, 0), 1);
  EXPECT_EQ(by_offset(7, 7, 0), 1);
  EXPECT_EQ(reads_, 0);
  EXPECT_EQ(sizes_, 0) << "the file is not even looked at";
  EXPECT_TRUE(LogCapture::messages().empty());
}

TEST_F(SearchTest, HitIsToldAfterItsLoad) {
  begin(100);
  EXPECT_EQ(by_time(0, 99, 49 * 500), 1);
  EXPECT_THAT(parser_lines(),
              ElementsAre("Target Time is 24500, Input start Index: 0, Input end Index: 99",
                          "IndexParser ReadGOP, startGOPIndex: 33", "IndexFile Size: 14488",
                          "Seek to 7520", "Target Time is cached!"));
  EXPECT_TRUE(LogCapture::messages(kError).empty()) << LogCapture::dump();
}

TEST_F(SearchTest, LaterTimeIsSoughtInTheBiggerPart) {
  begin(1000);
  EXPECT_EQ(by_time(0, 999, 760 * 500), 1);
  EXPECT_TRUE(holds(760));
  EXPECT_THAT(parser_lines(),
              ElementsAre("Target Time is 380000, Input start Index: 0, Input end Index: 999",
                          "IndexParser ReadGOP, startGOPIndex: 483", "IndexFile Size: 108088",
                          "Seek to 54320", kBiggerTime,
                          "Target Time is 380000, Input start Index: 514, Input end Index: 999",
                          "IndexParser ReadGOP, startGOPIndex: 740", "IndexFile Size: 108088",
                          "Seek to 81048", "Target Time is cached!"));
}

TEST_F(SearchTest, EarlierTimeIsSoughtInTheSmallerPart) {
  begin(1000);
  EXPECT_EQ(by_time(0, 999, 240 * 500), 1);
  EXPECT_TRUE(holds(240));
  EXPECT_THAT(parser_lines(),
              IsSupersetOf({std::string(kSmallerTime),
                            std::string("Target Time is 120000, Input start Index: 0, Input end "
                                        "Index: 483")}));
  EXPECT_TRUE(LogCapture::messages(kError).empty()) << LogCapture::dump();
}

TEST_F(SearchTest, TimeBehindTheLastGopEndsAtTheEnd) {
  begin(1000);
  EXPECT_EQ(by_time(0, 999, 600000), 2);
  EXPECT_TRUE(holds(999));
  EXPECT_EQ(parser_lines().back(), kEndOfFile);
  EXPECT_TRUE(LogCapture::messages(kError).empty()) << LogCapture::dump();
}

TEST_F(SearchTest, GopsWrittenDuringTheSearchAreNoError) {
  begin(1000);
  EXPECT_EQ(by_time(0, 990, 600000), 2);
  EXPECT_EQ(parser_lines().back(), "Not Error. New GOP is written while Binary Searching");
  EXPECT_TRUE(LogCapture::messages(kError).empty()) << LogCapture::dump();
}

TEST_F(SearchTest, TimeBeforeTheFirstGopEndsAtTheFirstWindow) {
  begin(1000);
  EXPECT_EQ(by_time(0, 999, -1), 1);
  EXPECT_EQ(parser_.cached_start_abs_index, 0u);
  EXPECT_EQ(parser_lines().back(), kSmallerTime);
}

TEST_F(SearchTest, TimeBetweenTwoWindowsIsFound) {
  begin(1000);
  for (gint64 k = 0; k < 999; ++k) {
    ASSERT_EQ(by_time(0, 999, static_cast<gint32>(k * 500 + 499)), 1);
    ASSERT_TRUE(holds(k)) << k;
    ASSERT_TRUE(holds(k + 1)) << k;
  }
}

TEST_F(SearchTest, CrossedRangeIsToldAndSearchedRegardless) {
  begin(1000);
  EXPECT_EQ(by_time(20, 14, 17 * 500), 1);
  EXPECT_TRUE(holds(17));
  EXPECT_EQ(parser_lines().front(), "Start Index is Bigger than End Index");
  EXPECT_EQ(by_pts(20, 14, 17 * 45000), 1);
  EXPECT_EQ(LogCapture::count(kInfo, par("Start Index is Bigger than End Index")), 2);
}

TEST_F(SearchTest, FailedLoadIsToldOnEveryLevel) {
  begin(1000);
  records_ = [this](gint64) { return reads_ < 3 ? 32 : -1; };
  EXPECT_EQ(by_time(0, 999, 499000), -1);
  EXPECT_EQ(count_errors("[PLG_ERR] ReadGOP Failed"), 1);
  EXPECT_EQ(count_errors(kTimeFailed), 2) << "two recursions were under way";
}

TEST_F(SearchTest, ResultOfTheFailedLoadIsHandedOn) {
  begin(1000);
  records_ = [this](gint64) { return reads_ < 2 ? 32 : -3; };
  EXPECT_EQ(by_time(0, 999, 499000), -3);
  reads_ = 0;
  EXPECT_EQ(by_pts(0, 999, 998 * 45000), -3);
  reads_ = 0;
  EXPECT_EQ(by_offset(0, 999, offset_of_gop(998)), -3);
  reads_ = 0;
  EXPECT_EQ(by_offset(0, 999, offset_of_gop(1)), -3);
}

TEST_F(SearchTest, MiddleOfTheHighestNumbersDoesNotOverflow) {
  begin(gint64{1} << 31);
  gop_ = [](gint64 k) {
    pvr_gop_info_s gop{};
    gop.time_code = static_cast<guint32>(k);
    gop.packet_count = static_cast<guint64>(k);
    return gop;
  };
  EXPECT_EQ(by_time(G_MAXINT32 - 100, G_MAXINT32, G_MAXINT32 - 50), 1);
  EXPECT_TRUE(holds(G_MAXINT32 - 50));
  EXPECT_EQ(by_offset(G_MAXINT32 - 100, G_MAXINT32, (G_MAXINT32 - gint64{90}) * 188), 1);
  EXPECT_TRUE(holds(G_MAXINT32 - gint64{90}));
  EXPECT_EQ(by_time(G_MAXINT32 - 1, G_MAXINT32, G_MAXINT32), 1);
}

TEST_F(SearchTest, NegativeNumbersRoundTowardsZero) {
  begin(100);
  EXPECT_EQ(by_time(-3, 0, 0), 1);
  EXPECT_EQ(parser_.cached_current_index, static_cast<guint32>(-1)) << "the middle is -1";
}

// --- by PTS

TEST_F(SearchTest, PtsHasItsOwnFirstAndHitMessages) {
  begin(100);
  EXPECT_EQ(by_pts(0, 99, 49 * 45000), 1);
  EXPECT_THAT(parser_lines(),
              ElementsAre("Target pts is 2205000, Input start Index: 0, Input end Index: 99",
                          "IndexParser ReadGOP, startGOPIndex: 33", "IndexFile Size: 14488",
                          "Seek to 7520", "Target Time is Cached!"));
}

TEST_F(SearchTest, PtsIsSoughtInBothParts) {
  begin(1000);
  EXPECT_EQ(by_pts(0, 999, 760 * 45000), 1);
  EXPECT_TRUE(holds(760));
  EXPECT_LOGGED(kInfo, par(kBiggerTime));
  EXPECT_EQ(by_pts(0, 999, 100 * 45000), 1);
  EXPECT_TRUE(holds(100));
  EXPECT_LOGGED(kInfo, par(kSmallerTime));
  EXPECT_EQ(by_pts(0, 999, G_MAXUINT64), 2);
  EXPECT_LOGGED(kInfo, par(kEndOfFile));
}

TEST_F(SearchTest, GopsWrittenDuringASearchByPtsAreNoError) {
  begin(1000);
  EXPECT_EQ(by_pts(0, 990, G_MAXUINT64), 2);
  EXPECT_EQ(parser_lines().back(), "Not Error. New GOP is written while Binary Searching ^_^");
}

TEST_F(SearchTest, FailedSearchByPtsIsTold) {
  begin(1000);
  records_ = [](gint64) { return -1; };
  EXPECT_EQ(by_pts(0, 999, 5), -1);
  EXPECT_THAT(LogCapture::messages(kError), Contains(par("[PLG_ERR] ReadGOP Failed")));
}

// --- by offset

TEST_F(SearchTest, EmptyRangeOfOffsetsIsFoundWithoutALoad) {
  begin(100);
  EXPECT_EQ(by_offset(0, -1, 5), 1);
  EXPECT_EQ(by_offset(9, 3, 5), 1);
  EXPECT_EQ(reads_, 0);
  EXPECT_EQ(sizes_, 0);
}

TEST_F(SearchTest, OffsetHitIsToldAtErrorLevel) {
  begin(100);
  EXPECT_EQ(by_offset(0, 99, offset_of_gop(49)), 1);
  EXPECT_LOGGED(kError, par("[PLG_ERR] Target Offset is Cached!"));
  EXPECT_EQ(parser_lines().front(),
            "Target Time is 9212000, Input start Index: 0, Input end Index: 99");
}

TEST_F(SearchTest, OffsetIsSoughtInBothParts) {
  begin(1000);
  EXPECT_EQ(by_offset(0, 999, offset_of_gop(760)), 1);
  EXPECT_TRUE(holds(760));
  EXPECT_LOGGED(kInfo, par(kBiggerOffset));
  EXPECT_EQ(by_offset(0, 999, offset_of_gop(100)), 1);
  EXPECT_TRUE(holds(100));
  EXPECT_LOGGED(kInfo, par(kSmallerOffset));
}

TEST_F(SearchTest, OffsetBehindTheFirstWindowTriedGivesTheRangesEnd) {
  begin(40);
  EXPECT_EQ(by_offset(0, 39, offset_of_gop(1000)), 1) << "found in the second load";
  EXPECT_EQ(by_offset(20, 39, offset_of_gop(1000)), 39) << "13..39 are the first load";
  EXPECT_EQ(parser_lines().back(), kEndOfFile);
}

TEST_F(SearchTest, RecordsBehindTheRangeEndASearchByOffset) {
  begin(1000);
  EXPECT_EQ(by_offset(0, 10, offset_of_gop(500)), 1);
  EXPECT_EQ(reads_, 1);
  EXPECT_EQ(parser_lines().back(), kBiggerOffset);
}

TEST_F(SearchTest, FailedSearchByOffsetIsToldByItsPart) {
  begin(1000);
  records_ = [this](gint64) { return reads_ < 2 ? 32 : -1; };
  EXPECT_EQ(by_offset(0, 999, offset_of_gop(998)), -1);
  EXPECT_EQ(count_errors("[PLG_ERR] ReadGOP Failed"), 1);
  EXPECT_EQ(count_errors(kBiggerOffsetFailed), 1);
  EXPECT_EQ(count_errors(kSmallerOffsetFailed), 0);
  reads_ = 0;
  EXPECT_EQ(by_offset(0, 999, offset_of_gop(1)), -1);
  EXPECT_EQ(count_errors(kSmallerOffsetFailed), 1);
}

// --- a search ends

TEST_F(SearchTest, SearchInAFileThatShrankEnds) {
  begin(1000);
  records_ = [](gint64) { return 1; };  // every window ends before the middle
  EXPECT_EQ(by_time(0, 999, 499500), -1);
  EXPECT_THAT(reads_, Le(63));
  EXPECT_EQ(count_errors(kTimeFailed), reads_);
  reads_ = 0;
  EXPECT_EQ(by_pts(0, 999, G_MAXUINT64), -1);
  EXPECT_THAT(reads_, Le(63));
  reads_ = 0;
  EXPECT_EQ(by_offset(0, 999, G_MAXINT64), -1);
  EXPECT_THAT(reads_, Le(63));
  EXPECT_EQ(count_errors(kBiggerOffsetFailed), reads_);
}

TEST_F(SearchTest, SearchForWhatLiesBeforeACrossedRangeEnds) {
  begin(1000);
  EXPECT_EQ(by_time(100, 14, -1), -1);
  EXPECT_EQ(count_errors(kTimeFailed), 1);
  EXPECT_EQ(reads_, 1);
}

TEST_F(SearchTest, SearchForWhatLiesBeforeTheRangeEnds) {
  begin(1000);
  EXPECT_EQ(by_time(20, 40, -1), -1);
  EXPECT_THAT(reads_, Le(63));
  EXPECT_EQ(by_offset(20, 40, -1), 1) << "an empty range of offsets is an end of its own";
}

TEST_F(SearchTest, NoAnswerOfAFileMakesASearchGoDeeperThan63Levels) {
  // Every load narrows the range by as little as it can.
  begin(gint64{1} << 31);
  gint64 start = 0;
  gint64 end = G_MAXINT32 - 1;
  gop_ = [](gint64) { return pvr_gop_info_s{}; };
  records_ = [&](gint64 first) {
    const gint64 count = std::clamp<gint64>(start + 1 - first + 1, 1, 32);
    start = first + count - 1;
    return count;
  };
  EXPECT_EQ(by_time(0, static_cast<gint32>(end), 1), -1);
  EXPECT_EQ(reads_, 63);
  EXPECT_EQ(count_errors(kTimeFailed), 63);
}

TEST_F(SearchTest, DamagedTimesEndEverySearch) {
  begin(100000);
  for (guint32 seed = 1; seed < 200; ++seed) {
    gop_ = [seed](gint64 k) {
      pvr_gop_info_s gop{};
      gop.time_code = (static_cast<guint32>(k) * 2654435761u + seed) * 40503u;
      gop.pts = gop.packet_count = gop.time_code;
      return gop;
    };
    reads_ = 0;
    by_time(0, 99999, static_cast<gint32>(seed * 7919u));
    EXPECT_LE(reads_, 63);
    reads_ = 0;
    by_offset(0, 99999, gint64{seed} * 7919 * 188);
    EXPECT_LE(reads_, 63);
  }
}

TEST_F(SearchTest, NullParserFindsNothing) {
  EXPECT_EQ(gst_index_parser_binary_search_by_time(nullptr, 0, 9, 0), -1);
  EXPECT_EQ(gst_index_parser_binary_search_by_pts(nullptr, 0, 9, 0), -1);
  EXPECT_EQ(gst_index_parser_binary_search_by_offset(nullptr, 0, 9, 0), -1);
  EXPECT_EQ(gst_index_parser_search_n_load_gop_table_by_time(nullptr, 0), -1);
  EXPECT_EQ(gst_index_parser_search_n_load_gop_table_by_offset(nullptr, 0), -1);
}

TEST_F(SearchTest, WithoutAWindowNothingIsFound) {
  GstIndexParser parser{};
  for (GstIndexParser *p : {static_cast<GstIndexParser *>(nullptr), &parser}) {
    EXPECT_EQ(gst_index_parser_refresh_cached_gop_by_time(p, 0), -1);
    EXPECT_EQ(gst_index_parser_refresh_cached_gop_by_offset(p, 0), -1);
    EXPECT_EQ(gst_index_parser_locate_current_idx_to_time(p, 0), -1);
    EXPECT_EQ(gst_index_parser_locate_current_idx_to_offset(p, 0), -1);
  }
}

// --- the whole file

TEST_F(SearchTest, WholeFileIsSearchedUpToItsLastWholeRecord) {
  begin(1000);
  EXPECT_EQ(gst_index_parser_search_n_load_gop_table_by_time(&parser_, 760 * 500), 1);
  EXPECT_TRUE(holds(760));
  EXPECT_TRUE(logged_in_order({par("TIME=380000++++++"), par("start_abs_index=0++++++"),
                               par("end_abs_index=999++++++"),
                               par("Target Time is 380000, Input start Index: 0, Input end Index: "
                                   "999")}));
}

TEST_F(SearchTest, FileThatGrewIsSearchedWhole) {
  begin(1000);
  gst_index_parser_search_n_load_gop_table_by_time(&parser_, 0);
  gops_ = 2000;
  EXPECT_EQ(gst_index_parser_search_n_load_gop_table_by_time(&parser_, 1900 * 500), 1);
  EXPECT_TRUE(holds(1900));
  EXPECT_LOGGED(kInfo, par("end_abs_index=1999++++++"));
}

TEST_F(SearchTest, FileWithoutAGopHasNoTime) {
  begin(0);
  EXPECT_EQ(gst_index_parser_search_n_load_gop_table_by_time(&parser_, 0), -1);
  EXPECT_LOGGED(kError, par("[PLG_ERR] end_abs_index=-1 < 0"));
  EXPECT_EQ(reads_, 0);
}

TEST_F(SearchTest, FileShorterThanTheTablesStartHasNoTime) {
  begin(0);
  size_ = [] { return 100; };
  EXPECT_EQ(gst_index_parser_search_n_load_gop_table_by_time(&parser_, 0), -1);
  EXPECT_LOGGED(kError, par("[PLG_ERR] end_abs_index=-1 < 0"));
}

TEST_F(SearchTest, FileWithoutAGopIsAnEmptyRangeOfOffsets) {
  begin(0);
  EXPECT_EQ(gst_index_parser_search_n_load_gop_table_by_offset(&parser_, 0), 1);
  EXPECT_EQ(reads_, 0);
  EXPECT_TRUE(parser_lines().empty());
}

TEST_F(SearchTest, FailedSearchOfTheWholeFileIsTold) {
  begin(1000);
  records_ = [](gint64) { return -1; };
  EXPECT_EQ(gst_index_parser_search_n_load_gop_table_by_time(&parser_, 0), -1);
  EXPECT_EQ(count_errors(kTimeFailed), 1);
  EXPECT_EQ(gst_index_parser_search_n_load_gop_table_by_offset(&parser_, 0), -1);
  EXPECT_EQ(count_errors(kBiggerOffsetFailed), 1);
}

TEST_F(SearchTest, SearchAsksTheSizeOnce) {
  begin(100000);
  gst_index_parser_search_n_load_gop_table_by_time(&parser_, 12345678);
  EXPECT_GT(reads_, 5);
  EXPECT_EQ(sizes_, 1);
  EXPECT_EQ(seeks_, reads_);
}

TEST_F(SearchTest, FarJumpTakesFewLoads) {
  for (const gint64 gops : {33, 100, 1000, 65536, 1000000, 4000000}) {
    begin(gops);
    gst_index_parser_read_gop(&parser_, 0);
    const int most = static_cast<int>(std::ceil(std::log2(static_cast<double>(gops) / 16))) + 2;
    for (int i = 0; i < 100; ++i) {
      const gint64 gop = i * 7919ll * 104729 % gops;
      reads_ = 0;
      ASSERT_EQ(
          gst_index_parser_locate_current_idx_to_time(&parser_, static_cast<gint32>(gop * 500)), 1);
      EXPECT_EQ(parser_.cached_start_abs_index + parser_.cached_current_index, gop);
      EXPECT_LE(reads_, most) << gops << " GOPs, GOP " << gop;
      reads_ = 0;
      ASSERT_GE(
          gst_index_parser_locate_current_idx_to_offset(&parser_, offset_of_gop(gops - gop - 1)),
          0);
      EXPECT_EQ(parser_.cached_start_abs_index + parser_.cached_current_index, gops - gop - 1);
      EXPECT_LE(reads_, most) << gops << " GOPs, GOP " << gop;
    }
    LogCapture::clear();
    gst_index_parser_stop(&parser_);
  }
}

// --- refreshing

class RefreshTest : public SearchTest {
 protected:
  void begin_at(gint64 gops, gint32 target) {
    begin(gops);
    ASSERT_GT(gst_index_parser_read_gop(&parser_, target), 0);
    reads_ = 0;
    sizes_ = 0;
    LogCapture::clear();
  }
};

TEST_F(RefreshTest, TimeJustBehindTheWindowCostsOneLoad) {
  begin_at(1000, 100);  // 84..115
  EXPECT_GE(gst_index_parser_refresh_cached_gop_by_time(&parser_, 120 * 500), 0);
  EXPECT_TRUE(holds(120));
  EXPECT_EQ(reads_, 1);
  EXPECT_EQ(parser_lines().front(), "ReadNextGOPTable");
  EXPECT_THAT(parser_lines(), Not(Contains("SearchNLoadGOPTableByTime")));
}

TEST_F(RefreshTest, TimeJustBeforeTheWindowCostsOneLoad) {
  begin_at(1000, 100);
  EXPECT_GE(gst_index_parser_refresh_cached_gop_by_time(&parser_, 80 * 500), 0);
  EXPECT_TRUE(holds(80));
  EXPECT_EQ(reads_, 1);
  EXPECT_EQ(parser_lines().front(), "ReadPreviousGOPTable");
}

TEST_F(RefreshTest, FarTimeIsSearchedInTheWholeFile) {
  begin_at(1000, 100);
  EXPECT_GE(gst_index_parser_refresh_cached_gop_by_time(&parser_, 760 * 500), 0);
  EXPECT_TRUE(holds(760));
  EXPECT_TRUE(logged_in_order(
      {par("ReadNextGOPTable"), par("SearchNLoadGOPTableByTime"), par("TIME=380000++++++")}));
  EXPECT_EQ(sizes_, 1);
}

TEST_F(RefreshTest, TimeInTheWindowNeedsNoLoad) {
  begin_at(1000, 100);
  EXPECT_GE(gst_index_parser_refresh_cached_gop_by_time(&parser_, 100 * 500), 0);
  EXPECT_EQ(reads_, 0);
  EXPECT_EQ(sizes_, 0);
}

TEST_F(RefreshTest, FailedNeighbourByTimeIsHandedOn) {
  begin_at(1000, 100);
  records_ = [](gint64) { return -3; };
  EXPECT_EQ(gst_index_parser_refresh_cached_gop_by_time(&parser_, 760 * 500), -3);
  EXPECT_TRUE(
      logged_in_order({par("[PLG_ERR] ReadGOP Failed"), par("[PLG_ERR] ReadNextGOPTable Failed")}));
  EXPECT_EQ(gst_index_parser_refresh_cached_gop_by_time(&parser_, 0), -3);
  EXPECT_EQ(count_errors("[PLG_ERR] ReadPreviousGOPTable Failed"), 1);
}

TEST_F(RefreshTest, FailedSearchByTimeIsHandedOn) {
  begin_at(1000, 100);
  records_ = [this](gint64) { return reads_ < 2 ? 32 : -3; };
  EXPECT_EQ(gst_index_parser_refresh_cached_gop_by_time(&parser_, 760 * 500), -3);
  EXPECT_EQ(count_errors("[PLG_ERR] SearchNLoadGOPTableByTime Failed"), 1);
}

TEST_F(RefreshTest, OffsetsMoveTheWindowAlikeWithoutProgressLines) {
  begin_at(1000, 100);
  EXPECT_GE(gst_index_parser_refresh_cached_gop_by_offset(&parser_, offset_of_gop(120)), 0);
  EXPECT_TRUE(holds(120));
  EXPECT_EQ(reads_, 1);
  EXPECT_GE(gst_index_parser_refresh_cached_gop_by_offset(&parser_, offset_of_gop(90)), 0);
  EXPECT_TRUE(holds(90));
  EXPECT_EQ(reads_, 2);
  EXPECT_GE(gst_index_parser_refresh_cached_gop_by_offset(&parser_, offset_of_gop(90)), 0);
  EXPECT_EQ(reads_, 2);
  EXPECT_GE(gst_index_parser_refresh_cached_gop_by_offset(&parser_, offset_of_gop(900)), 0);
  EXPECT_TRUE(holds(900));
  EXPECT_THAT(parser_lines(), Not(Contains("ReadNextGOPTable")));
  EXPECT_THAT(parser_lines(), Not(Contains("ReadPreviousGOPTable")));
}

TEST_F(RefreshTest, FailuresByOffsetAreHandedOn) {
  begin_at(1000, 100);
  records_ = [](gint64) { return -3; };
  EXPECT_EQ(gst_index_parser_refresh_cached_gop_by_offset(&parser_, offset_of_gop(760)), -3);
  EXPECT_EQ(count_errors("[PLG_ERR] ReadNextGOPTable Failed"), 1);
  EXPECT_EQ(gst_index_parser_refresh_cached_gop_by_offset(&parser_, 0), -3);
  EXPECT_EQ(count_errors("[PLG_ERR] ReadPreviousGOPTable Failed"), 1);
  reads_ = 0;
  records_ = [this](gint64) { return reads_ < 2 ? 32 : -3; };
  EXPECT_EQ(gst_index_parser_refresh_cached_gop_by_offset(&parser_, offset_of_gop(760)), -3);
  EXPECT_EQ(count_errors("[PLG_ERR] SearchNLoadGOPTableByOffset Failed"), 1);
}

TEST_F(RefreshTest, OffsetLoadsTheFirstGopsOfAParserThatIsNotStarted) {
  begin(1000);
  parser_.is_started = FALSE;
  EXPECT_GE(gst_index_parser_refresh_cached_gop_by_offset(&parser_, offset_of_gop(3)), 0);
  EXPECT_TRUE(parser_.is_started);
  EXPECT_EQ(parser_lines().front(), "GOPTable is not Initialzed. Try to load GOPs");
  parser_.is_started = FALSE;
  records_ = [](gint64) { return -1; };
  EXPECT_EQ(gst_index_parser_refresh_cached_gop_by_offset(&parser_, offset_of_gop(3)), -1);
  EXPECT_FALSE(parser_.is_started);
  EXPECT_EQ(count_errors("[PLG_ERR] ReadGOP Failed"), 1);
}

// --- the current slot, by time

class LocateTest : public RefreshTest {
 protected:
  gint32 to_time(gint32 time) {
    return gst_index_parser_locate_current_idx_to_time(&parser_, time);
  }
  gint32 to_offset(gint64 offset) {
    return gst_index_parser_locate_current_idx_to_offset(&parser_, offset);
  }
  gint64 current_gop() const {
    return gint64{parser_.cached_start_abs_index} + parser_.cached_current_index;
  }
};

TEST_F(LocateTest, EqualTimeMakesItsGopCurrent) {
  begin_at(1000, 100);
  EXPECT_EQ(to_time(90 * 500), 1);
  EXPECT_EQ(current_gop(), 90);
  EXPECT_TRUE(parser_lines().empty());
}

TEST_F(LocateTest, TimeOfTheCurrentGopChangesNothing) {
  begin_at(1000, 100);
  EXPECT_EQ(to_time(100 * 500), 1);
  EXPECT_EQ(current_gop(), 100);
}

TEST_F(LocateTest, TimeInsideAGopMakesThatGopCurrent) {
  begin_at(1000, 100);
  EXPECT_EQ(to_time(90 * 500 + 499), 1);
  EXPECT_EQ(current_gop(), 90);
}

TEST_F(LocateTest, TimeOutsideTheWindowMovesIt) {
  begin_at(1000, 100);
  EXPECT_EQ(to_time(760 * 500 + 1), 1);
  EXPECT_EQ(current_gop(), 760);
  EXPECT_EQ(parser_lines().front(), "gst_index_parser_is_target_time_gop_cached != CACHED");
}

TEST_F(LocateTest, TimeBehindWhatIsWrittenMakesTheLastGopCurrent) {
  begin_at(1000, 100);
  EXPECT_EQ(to_time(G_MAXINT32), 1);
  EXPECT_EQ(current_gop(), 999);
}

TEST_F(LocateTest, TimeBeforeTheFirstGopMakesSlotZeroCurrent) {
  begin_at(1000, 100);
  gop_ = [](gint64 k) { return even_gop(k + 2); };
  EXPECT_EQ(to_time(7), 1);
  EXPECT_EQ(current_gop(), 0);
  EXPECT_LOGGED(kError, par("[PLG_ERR] Target Time code(7) is not in the index file. Most close "
                            "time value is 1000"));
}

TEST_F(LocateTest, FailedMoveByTimeIsHandedOn) {
  begin_at(1000, 100);
  records_ = [](gint64) { return -3; };
  EXPECT_EQ(to_time(0), -3);
  EXPECT_EQ(count_errors("[PLG_ERR] RefreshCachedGOPByTime Failed"), 1);
}

TEST_F(LocateTest, ScanComparesUnsigned) {
  begin_at(3, 0);
  parser_.gop_cache[0].time_code = 0xFFFFFFF0u;  // -16: inside the window by the signed test
  parser_.cached_current_index = 1;
  EXPECT_EQ(to_time(700), 1);
  EXPECT_EQ(parser_.cached_current_index, 0u) << "4294967280 is the first to be greater";
  EXPECT_LOGGED(kError, par("[PLG_ERR] Target Time code(700) is not in the index file. Most close "
                            "time value is -16"));
}

TEST_F(LocateTest, ScanThatFindsNoneLeavesTheCurrentSlot) {
  begin_at(3, 2);
  parser_.gop_cache[0].time_code = 0xFFFFFF00u;
  for (int slot = 0; slot < 3; ++slot) parser_.gop_cache[slot].time_code = 0xFFFFFF00u;
  parser_.gop_cache[2].time_code = 0;  // signed: the last; unsigned: before every negative time
  parser_.gop_cache[0].time_code = 0x80000000u;
  parser_.gop_cache[1].time_code = 0x80000001u;
  EXPECT_EQ(to_time(-5), 1);
  EXPECT_EQ(parser_.cached_current_index, 2u);
}

TEST_F(LocateTest, CurrentSlotBehindTheWindowIsNoMatch) {
  begin_at(10, 0);
  parser_.cached_current_index = 20;
  parser_.gop_cache[20].time_code = 1500;  // left over from an earlier window
  EXPECT_EQ(to_time(1500), 1);
  EXPECT_EQ(parser_.cached_current_index, 3u);
}

TEST_F(LocateTest, CurrentSlotBehindEveryWindowIsNotRead) {
  begin_at(10, 0);
  parser_.cached_current_index = 0xFFFFFFFFu;
  EXPECT_EQ(to_time(1500), 1);
  EXPECT_EQ(parser_.cached_current_index, 3u);
  parser_.cached_current_index = 0xFFFFFFFFu;
  EXPECT_GE(to_offset(offset_of_gop(3)), 0);
  EXPECT_EQ(parser_.cached_current_index, 3u);
}

// --- the current slot, by offset

TEST_F(LocateTest, OffsetOfTheCurrentGopGivesItsTime) {
  begin_at(1000, 100);
  EXPECT_EQ(to_offset(offset_of_gop(100)), 50000);
  EXPECT_EQ(current_gop(), 100);
  EXPECT_TRUE(parser_lines().empty());
}

TEST_F(LocateTest, SmallerOffsetIsWalkedBackTo) {
  begin_at(1000, 100);
  EXPECT_EQ(to_offset(offset_of_gop(90)), 45000);
  EXPECT_EQ(current_gop(), 90);
  EXPECT_THAT(parser_lines(), ElementsAre("BinGo!Time: 45000\n"));
}

TEST_F(LocateTest, OffsetInsideAGopIsWalkedBackToItsStart) {
  begin_at(1000, 100);
  EXPECT_EQ(to_offset(offset_of_gop(90) + 1), 45000);
  EXPECT_EQ(current_gop(), 90);
}

TEST_F(LocateTest, BiggerOffsetIsWalkedOnTo) {
  begin_at(1000, 100);
  EXPECT_EQ(to_offset(offset_of_gop(110)), 55000);
  EXPECT_EQ(current_gop(), 110);
  EXPECT_THAT(parser_lines(), ElementsAre("Offset is bigger than current mdb index's offset",
                                          "End index: 31\n", "BinGo!Time: 55000\n"));
}

TEST_F(LocateTest, BiggerOffsetInsideAGopMakesThatGopCurrent) {
  begin_at(1000, 100);
  EXPECT_EQ(to_offset(offset_of_gop(110) + 187999), 55000);
  EXPECT_EQ(current_gop(), 110);
}

TEST_F(LocateTest, OffsetBehindWhatIsWrittenMakesTheLastGopCurrent) {
  begin_at(1000, 100);
  EXPECT_EQ(to_offset(offset_of_gop(5000)), 1);
  EXPECT_EQ(current_gop(), 999);
  EXPECT_TRUE(logged_in_order({par("Refresh GOP Tables in cache"),
                               par("Offset is bigger than current mdb index's offset"),
                               par("locateCurrentInxToOffset: index_parser->cached_current_index "
                                   ": " +
                                   std::to_string(parser_.cached_end_index) + "\n")}));
}

TEST_F(LocateTest, OffsetBeforeTheFirstGopMakesSlotZeroCurrent) {
  begin_at(1000, 5);
  gop_ = [](gint64 k) { return even_gop(k + 2); };
  gst_index_parser_read_gop(&parser_, 5);
  EXPECT_EQ(to_offset(7), 1);
  EXPECT_EQ(current_gop(), 0);
  EXPECT_LOGGED(kInfo, par("locateCurrentInxToOffset: index_parser->cached_current_index : 0\n"));
  EXPECT_EQ(to_offset(7), 1) << "and stays there";
  EXPECT_EQ(current_gop(), 0);
}

TEST_F(LocateTest, FarOffsetMovesTheWindow) {
  begin_at(1000, 100);
  EXPECT_EQ(to_offset(offset_of_gop(760) + 5), 380000);
  EXPECT_EQ(current_gop(), 760);
  EXPECT_EQ(parser_lines().front(), "Refresh GOP Tables in cache");
}

TEST_F(LocateTest, FailedMoveByOffsetIsHandedOn) {
  begin_at(1000, 100);
  records_ = [](gint64) { return -3; };
  EXPECT_EQ(to_offset(0), -3);
  EXPECT_EQ(count_errors("[PLG_ERR] RefreshCachedGOPByOffset Failed"), 1);
}

TEST_F(LocateTest, OffsetsPassFourGibibytes) {
  begin_at(1000000, 100);
  EXPECT_GE(to_offset(offset_of_gop(900000) + 1), 0);
  EXPECT_EQ(current_gop(), 900000);
}

}  // namespace
}  // namespace plexa_test
