// The cut buffer manager: the span's settings, the recorded time, times and offsets, and when a cut
// is started. The task itself is not run here.
#include "gst-plexa/gst_cut_buffer_mgr.h"

#include <gmock/gmock.h>

#include <string>

#include "gst_cut_fixture.h"

namespace {

// In place of GStreamer's: the task gets no thread, and is told so or not.
int task_starts = 0;
gboolean start_answer = TRUE;

}  // namespace

gboolean gst_task_start(GstTask *) {
  ++task_starts;
  return start_answer;
}

namespace plexa_test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

const std::string kNeverCut = fmg_error("for atsc3 timeshift case, it never cut file");
const std::string kNeverOpen =
    fmg_error("for atsc3 timeshift case, it never cut file, do not open the index parser");
const std::string kInvalidFrame = fmg_error("frame_data is invalid");

// The numbers that the settings consist of.
struct Settings {
  gint32 fixed_duration, cutbuf_starttime, max_time, current_time, next_update_time;
  bool operator==(const Settings &) const = default;
};
void PrintTo(const Settings &s, std::ostream *out) {
  *out << "keeps " << s.fixed_duration << ", began " << s.cutbuf_starttime << ", cuts at "
       << s.max_time << ", now " << s.current_time << ", publishes from " << s.next_update_time;
}

class CutMgrTest : public CutTest {
 protected:
  CutMgrTest() {
    task_starts = 0;
    start_answer = TRUE;
    create();
  }
  ~CutMgrTest() override {
    if (is_made_) destroy();
  }

  void create(guint32 is_atsc3 = 0) { create_for(rec_, is_atsc3); }
  void create_for(const std::string &path, guint32 is_atsc3 = 0) {
    if (is_made_) destroy();
    path_ = path;
    std::memset(static_cast<void *>(&mgr_), 0xA5, sizeof mgr_);
    ASSERT_TRUE(gst_cut_mgr_create(&mgr_, path_.c_str(), 0, is_atsc3));
    is_made_ = true;
    LogCapture::clear();
  }
  void destroy() {
    gst_cut_mgr_destroy(&mgr_);
    is_made_ = false;
  }
  gboolean set(gint32 start, gint32 max, gint32 mode = GST_CUT_MGR_FIRST_SETTING) {
    const gboolean result = gst_cut_mgr_set_max_time(&mgr_, start, max, mode);
    return result;
  }
  // A span of 2 seconds, cut at 5 seconds.
  void given_span(gint32 start = 2000, gint32 max = 5000) {
    ASSERT_TRUE(set(start, max));
    LogCapture::clear();
  }
  void update(gint32 time) { gst_cut_mgr_update_time(&mgr_, time); }
  Settings settings() const {
    return {mgr_.fixed_duration, mgr_.cutbuf_starttime, mgr_.max_time, mgr_.current_time,
            mgr_.next_update_time};
  }
  GstCutParam &param() { return *mgr_.cut_param; }

  GstCutBufferMgr mgr_;
  std::string path_;
  bool is_made_ = false;
};

// ---- Create ----

TEST_F(CutMgrTest, IsCreatedOfZerosInAnyStorage) {
  EXPECT_EQ(mgr_.key, 0u);
  EXPECT_EQ(mgr_.file_path, path_.c_str()) << "borrowed, not copied";
  EXPECT_EQ(mgr_.mdb_file, nullptr);
  EXPECT_EQ(settings(), (Settings{0, 0, 0, 0, 0}));
  EXPECT_EQ(mgr_.is_atsc3, 0u);
  EXPECT_EQ(mgr_.index_parser, nullptr);
  ASSERT_NE(mgr_.cut_param, nullptr);
  EXPECT_EQ(mgr_.cut_param->task, nullptr);
}

TEST_F(CutMgrTest, KeepsItsKeyAndItsBroadcast) {
  GstCutBufferMgr mgr;
  ASSERT_TRUE(gst_cut_mgr_create(&mgr, rec_.c_str(), 3, 1));
  EXPECT_EQ(mgr.key, 3u);
  EXPECT_EQ(mgr.is_atsc3, 1u);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
  gst_cut_mgr_destroy(&mgr);
}

TEST_F(CutMgrTest, IsNotCreatedWithoutMemoryForTheThreadsRecord) {
  GstCutBufferMgr mgr;
  Faults faults;
  faults.fail("calloc", ENOMEM);
  EXPECT_FALSE(gst_cut_mgr_create(&mgr, rec_.c_str(), 0, 0));
  EXPECT_EQ(mgr.cut_param, nullptr);
}

