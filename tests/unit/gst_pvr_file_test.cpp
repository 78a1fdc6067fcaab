// The operations on an opened handle: checks, messages, the lock, slow calls, times, rename; and
// the layout of the handle.
#include "gst-plexa/gst_pvr_file.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <deque>
#include <functional>
#include <future>
#include <optional>

#include "faults.h"
#include "gst-plexa/gst_file_shared_info.h"
#include "log_capture.h"
#include "temp_dir.h"

// The clock of the slow-call reports, in microseconds: the readings that a test has laid out, then
// always the last one.
namespace {
std::deque<gint64> clock_readings;
}

gint64 g_get_monotonic_time(void) {
  if (clock_readings.empty()) return 0;
  const gint64 reading = clock_readings.front();
  if (clock_readings.size() > 1) clock_readings.pop_front();
  return reading;
}

namespace plexa_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kNullFile[] = "[EXT_FMG] [PLG_ERR] pvr_file is NULL";
constexpr char kNullLock[] = "[EXT_FMG] [PLG_ERR] pvr_file->var.lock is NULL";

bool is_locked(GstPvrFile *file) {
  if (!g_mutex_trylock(file->var.lock)) return true;
  g_mutex_unlock(file->var.lock);
  return false;
}

// A back-end that answers as told and remembers what it was asked, and whether under the lock.
struct BackEnd {
  gint64 answer = 0;
  int calls = 0;
  std::optional<bool> locked;
  const void *buffer = nullptr;
  gint64 number = 0;
  gint32 whence = 0;
  guint32 first_time = 0;
  guint32 second_time = 0;

  gint64 asked(GstPvrFile *file) {
    ++calls;
    locked = is_locked(file);
    return answer;
  }
};
BackEnd back_end;

PvrFileOps table_of_the_back_end() {
  PvrFileOps ops{};
  ops.close = [](GstPvrFile *file) { return back_end.asked(file); };
  ops.read = [](GstPvrFile *file, void *buffer, gint64 size) {
    back_end.buffer = buffer;
    back_end.number = size;
    return back_end.asked(file);
  };
  ops.write = [](GstPvrFile *file, const void *buffer, gint64 size) {
    back_end.buffer = buffer;
    back_end.number = size;
    return back_end.asked(file);
  };
  ops.seek = [](GstPvrFile *file, gint64 offset, gint32 whence) {
    back_end.number = offset;
    back_end.whence = whence;
    return back_end.asked(file);
  };
  ops.tell = [](GstPvrFile *file) { return back_end.asked(file); };
  ops.fsync = [](GstPvrFile *file) { return back_end.asked(file); };
  ops.size = [](GstPvrFile *file) { return back_end.asked(file); };
  ops.set_max_time = [](GstPvrFile *file, guint32 start, guint32 cut) {
    back_end.first_time = start;
    back_end.second_time = cut;
    return back_end.asked(file);
  };
  ops.get_max_time = [](GstPvrFile *file) { return back_end.asked(file); };
  ops.set_last_wrote_time = [](GstPvrFile *file, guint32 time) {
    back_end.first_time = time;
    return back_end.asked(file);
  };
  return ops;
}

class PvrFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    gst_pvr_file_init(&file_);
    file_.ops = table_of_the_back_end();
    back_end = {};
    clock_readings.clear();
    LogCapture::clear();
  }
  void TearDown() override {
    LogCapture::set_hook(nullptr);
    gst_pvr_file_deinit(&file_);
    gst_shared_cut_info_remove();
    gst_shared_info_remove(gst_shared_info_get());
  }

  GstPvrFile file_;
  char buffer_[16] = {};
};

// ---- The pattern that the operations share ----

struct Operation {
  const char *name;
  std::function<gint64(GstPvrFile *)> call;
  const char *null_file = "[PLG_ERR] pvr_file is NULL";
  const char *null_lock = "[PLG_ERR] pvr_file->var.lock is NULL";
};

char byte;

