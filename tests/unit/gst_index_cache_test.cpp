// gst_index_cache_test.cpp - the window of GOP records: loads, and where a target lies to it.
#include <gmock/gmock.h>

#include <tuple>

#include "gst_index_fixture.h"

namespace plexa_test {
namespace {

using ::testing::ElementsAre;

constexpr gint32 kBefore = 1;
constexpr gint32 kAfter = 2;
constexpr gint32 kCached = 3;

struct Window {
  guint32 current, start, end, start_abs, end_abs;
  bool operator==(const Window &) const = default;
};

Window window_of(const GstIndexParser &parser) {
  return {parser.cached_current_index, parser.cached_start_index, parser.cached_end_index,
          parser.cached_start_abs_index, parser.cached_end_abs_index};
}

void PrintTo(const Window &w, std::ostream *out) {
  *out << "current " << w.current << ", slots " << w.start << ".." << w.end << ", GOPs "
       << w.start_abs << ".." << w.end_abs;
}

// --- placing the window

class WindowTest : public IndexFileTest {};

TEST_F(WindowTest, TargetNearTheStartIsItsOwnSlot) {
  start_index(small_index().gops(200, 500, 1000));
  EXPECT_EQ(gst_index_parser_read_gop(&parser_, 5), 32);
  EXPECT_EQ(window_of(parser_), (Window{5, 0, 31, 0, 31}));
}

TEST_F(WindowTest, TargetFurtherOnSitsSixteenSlotsIn) {
  start_index(small_index().gops(200, 500, 1000));
  EXPECT_EQ(gst_index_parser_read_gop(&parser_, 100), 32);
  EXPECT_EQ(window_of(parser_), (Window{16, 0, 31, 84, 115}));
  EXPECT_EQ(parser_.gop_cache[16].time_code, 50000u);
}

TEST_F(WindowTest, ShortFileGivesAShortWindow) {
  start_index(small_index().gops(10, 500, 1000));
  EXPECT_EQ(gst_index_parser_read_gop(&parser_, 0), 10);
  EXPECT_EQ(window_of(parser_), (Window{0, 0, 9, 0, 9}));
}

TEST_F(WindowTest, TargetThatIsNotWrittenYetLeavesTheCurrentSlotBehindTheWindow) {
  start_index(small_index().gops(100, 500, 1000));
  EXPECT_EQ(gst_index_parser_read_gop(&parser_, 110), 6);
  EXPECT_EQ(window_of(parser_), (Window{16, 0, 5, 94, 99}));
}

TEST_F(WindowTest, PartlyWrittenRecordIsLeftOut) {
  start_index(small_index().gops(3, 500, 1000));
  resize_file(GST_INDEX_BASE_TABLE_SIZE + 104 * 5 / 2);
  EXPECT_EQ(gst_index_parser_read_gop(&parser_, 0), 2);
  EXPECT_EQ(parser_.cached_end_index, 1u);
}

TEST_F(WindowTest, LoadIsToldWithItsPlaceAndTheFilesSize) {
  start_index(small_index().gops(200, 500, 1000));
  gst_index_parser_read_gop(&parser_, 100);
  EXPECT_THAT(parser_lines(), ElementsAre("IndexParser ReadGOP, startGOPIndex: 84",
                                          "IndexFile Size: 24888", "Seek to 12824"));
  EXPECT_TRUE(LogCapture::messages(kError).empty()) << LogCapture::dump();
}

TEST_F(WindowTest, LoadIsOneSeekAndOneRead) {
  start_index(small_index().gops(200, 500, 1000));
  Faults faults;
  gst_index_parser_read_gop(&parser_, 100);
  EXPECT_EQ(faults.count("lseek64"), 1);
  EXPECT_EQ(faults.count("read"), 1);
  EXPECT_EQ(faults.count("stat64"), 1);
}

TEST_F(WindowTest, RecordsAreRelativeToTheRecordingsStart) {
  pvr_gop_info_s gop{};
  gop.pts = 77;
  gop.time_code = 1500;
  gop.packet_count = 350;
  gop.last_frame_time = 1900;
  gop.last_frame_packet_count = 440;
  gop.next_gop_first_time = 2000;
  gop.next_gop_first_packet_count = 450;
  gop.next_gop_pts = 78;
  start_index(small_index()
                  .base([](auto &b) {
                    b.start_time_code = 1000;
                    b.start_packet_count = 50;
                  })
                  .gop(gop)
                  .gop(gop));
  for (const pvr_gop_info_s &loaded : {parser_.gop_cache[0], parser_.gop_cache[1]}) {
    EXPECT_EQ(loaded.pts, 77u);
    EXPECT_EQ(loaded.time_code, 500u);
    EXPECT_EQ(loaded.packet_count, 300u);
    EXPECT_EQ(loaded.last_frame_time, 900u);
    EXPECT_EQ(loaded.last_frame_packet_count, 390u);
    EXPECT_EQ(loaded.next_gop_first_time, 1000u);
    EXPECT_EQ(loaded.next_gop_first_packet_count, 400u);
    EXPECT_EQ(loaded.next_gop_pts, 78u);
  }
}

TEST_F(WindowTest, EitherStartAloneMakesRecordsRelative) {
  start_index(small_index().base([](auto &b) { b.start_time_code = 1000; }).gops(2, 500, 1000));
  EXPECT_EQ(parser_.gop_cache[1].time_code, 500u);
  close_index();
  start_index(small_index().base([](auto &b) { b.start_packet_count = 50; }).gops(2, 500, 1000));
  EXPECT_EQ(parser_.gop_cache[1].packet_count, 1000u);
}

TEST_F(WindowTest, RecordsBeforeTheStartWrap) {
  start_index(small_index().gop(pvr_gop_info_s{}).base([](auto &b) {
    b.start_time_code = 1;
    b.start_packet_count = 2;
  }));
  EXPECT_EQ(parser_.gop_cache[0].time_code, 0xFFFFFFFFu);
  EXPECT_EQ(parser_.gop_cache[0].packet_count, 0xFFFFFFFFFFFFFFFEull);
}

TEST_F(WindowTest, FailedSeekIsHandedOnAndKeepsTheWindow) {
  start_index(small_index().gops(200, 500, 1000));
  Faults faults;
  faults.fail("lseek64", EIO);
  EXPECT_EQ(gst_index_parser_read_gop(&parser_, 100), -1);
  EXPECT_LOGGED(kError, par("[PLG_ERR] m_IndexFile->seek Failed: -1\n"));
  EXPECT_EQ(faults.count("read"), 0);
  EXPECT_EQ(window_of(parser_), (Window{0, 0, 31, 0, 31}));
}

TEST_F(WindowTest, FailedReadIsHandedOnAndKeepsTheWindowsIndices) {
  start_index(small_index().gops(200, 500, 1000));
  Faults faults;
  faults.fail("read", EIO);
  EXPECT_EQ(gst_index_parser_read_gop(&parser_, 100), -1);
  EXPECT_LOGGED(kError, par("[PLG_ERR] m_IndexFile->Read Failed: -1\n"));
  EXPECT_EQ(window_of(parser_), (Window{0, 0, 31, 0, 31}));
}

TEST_F(WindowTest, LoadBehindTheFileFailsAndKeepsTheWindowsIndices) {
  start_index(small_index().gops(40, 500, 1000));
  EXPECT_EQ(gst_index_parser_read_gop(&parser_, 1000), -1);
  EXPECT_LOGGED(kError, par("[PLG_ERR] loaded_num_gop: 0\n"));
  EXPECT_EQ(window_of(parser_), (Window{0, 0, 31, 0, 31}));
}

TEST_F(WindowTest, NegativeTargetLoadsTheFirstWindowAndIsNoSlotOfIt) {
  start_index(small_index().gops(40, 500, 1000));
  for (const gint32 target : {-1, G_MININT32}) {
    EXPECT_EQ(gst_index_parser_read_gop(&parser_, target), 32);
    EXPECT_EQ(parser_.cached_start_abs_index, 0u);
    EXPECT_GT(parser_.cached_current_index, parser_.cached_end_index);
  }
}

TEST_F(WindowTest, LegacyRecordsAreMadeCurrentAndRelative) {
  start_index(
      small_index().legacy().base([](auto &b) { b.start_time_code = 1000; }).gops(50, 500, 1000));
  EXPECT_EQ(gst_index_parser_read_gop(&parser_, 40), 26);
  EXPECT_EQ(window_of(parser_), (Window{16, 0, 25, 24, 49}));
  EXPECT_EQ(parser_.gop_cache[16].time_code, 20000u);
  EXPECT_EQ(parser_.gop_cache[25].time_code, 24500u);
  EXPECT_EQ(parser_.gop_cache[25].video_pid, 0x100);
  EXPECT_TRUE(logged_in_order({par("IndexParser ReadGOP, startGOPIndex: 24"), par("Seek to 6488"),
                               par("Pelko mdb file"), par("num_gop = [26]")}));
  EXPECT_EQ(LogCapture::count(kInfo, par("Pelko mdb file")), 1);
}

TEST_F(WindowTest, FailedLegacyReadIsHandedOn) {
  start_index(small_index().legacy().gops(50, 500, 1000));
  Faults faults;
  faults.fail("read", EIO);
  EXPECT_EQ(gst_index_parser_read_gop(&parser_, 40), -1);
  EXPECT_LOGGED(kError, par("[PLG_ERR] read Pelko gop info failed, ret = [-1]"));
  EXPECT_EQ(window_of(parser_), (Window{0, 0, 31, 0, 31}));
}

TEST_F(WindowTest, LegacyFileWithoutAWholeRecordFails) {
  open_index(small_index().legacy().gops(1, 500, 1000));
  resize_file(GST_INDEX_BASE_TABLE_SIZE + 99);
  EXPECT_EQ(gst_index_parser_start(&parser_), -1);
  EXPECT_TRUE(logged_in_order(
      {par("num_gop = [0]"), par("[PLG_ERR] num_gop < 1"), par("[PLG_ERR] ReadGOP Failed")}));
}

TEST_F(WindowTest, PartlyWrittenLegacyRecordIsLeftOut) {
  open_index(small_index().legacy().gops(3, 500, 1000));
  resize_file(GST_INDEX_BASE_TABLE_SIZE + 299);
  EXPECT_EQ(gst_index_parser_start(&parser_), 1);
  EXPECT_EQ(parser_.cached_end_index, 1u);
  EXPECT_EQ(parser_.gop_cache[2].pts, 0u) << "the torn record is nowhere";
}

TEST(GstIndexWindow, WithoutAWindowNothingIsLoadedOrTested) {
  GstIndexParser parser{};
  for (GstIndexParser *p : {static_cast<GstIndexParser *>(nullptr), &parser}) {
    EXPECT_EQ(gst_index_parser_read_gop(p, 0), -1);
    EXPECT_EQ(gst_index_parser_is_target_time_gop_cached(p, 0), -1);
    EXPECT_EQ(gst_index_parser_is_target_pts_gop_cached(p, 0), -1);
    EXPECT_EQ(gst_index_parser_is_target_offset_gop_cached(p, 0), -1);
    EXPECT_FALSE(gst_index_parser_check_gop_loaded(p));
    EXPECT_EQ(gst_index_parser_read_next_gop_table(p), -1);
  }
  EXPECT_EQ(gst_index_parser_cache_initial_gop(nullptr, 0), -1);
  EXPECT_EQ(gst_index_parser_read_previous_gop_table(nullptr), -1);
}

// --- what a back-end may answer

class HostileReadTest : public ScriptedIndexTest {};

TEST_F(HostileReadTest, NoMoreThan32RecordsAreAccepted) {
  begin(1000);
  records_ = [](gint64) { return 1000; };
  EXPECT_EQ(gst_index_parser_read_gop(&parser_, 0), 32);
  EXPECT_EQ(window_of(parser_), (Window{0, 0, 31, 0, 31}));
}

TEST_F(HostileReadTest, NoMoreThan32LegacyRecordsAreAccepted) {
  begin(1000);
  parser_.is_pelko_mdb = TRUE;
  parser_.gop_info_size = 100;
  records_ = [](gint64) { return 1000; };
  EXPECT_EQ(gst_index_parser_read_gop(&parser_, 0), 32);
  EXPECT_LOGGED(kInfo, par("num_gop = [32]"));
}

TEST_F(HostileReadTest, NegativeResultsAreHandedOn) {
  begin(1000);
  records_ = [](gint64) { return -3; };
  EXPECT_EQ(gst_index_parser_read_gop(&parser_, 0), -3);
  EXPECT_LOGGED(kError, par("[PLG_ERR] m_IndexFile->Read Failed: -3\n"));
  seek_result_ = -3;
  EXPECT_EQ(gst_index_parser_read_gop(&parser_, 0), -3);
  EXPECT_LOGGED(kError, par("[PLG_ERR] m_IndexFile->seek Failed: -3\n"));
}

TEST_F(HostileReadTest, UnknownRecordSizeLoadsNothing) {
  begin(1000);
  parser_.gop_info_size = 0;
  EXPECT_EQ(gst_index_parser_read_gop(&parser_, 0), -1);
  EXPECT_LOGGED(kError, par("[PLG_ERR] loaded_num_gop: 0\n"));
}

TEST_F(HostileReadTest, PositionsPassFourGibibytes) {
  begin(gint64{1} << 31);
  EXPECT_EQ(gst_index_parser_read_gop(&parser_, 50000016), 32);
  EXPECT_EQ(position_, 4088 + 50000000ll * 104);
  EXPECT_EQ(gst_index_parser_read_gop(&parser_, G_MAXINT32), 17);
  EXPECT_EQ(position_, 4088 + 2147483631ll * 104);
  EXPECT_EQ(parser_.cached_end_abs_index, 2147483647u);
}

// --- allocation and loading on demand

using InitialLoadTest = IndexFileTest;

TEST_F(InitialLoadTest, FlagOtherThanZeroOnlyAllocates) {
  open_index(small_index().gops(3, 500, 1000));
  Faults faults;
  EXPECT_EQ(gst_index_parser_cache_initial_gop(&parser_, 1), 0);
  EXPECT_EQ(faults.count("read"), 0);
  EXPECT_THAT(parser_lines(), ElementsAre("IndexParser GOP Table alloc success"));
  for (int slot = 0; slot < 32; ++slot) EXPECT_EQ(parser_.gop_cache[slot].next_gop_pts, 0u);
}

TEST_F(InitialLoadTest, NewWindowKnowsNothingOfTheOldOne) {
  start_index(small_index().gops(200, 500, 1000));
  gst_index_parser_read_gop(&parser_, 100);
  EXPECT_EQ(gst_index_parser_cache_initial_gop(&parser_, 1), 0);
  EXPECT_EQ(window_of(parser_), (Window{0, 0, 0, 0, 0}));
  EXPECT_EQ(parser_.gop_cache[0].time_code, 0u);
}

TEST_F(InitialLoadTest, FlagZeroAlsoLoads) {
  open_index(small_index().gops(3, 500, 1000));
  parser_.gop_info_size = 104;
  parser_.gop_start_offset = GST_INDEX_BASE_TABLE_SIZE;
  EXPECT_EQ(gst_index_parser_cache_initial_gop(&parser_, 0), 3);
  EXPECT_FALSE(parser_.is_started);
}

TEST_F(InitialLoadTest, ParserThatIsNotStartedLoadsOnDemand) {
  open_index(small_index().gops(3, 500, 1000));
  parser_.gop_info_size = 104;
  parser_.gop_start_offset = GST_INDEX_BASE_TABLE_SIZE;
  gst_index_parser_cache_initial_gop(&parser_, 1);
  LogCapture::clear();
  EXPECT_TRUE(gst_index_parser_check_gop_loaded(&parser_));
  EXPECT_TRUE(parser_.is_started);
  EXPECT_EQ(parser_.cached_end_index, 2u);
  EXPECT_EQ(parser_lines().front(), "GOPTable is not Initialzed. Try to load GOPs");
}

TEST_F(InitialLoadTest, StartedParserIsLoaded) {
  start_index(small_index().gops(3, 500, 1000));
  Faults faults;
  EXPECT_TRUE(gst_index_parser_check_gop_loaded(&parser_));
  EXPECT_TRUE(faults.calls().empty());
  EXPECT_TRUE(LogCapture::messages().empty());
}

TEST_F(InitialLoadTest, FailedLoadOnDemandIsTold) {
  open_index(small_index().gops(3, 500, 1000));
  gst_index_parser_cache_initial_gop(&parser_, 1);
  EXPECT_FALSE(gst_index_parser_check_gop_loaded(&parser_));
  EXPECT_FALSE(parser_.is_started);
  EXPECT_TRUE(logged_in_order(
      {par("GOPTable is not Initialzed. Try to load GOPs"), par("[PLG_ERR] ReadGOP Failed")}));
  EXPECT_LOGGED(kError, par("[PLG_ERR] ReadGOP Failed"));
}

// --- neighbouring windows

using NeighbourTest = IndexFileTest;

TEST_F(NeighbourTest, NextWindowOverlapsTheOldOne) {
  start_index(small_index().gops(200, 500, 1000));
  EXPECT_EQ(gst_index_parser_read_next_gop_table(&parser_), 32);
  EXPECT_EQ(window_of(parser_), (Window{16, 0, 31, 15, 46}));
}

TEST_F(NeighbourTest, PreviousWindowOverlapsTheOldOne) {
  start_index(small_index().gops(200, 500, 1000));
  gst_index_parser_read_gop(&parser_, 100);
  EXPECT_EQ(gst_index_parser_read_previous_gop_table(&parser_), 32);
  EXPECT_EQ(window_of(parser_), (Window{16, 0, 31, 68, 99}));
}

TEST_F(NeighbourTest, NothingPrecedesTheFirstWindow) {
  start_index(small_index().gops(200, 500, 1000));
  Faults faults;
  EXPECT_EQ(gst_index_parser_read_previous_gop_table(&parser_), 0);
  EXPECT_EQ(faults.count("read"), 0);
  EXPECT_EQ(faults.count("stat64"), 0);
  EXPECT_TRUE(LogCapture::messages(kError).empty());
}

TEST_F(NeighbourTest, FailuresAreTold) {
  start_index(small_index().gops(200, 500, 1000));
  gst_index_parser_read_gop(&parser_, 100);
  Faults faults;
  faults.fail_all("read", EIO);
  EXPECT_EQ(gst_index_parser_read_next_gop_table(&parser_), -1);
  EXPECT_EQ(LogCapture::count(kError, par("[PLG_ERR] ReadGOP Failed")), 1);
  EXPECT_EQ(gst_index_parser_read_previous_gop_table(&parser_), -1);
  EXPECT_EQ(LogCapture::count(kError, par("[PLG_ERR] ReadGOP Failed")), 2);
}

// --- window tests

class PlaceTest : public ScriptedIndexTest {
 protected:
  // A window of three slots with these ends.
  template <class Set>
  void window(Set set_first, Set set_last) {
    begin(3);
    set_first(parser_.gop_cache[0]);
    set_last(parser_.gop_cache[2]);
    parser_.cached_end_index = 2;
  }
  using Set = std::function<void(pvr_gop_info_s &)>;
  void times(guint32 first, guint32 last) {
    window<Set>([=](auto &g) { g.time_code = first; }, [=](auto &g) { g.time_code = last; });
  }
  void pts(guint64 first, guint64 last) {
    window<Set>([=](auto &g) { g.pts = first; }, [=](auto &g) { g.pts = last; });
  }
  void packets(guint64 first, guint64 last) {
    window<Set>([=](auto &g) { g.packet_count = first; }, [=](auto &g) { g.packet_count = last; });
  }
  gint32 place_of_time(gint32 t) { return gst_index_parser_is_target_time_gop_cached(&parser_, t); }
  gint32 place_of_pts(guint64 t) { return gst_index_parser_is_target_pts_gop_cached(&parser_, t); }
  gint32 place_of_offset(gint64 t) {
    return gst_index_parser_is_target_offset_gop_cached(&parser_, t);
  }
};

TEST_F(PlaceTest, BothEndsBelongToTheWindow) {
  times(100, 200);
  EXPECT_EQ(place_of_time(99), kBefore);
  EXPECT_EQ(place_of_time(100), kCached);
  EXPECT_EQ(place_of_time(200), kCached);
  EXPECT_EQ(place_of_time(201), kAfter);
}

TEST_F(PlaceTest, TimesCompareSigned) {
  times(0xFFFFFFF0u, 100);
  EXPECT_EQ(place_of_time(-16), kCached);
  EXPECT_EQ(place_of_time(0), kCached);
  EXPECT_EQ(place_of_time(-17), kBefore);
}

TEST_F(PlaceTest, PtsCompareUnsigned) {
  pts(10, 0xFFFFFFFFFFFFFFF0ull);
  EXPECT_EQ(place_of_pts(9), kBefore);
  EXPECT_EQ(place_of_pts(0x8000000000000000ull), kCached);
  EXPECT_EQ(place_of_pts(0xFFFFFFFFFFFFFFFFull), kAfter);
}

TEST_F(PlaceTest, OffsetsArePacketsTimes188) {
  packets(1, 2);
  EXPECT_EQ(place_of_offset(187), kBefore);
  EXPECT_EQ(place_of_offset(188), kCached);
  EXPECT_EQ(place_of_offset(376), kCached);
  EXPECT_EQ(place_of_offset(377), kAfter);
}

TEST_F(PlaceTest, OffsetsCompareSignedAndWrap) {
  packets(0xFFFFFFFFFFFFFFFFull, 0x7FFFFFFFFFFFFFFFull);  // -188; wraps to -188 too
  EXPECT_EQ(place_of_offset(-189), kBefore);
  EXPECT_EQ(place_of_offset(-188), kCached);
  EXPECT_EQ(place_of_offset(0), kAfter);
}

TEST_F(PlaceTest, OffsetsPassFourGibibytes) {
  packets(30000000, 60000000);
  EXPECT_EQ(place_of_offset(30000000ll * 188 - 1), kBefore);
  EXPECT_EQ(place_of_offset(60000000ll * 188), kCached);
}

TEST_F(PlaceTest, BeforeIsTestedFirst) {
  times(200, 100);  // damaged: the ends are the wrong way round
  EXPECT_EQ(place_of_time(150), kBefore);
  EXPECT_EQ(place_of_time(201), kAfter);
}

}  // namespace
}  // namespace plexa_test