// ---- The span ----

struct Refused {
  const char *name;
  gint32 start, max;
};

class RefusedSpanTest : public CutMgrTest,
                        public ::testing::WithParamInterface<std::tuple<Refused, gint32>> {};

TEST_P(RefusedSpanTest, ChangesAndPublishesNothing) {
  const auto &[times, mode] = GetParam();
  given_span();
  const Settings before = settings();
  gst_shared_cut_info_set_fixed_duration(nullptr, 77);
  LogCapture::clear();
  EXPECT_FALSE(set(times.start, times.max, mode));
  EXPECT_EQ(settings(), before);
  EXPECT_EQ(span(), 77);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre(fmg_error("Parameter is wrong !!, lCutBufStartTime=[" +
                                    std::to_string(times.start) + "], lMaxTime=[" +
                                    std::to_string(times.max) + "]")));
  EXPECT_EQ(LogCapture::lines().size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Times, RefusedSpanTest,
    ::testing::Combine(::testing::Values(Refused{"NoStart", 0, 5000}, Refused{"NoEnd", 5000, 0},
                                         Refused{"Nothing", 0, 0}, Refused{"NegativeStart", -1, 9},
                                         Refused{"NegativeEnd", 9, G_MININT32}),
                       ::testing::Values(0, 1, 2, 3)),
    [](const auto &test) {
      return std::get<0>(test.param).name + std::to_string(std::get<1>(test.param));
    });

TEST_F(CutMgrTest, TheFirstSettingSetsEverythingAndPublishesTheStart) {
  update(1000);
  EXPECT_TRUE(set(2000, 5000));
  EXPECT_EQ(settings(), (Settings{2000, 2000, 5000, 1000, 2000}));
  EXPECT_EQ(span(), 2000);
  EXPECT_THAT(LogCapture::messages(), ElementsAre(fmg("fixed_duration:2000")));
}

TEST_F(CutMgrTest, TheSmallestSpanIsOneMillisecond) {
  EXPECT_TRUE(set(1, 1));
  EXPECT_EQ(settings(), (Settings{1, 1, 1, 0, 1}));
}

TEST_F(CutMgrTest, AfterACutANewPeriodBeginsAndTheLengthStays) {
  given_span();
  gst_shared_cut_info_set_fixed_duration(nullptr, 77);
  EXPECT_TRUE(set(5000, 8000, GST_CUT_MGR_AFTER_CUT));
  EXPECT_EQ(settings(), (Settings{2000, 5000, 8000, 0, 5000}));
  EXPECT_EQ(span(), 2000);
}

TEST_F(CutMgrTest, AChangeToTheSameLengthChangesNothing) {
  given_span();
  gst_shared_cut_info_set_fixed_duration(nullptr, 77);
  LogCapture::clear();
  EXPECT_TRUE(set(2000, 9000, GST_CUT_MGR_CHANGE_SPAN));
  EXPECT_EQ(settings(), (Settings{2000, 2000, 5000, 0, 2000}));
  EXPECT_EQ(span(), 2000);
  EXPECT_THAT(LogCapture::messages(kInfo),
              ElementsAre(fmg("diff_fixed_duration==0,cut_buffer_mgr->fixed_duration=[2000],"
                              "cutbuf_starttime=[2000]"),
                          fmg("fixed_duration:2000")));
  EXPECT_THAT(LogCapture::messages(kError), IsEmpty());
}

TEST_F(CutMgrTest, AChangeToAShorterSpanCountsFromTheNextCutOn) {
  given_span();
  gst_shared_cut_info_set_accumulated_time(nullptr, 11);
  EXPECT_TRUE(set(1500, 9000, GST_CUT_MGR_CHANGE_SPAN));
  EXPECT_EQ(settings(), (Settings{1500, 2000, 5000, 0, 2000}));
  EXPECT_EQ(span(), 1500);
  EXPECT_EQ(start_time(), 11) << "what is published stays";
  EXPECT_THAT(LogCapture::messages(kInfo),
              ElementsAre(fmg("diff_fixed_duration==0,cut_buffer_mgr->fixed_duration=[2000],"
                              "cutbuf_starttime=[1500]"),
                          fmg("fixed_duration:1500")));
}