const Operation kOperations[] = {
    {"gst_pvr_file_read", [](GstPvrFile *f) { return gst_pvr_file_read(f, &byte, 1); }},
    {"gst_pvr_file_write", [](GstPvrFile *f) { return gst_pvr_file_write(f, &byte, 1); }},
    {"gst_pvr_file_seek", [](GstPvrFile *f) { return gst_pvr_file_seek(f, 0, 0); }},
    {"gst_pvr_file_tell", gst_pvr_file_tell, "[PLG_ERR] pvr_file is NULL, pls check",
     "[PLG_ERR] pvr_file->var.lock is NULL, pls check"},
    {"gst_pvr_file_size", gst_pvr_file_size, "[PLG_ERR] [dorvik]pvr_file is null",
     "[PLG_ERR] [dorvik]pvr_file->var.lock is null"},
    {"gst_pvr_file_fsync", gst_pvr_file_fsync},
    {"gst_pvr_file_get_max_time", gst_pvr_file_get_max_time},
    {"gst_pvr_file_set_max_time",
     [](GstPvrFile *f) { return gst_pvr_file_set_max_time(f, 1000000); }},
    {"gst_pvr_file_close", gst_pvr_file_close},
};

class OperationTest : public PvrFileTest, public ::testing::WithParamInterface<Operation> {
 protected:
  void expect_only_line(const char *message) {
    EXPECT_THAT(LogCapture::messages(kError), ElementsAre(std::string("[EXT_FMG] ") + message));
    EXPECT_EQ(LogCapture::lines().size(), 1u);
    EXPECT_EQ(LogCapture::lines()[0].function, GetParam().name);
  }
};

INSTANTIATE_TEST_SUITE_P(Every, OperationTest, ::testing::ValuesIn(kOperations),
                         [](const auto &operation) {
                           return std::string(operation.param.name).substr(13);
                         });

TEST_P(OperationTest, FailsWithoutAHandle) {
  EXPECT_EQ(GetParam().call(nullptr), -1);
  expect_only_line(GetParam().null_file);
}

TEST_P(OperationTest, FailsWithoutALock) {
  GstPvrFile file{};
  file.ops = table_of_the_back_end();
  EXPECT_EQ(GetParam().call(&file), -1);
  expect_only_line(GetParam().null_lock);
  EXPECT_EQ(back_end.calls, 0);
}

TEST_P(OperationTest, FailsWhenItsSlotIsEmpty) {
  file_.ops = {};
  EXPECT_EQ(GetParam().call(&file_), -1);
  EXPECT_FALSE(is_locked(&file_));
}

TEST_P(OperationTest, CallsTheBackEndOnceUnderTheLock) {
  back_end.answer = 42;
  EXPECT_EQ(GetParam().call(&file_), 42);
  EXPECT_EQ(back_end.calls, 1);
  EXPECT_EQ(back_end.locked, true);
  EXPECT_FALSE(is_locked(&file_));
}

TEST_P(OperationTest, GivesTheBackEndsFailureUnchanged) {
  back_end.answer = -3;
  EXPECT_EQ(GetParam().call(&file_), -3);
  EXPECT_FALSE(is_locked(&file_));
}

TEST_P(OperationTest, Widens64BitResults) {
  back_end.answer = gint64{5} << 32;
  EXPECT_EQ(GetParam().call(&file_), gint64{5} << 32);
}

// ---- Read ----

TEST_F(PvrFileTest, ReadPassesBufferAndSizeOn) {
  back_end.answer = 16;
  EXPECT_EQ(gst_pvr_file_read(&file_, buffer_, gint64{5} << 32), 16);
  EXPECT_EQ(back_end.buffer, buffer_);
  EXPECT_EQ(back_end.number, gint64{5} << 32);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

class BadSizeTest : public PvrFileTest, public ::testing::WithParamInterface<gint64> {};

INSTANTIATE_TEST_SUITE_P(Sizes, BadSizeTest, ::testing::Values(0, -1, G_MININT64));

TEST_P(BadSizeTest, IsReadAsNothingAndLoggedUnderTheFilesName) {
  EXPECT_EQ(gst_pvr_file_read(&file_, buffer_, GetParam()), 0);
  EXPECT_EQ(back_end.calls, 0);
  EXPECT_THAT(LogCapture::messages(kError), ElementsAre(kNullFile));
  EXPECT_FALSE(is_locked(&file_));
}

TEST_P(BadSizeTest, IsWrittenAsNothingAndLogged) {
  EXPECT_EQ(gst_pvr_file_write(&file_, buffer_, GetParam()), 0);
  EXPECT_EQ(back_end.calls, 0);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre("[EXT_FMG] [PLG_ERR] size < 0 [" + std::to_string(GetParam()) + "]"));
  EXPECT_FALSE(is_locked(&file_));
}

TEST_F(PvrFileTest, TheEndOfTheFileIsLogged) {
  back_end.answer = 0;
  EXPECT_EQ(gst_pvr_file_read(&file_, buffer_, 16), 0);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre("[EXT_FMG] [PLG_ERR] pvr_file->read() ret[0]"));
}

