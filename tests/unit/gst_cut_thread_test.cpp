// The cut thread: its steps one by one, its passes, its task, and cuts among handles that are used
// and closed meanwhile.
#include "gst-plexa/gst_cut_thread.h"

#include <dlfcn.h>
#include <gmock/gmock.h>

#include <deque>
#include <memory>
#include <set>

#include "gst_cut_fixture.h"

namespace {

bool no_task = false;                  // GStreamer makes none
bool no_name = false;                  // and gives it no name
bool with_notify = false;              // and was asked to tell when the task goes
std::atomic<bool> dawdles{false};      // it takes its time to stop the next task
std::atomic<bool> is_stopping{false};  // and is at it, or has been

template <class Function>
Function gstreamers_own(const char *name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

GstTask *gst_task_new(GstTaskFunction function, gpointer data, GDestroyNotify notify) {
  static const auto own =
      gstreamers_own<GstTask *(*)(GstTaskFunction, gpointer, GDestroyNotify)>("gst_task_new");
  with_notify = notify != nullptr;
  return no_task ? nullptr : own(function, data, notify);
}

gboolean gst_object_set_name(GstObject *object, const gchar *name) {
  static const auto own =
      gstreamers_own<gboolean (*)(GstObject *, const gchar *)>("gst_object_set_name");
  return no_name ? FALSE : own(object, name);
}

gboolean gst_task_stop(GstTask *task) {
  static const auto own = gstreamers_own<gboolean (*)(GstTask *)>("gst_task_stop");
  if (dawdles.exchange(false)) {
    is_stopping = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
  }
  return own(task);
}

namespace plexa_test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

const std::string kNoInfo = fmg_error("file_info is NULL");
const std::string kNotClosed = fmg_error("gst_cut_file_io_close failed,ret<1");
const std::string kNotCut = fmg_error("invalid cut_offset,cut_param->cut_offset <= 0");
const std::string kNotOpened = fmg_error("gst_cut_file_io_open failed, ret < 1");
const std::string kNotSought = fmg_error("gst_cut_file_io_seek failed,ret<0");
const std::string kStop = fmg_error("_gst_cut_thread_loop gst_task_stop");
const std::string kCreate = fmg_error("gst_cut_thread_create_task");
const std::string kStart = fmg_error("gst_task_start");

// A recording of eight units; its writer, then two readers; to be cut after three units.
class CutThreadTest : public CutTest {
 protected:
  void SetUp() override {
    no_task = no_name = false;
    dawdles = is_stopping = false;
    write_index(30);
    ASSERT_EQ(writer_.open(rec_, kWrites), 1);
    ASSERT_EQ(gst_cut_file_set_max_time(writer_.get(), 2000, 5000), 1);
    for (int i = 0; i < 8; ++i) ASSERT_EQ(write_unit(writer_, 0), kUnit);
    ASSERT_EQ(near_.open(rec_, kReads), 1);
    ASSERT_EQ(far_.open(rec_, kReads), 1);
    ASSERT_EQ(near_.seek(6 * kUnit + 10), 6 * kUnit + 10);
    ASSERT_EQ(far_.seek(kUnit), kUnit);
    GstCutParam &record = param();
    record.cutbuf_starttime = 2000;
    record.max_time = 5000;
    record.file_path = writer_.mgr()->file_path;
    record.cut_buffer_mgr = writer_.mgr();
    record.cut_offset = 3 * kUnit;
    LogCapture::clear();
  }

  GstCutParam &param() { return *writer_.mgr()->cut_param; }
  gint32 cut_point() { return g_atomic_int_get(&writer_.mgr()->max_time); }
  gint64 file_size() { return static_cast<gint64>(read_file(rec_).size()); }
  void start_cut() { ASSERT_EQ(write_unit(writer_, 5000), kUnit); }
  // The writer's write and the cut that it starts.
  void cut() {
    start_cut();
    finish_cut(writer_);
  }
  void expect_reading_goes_on(gint64 moved_by) {
    EXPECT_EQ(near_.tell() - total_cut(), 6 * kUnit + 10 - moved_by);
    EXPECT_EQ(near_.read(500), bytes_at(6 * kUnit + 10, 500));
  }
  void expect_writing_goes_on(gint32 time = 6000) {
    const gint64 size = file_size();
    EXPECT_EQ(write_unit(writer_, time), kUnit);
    EXPECT_EQ(file_size(), size + kUnit);
  }

  CutHandle writer_, near_, far_;
};

// ---- Close all ----

TEST_F(CutThreadTest, ClosesEveryHandleInOpeningOrderAndNotesWhereItStood) {
  const std::vector<int> descriptors = {writer_.state().descriptor, near_.state().descriptor,
                                        far_.state().descriptor};
  std::vector<int> closed;
  {
    Faults faults;
    faults.watch("close", [&](int fd, const char *, long long) { closed.push_back(fd); });
    EXPECT_TRUE(plexa::_gst_cut_thread_close_all(&param()));
  }
  EXPECT_EQ(closed, descriptors);
  for (CutHandle *const file : {&writer_, &near_, &far_}) EXPECT_EQ(file->state().descriptor, -1);
  EXPECT_EQ(writer_.state().offset_backup, 8 * kUnit);
  EXPECT_EQ(near_.state().offset_backup, 6 * kUnit + 10);
  EXPECT_EQ(far_.state().offset_backup, kUnit);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(CutThreadTest, StopsClosingAtAFailureAndNotesWhereTheRestStands) {
  const int lost = near_.state().descriptor;
  {
    Faults faults;
    faults.fail("close", EIO, 2);
    EXPECT_FALSE(plexa::_gst_cut_thread_close_all(&param()));
  }
  EXPECT_EQ(LogCapture::count(kError, kNotClosed), 1);
  EXPECT_EQ(writer_.state().descriptor, -1);
  EXPECT_EQ(near_.state().descriptor, -1);
  EXPECT_GT(far_.state().descriptor, 0);
  EXPECT_EQ(far_.state().offset_backup, kUnit);
  ::close(lost);
}

TEST_F(CutThreadTest, OnAKeyThatIsNoneNoStepOnHandlesSucceeds) {
  const guint32 key = param().key;
  param().key = 4;
  EXPECT_FALSE(plexa::_gst_cut_thread_close_all(&param()));
  EXPECT_FALSE(plexa::_gst_cut_thread_open_all(&param()));
  EXPECT_FALSE(plexa::_gst_cut_thread_seek_all(&param()));
  EXPECT_EQ(LogCapture::count(kError, kNoInfo), 3);
  param().key = key;
}

TEST_F(CutThreadTest, ARecordingWithoutListedHandlesIsASuccess) {
  const guint32 key = param().key;
  param().key = 2;
  EXPECT_TRUE(plexa::_gst_cut_thread_close_all(&param()));
  EXPECT_TRUE(plexa::_gst_cut_thread_open_all(&param()));
  EXPECT_TRUE(plexa::_gst_cut_thread_seek_all(&param()));
  EXPECT_THAT(LogCapture::messages(kError), IsEmpty());
  param().key = key;
}

// ---- Cut ----

TEST_F(CutThreadTest, TakesTheFrontAwayAndKeepsTheBooks) {
  given_total_cut(2 * kUnit);
  gst_shared_cut_info_set_accumulated_time(nullptr, 1);
  LogCapture::clear();
  EXPECT_TRUE(plexa::_gst_cut_thread_cut(&param()));
  ASSERT_EQ(removals().size(), 1u);
  EXPECT_EQ(removals()[0].start, 0);
  EXPECT_EQ(removals()[0].end, 3 * kUnit);
  EXPECT_EQ(param().removed_bytes, 3 * kUnit);
  EXPECT_EQ(read_file(rec_), bytes_at(3 * kUnit, 5 * kUnit));
  EXPECT_EQ(total_cut(), 5 * kUnit);
  EXPECT_EQ(total_cut_time(), 5000);
  EXPECT_EQ(start_offset(), 5 * kUnit);
  EXPECT_EQ(start_time(), 5000);
  EXPECT_LOGGED(kInfo, fmg("total_cut_offset:[385024],new_total_cut_offset:[962560],"
                           "total_cut_time:[5000]"));
  EXPECT_EQ(plexa::_bytes_cut_off(0), 3 * kUnit);
}

TEST_F(CutThreadTest, TakesWholeUnitsOnly) {
  param().cut_offset = 3 * kUnit - 1;
  EXPECT_TRUE(plexa::_gst_cut_thread_cut(&param()));
  EXPECT_EQ(param().removed_bytes, 2 * kUnit);
  EXPECT_EQ(total_cut(), 2 * kUnit);
  EXPECT_EQ(total_cut_time(), 2000);
}

class NothingRemovedTest : public CutThreadTest,
                           public ::testing::WithParamInterface<std::pair<gint64, int>> {};

TEST_P(NothingRemovedTest, IsReportedAndLeavesTheBooksAlone) {
  given_total_cut(7);
  param().cut_offset = GetParam().first;
  removal_error_ = GetParam().second;
  LogCapture::clear();
  EXPECT_FALSE(plexa::_gst_cut_thread_cut(&param()));
  EXPECT_EQ(LogCapture::messages(kError).back(), kNotCut);
  EXPECT_EQ(param().removed_bytes, 0);
  EXPECT_EQ(total_cut(), 7);
  EXPECT_EQ(total_cut_time(), 0);
  EXPECT_EQ(start_offset(), 0);
  EXPECT_EQ(plexa::_bytes_cut_off(0), 0);
  EXPECT_EQ(file_size(), 8 * kUnit);
}

INSTANTIATE_TEST_SUITE_P(Reasons, NothingRemovedTest,
                         ::testing::Values(std::pair<gint64, int>{3 * kUnit, EIO},
                                           std::pair<gint64, int>{kUnit - 1, 0},
                                           std::pair<gint64, int>{0, 0},
                                           std::pair<gint64, int>{-3 * kUnit, 0}));

// The file is shorter although the removal counts as failed: handles have to move with their bytes.
class FailedBehindTheRemovalTest : public CutThreadTest,
                                   public ::testing::WithParamInterface<const char *> {};

TEST_P(FailedBehindTheRemovalTest, MovesTheHandlesButNotTheBooks) {
  int number = -1;
  {
    Faults faults;
    faults.fail(GetParam(), EIO);
    faults.watch("close", [&](int fd, const char *, long long) { number = fd; });
    EXPECT_FALSE(plexa::_gst_cut_thread_cut(&param()));
  }
  if (GetParam() == std::string("close")) ::close(number);
  EXPECT_LOGGED(kError, kNotCut);
  EXPECT_EQ(param().removed_bytes, 3 * kUnit);
  EXPECT_EQ(total_cut(), 0);
  EXPECT_EQ(total_cut_time(), 0);
  EXPECT_EQ(plexa::_bytes_cut_off(0), 3 * kUnit);
  EXPECT_EQ(file_size(), 5 * kUnit);
}

INSTANTIATE_TEST_SUITE_P(Calls, FailedBehindTheRemovalTest, ::testing::Values("fsync", "close"));

TEST_F(CutThreadTest, WithoutSizesAFailedRemovalCountsAsNone) {
  Faults faults;
  faults.fail_all("stat64", EIO);
  faults.fail("fsync", EIO);
  EXPECT_FALSE(plexa::_gst_cut_thread_cut(&param()));
  EXPECT_EQ(param().removed_bytes, 0);
}

TEST_F(CutThreadTest, ACutWhoseTimeTheIndexDoesNotKnowLeavesTheBooksAlone) {
  write_file(index_path_, {});
  EXPECT_FALSE(plexa::_gst_cut_thread_cut(&param()));
  EXPECT_EQ(param().removed_bytes, 3 * kUnit);
  EXPECT_EQ(file_size(), 5 * kUnit);
  EXPECT_EQ(total_cut(), 0);
  EXPECT_EQ(total_cut_time(), 0);
  EXPECT_THAT(LogCapture::messages(), Not(Contains(kNotCut)));
  EXPECT_EQ(plexa::_bytes_cut_off(0), 3 * kUnit);
}

// ---- Open all ----

TEST_F(CutThreadTest, OpensEveryHandleAgainAndSetsTheNextPeriod) {
  ASSERT_TRUE(plexa::_gst_cut_thread_close_all(&param()));
  LogCapture::clear();
  EXPECT_TRUE(plexa::_gst_cut_thread_open_all(&param()));
  EXPECT_EQ(LogCapture::messages().front(),
            fmg("diff_time:3000,max_time:5000,cutbuf_starttime:2000"));
  EXPECT_EQ(LogCapture::lines().front().priority, kInfo);
  for (CutHandle *const file : {&writer_, &near_, &far_}) EXPECT_GT(file->state().descriptor, 0);
  EXPECT_EQ(writer_.mgr()->cutbuf_starttime, 5000);
  EXPECT_EQ(writer_.mgr()->max_time, 8000);
}

TEST_F(CutThreadTest, StopsOpeningAtAFailure) {
  ASSERT_TRUE(plexa::_gst_cut_thread_close_all(&param()));
  {
    Faults faults;
    faults.fail("open64", EMFILE, 2);
    EXPECT_FALSE(plexa::_gst_cut_thread_open_all(&param()));
    EXPECT_EQ(faults.count("open64"), 2);
  }
  EXPECT_EQ(LogCapture::count(kError, kNotOpened), 1);
  EXPECT_GT(writer_.state().descriptor, 0);
  EXPECT_EQ(near_.state().descriptor, -1);
  EXPECT_EQ(far_.state().descriptor, -1);
}

struct Period {
  const char *name;
  gint32 start, max;
  gint32 next_max;
};

class PeriodTest : public CutThreadTest, public ::testing::WithParamInterface<Period> {};

TEST_P(PeriodTest, IsFollowedByOneOfTheSameLengthWithin32Bits) {
  param().cutbuf_starttime = GetParam().start;
  param().max_time = GetParam().max;
  ASSERT_TRUE(plexa::_gst_cut_thread_open_all(&param()));
  EXPECT_EQ(writer_.mgr()->cutbuf_starttime, GetParam().max);
  EXPECT_EQ(writer_.mgr()->max_time, GetParam().next_max);
}

INSTANTIATE_TEST_SUITE_P(
    Periods, PeriodTest,
    ::testing::Values(Period{"Plain", 300000, 360000, 420000},
                      Period{"UpToTheEnd", 2147400000, 2147441823, G_MAXINT32 - 1},
                      Period{"BehindTheEnd", 2147000000, 2147400000, G_MAXINT32},
                      Period{"FarBehindTheEnd", 1, G_MAXINT32 - 1, G_MAXINT32}),
    [](const auto &test) { return test.param.name; });

// ---- Seek all ----

TEST_F(CutThreadTest, PutsEveryHandleBackOnItsByteOrOnTheOldestOne) {
  ASSERT_TRUE(plexa::_gst_cut_thread_close_all(&param()));
  ASSERT_TRUE(plexa::_gst_cut_thread_cut(&param()));
  ASSERT_TRUE(plexa::_gst_cut_thread_open_all(&param()));
  EXPECT_TRUE(plexa::_gst_cut_thread_seek_all(&param()));
  EXPECT_EQ(lseek64(writer_.state().descriptor, 0, SEEK_CUR), 5 * kUnit);
  EXPECT_EQ(lseek64(near_.state().descriptor, 0, SEEK_CUR), 3 * kUnit + 10);
  EXPECT_EQ(lseek64(far_.state().descriptor, 0, SEEK_CUR), 0);
}

TEST_F(CutThreadTest, StopsSeekingAtAFailure) {
  ASSERT_TRUE(plexa::_gst_cut_thread_close_all(&param()));
  ASSERT_TRUE(plexa::_gst_cut_thread_open_all(&param()));
  {
    Faults faults;
    faults.fail("lseek64", EIO, 2);
    EXPECT_FALSE(plexa::_gst_cut_thread_seek_all(&param()));
    EXPECT_EQ(faults.count("lseek64"), 2);
  }
  EXPECT_EQ(LogCapture::messages(kError).back(), kNotSought);
  EXPECT_EQ(lseek64(writer_.state().descriptor, 0, SEEK_CUR), 8 * kUnit);
}

// ---- The passes, one at a time ----

class PassTest : public CutThreadTest {
 protected:
  void pass() { plexa::_gst_cut_thread_loop(&param()); }
};

TEST_F(PassTest, WithoutARecordDoesNothing) {
  plexa::_gst_cut_thread_loop(nullptr);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(PassTest, CutsInThisOrderWhenNothingRuns) {
  mark_cut(true);
  ASSERT_FALSE(plexa::_claim_cut(4, this));
  LogCapture::clear();
  pass();
  EXPECT_TRUE(logged_in_order(
      {"[EXT_EDT] [PLG_ERR] FTRUNCATERANGE return 0 [" + rec_ + "]",
       fmg("total_cut_offset:[0],new_total_cut_offset:[577536],total_cut_time:[3000]"),
       fmg("diff_time:3000,max_time:5000,cutbuf_starttime:2000"), kStop}));
  EXPECT_EQ(LogCapture::messages().back(), kStop);
  EXPECT_EQ(LogCapture::lines().back().priority, kError);
  EXPECT_EQ(LogCapture::lines().back().function, "_gst_cut_thread_loop");
  EXPECT_FALSE(is_cutting());
  EXPECT_EQ(param().retry_count, 0);
  expect_reading_goes_on(3 * kUnit);
}

TEST_F(PassTest, KeepsOperationsOutUntilEveryHandleIsBack) {
  bool was_kept_out = false;
  while_removing_ = [&] { was_kept_out = plexa::_begin_cut(0) == plexa::CutStart::kBusy; };
  pass();
  EXPECT_TRUE(was_kept_out);
  EXPECT_TRUE(is_idle());
}

TEST_F(PassTest, WaitsForARunningOperation) {
  mark_cut(true);
  ASSERT_FALSE(is_cutting(1));
  gst_shared_info_increase_actioncount(gst_shared_info_get(), 0);
  pass();
  EXPECT_EQ(param().retry_count, 1);
  EXPECT_TRUE(is_cutting());
  EXPECT_THAT(removals(), IsEmpty());
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
  gst_shared_info_decrease_actioncount(gst_shared_info_get(), 0);
  pass();
  EXPECT_EQ(removals().size(), 1u);
}

TEST_F(PassTest, TwentyPassesArePatientAndEveryFurtherOneSwitchesCuttingOff) {
  mark_cut(true);
  gst_shared_info_increase_actioncount(gst_shared_info_get(), 0);
  for (int i = 0; i < 20; ++i) pass();
  EXPECT_EQ(param().retry_count, 20);
  EXPECT_TRUE(is_cutting());
  EXPECT_EQ(cut_point(), 5000);
  pass();
  EXPECT_EQ(param().retry_count, 21);
  EXPECT_FALSE(is_cutting());
  EXPECT_EQ(cut_point(), 0);
  mark_cut(true);
  pass();
  EXPECT_FALSE(is_cutting()) << "again and again";
  EXPECT_EQ(param().retry_count, 22);
  EXPECT_THAT(removals(), IsEmpty());
  gst_shared_info_decrease_actioncount(gst_shared_info_get(), 0);
  pass();
  EXPECT_EQ(removals().size(), 1u) << "the cut still happens";
  EXPECT_EQ(total_cut(), 3 * kUnit);
  EXPECT_EQ(cut_point(), 0) << "and is the last one";
}

TEST_F(PassTest, TwentyPassesOfWaitingDoNotCostTheNextCut) {
  param().retry_count = 20;
  pass();
  EXPECT_EQ(cut_point(), 8000);
}

TEST_F(PassTest, ACutOfAWriterThatWasSwitchedOffMeanwhileIsItsLast) {
  gst_cut_mgr_error_process(writer_.mgr());
  pass();
  EXPECT_EQ(removals().size(), 1u);
  EXPECT_EQ(total_cut(), 3 * kUnit);
  EXPECT_EQ(cut_point(), 0);
}

TEST_F(PassTest, WithoutARegistryStopsAndTouchesNothing) {
  writer_.state().key = near_.state().key = far_.state().key = -1;  // they are forgotten, too
  gst_shared_info_remove(gst_shared_info_get());
  const guint32 key = param().key;
  g_lib_shared_info.registry = nullptr;
  plexa::_gst_cut_thread_loop(&param());
  EXPECT_EQ(LogCapture::messages().back(), kStop);
  EXPECT_THAT(removals(), IsEmpty());
  EXPECT_EQ(param().key, key);
  for (CutHandle *const file : {&writer_, &near_, &far_}) file->close();
}

TEST_F(PassTest, WithoutAManagerStopsAndTouchesNothing) {
  param().cut_buffer_mgr = nullptr;
  mark_cut(true);
  pass();
  EXPECT_THAT(LogCapture::messages(), ElementsAre(kStop));
  EXPECT_THAT(removals(), IsEmpty());
  EXPECT_TRUE(is_cutting()) << "another writer's by now";
  mark_cut(false);
}

TEST_F(PassTest, AManagerThatGoesWhileThePassBeginsIsNotCutFor) {
  mark_cut(true);
  {
    Faults faults;
    faults.before("pthread_mutex_lock", [&] { param().cut_buffer_mgr = nullptr; });
    pass();
  }
  EXPECT_THAT(removals(), IsEmpty());
  EXPECT_EQ(LogCapture::messages().back(), kStop);
  EXPECT_FALSE(is_cutting());
  EXPECT_TRUE(is_idle());
}

TEST_F(PassTest, WaitsForAnotherCut) {
  ASSERT_EQ(plexa::_begin_cut(0), plexa::CutStart::kStarted);
  pass();
  EXPECT_EQ(param().retry_count, 1);
  EXPECT_THAT(removals(), IsEmpty());
  plexa::_end_cut(0);
}

TEST_F(PassTest, GivesItsClaimBack) {
  ASSERT_TRUE(plexa::_claim_cut(0, &param()));
  pass();
  int another = 0;
  EXPECT_TRUE(plexa::_claim_cut(0, &another));
  mark_cut(false);
}

// ---- A step that fails ----

struct Failure {
  const char *name;
  const char *message;
  std::function<void(CutThreadTest *)> arrange = [](CutThreadTest *) {};
  const char *call = nullptr;
  int nth = 1;
  gint64 removed = 3 * kUnit;  // from the file
  gint64 counted = 3 * kUnit;  // in the books
};

class FailingStepTest : public PassTest, public ::testing::WithParamInterface<Failure> {
 public:
  void refuse_removal() { removal_error_ = EIO; }
  void spoil_index() { write_file(index_path_, {}); }
  void nothing_to_remove() { param().cut_offset = 100; }
};

TEST_P(FailingStepTest, SwitchesCuttingOffAndReadingAndWritingGoOn) {
  const Failure &failure = GetParam();
  failure.arrange(this);
  std::vector<int> lost;
  {
    Faults faults;
    if (failure.call != nullptr) {
      faults.fail(failure.call, EIO, failure.nth);
      faults.watch("close", [&](int fd, const char *, long long) { lost.push_back(fd); });
    }
    pass();
  }
  EXPECT_EQ(cut_point(), 0);
  EXPECT_FALSE(is_cutting());
  EXPECT_TRUE(is_idle());
  EXPECT_LOGGED(kError, failure.message);
  EXPECT_EQ(LogCapture::messages().back(), kStop);
  EXPECT_EQ(file_size(), 8 * kUnit - failure.removed);
  EXPECT_EQ(total_cut(), failure.counted);
  expect_reading_goes_on(failure.removed);
  EXPECT_EQ(far_.tell(), total_cut() + std::max<gint64>(kUnit - failure.removed, 0));
  expect_writing_goes_on(29000);
  EXPECT_EQ(cut_point(), 0) << "for good";
  if (failure.call != nullptr && failure.call == std::string("close")) {
    ::close(lost[static_cast<size_t>(failure.nth - 1)]);  // which the fault kept open
  }
}

INSTANTIATE_TEST_SUITE_P(
    Steps, FailingStepTest,
    ::testing::Values(
        Failure{"CloseOfTheFirst", "[EXT_FMG] [PLG_ERR] gst_cut_file_io_close failed,ret<1",
                [](CutThreadTest *) {}, "close", 1},
        Failure{"CloseOfTheLast", "[EXT_FMG] [PLG_ERR] gst_cut_file_io_close failed,ret<1",
                [](CutThreadTest *) {}, "close", 3},
        Failure{"Removal", "[EXT_FMG] [PLG_ERR] invalid cut_offset,cut_param->cut_offset <= 0",
                [](CutThreadTest *self) { static_cast<FailingStepTest *>(self)->refuse_removal(); },
                nullptr, 1, 0, 0},
        Failure{
            "NothingToRemove", "[EXT_FMG] [PLG_ERR] invalid cut_offset,cut_param->cut_offset <= 0",
            [](CutThreadTest *self) { static_cast<FailingStepTest *>(self)->nothing_to_remove(); },
            nullptr, 1, 0, 0},
        Failure{"OpenForTheRemoval", "[EXT_EDT] [PLG_ERR] File Open Error", [](CutThreadTest *) {},
                "open64", 1, 0, 0},
        Failure{"FlushBehindTheRemoval",
                "[EXT_FMG] [PLG_ERR] invalid cut_offset,cut_param->cut_offset <= 0",
                [](CutThreadTest *) {}, "fsync", 4, 3 * kUnit, 0},
        Failure{"Index", "[EXT_FMG] [PLG_ERR] gst_index_parser_start failed",
                [](CutThreadTest *self) { static_cast<FailingStepTest *>(self)->spoil_index(); },
                nullptr, 1, 3 * kUnit, 0}),
    [](const auto &test) { return test.param.name; });

TEST_F(PassTest, AReaderThatCannotBeOpenedAgainIsLostAlone) {
  {
    Faults faults;
    faults.fail("open64", EMFILE, 5);  // the removal, the index, the writer, the near, the far
    pass();
  }
  EXPECT_LOGGED(kError, kNotOpened);
  EXPECT_LOGGED(kError, kNotSought);
  EXPECT_EQ(cut_point(), 0);
  EXPECT_EQ(far_.tell(), -1);
  EXPECT_EQ(far_.error(), EBADF);
  expect_reading_goes_on(3 * kUnit);
  expect_writing_goes_on();
  EXPECT_EQ(far_.close(), -1);
  EXPECT_EQ(item().read_count, 2) << "the near one and the index";
}

TEST_F(PassTest, APositionThatCannotBeSetSwitchesCuttingOff) {
  {
    Faults faults;
    faults.fail_all("lseek64", EIO);
    pass();
  }
  EXPECT_LOGGED(kError, kNotSought);
  EXPECT_EQ(cut_point(), 0);
  EXPECT_TRUE(is_idle());
}

// ---- The task ----

TEST_F(CutThreadTest, TheFirstCutMakesTheTaskAndTheOthersStartItAgain) {
  cut();
  GstTask *const task = param().task;
  ASSERT_NE(task, nullptr);
  EXPECT_STREQ(GST_OBJECT_NAME(task), "_gst_cut_thread_loop");
  EXPECT_EQ(GST_TASK_GET_LOCK(task), &param().task_lock);
  EXPECT_FALSE(with_notify);
  EXPECT_EQ(LogCapture::count(kError, kCreate), 1);
  EXPECT_EQ(LogCapture::count(kError, kStart), 1);
  EXPECT_TRUE(logged_in_order({kCreate, kStart, kStop}));
  EXPECT_THAT(LogCapture::messages(),
              Not(Contains(fmg_error("_gst_cut_thread_loop set object name fail."))));
  for (const gint32 time : {8000, 11000}) {
    LogCapture::clear();
    EXPECT_EQ(write_unit(writer_, time), kUnit);
    finish_cut(writer_);
    EXPECT_EQ(param().task, task);
    EXPECT_EQ(GST_TASK_STATE(task), GST_TASK_STOPPED);
    EXPECT_EQ(LogCapture::count(kError, kCreate), 0);
    EXPECT_EQ(LogCapture::count(kError, kStart), 1);
    EXPECT_EQ(LogCapture::count(kError, kStop), 1);
  }
  EXPECT_EQ(removals().size(), 3u);
  EXPECT_EQ(total_cut(), 9 * kUnit);
  EXPECT_EQ(cut_point(), 14000);
}

// From the second cut on; the first one finds handles that were opened without direct access.
TEST_F(CutThreadTest, ReadersKeepTheirBounceBuffersOverACut) {
  cut();
  const std::set<const void *> buffers{near_.get()->tpbuf, far_.get()->tpbuf};
  ASSERT_FALSE(buffers.contains(nullptr));
  ASSERT_EQ(buffers.size(), 2u);
  Faults faults;
  faults.all_threads();
  int allocated = 0;
  faults.watch("valloc", [&](int, const char *, long long size) { allocated += size > kUnit; });
  EXPECT_EQ(write_unit(writer_, 8000), kUnit);
  finish_cut(writer_);
  EXPECT_EQ(allocated, 0);
  EXPECT_EQ((std::set<const void *>{near_.get()->tpbuf, far_.get()->tpbuf}), buffers);
}

// The mark is gone, and the task is not out of the way yet.
TEST_F(CutThreadTest, TheFirstWriteBehindACutMayStartTheNext) {
  dawdles = true;
  start_cut();
  ASSERT_TRUE(wait_until([] { return is_stopping.load(); }));
  EXPECT_FALSE(is_cutting());
  EXPECT_EQ(write_unit(writer_, 8000), kUnit);
  finish_cut(writer_);
  EXPECT_EQ(removals().size(), 2u);
}

TEST_F(CutThreadTest, ATaskThatIsAboutToStopIsStartedAgain) {
  dawdles = true;
  gst_cut_thread_create_task(&param());
  ASSERT_TRUE(wait_until([] { return is_stopping.load(); }));
  gst_cut_thread_create_task(&param());
  finish_cut(writer_);
  EXPECT_EQ(removals().size(), 2u);
}

TEST_F(CutThreadTest, ATaskWithoutANameRunsAllTheSame) {
  no_name = true;
  cut();
  EXPECT_TRUE(
      logged_in_order({kCreate, fmg_error("_gst_cut_thread_loop set object name fail."), kStart}));
  EXPECT_EQ(total_cut(), 3 * kUnit);
}

TEST_F(CutThreadTest, WithoutATaskCuttingIsSwitchedOff) {
  no_task = true;
  EXPECT_EQ(write_unit(writer_, 5000), kUnit);
  EXPECT_TRUE(logged_in_order({kCreate, kStart}));
  EXPECT_EQ(param().is_busy, 0);
  EXPECT_EQ(cut_point(), 0);
  EXPECT_FALSE(is_cutting());
  EXPECT_TRUE(is_idle());
}

TEST_F(CutThreadTest, ATaskThatCouldNotBeMadeIsMadeNextTime) {
  no_task = true;
  EXPECT_EQ(write_unit(writer_, 5000), kUnit);
  no_task = false;
  ASSERT_EQ(gst_cut_file_set_max_time(writer_.get(), 2000, 5000), 1);
  cut();
  EXPECT_EQ(total_cut(), 3 * kUnit);
}

TEST_F(CutThreadTest, ARecordOfTheCallersOwnIsNotFreedByTheTask) {
  GstCutParam record{};
  record.key = 0;
  record.file_path = rec_.c_str();
  record.cutbuf_starttime = 2000;
  record.max_time = 5000;
  record.cut_offset = kUnit;
  record.cut_buffer_mgr = writer_.mgr();
  gst_cut_thread_create_task(&record);
  finish_cut(&record);
  EXPECT_EQ(record.removed_bytes, kUnit);
  EXPECT_EQ(total_cut(), kUnit);
  record.removed_bytes = 0;
  gst_cut_thread_create_task(&record);
  finish_cut(&record);
  EXPECT_EQ(total_cut(), 2 * kUnit);
  gst_object_unref(record.task);
  g_rec_mutex_clear(&record.task_lock);
}

TEST_F(CutThreadTest, ACutOfARecordingThatNobodyHasOpenIsASuccess) {
  const std::string path = dir_.file("other.kvf");
  write_file(path, bytes_at(0, 8 * kUnit));
  index_of(20).write(dir_.file("other.mdb"));
  GstCutBufferMgr mgr;
  ASSERT_TRUE(gst_cut_mgr_create(&mgr, path.c_str(), 2, 0));
  ASSERT_TRUE(gst_cut_mgr_set_max_time(&mgr, 2000, 5000, 0));
  gst_cut_mgr_update_time(&mgr, 5000);
  EXPECT_TRUE(gst_cut_mgr_do_cut(&mgr));
  finish_cut(mgr.cut_param);
  EXPECT_EQ(total_cut(), 3 * kUnit);
  EXPECT_EQ(read_file(path), bytes_at(3 * kUnit, 5 * kUnit));
  EXPECT_EQ(mgr.max_time, 5000) << "no writer, no next period";
  gst_cut_mgr_destroy(&mgr);
}

TEST_F(CutTest, ACutMayBeTheFirstThatAProcessAsksOfTheRegistry) {
  write_file(rec_, bytes_at(0, 8 * kUnit));
  write_index(20);
  GstCutBufferMgr mgr;
  ASSERT_TRUE(gst_cut_mgr_create(&mgr, rec_.c_str(), 0, 0));
  ASSERT_TRUE(gst_cut_mgr_set_max_time(&mgr, 2000, 5000, 0));
  ASSERT_EQ(g_lib_shared_info.registry, nullptr);
  GstCutParam &record = *mgr.cut_param;
  record.file_path = rec_.c_str();
  record.cutbuf_starttime = 2000;
  record.max_time = 5000;
  record.cut_offset = kUnit;
  record.cut_buffer_mgr = &mgr;
  gst_cut_thread_create_task(&record);
  finish_cut(&record);
  EXPECT_EQ(record.removed_bytes, kUnit);
  EXPECT_EQ(total_cut(), kUnit);
  gst_cut_mgr_destroy(&mgr);
}

// ---- Busy readers, and managers that go ----

TEST_F(CutThreadTest, AReaderThatIsBusyForTooLongSwitchesCuttingOffAndTheCutStillHappens) {
  ASSERT_TRUE(plexa::_enter_operation(0));
  start_cut();
  EXPECT_TRUE(wait_until([&] { return cut_point() == 0; }));
  EXPECT_FALSE(is_cutting());
  EXPECT_THAT(removals(), IsEmpty());
  EXPECT_GE(near_.tell(), 0) << "operations go on meanwhile";
  plexa::_leave_operation(0);
  finish_cut(writer_);
  EXPECT_EQ(total_cut(), 3 * kUnit);
  EXPECT_EQ(cut_point(), 0);
  EXPECT_GT(param().retry_count, 20);
  expect_reading_goes_on(3 * kUnit);
  expect_writing_goes_on(29000);
  EXPECT_EQ(removals().size(), 1u);
}

TEST_F(CutThreadTest, AManagerThatGoesWhileItsCutWaitsTakesTheCutAlong) {
  ASSERT_TRUE(plexa::_enter_operation(0));
  start_cut();
  ASSERT_TRUE(wait_until([&] { return !is_cutting(); }));
  static std::atomic<bool> is_task_gone;
  is_task_gone = false;
  g_object_weak_ref(
      G_OBJECT(param().task), [](gpointer, GObject *) { is_task_gone = true; }, nullptr);
  EXPECT_EQ(writer_.close(), 1);
  plexa::_leave_operation(0);
  EXPECT_TRUE(wait_until([] { return is_task_gone.load(); }));
  EXPECT_THAT(removals(), IsEmpty());
  EXPECT_EQ(near_.read(100), bytes_at(6 * kUnit + 10, 100));
  int another = 0;
  EXPECT_TRUE(plexa::_claim_cut(0, &another)) << "the claim is free";
  mark_cut(false);
}

TEST_F(CutThreadTest, AWriterThatIsGivenUpTakesItsPendingCutAlong) {
  ASSERT_TRUE(plexa::_claim_cut(0, &param()));
  plexa::cut_file_release(writer_.get());
  EXPECT_EQ(writer_.state().key, -1);
  EXPECT_FALSE(is_cutting()) << "nobody else would take the mark back";
  int another = 0;
  EXPECT_TRUE(plexa::_claim_cut(0, &another)) << "the claim is free";
  mark_cut(false);
}

// Its last pass, between the two steps of a manager that goes.
TEST_F(CutThreadTest, ATaskThatFindsItsManagerGoneTakesTheMarkOfItsCutBack) {
  ASSERT_TRUE(plexa::_claim_cut(0, &param()));
  GstCutBufferMgr *const mgr = std::exchange(param().cut_buffer_mgr, nullptr);
  plexa::_gst_cut_thread_loop(&param());
  EXPECT_FALSE(is_cutting()) << "the manager no longer finds its claim";
  plexa::_abandon_cut(0, &param());
  EXPECT_FALSE(is_cutting());
  EXPECT_EQ(near_.read(100).size(), 100u);
  param().cut_buffer_mgr = mgr;
}

// The count of a recording whose opens were refused ends before its handles do.
TEST_F(CutThreadTest, APendingCutGoesWithItsSlot) {
  ASSERT_TRUE(plexa::_enter_operation(0));
  start_cut();
  ASSERT_TRUE(wait_until([&] { return !is_cutting(); }));
  EXPECT_EQ(near_.close(), 1);
  EXPECT_EQ(far_.close(), 1);
  gst_shared_info_delete_item(gst_shared_info_get(), 0, kWrites, 0, nullptr);
  gst_shared_info_delete_item(gst_shared_info_get(), 0, kReads, 0, nullptr);  // the index
  const std::string path = dir_.file("other.kvf");
  CutHandle other;
  ASSERT_EQ(other.open(path, kWrites), 1);
  ASSERT_EQ(other.key(), 0u);
  ASSERT_EQ(other.write(bytes_at(0, 8 * kUnit)), 8 * kUnit);
  ASSERT_EQ(near_.open(path, kReads), 1);
  ASSERT_EQ(near_.seek(4 * kUnit), 4 * kUnit);
  plexa::_leave_operation(0);
  finish_cut(writer_);
  EXPECT_THAT(removals(), IsEmpty());
  EXPECT_EQ(near_.read(100), bytes_at(4 * kUnit, 100));
  EXPECT_EQ(writer_.close(), 1);
  EXPECT_EQ(item().write_count, 1) << "the other one's";
}

TEST_F(CutThreadTest, AHandleThatIsGivenUpLeavesAnothersPendingCutAlone) {
  int another = 0;
  ASSERT_TRUE(plexa::_claim_cut(0, &another));
  plexa::cut_file_release(near_.get());
  plexa::cut_file_release(writer_.get());
  EXPECT_TRUE(is_cutting());
  mark_cut(false);
  EXPECT_EQ(far_.read(100).size(), 100u);
}

TEST_F(CutThreadTest, AHandleIsNotGivenUpWhileACutWorksOnIt) {
  ASSERT_EQ(plexa::_begin_cut(0), plexa::CutStart::kStarted);
  std::atomic<bool> is_ended{false};
  bool was_ended = false;
  std::thread owner([&] {
    plexa::cut_file_release(near_.get());
    was_ended = is_ended;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  is_ended = true;
  plexa::_end_cut(0);
  owner.join();
  EXPECT_TRUE(was_ended);
  EXPECT_EQ(near_.state().descriptor, -1);
}

TEST_F(CutThreadTest, ACloseBehindTheCutPointWaitsForTheCut) {
  start_cut();
  gint64 offset = 0;
  EXPECT_EQ(gst_cut_file_close(writer_.get(), &offset, nullptr), 1);
  EXPECT_EQ(offset, 3 * kUnit);
  EXPECT_EQ(removals().size(), 1u);
}

TEST_F(CutThreadTest, AWriterMayCloseAtAnyMomentAroundACut) {
  for (int round = 0; round < 24; ++round) {
    const std::string stem = dir_.file("r" + std::to_string(round % 3));
    CutHandle writer;
    ASSERT_EQ(writer.open(stem + ".kvf", kWrites), 1);
    index_of(20).write(stem + ".mdb");
    ASSERT_EQ(gst_cut_file_set_max_time(writer.get(), 2000, 5000), 1);
    written_ = 0;
    for (int i = 0; i < 5; ++i) ASSERT_EQ(write_unit(writer, 0), kUnit);
    const guint32 key = writer.key();
    if (round % 2 == 0) plexa::_enter_operation(key);
    ASSERT_EQ(write_unit(writer, 5000), kUnit);
    std::thread busy([&, round] {
      std::this_thread::sleep_for(std::chrono::microseconds(200 * round));
      if (round % 2 == 0) plexa::_leave_operation(key);
    });
    EXPECT_EQ(writer.close(), 1);
    busy.join();
    EXPECT_EQ(writer.state().key, -1);
  }
}

TEST_F(CutThreadTest, WhileTheRemovalHangsOperationsGiveUpAfterTwoSecondsAndWorkLater) {
  std::atomic<bool> may_go_on{false};
  while_removing_ = [&] {
    while (!may_go_on) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  };
  start_cut();
  gint64 results[2] = {};
  char byte;
  std::thread read([&] { results[0] = gst_cut_file_read(near_.get(), &byte, 1); });
  std::thread tell([&] { results[1] = far_.tell(); });
  EXPECT_EQ(write_unit(writer_, 5000), GST_CUT_FILE_BUSY);
  read.join();
  tell.join();
  EXPECT_THAT(results, ElementsAre(GST_CUT_FILE_BUSY, GST_CUT_FILE_BUSY));
  may_go_on = true;
  finish_cut(writer_);
  expect_reading_goes_on(3 * kUnit);
  expect_writing_goes_on();
}

TEST_F(CutThreadTest, TwoRecordingsAreCutAtOnce) {
  const std::string stem = dir_.file("other");
  CutHandle other;
  ASSERT_EQ(other.open(stem + ".kvf", kWrites), 1);
  index_of(20).write(stem + ".mdb");
  ASSERT_EQ(gst_cut_file_set_max_time(other.get(), 2000, 5000), 1);
  ASSERT_EQ(other.write(bytes_at(0, 8 * kUnit)), 8 * kUnit);
  gst_cut_file_set_last_wrote_time(other.get(), 5000);
  ASSERT_TRUE(plexa::_enter_operation(0));
  ASSERT_TRUE(plexa::_enter_operation(1));
  start_cut();
  EXPECT_EQ(other.write(bytes_at(8 * kUnit, kUnit)), kUnit);
  plexa::_leave_operation(0);
  plexa::_leave_operation(1);
  finish_cut(writer_);
  finish_cut(other);
  EXPECT_EQ(removals().size(), 2u);
  for (const guint32 key : {0u, 1u}) EXPECT_EQ(plexa::_bytes_cut_off(key), 3 * kUnit);
  EXPECT_EQ(read_file(rec_), bytes_at(3 * kUnit, 6 * kUnit));
  EXPECT_EQ(read_file(stem + ".kvf"), bytes_at(3 * kUnit, 6 * kUnit));
  EXPECT_EQ(total_cut(), 6 * kUnit) << "one record for both";
}

TEST_F(CutThreadTest, ReadersComeAndGoDuringCuts) {
  std::atomic<bool> is_over{false};
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([&] {
      while (!is_over) {
        CutHandle reader;
        if (reader.open(rec_, kReads) != 1) ++failures;
        if (reader.tell() < 0) ++failures;
        if (reader.read(10).size() != 10) ++failures;
        if (reader.close() != 1) ++failures;
      }
    });
  }
  for (int time = 1; time < 29; ++time) {
    EXPECT_EQ(write_unit(writer_, time * 1000), kUnit);
    EXPECT_TRUE(wait_until([] { return !is_cutting(); }));
  }
  is_over = true;
  for (std::thread &thread : threads) thread.join();
  finish_cut(writer_);
  EXPECT_EQ(failures, 0);
  EXPECT_GT(removals().size(), 5u);
}

}  // namespace
}  // namespace plexa_test