TEST_F(CutMgrTest, AChangeToALongerSpanMovesTheCutLaterAndWithdrawsTheStart) {
  given_span();
  ASSERT_TRUE(set(5000, 8000, GST_CUT_MGR_AFTER_CUT));
  gst_shared_cut_info_set_accumulated_time(nullptr, 11);
  gst_shared_cut_info_set_accumulated_offset(nullptr, 22);
  gst_shared_cut_info_set_total_cuttime(nullptr, 33);
  given_total_cut(44);
  LogCapture::clear();
  EXPECT_TRUE(set(2500, 9000, GST_CUT_MGR_CHANGE_SPAN));
  EXPECT_EQ(settings(), (Settings{2500, 5500, 8500, 0, 2500}));
  EXPECT_EQ(span(), 2500);
  EXPECT_EQ(start_time(), 0);
  EXPECT_EQ(start_offset(), 0);
  EXPECT_EQ(total_cut_time(), 33);
  EXPECT_EQ(total_cut(), 44);
  EXPECT_THAT(LogCapture::messages(), ElementsAre(fmg("fixed_duration:2500")));
}

TEST_F(CutMgrTest, ALongerSpanNearTheEndOfTheTimesDoesNotWrapIntoACut) {
  given_span(2000, G_MAXINT32 - 10);
  ASSERT_TRUE(set(G_MAXINT32 - 100, G_MAXINT32 - 10, GST_CUT_MGR_AFTER_CUT));
  EXPECT_TRUE(set(3000, 1, GST_CUT_MGR_CHANGE_SPAN));
  EXPECT_EQ(settings(), (Settings{3000, G_MAXINT32, G_MAXINT32, 0, 3000}));
  mgr_.current_time = 2000000000;
  EXPECT_FALSE(gst_cut_mgr_is_max_time(&mgr_));
}

class UnknownModeTest : public CutMgrTest, public ::testing::WithParamInterface<gint32> {};

TEST_P(UnknownModeTest, ChangesNothingAndPublishesTheLength) {
  given_span();
  gst_shared_cut_info_set_fixed_duration(nullptr, 77);
  EXPECT_TRUE(set(3000, 9000, GetParam()));
  EXPECT_EQ(settings(), (Settings{2000, 2000, 5000, 0, 2000}));
  EXPECT_EQ(span(), 2000);
}

INSTANTIATE_TEST_SUITE_P(Modes, UnknownModeTest, ::testing::Values(3, -1, G_MAXINT32, G_MININT32));

TEST_F(CutMgrTest, TellsWhetherACutPointIsSetAndNotItsTime) {
  EXPECT_FALSE(gst_cut_mgr_get_max_time(&mgr_));
  given_span();
  EXPECT_EQ(gst_cut_mgr_get_max_time(&mgr_), TRUE);
}

TEST_F(CutMgrTest, TheCutPointIsReachedAtItsTimeAndBehindIt) {
  given_span(2000, 5000);
  mgr_.current_time = 4999;
  EXPECT_FALSE(gst_cut_mgr_is_max_time(&mgr_));
  mgr_.current_time = 5000;
  EXPECT_TRUE(gst_cut_mgr_is_max_time(&mgr_));
  mgr_.current_time = G_MAXINT32;
  EXPECT_TRUE(gst_cut_mgr_is_max_time(&mgr_));
}

TEST_F(CutMgrTest, WithoutACutPointNoTimeReachesIt) {
  for (const gint32 time : {0, 1, G_MAXINT32, -1, G_MININT32}) {
    mgr_.current_time = time;
    EXPECT_FALSE(gst_cut_mgr_is_max_time(&mgr_)) << time;
  }
}

TEST_F(CutMgrTest, ATimeBehind32BitsIsNoCut) {
  given_span();
  mgr_.current_time = static_cast<gint32>(3000000000u);
  EXPECT_FALSE(gst_cut_mgr_is_max_time(&mgr_));
}

// ---- The recorded time ----