TEST_F(PvrFileTest, AFailedReadIsLogged) {
  back_end.answer = -3;
  EXPECT_EQ(gst_pvr_file_read(&file_, buffer_, 16), -3);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre("[EXT_FMG] [PLG_ERR] pvr_file->read() ret[-3]"));
}

TEST_F(PvrFileTest, AReadWithoutASlotIsLoggedLikeAFailedOne) {
  file_.ops.read = nullptr;
  EXPECT_EQ(gst_pvr_file_read(&file_, buffer_, 16), -1);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre("[EXT_FMG] [PLG_ERR] pvr_file->read() ret[-1]"));
}

// ---- Write, fsync and the clock ----

constexpr gint64 kMillisecond = 1000;

TEST_F(PvrFileTest, WritePassesBufferAndSizeOn) {
  back_end.answer = 16;
  EXPECT_EQ(gst_pvr_file_write(&file_, buffer_, gint64{5} << 32), 16);
  EXPECT_EQ(back_end.buffer, buffer_);
  EXPECT_EQ(back_end.number, gint64{5} << 32);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(PvrFileTest, AWriteOf50MillisecondsIsNotLogged) {
  clock_readings = {7 * kMillisecond, 57 * kMillisecond + 999};
  gst_pvr_file_write(&file_, buffer_, 16);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(PvrFileTest, AWriteOf51MillisecondsIs) {
  back_end.answer = 12;
  clock_readings = {7 * kMillisecond, 58 * kMillisecond};
  EXPECT_EQ(gst_pvr_file_write(&file_, buffer_, 16), 12);
  EXPECT_THAT(
      LogCapture::messages(kError),
      ElementsAre("[EXT_FMG] [PLG_ERR] write  takes [51]ms, write size=[16], return count=[12]"));
}

// Little over 50 ms, but 51 when both readings are cut to whole milliseconds.
TEST_F(PvrFileTest, TheReadingsAreCutToMillisecondsBeforeTheyAreSubtracted) {
  clock_readings = {7 * kMillisecond + 999, 58 * kMillisecond};
  gst_pvr_file_write(&file_, buffer_, 16);
  EXPECT_LOGGED(kError,
                "[EXT_FMG] [PLG_ERR] write  takes [51]ms, write size=[16], return count=[0]");
}

TEST_F(PvrFileTest, ASlowFailedWriteIsLoggedWithItsResult) {
  back_end.answer = -1;
  clock_readings = {0, gint64{3000000} * kMillisecond};
  gst_pvr_file_write(&file_, buffer_, 16);
  EXPECT_LOGGED(kError,
                "[EXT_FMG] [PLG_ERR] write  takes [3000000]ms, write size=[16], return count=[-1]");
}

TEST_F(PvrFileTest, AWriteWithoutASlotIsNotTimed) {
  file_.ops.write = nullptr;
  clock_readings = {0, 100 * kMillisecond};
  EXPECT_EQ(gst_pvr_file_write(&file_, buffer_, 16), -1);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(PvrFileTest, AnFsyncOf50MillisecondsIsNotLogged) {
  clock_readings = {kMillisecond, 51 * kMillisecond + 999};
  EXPECT_EQ(gst_pvr_file_fsync(&file_), 0);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(PvrFileTest, AnFsyncOf51MillisecondsIs) {
  back_end.answer = -1;
  clock_readings = {kMillisecond, 52 * kMillisecond};
  EXPECT_EQ(gst_pvr_file_fsync(&file_), -1);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre("[EXT_FMG] [PLG_ERR] fsync  takes [51]ms, return count=[-1]"));
}

TEST_F(PvrFileTest, TheOtherOperationsAreNotTimed) {
  back_end.answer = 1;
  clock_readings = {0, 100 * kMillisecond, 200 * kMillisecond, 300 * kMillisecond,
                    400 * kMillisecond};
  gst_pvr_file_read(&file_, buffer_, 16);
  gst_pvr_file_seek(&file_, 0, 0);
  gst_pvr_file_tell(&file_);
  gst_pvr_file_size(&file_);
  EXPECT_EQ(clock_readings.size(), 5u);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

// ---- Seek ----

TEST_F(PvrFileTest, SeekPassesOffsetAndWhenceOn) {
  back_end.answer = 9;
  EXPECT_EQ(gst_pvr_file_seek(&file_, -(gint64{5} << 32), 2), 9);
  EXPECT_EQ(back_end.number, -(gint64{5} << 32));
  EXPECT_EQ(back_end.whence, 2);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

// ---- Error number ----

TEST_F(PvrFileTest, EveryQuestionForTheErrorNumberIsLoggedAtErrorLevel) {
  file_.var.error_number = ENOSPC;
  EXPECT_EQ(gst_pvr_file_get_error_num(&file_), ENOSPC);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre("[EXT_FMG] pvr_file->var.error_number =[28]"));
}

TEST_F(PvrFileTest, TheErrorNumberIsToldWhileTheHandleIsLocked) {
  file_.var.error_number = EIO;
  g_mutex_lock(file_.var.lock);
  EXPECT_EQ(gst_pvr_file_get_error_num(&file_), EIO);
  g_mutex_unlock(file_.var.lock);
}

TEST_F(PvrFileTest, WithoutAHandleThereIsNoErrorNumber) {
  EXPECT_EQ(gst_pvr_file_get_error_num(nullptr), -1);
  EXPECT_THAT(LogCapture::messages(kError), ElementsAre(kNullFile));
}

// ---- Maximum time ----

struct MaxTime {
  gint64 max_time;
  guint32 cut_time;
  guint32 cut_buf_start_time;
};

class MaxTimeTest : public PvrFileTest, public ::testing::WithParamInterface<MaxTime> {};

INSTANTIATE_TEST_SUITE_P(
    Table, MaxTimeTest,
    ::testing::Values(MaxTime{G_MAXINT64, 5460000, 5400000}, MaxTime{5460001, 5460000, 5400000},
                      MaxTime{5460000, 5460000, 5400000}, MaxTime{5459999, 5459999, 5399999},
                      MaxTime{3600000, 3600000, 3540000}, MaxTime{360000, 360000, 300000},
                      MaxTime{359999, 0, 0}, MaxTime{60000, 0, 0}, MaxTime{0, 0, 0},
                      MaxTime{-1, 0, 0}, MaxTime{G_MININT64, 0, 0},
                      MaxTime{(gint64{1} << 32) + 400000, 5460000, 5400000}));

TEST_P(MaxTimeTest, BecomesTheTwoTimes) {
  guint32 cut_time = 77;
  EXPECT_EQ(gst_pvr_file_get_calculated_max_time(GetParam().max_time, &cut_time),
            GetParam().cut_buf_start_time);
  EXPECT_EQ(cut_time, GetParam().cut_time);
}

TEST_P(MaxTimeTest, NeedsNoPlaceForTheCutTime) {
  EXPECT_EQ(gst_pvr_file_get_calculated_max_time(GetParam().max_time, nullptr),
            GetParam().cut_buf_start_time);
}

TEST_P(MaxTimeTest, ReachesTheBackEndAsTwoTimes) {
  back_end.answer = 1;
  EXPECT_EQ(gst_pvr_file_set_max_time(&file_, GetParam().max_time), 1);
  EXPECT_EQ(back_end.first_time, GetParam().cut_buf_start_time);
  EXPECT_EQ(back_end.second_time, GetParam().cut_time);
  EXPECT_THAT(LogCapture::messages(kInfo),
              ElementsAre("[EXT_FMG] max_time = [" + std::to_string(GetParam().max_time) + "]",
                          "[EXT_FMG] cut_buf_start_time = [" +
                              std::to_string(GetParam().cut_buf_start_time) + "],cut_time = [" +
                              std::to_string(GetParam().cut_time) + "]"));
}

TEST_F(PvrFileTest, TheMaximumTimeIsLoggedBeforeTheLockAndTheTwoTimesUnderIt) {
  static GstPvrFile *handle;
  static std::vector<bool> locked;
  handle = &file_;
  locked.clear();
  LogCapture::set_hook([] { locked.push_back(is_locked(handle)); });
  gst_pvr_file_set_max_time(&file_, 1000000);
  LogCapture::set_hook(nullptr);
  EXPECT_THAT(locked, ElementsAre(false, true));
}

// ---- Last wrote time ----

TEST_F(PvrFileTest, TheLastWroteTimeGoesToTheBackEndWithoutTheLock) {
  gst_pvr_file_set_last_wrote_time(&file_, 0xFFFFFFFFu);
  EXPECT_EQ(back_end.calls, 1);
  EXPECT_EQ(back_end.first_time, 0xFFFFFFFFu);
  EXPECT_EQ(back_end.locked, false);
}

TEST_F(PvrFileTest, TheLastWroteTimeOfNoHandleIsLogged) {
  gst_pvr_file_set_last_wrote_time(nullptr, 1);
  EXPECT_THAT(LogCapture::messages(kError), ElementsAre(kNullFile));
}

TEST_F(PvrFileTest, TheLastWroteTimeNeedsNoLockAtAll) {
  GstPvrFile file{};
  file.ops.set_last_wrote_time = [](GstPvrFile *, guint32 time) -> gint64 {
    back_end.first_time = time;
    return 1;
  };
  gst_pvr_file_set_last_wrote_time(&file, 5);
  EXPECT_EQ(back_end.first_time, 5u);
}

TEST_F(PvrFileTest, WithoutASlotTheLastWroteTimeGoesNowhere) {
  file_.ops = {};
  gst_pvr_file_set_last_wrote_time(&file_, 5);
  EXPECT_EQ(back_end.calls, 0);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

// ---- Absolute and relative times ----

class TimesTest : public PvrFileTest {
 protected:
  void given_cut_away(gint32 milliseconds) {
    gst_shared_cut_info_set_accumulated_time(gst_shared_cut_info_get(), milliseconds);
    LogCapture::clear();
  }
};

TEST_F(TimesTest, NothingIsCutAwayAtFirst) {
  EXPECT_EQ(gst_pvr_file_get_rel_start_time(), 0);
  EXPECT_EQ(gst_pvr_file_convert_abs_rel(1234), 1234);
  EXPECT_EQ(gst_pvr_file_convert_rel_abs(1234), 1234);
}

TEST_F(TimesTest, TheRelativeStartIsWhatHasBeenCutAway) {
  given_cut_away(90000);
  EXPECT_EQ(gst_pvr_file_get_rel_start_time(), 90000);
  EXPECT_THAT(LogCapture::messages(kInfo), ElementsAre("[EXT_FMG] accumulated_time=[90000 ms]"));
}

TEST_F(TimesTest, AbsoluteTimesAreMadeRelativeAndBack) {
  given_cut_away(90000);
  EXPECT_EQ(gst_pvr_file_convert_abs_rel(100000), 10000);
  EXPECT_EQ(gst_pvr_file_convert_rel_abs(10000), 100000);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(TimesTest, ATimeThatIsCutAwayWrapsIn32BitsAndBack) {
  given_cut_away(90000);
  EXPECT_EQ(gst_pvr_file_convert_abs_rel(80000), (gint64{1} << 32) - 10000);
  EXPECT_EQ(gst_pvr_file_convert_rel_abs(0xFFFFFFFFu - 9999), 80000);
}

TEST_F(TimesTest, EveryTimeComesBack) {
  given_cut_away(90000);
  for (const guint32 time : {0u, 1u, 89999u, 90000u, 90001u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
    const gint64 relative = gst_pvr_file_convert_abs_rel(time);
    EXPECT_EQ(gst_pvr_file_convert_rel_abs(static_cast<guint32>(relative)), time);
  }
}

// ---- Rename ----

class RenameTest : public PvrFileTest {
 protected:
  gint32 rename_it() { return gst_pvr_file_rename(&file_, old_.c_str(), new_.c_str()); }

  TempDir dir_;
  const std::string old_ = dir_.file("old.kvf");
  const std::string new_ = dir_.file("new.kvf");
};

TEST_F(RenameTest, RenamesTheFile) {
  write_file(old_, {1, 2, 3});
  EXPECT_EQ(rename_it(), 1);
  EXPECT_FALSE(exists(old_));
  EXPECT_EQ(read_file(new_), (std::vector<uint8_t>{1, 2, 3}));
  EXPECT_FALSE(is_locked(&file_));
  EXPECT_THAT(LogCapture::messages(),
              ElementsAre("[EXT_FMG] [PLG_ERR] file is exist [" + old_ + "]",
                          "[EXT_FMG] rename normal/cut/talm+zeb file !"));
  EXPECT_EQ(LogCapture::lines()[0].priority, kError);
  EXPECT_EQ(LogCapture::lines()[1].priority, kInfo);
}

TEST_F(RenameTest, ReplacesAnExistingFile) {
  write_file(old_, {1});
  write_file(new_, {2});
  EXPECT_EQ(rename_it(), 1);
  EXPECT_EQ(read_file(new_), (std::vector<uint8_t>{1}));
}

TEST_F(RenameTest, OfAMissingFileIsTriedAnyway) {
  Faults faults;
  EXPECT_EQ(rename_it(), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(faults.count("rename"), 1);
  EXPECT_THAT(LogCapture::messages(),
              ElementsAre("[EXT_FMG] [PLG_ERR] file is not exist [" + old_ + "]",
                          "[EXT_FMG] rename normal/cut/talm+zeb file !",
                          "[EXT_FMG] [PLG_ERR] rename [" + old_ + "] to [" + new_ + "] failed -1"));
  EXPECT_EQ(LogCapture::messages(kError).size(), 2u);
  EXPECT_FALSE(is_locked(&file_));
}

TEST_F(RenameTest, AsksForTheFileBeforeItRenames) {
  write_file(old_, {1});
  Faults faults;
  rename_it();
  EXPECT_THAT(faults.calls(), ElementsAre("access", "rename"));
}

TEST_F(RenameTest, ThatFailsLeavesTheFile) {
  write_file(old_, {1});
  Faults faults;
  faults.fail("rename", EACCES);
  EXPECT_EQ(rename_it(), -1);
  EXPECT_TRUE(exists(old_));
  EXPECT_LOGGED(kError, "[EXT_FMG] [PLG_ERR] rename [" + old_ + "] to [" + new_ + "] failed -1");
}

TEST_F(RenameTest, HappensUnderTheHandlesLock) {
  write_file(old_, {1});
  std::optional<bool> locked;
  Faults faults;
  faults.before("rename", [&] { locked = is_locked(&file_); });
  EXPECT_EQ(rename_it(), 1);
  EXPECT_EQ(locked, true);
}

TEST_F(RenameTest, WithoutALockFails) {
  write_file(old_, {1});
  GstPvrFile file{};
  EXPECT_EQ(gst_pvr_file_rename(&file, old_.c_str(), new_.c_str()), -1);
  EXPECT_EQ(gst_pvr_file_rename(nullptr, old_.c_str(), new_.c_str()), -1);
  EXPECT_THAT(LogCapture::messages(kError), ElementsAre(kNullLock, kNullLock));
  EXPECT_TRUE(exists(old_));
}

TEST_F(RenameTest, WithoutAPathFails) {
  Faults faults;
  EXPECT_EQ(gst_pvr_file_rename(&file_, nullptr, new_.c_str()), -1);
  EXPECT_EQ(gst_pvr_file_rename(&file_, old_.c_str(), nullptr), -1);
  EXPECT_EQ(faults.count("rename"), 0);
  EXPECT_THAT(LogCapture::messages(kError), ElementsAre(kNullFile, kNullFile));
  EXPECT_EQ(LogCapture::lines().size(), 2u);
  EXPECT_FALSE(is_locked(&file_));
}

// ---- Through the whole stack ----

class WholeStackTest : public PvrFileTest {
 protected:
  gint64 open(guint32 permission, guint32 io, guint32 append_mode = 0) {
    return gst_pvr_file_open(&file_, rec_.c_str(), permission, io, GST_PVR_FILE_NORMAL,
                             GST_PVR_FILE_STREAM, append_mode, 0);
  }

  TempDir dir_;
  const std::string rec_ = dir_.file("rec.kvf");
};

TEST_F(WholeStackTest, WhatIsWrittenIsRead) {
  const auto data = counting_bytes(1000);
  ASSERT_EQ(open(GST_PVR_FILE_WRITE, GST_PVR_FILE_BUFFER_IO), 1);
  EXPECT_EQ(gst_pvr_file_write(&file_, data.data(), 600), 600);
  EXPECT_EQ(gst_pvr_file_fsync(&file_), 0);
  EXPECT_EQ(gst_pvr_file_close(&file_), 1);
  ASSERT_EQ(open(GST_PVR_FILE_WRITE, GST_PVR_FILE_BUFFER_IO, 1), 1);
  EXPECT_EQ(gst_pvr_file_write(&file_, data.data() + 600, 400), 400);
  EXPECT_EQ(gst_pvr_file_close(&file_), 1);
  for (const guint32 io : {GST_PVR_FILE_BUFFER_IO, GST_PVR_FILE_DIRECT_IO}) {
    ASSERT_EQ(open(GST_PVR_FILE_READ, io), 1);
    EXPECT_EQ(gst_pvr_file_size(&file_), 1000);
    std::vector<uint8_t> got(1000);
    EXPECT_EQ(gst_pvr_file_seek(&file_, 250, SEEK_SET), 250);
    EXPECT_EQ(gst_pvr_file_read(&file_, got.data() + 250, 2000 - 1250), 750);
    EXPECT_EQ(gst_pvr_file_tell(&file_), 1000);
    EXPECT_EQ(gst_pvr_file_seek(&file_, 0, SEEK_SET), 0);
    EXPECT_EQ(gst_pvr_file_read(&file_, got.data(), 250), 250);
    EXPECT_EQ(got, data);
    EXPECT_EQ(gst_pvr_file_close(&file_), 1);
  }
}

TEST_F(WholeStackTest, ASuccessfulOperationWritesNoLine) {
  ASSERT_EQ(open(GST_PVR_FILE_WRITE, GST_PVR_FILE_BUFFER_IO), 1);
  LogCapture::clear();
  gst_pvr_file_write(&file_, "0123456789", 10);
  gst_pvr_file_seek(&file_, 0, SEEK_SET);
  gst_pvr_file_tell(&file_);
  gst_pvr_file_size(&file_);
  gst_pvr_file_fsync(&file_);
  EXPECT_EQ(gst_pvr_file_close(&file_), 1);
  ASSERT_EQ(open(GST_PVR_FILE_READ, GST_PVR_FILE_BUFFER_IO), 1);
  const size_t lines_of_the_open = LogCapture::lines().size();
  EXPECT_EQ(gst_pvr_file_read(&file_, buffer_, 10), 10);
  EXPECT_EQ(LogCapture::lines().size(), lines_of_the_open);
  EXPECT_EQ(gst_pvr_file_close(&file_), 1);
}

TEST_F(WholeStackTest, OneBufferedReadIsOneSystemCall) {
  write_file(rec_, counting_bytes(100));
  ASSERT_EQ(open(GST_PVR_FILE_READ, GST_PVR_FILE_BUFFER_IO), 1);
  {
    Faults faults;
    EXPECT_EQ(gst_pvr_file_read(&file_, buffer_, 10), 10);
    EXPECT_THAT(faults.calls(), ElementsAre("read"));
    EXPECT_EQ(faults.count("malloc") + faults.count("calloc") + faults.count("valloc"), 0);
  }
  EXPECT_EQ(gst_pvr_file_close(&file_), 1);
}

TEST_F(WholeStackTest, TheErrorNumberTellsWhyAnOperationFailed) {
  write_file(rec_, counting_bytes(100));
  ASSERT_EQ(open(GST_PVR_FILE_READ, GST_PVR_FILE_BUFFER_IO), 1);
  EXPECT_EQ(gst_pvr_file_write(&file_, "x", 1), -1);
  EXPECT_EQ(gst_pvr_file_get_error_num(&file_), EBADF);
  EXPECT_EQ(gst_pvr_file_close(&file_), 1);
}

// A direct read moves the position four times and shares the bounce buffer: only the lock keeps two
// threads from reading each other's blocks.
TEST_F(WholeStackTest, TwoThreadsOnOneDirectHandleGetEveryByteOnce) {
  constexpr gint64 kPiece = 188;
  constexpr gint64 kPieces = 250;  // all different: 188 * 251 is the period
  write_file(rec_, counting_bytes(kPiece * kPieces));
  ASSERT_EQ(open(GST_PVR_FILE_READ, GST_PVR_FILE_DIRECT_IO), 1);
  const auto read_to_the_end = [this] {
    std::vector<std::vector<uint8_t>> pieces;
    std::vector<uint8_t> piece(kPiece);
    while (gst_pvr_file_read(&file_, piece.data(), kPiece) == kPiece) pieces.push_back(piece);
    return pieces;
  };
  auto other = std::async(std::launch::async, read_to_the_end);
  auto pieces = read_to_the_end();
  for (auto &piece : other.get()) pieces.push_back(std::move(piece));
  EXPECT_EQ(gst_pvr_file_close(&file_), 1);
  std::vector<std::vector<uint8_t>> all;
  for (gint64 i = 0; i < kPieces; ++i) {
    all.push_back(counting_bytes(kPiece, static_cast<size_t>(i * kPiece)));
  }
  EXPECT_THAT(pieces, ::testing::UnorderedElementsAreArray(all));
}

TEST_F(WholeStackTest, ANormalFileHasNoMaximumTime) {
  write_file(rec_, counting_bytes(100));
  ASSERT_EQ(open(GST_PVR_FILE_READ, GST_PVR_FILE_BUFFER_IO), 1);
  EXPECT_EQ(gst_pvr_file_set_max_time(&file_, 1000000), -1);
  EXPECT_EQ(gst_pvr_file_get_max_time(&file_), -1);
  gst_pvr_file_set_last_wrote_time(&file_, 1);
  EXPECT_EQ(gst_pvr_file_close(&file_), 1);
}

// ---- Layout ----

// Field by field: where it is on 32-bit and on 64-bit x86. Callers compile these offsets in.
struct Field {
  const char *name;
  size_t offset, on_32_bit, on_64_bit;
};

#define FIELD(field, on_32_bit, on_64_bit) \
  Field { #field, offsetof(GstPvrFile, field), on_32_bit, on_64_bit }

const Field kFields[] = {
    FIELD(var.lock, 0, 0),
    FIELD(var.state.normal.key, 4, 8),
    FIELD(var.state.normal.descriptor, 8, 12),
    FIELD(var.state.normal.path, 12, 16),
    FIELD(var.state.normal.read_mode, 16, 24),
    FIELD(var.file_mode, 60, 80),
    FIELD(var.file_type, 64, 84),
    FIELD(var.record_type, 68, 88),
    FIELD(is_normal_file, 72, 92),
    FIELD(is_opened, 73, 93),
    FIELD(read_permission, 74, 94),
    FIELD(var.error_number, 76, 96),
    FIELD(direct_io, 80, 104),
    FIELD(tpbuf, 84, 112),
    FIELD(ops.open, 88, 120),
    FIELD(ops.close, 92, 128),
    FIELD(ops.read, 96, 136),
    FIELD(ops.write, 100, 144),
    FIELD(ops.seek, 104, 152),
    FIELD(ops.tell, 108, 160),
    FIELD(ops.fsync, 112, 168),
    FIELD(ops.size, 116, 176),
    FIELD(ops.set_max_time, 120, 184),
    FIELD(ops.get_max_time, 124, 192),
    FIELD(ops.set_last_wrote_time, 128, 200),
};

TEST(PvrFileLayout, TheFieldsStandInTheirOrder) {
  for (size_t i = 1; i < std::size(kFields); ++i) {
    EXPECT_LT(kFields[i - 1].offset, kFields[i].offset) << kFields[i].name;
  }
}

TEST(PvrFileLayout, EveryFieldIsWhereCallersExpectIt) {
  for (const Field &field : kFields) {
    EXPECT_EQ(field.offset, sizeof(void *) == 4 ? field.on_32_bit : field.on_64_bit) << field.name;
  }
  EXPECT_EQ(sizeof(GstPvrFile), sizeof(void *) == 4 ? 132u : 208u);
  EXPECT_EQ(sizeof(PvrFileOps), 11 * sizeof(void *));
}

TEST(PvrFileLayout, TheSocketFilesStateLiesBehindTheLockToo) {
  const Field socket_fields[] = {
      FIELD(var.state.socket.socket_io, 4, 8),
      FIELD(var.state.socket.path, 52, 64),
      FIELD(var.state.socket.flags, 56, 72),
  };
  for (const Field &field : socket_fields) {
    EXPECT_EQ(field.offset, sizeof(void *) == 4 ? field.on_32_bit : field.on_64_bit) << field.name;
  }
}

TEST(PvrFileLayout, TheCutFilesStateLiesBehindTheLockToo) {
  const Field cut_fields[] = {
      FIELD(var.state.cut.key, 4, 8),
      FIELD(var.state.cut.descriptor, 8, 12),
      FIELD(var.state.cut.file_path, 12, 16),
      FIELD(var.state.cut.last_wrote_time, 16, 24),
      FIELD(var.state.cut.cut_buffer_mgr, 20, 32),
      FIELD(var.state.cut.offset_backup, 24, 40),
      FIELD(var.state.cut.read_mode, 32, 48),
      FIELD(var.state.cut.is_direct, 33, 49),
      FIELD(var.state.cut.own_path, 36, 56),
  };
  for (const Field &field : cut_fields) {
    EXPECT_EQ(field.offset, sizeof(void *) == 4 ? field.on_32_bit : field.on_64_bit) << field.name;
  }
}

TEST(PvrFileLayout, TheFlagsOfTheHandleAreThoseOfItsInnerState) {
  EXPECT_EQ(offsetof(GstPvrFile, is_normal_file), offsetof(GstPvrFile, var.is_normal_file));
  EXPECT_EQ(offsetof(GstPvrFile, is_opened), offsetof(GstPvrFile, var.is_opened));
  EXPECT_EQ(offsetof(GstPvrFile, read_permission), offsetof(GstPvrFile, var.read_permission));
}

}  // namespace
}  // namespace plexa_test