TEST_F(CutMgrTest, BeforeASpanIsSetATimeIsOnlyKept) {
  write_index(10);
  Faults faults;
  update(9000);
  EXPECT_EQ(settings(), (Settings{0, 0, 0, 9000, 0}));
  EXPECT_THAT(faults.calls(), IsEmpty());
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(CutMgrTest, BeforeTheFirstSpanIsFullATimeIsOnlyKept) {
  write_index(10);
  given_span();
  Faults faults;
  update(1999);
  EXPECT_EQ(settings(), (Settings{2000, 2000, 5000, 1999, 2000}));
  EXPECT_THAT(faults.calls(), IsEmpty());
}

TEST_F(CutMgrTest, OnceASpanIsFullEveryTimePublishesItsStart) {
  write_index(10);
  given_span();
  update(2000);
  EXPECT_EQ(settings(), (Settings{2000, 2000, 5000, 2000, 2000}));
  EXPECT_EQ(start_time(), 0);
  EXPECT_EQ(start_offset(), 0);
  EXPECT_LOGGED(kInfo, fmg("accumulated_time:0"));
  update(4000);
  EXPECT_EQ(start_time(), 2000);
  EXPECT_EQ(start_offset(), 2 * kUnit);
  EXPECT_LOGGED(kInfo, fmg("accumulated_time:2000"));
  EXPECT_EQ(mgr_.next_update_time, 4000);
  update(4000);
  EXPECT_EQ(LogCapture::count(kInfo, fmg("accumulated_time:2000")), 2);
  EXPECT_EQ(total_cut(), 0);
  EXPECT_EQ(total_cut_time(), 0);
}

TEST_F(CutMgrTest, TheStartIsTheIFrameThatTheIndexGives) {
  write_index(10);
  given_span();
  update(5700);
  EXPECT_EQ(start_time(), 3700) << "the time is the one asked for";
  EXPECT_EQ(start_offset() % kUnit, 0) << "the offset is an I-frame's";
  EXPECT_GE(start_offset(), 3 * kUnit);
  EXPECT_LE(start_offset(), 4 * kUnit);
}

TEST_F(CutMgrTest, ATimeThatGoesBackPublishesNothing) {
  write_index(10);
  given_span();
  update(4000);
  update(3000);
  EXPECT_EQ(mgr_.current_time, 3000);
  EXPECT_EQ(mgr_.next_update_time, 4000);
  EXPECT_EQ(start_time(), 2000);
}

TEST_F(CutMgrTest, ASpanStartThatTheIndexDoesNotKnowSwitchesCuttingOff) {
  given_span();
  mark_cut(true);
  update(4000);
  EXPECT_EQ(settings(), (Settings{2000, 2000, 0, 4000, 4000}));
  EXPECT_FALSE(is_cutting());
  EXPECT_EQ(start_time(), 0);
  EXPECT_EQ(LogCapture::messages(kError).back(), kInvalidFrame);
  EXPECT_TRUE(logged_in_order({fmg_error("open index file failed"), kInvalidFrame}));
}

TEST_F(CutMgrTest, APublishedStartComesBackWithTheIndex) {
  given_span();
  update(4000);
  write_index(10);
  update(5000);
  EXPECT_EQ(start_time(), 3000);
  EXPECT_EQ(mgr_.max_time, 0) << "cutting stays off";
}

TEST_F(CutMgrTest, ASpanLongerThanTheRecordedTimeFails) {
  write_index(10);
  given_span(1000, 5000);
  mgr_.fixed_duration = 3000;
  update(2000);
  EXPECT_EQ(mgr_.max_time, 0);
  EXPECT_LOGGED(kError, kInvalidFrame);
}

// ---- The index ----

TEST_F(CutMgrTest, TheIndexIsOpenedForReadingAsANormalIndexFile) {
  write_index(10);
  given_span();
  update(2000);
  ASSERT_NE(mgr_.mdb_file, nullptr);
  EXPECT_EQ(mgr_.mdb_file, index_path_);
  EXPECT_LOGGED(kInfo, fmg("file_path=[" + index_path_ +
                           "], permission=[1](0:Write, 1:Read), io=[0](0:BufferIO, 1:DirectIO), "
                           "type=[0](0:Normal, 1:Timeshift), ext=[1](0:Stream, 1:Index), "
                           "append_mode=[0], ext=[0] (0:normal, 1: atsc3.0)"));
  EXPECT_NE(mgr_.index_parser, nullptr);
  EXPECT_EQ(item().read_count, 1) << "a reader of the recording like any other";
}

TEST_F(CutMgrTest, TheIndexIsOpenedOnce) {
  write_index(10);
  given_span();
  Faults faults;
  update(2000);
  update(3000);
  gint32 time = 0;
  EXPECT_TRUE(gst_cut_mgr_get_time_by_offset(&mgr_, kUnit, &time));
  EXPECT_EQ(faults.count("open64"), 1);
}

TEST_F(CutMgrTest, AMissingIndexIsTriedAgainAndLeavesNothingOpen) {
  given_span();
  const int descriptors = open_descriptors();
  update(2000);
  EXPECT_EQ(mgr_.mdb_file, nullptr);
  EXPECT_EQ(mgr_.index_parser, nullptr);
  EXPECT_EQ(open_descriptors(), descriptors);
  EXPECT_TRUE(registry_is_empty());
  write_index(10);
  update(3000);
  EXPECT_NE(mgr_.index_parser, nullptr);
  EXPECT_EQ(start_time(), 1000);
}

TEST_F(CutMgrTest, APathWithoutAnExtensionHasNoIndex) {
  create_for(dir_.file("rec"));
  given_span();
  update(2000);
  EXPECT_TRUE(logged_in_order({fmg_error("cut_buffer_mgr->mdb_file is NULL"), kInvalidFrame}));
  EXPECT_EQ(mgr_.max_time, 0);
}

TEST_F(CutMgrTest, AnUnreadableIndexIsReportedAndLeavesNothingOpen) {
  index_of(10).base([](pvr_base_table_s &base) { base.mdb_version = 1; }).write(index_path_);
  given_span();
  const int descriptors = open_descriptors();
  gint32 time = 7;
  EXPECT_FALSE(gst_cut_mgr_get_time_by_offset(&mgr_, kUnit, &time));
  EXPECT_EQ(time, 7);
  EXPECT_EQ(LogCapture::messages(kError).back(), fmg_error("gst_index_parser_start failed"));
  EXPECT_EQ(mgr_.mdb_file, nullptr);
  EXPECT_EQ(mgr_.index_parser, nullptr);
  EXPECT_EQ(open_descriptors(), descriptors);
  EXPECT_TRUE(registry_is_empty());
  EXPECT_EQ(mgr_.max_time, 5000) << "the question alone switches nothing off";
}

// Whatever cannot be allocated on the way: reported, nothing kept, and the next try succeeds.
TEST_F(CutMgrTest, EveryLackOfMemoryWhileTheIndexIsOpenedIsSurvived) {
  write_index(10);
  given_span();
  for (const char *const call : {"calloc", "malloc"}) {
    for (int nth = 1;; ++nth) {
      create();
      given_span();
      const int descriptors = open_descriptors();
      gint32 time = 7;
      gboolean is_known;
      bool is_over;
      {
        Faults faults;
        faults.fail(call, ENOMEM, nth);
        is_known = gst_cut_mgr_get_time_by_offset(&mgr_, 3 * kUnit, &time);
        is_over = faults.count(call) < nth;
      }
      if (is_over) {
        EXPECT_TRUE(is_known);
        EXPECT_GT(nth, 1);
        break;
      }
      if (!is_known) {
        EXPECT_EQ(time, 7);
        EXPECT_EQ(mgr_.index_parser, nullptr) << call << nth;
        EXPECT_EQ(mgr_.mdb_file, nullptr);
        EXPECT_EQ(open_descriptors(), descriptors);
        EXPECT_TRUE(registry_is_empty());
        EXPECT_TRUE(gst_cut_mgr_get_time_by_offset(&mgr_, 3 * kUnit, &time));
      }
      EXPECT_EQ(time, 3000);
    }
  }
}

TEST_F(CutMgrTest, AHandleThatCannotBeHadIsReported) {
  write_index(10);
  for (const int nth : {1, 2}) {  // the handle, the parser
    LogCapture::clear();
    Faults faults;
    faults.fail("calloc", ENOMEM, nth);
    gint32 time = 7;
    EXPECT_FALSE(gst_cut_mgr_get_time_by_offset(&mgr_, 0, &time));
    EXPECT_EQ(LogCapture::messages(kError).back(), fmg_error("g mutex new lock fail!"));
  }
}

// ---- Time by offset ----

TEST_F(CutMgrTest, TellsTheTimeOfTheIFrameThatAnOffsetBelongsTo) {
  write_index(10);
  gint32 time = -1;
  EXPECT_TRUE(gst_cut_mgr_get_time_by_offset(&mgr_, 4 * kUnit, &time));
  EXPECT_EQ(time, 4000);
  EXPECT_TRUE(gst_cut_mgr_get_time_by_offset(&mgr_, 0, &time));
  EXPECT_EQ(time, 0);
}

TEST_F(CutMgrTest, AnOffsetThatTheIndexDoesNotKnowHasNoTime) {
  write_index(200);
  gint32 time = 7;
  ASSERT_TRUE(gst_cut_mgr_get_time_by_offset(&mgr_, 0, &time));
  Faults faults;
  faults.fail_all("read", EIO);
  EXPECT_FALSE(gst_cut_mgr_get_time_by_offset(&mgr_, 150 * kUnit, &time));
  EXPECT_EQ(time, 0);
  EXPECT_EQ(LogCapture::messages(kError).back(), fmg_error("frameData.isValid == FALSE"));
}

TEST_F(CutMgrTest, AnIndexWithoutAGopCannotBeStarted) {
  IndexBuilder().gop_start(GST_INDEX_BASE_TABLE_SIZE).write(index_path_);
  gint32 time = 7;
  EXPECT_FALSE(gst_cut_mgr_get_time_by_offset(&mgr_, 0, &time));
  EXPECT_EQ(time, 7);
  EXPECT_EQ(LogCapture::messages(kError).back(), fmg_error("gst_index_parser_start failed"));
}

TEST_F(CutMgrTest, WithoutAnIndexNoOffsetHasATime) {
  gint32 time = 7;
  EXPECT_FALSE(gst_cut_mgr_get_time_by_offset(&mgr_, 0, &time));
  EXPECT_EQ(time, 7);
  EXPECT_EQ(LogCapture::messages(kError).back(), fmg_error("open index file failed"));
}

// ---- ATSC 3.0 ----

TEST_F(CutMgrTest, AnAtsc3RecordingPublishesItsStartWithoutAnOffset) {
  write_index(10);
  create(1);
  given_span();
  gst_shared_cut_info_set_accumulated_offset(nullptr, 99);
  Faults faults;
  update(4500);
  EXPECT_EQ(faults.count("open64"), 0);
  EXPECT_EQ(start_time(), 2500);
  EXPECT_EQ(start_offset(), 0);
  EXPECT_EQ(mgr_.max_time, 5000);
  EXPECT_THAT(LogCapture::messages(kError), ElementsAre(kNeverOpen, kNeverCut));
  EXPECT_THAT(LogCapture::messages(kInfo), ElementsAre(fmg("accumulated_time:2500")));
}

TEST_F(CutMgrTest, AnAtsc3RecordingHasATimeForEveryOffsetAndTellsNone) {
  create(1);
  gint32 time = 7;
  EXPECT_TRUE(gst_cut_mgr_get_time_by_offset(&mgr_, 4 * kUnit, &time));
  EXPECT_EQ(time, 7);
  EXPECT_THAT(LogCapture::messages(kError), ElementsAre(kNeverOpen, kNeverCut));
  EXPECT_EQ(mgr_.mdb_file, nullptr);
}

TEST_F(CutMgrTest, AnAtsc3CutWouldTakeNothingAway) {
  create(1);
  given_span();
  update(5000);
  EXPECT_TRUE(gst_cut_mgr_do_cut(&mgr_));
  EXPECT_EQ(param().cut_offset, 0);
}

TEST_F(CutMgrTest, AnAtsc3RecordingHasNoIndexToClose) {
  create(1);
  destroy();
  EXPECT_THAT(LogCapture::messages(), ElementsAre(fmg_error("gst_cut_file_close"), kNeverCut));
}

// ---- Starting a cut ----

class DoCutTest : public CutMgrTest {
 protected:
  void given_a_cut_is_due() {
    write_index(10);
    given_span();
    update(5000);
    LogCapture::clear();
  }
};

TEST_F(DoCutTest, FillsTheThreadsRecordAndStartsIt) {
  given_a_cut_is_due();
  param().retry_count = 9;
  param().removed_bytes = 9;
  EXPECT_TRUE(gst_cut_mgr_do_cut(&mgr_));
  EXPECT_EQ(param().key, 0u);
  EXPECT_EQ(param().file_path, mgr_.file_path);
  EXPECT_EQ(param().retry_count, 0);
  EXPECT_EQ(param().cutbuf_starttime, 2000);
  EXPECT_EQ(param().max_time, 5000);
  EXPECT_EQ(param().cut_offset, 3 * kUnit);
  EXPECT_EQ(param().removed_bytes, 0);
  EXPECT_EQ(param().cut_buffer_mgr, &mgr_);
  EXPECT_EQ(task_starts, 1);
  EXPECT_EQ(param().is_busy, 1);
}

TEST_F(DoCutTest, CutsWhereTheFileNowStands) {
  given_a_cut_is_due();
  given_total_cut(2 * kUnit);
  EXPECT_TRUE(gst_cut_mgr_do_cut(&mgr_));
  EXPECT_EQ(param().cut_offset, kUnit);
}

// Another writer's close made the shared record start from zero; the file is as short as before.
TEST_F(DoCutTest, NeverCutsOffMoreThanTheFileStillHasBeforeThePoint) {
  given_a_cut_is_due();
  given_total_cut(kUnit);
  plexa::_add_bytes_cut_off(0, 2 * kUnit);
  EXPECT_TRUE(gst_cut_mgr_do_cut(&mgr_));
  EXPECT_EQ(param().cut_offset, kUnit);
  plexa::_forget_bytes_cut_off(0);
}

// An offset of -2^63, less what has been cut off.
TEST_F(DoCutTest, AnOffsetThatOnlyADamagedIndexCanHoldDoesNotWrapIntoOneThatCanBeCutAt) {
  pvr_gop_info_s gop{};
  gop.packet_count = guint64{1} << 61;
  gop.next_gop_first_time = 100000;
  gop.next_gop_first_packet_count = gop.packet_count + 1;
  IndexBuilder().gop_start(GST_INDEX_BASE_TABLE_SIZE).gop(gop).write(index_path_);
  given_span();
  given_total_cut(kUnit);
  mgr_.current_time = 5000;
  EXPECT_TRUE(gst_cut_mgr_do_cut(&mgr_));
  EXPECT_EQ(param().cut_offset, G_MININT64);
}

TEST_F(DoCutTest, IsNotStartedForATimeThatTheIndexDoesNotKnow) {
  given_span();
  mgr_.current_time = 5000;
  mark_cut(true);
  EXPECT_FALSE(gst_cut_mgr_do_cut(&mgr_));
  EXPECT_EQ(mgr_.max_time, 0);
  EXPECT_FALSE(is_cutting());
  EXPECT_EQ(task_starts, 0);
  EXPECT_EQ(param().task, nullptr);
  EXPECT_EQ(LogCapture::messages(kError).back(), kInvalidFrame);
}

TEST_F(DoCutTest, IsNotStartedForATimeBeforeAllTimes) {
  write_index(10);
  given_span();
  update(G_MININT32);
  EXPECT_FALSE(gst_cut_mgr_do_cut(&mgr_));
  EXPECT_LOGGED(kError, kInvalidFrame);
}

TEST_F(DoCutTest, IsNotStartedTwiceAtOnce) {
  given_a_cut_is_due();
  EXPECT_TRUE(gst_cut_mgr_do_cut(&mgr_));
  update(7000);
  LogCapture::clear();
  EXPECT_TRUE(gst_cut_mgr_do_cut(&mgr_));
  EXPECT_EQ(task_starts, 1);
  EXPECT_EQ(param().cut_offset, 3 * kUnit) << "the first one's";
  EXPECT_EQ(LogCapture::messages(kError).back(), fmg_error("gst_task_start"));
}

TEST_F(DoCutTest, WithoutAThreadCuttingIsSwitchedOff) {
  given_a_cut_is_due();
  mark_cut(true);
  start_answer = FALSE;
  EXPECT_FALSE(gst_cut_mgr_do_cut(&mgr_));
  EXPECT_EQ(mgr_.max_time, 0);
  EXPECT_FALSE(is_cutting());
}

// A task that was started without getting a thread would be waited for in vain.
TEST_F(DoCutTest, ATaskThatGotNoThreadIsNeitherWaitedForNorStartedAgain) {
  given_a_cut_is_due();
  start_answer = FALSE;
  EXPECT_FALSE(gst_cut_mgr_do_cut(&mgr_));
  EXPECT_EQ(GST_TASK_STATE(param().task), GST_TASK_STOPPED);
  start_answer = TRUE;
  given_span(2000, 5000);
  EXPECT_FALSE(gst_cut_mgr_do_cut(&mgr_));
  EXPECT_EQ(task_starts, 1);
  EXPECT_EQ(mgr_.max_time, 0);
}

TEST_F(DoCutTest, ErrorProcessingSwitchesCuttingOffAndTakesTheMarkBack) {
  given_span();
  mark_cut(true);
  mark_cut(true, 1);
  gst_cut_mgr_error_process(&mgr_);
  EXPECT_EQ(settings(), (Settings{2000, 2000, 0, 0, 2000}));
  EXPECT_FALSE(is_cutting());
  EXPECT_TRUE(is_cutting(1)) << "another recording's";
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

// ---- Destroy ----

TEST_F(CutMgrTest, DestroyLogsItsLineBeforeAnythingElse) {
  write_index(10);
  given_span();
  update(2000);
  LogCapture::clear();
  destroy();
  EXPECT_EQ(LogCapture::messages().front(), fmg_error("gst_cut_file_close"));
  EXPECT_EQ(LogCapture::lines().front().priority, kError);
  EXPECT_THAT(LogCapture::messages(), Not(Contains(kNeverCut)));
}

TEST_F(CutMgrTest, DestroyLetsEverythingGo) {
  const int descriptors = open_descriptors();
  write_index(10);
  given_span();
  update(4000);
  EXPECT_GT(open_descriptors(), descriptors);
  destroy();
  EXPECT_EQ(open_descriptors(), descriptors);
  EXPECT_TRUE(registry_is_empty());
  EXPECT_EQ(g_lib_shared_info.cut_info, nullptr);
  EXPECT_EQ(start_time(), 0);
  EXPECT_EQ(span(), 0);
}

TEST_F(CutMgrTest, ReleasedWithoutDestroyTheSharedRecordStays) {
  given_span();
  plexa::_release_cut_mgr(&mgr_);
  is_made_ = false;
  EXPECT_EQ(span(), 2000);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(DoCutTest, TheTaskGoesWithTheManagerWhenNothingElseHoldsIt) {
  given_a_cut_is_due();
  EXPECT_TRUE(gst_cut_mgr_do_cut(&mgr_));
  bool is_gone = false;
  g_object_weak_ref(
      G_OBJECT(param().task), [](gpointer flag, GObject *) { *static_cast<bool *>(flag) = true; },
      &is_gone);
  destroy();
  EXPECT_TRUE(is_gone);
}

TEST_F(DoCutTest, ARecordThatATaskStillHoldsOutlivesTheManager) {
  given_a_cut_is_due();
  EXPECT_TRUE(gst_cut_mgr_do_cut(&mgr_));
  GstCutParam *const record = &param();
  GstTask *const task = GST_TASK(gst_object_ref(record->task));
  destroy();
  EXPECT_EQ(record->cut_buffer_mgr, nullptr);
  EXPECT_EQ(record->task, task);
  gst_object_unref(task);  // and with it the record; the leak check looks after it
}

TEST_F(DoCutTest, TheClaimIsGivenBackByTheManagerThatGoes) {
  given_a_cut_is_due();
  gst_shared_info_add_item(gst_shared_info_get(), rec_.c_str(), 1, 0, nullptr);  // who stays
  ASSERT_TRUE(plexa::_claim_cut(0, mgr_.cut_param));
  EXPECT_TRUE(gst_cut_mgr_do_cut(&mgr_));
  destroy();
  int another = 0;
  EXPECT_TRUE(plexa::_claim_cut(0, &another));
  mark_cut(false);
}

// ---- Times ----

TEST(CutTimes, StayAtTheEndOf32Bits) {
  EXPECT_EQ(plexa::_add_times(5000, 3000), 8000);
  EXPECT_EQ(plexa::_add_times(5000, -6000), -1000);
  EXPECT_EQ(plexa::_add_times(G_MAXINT32, 0), G_MAXINT32);
  EXPECT_EQ(plexa::_add_times(G_MAXINT32, 1), G_MAXINT32);
  EXPECT_EQ(plexa::_add_times(G_MAXINT32 - 5, 10), G_MAXINT32);
  EXPECT_EQ(plexa::_add_times(G_MININT32, -1), G_MININT32);
  EXPECT_EQ(plexa::_subtract_times(5000, 3000), 2000);
  EXPECT_EQ(plexa::_subtract_times(G_MININT32, 1), G_MININT32);
  EXPECT_EQ(plexa::_subtract_times(G_MAXINT32, -1), G_MAXINT32);
  EXPECT_EQ(plexa::_subtract_times(0, G_MININT32), G_MAXINT32);
}

}  // namespace
}  // namespace plexa_test
