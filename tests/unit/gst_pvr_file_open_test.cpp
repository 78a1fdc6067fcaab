// The handle's life: init, open and the choice of the back-end, close, deinit.
#include <gmock/gmock.h>

#include <cerrno>
#include <cstring>
#include <optional>

#include "box_server.h"
#include "fake_platform.h"
#include "faults.h"
#include "gst-plexa/gst_cut_buffer_mgr.h"
#include "gst-plexa/gst_cut_file.h"
#include "gst-plexa/gst_file_shared_info.h"
#include "gst-plexa/gst_normal_file.h"
#include "gst-plexa/gst_pvr_file.h"
#include "gst-plexa/gst_socket_file.h"
#include "gst-plexa/gst_zeb.h"
#include "log_capture.h"
#include "temp_dir.h"

namespace {
gint32 box_connected = 0;
}

gint32 gst_zeb_is_connected(void) { return box_connected; }

namespace plexa_test {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

constexpr char kNullFile[] = "[EXT_FMG] [PLG_ERR] pvr_file is NULL";
constexpr char kNullLock[] = "[EXT_FMG] [PLG_ERR] pvr_file->var.lock is NULL";

// The arguments of an open; the names are those of the contract.
struct Description {
  guint32 permission = GST_PVR_FILE_READ;
  guint32 io = GST_PVR_FILE_BUFFER_IO;
  guint32 type = GST_PVR_FILE_NORMAL;
  guint32 ext = GST_PVR_FILE_STREAM;
  guint32 append_mode = 0;
  guint32 atsc3 = 0;
};

class PvrFileOpenTest : public ::testing::Test {
 protected:
  void SetUp() override {
    box_connected = 0;
    fake_platform().reset();
    std::memset(static_cast<void *>(&file_), 0xA5, sizeof file_);
    gst_pvr_file_init(&file_);
    write_file(rec_, counting_bytes(1000));
    LogCapture::clear();
  }
  void TearDown() override {
    if (file_.is_opened != 0) gst_pvr_file_close(&file_);
    gst_pvr_file_deinit(&file_);
    gst_shared_info_remove(gst_shared_info_get());
  }

  gint64 open(const std::string &path, const Description &how = {}) {
    return gst_pvr_file_open(&file_, path.c_str(), how.permission, how.io, how.type, how.ext,
                             how.append_mode, how.atsc3);
  }
  gint64 open() { return open(rec_); }
  void given_a_box_on(const std::string &year) {
    box_connected = 1;
    fake_platform().tv_year = year;
  }
  bool is_locked() {
    if (!g_mutex_trylock(file_.var.lock)) return true;
    g_mutex_unlock(file_.var.lock);
    return false;
  }

  TempDir dir_;
  const std::string rec_ = dir_.file("rec.kvf");
  const std::string index_ = dir_.file("rec.mdb");
  GstPvrFile file_;
};

bool same(const PvrFileOps &one, const PvrFileOps &other) {
  return std::memcmp(&one, &other, sizeof one) == 0;
}

constexpr PvrFileOps kNoOperations = {};
constexpr PvrFileOps kNormalFile = {gst_normal_file_open,
                                    gst_normal_file_close,
                                    gst_normal_file_read,
                                    gst_normal_file_write,
                                    gst_normal_file_seek,
                                    gst_normal_file_tell,
                                    gst_normal_file_fsync,
                                    gst_normal_file_size,
                                    gst_normal_file_set_max_time,
                                    gst_normal_file_get_max_time,
                                    gst_normal_file_set_last_wrote_time};

constexpr PvrFileOps kSocketFile = {gst_socket_file_open,
                                    gst_socket_file_close,
                                    gst_socket_file_read,
                                    gst_socket_file_write,
                                    gst_socket_file_seek,
                                    gst_socket_file_tell,
                                    gst_socket_file_fsync,
                                    gst_socket_file_size,
                                    gst_socket_file_set_max_time,
                                    gst_socket_file_get_max_time,
                                    gst_socket_file_set_last_wrote_time};

// ---- Init and deinit ----

TEST_F(PvrFileOpenTest, InitPreparesStorageThatHeldAnything) {
  GstPvrFile file;
  std::memset(static_cast<void *>(&file), 0xFF, sizeof file);
  EXPECT_EQ(gst_pvr_file_init(&file), 0);
  EXPECT_TRUE(same(file.ops, kNoOperations));
  EXPECT_EQ(file.is_normal_file, 1);
  EXPECT_EQ(file.is_opened, 0);
  EXPECT_EQ(file.read_permission, 1);
  EXPECT_EQ(file.var.error_number, 0);
  EXPECT_EQ(file.direct_io, 0);
  EXPECT_EQ(file.tpbuf, nullptr);
  ASSERT_NE(file.var.lock, nullptr);
  EXPECT_TRUE(g_mutex_trylock(file.var.lock));
  g_mutex_unlock(file.var.lock);
  gst_pvr_file_deinit(&file);
}

TEST_F(PvrFileOpenTest, InitLeavesTheBackEndsStateAlone) {
  GstPvrFile file;
  std::memset(static_cast<void *>(&file), 0x5A, sizeof file);
  gst_pvr_file_init(&file);
  EXPECT_EQ(file.var.state.normal.key, 0x5A5A5A5A);
  EXPECT_EQ(file.var.state.normal.descriptor, 0x5A5A5A5A);
  gst_pvr_file_deinit(&file);
}

TEST_F(PvrFileOpenTest, DeinitReleasesTheLockOnce) {
  GstPvrFile file;
  gst_pvr_file_init(&file);
  gst_pvr_file_deinit(&file);
  EXPECT_EQ(file.var.lock, nullptr);
  gst_pvr_file_deinit(&file);
  EXPECT_EQ(file.var.lock, nullptr);
}

TEST_F(PvrFileOpenTest, DeinitOfAHandleNeverInitialisedDoesNothing) {
  GstPvrFile file{};
  gst_pvr_file_deinit(&file);
  EXPECT_EQ(file.var.lock, nullptr);
  gst_pvr_file_deinit(nullptr);
}

// ---- Refused opens ----

TEST_F(PvrFileOpenTest, OpenWithoutALockFails) {
  GstPvrFile file{};
  EXPECT_EQ(gst_pvr_file_open(&file, rec_.c_str(), 1, 0, 0, 0, 0, 0), -1);
  EXPECT_THAT(LogCapture::messages(kError), ElementsAre(kNullLock));
  EXPECT_EQ(LogCapture::lines().size(), 1u);
  EXPECT_EQ(LogCapture::lines()[0].function, "gst_pvr_file_open");
}

TEST_F(PvrFileOpenTest, OpenWithoutAHandleFails) {
  EXPECT_EQ(gst_pvr_file_open(nullptr, rec_.c_str(), 1, 0, 0, 0, 0, 0), -1);
  EXPECT_THAT(LogCapture::messages(kError), ElementsAre(kNullLock));
}

TEST_F(PvrFileOpenTest, OpenWithoutAPathFailsUnderTheFilesName) {
  EXPECT_EQ(gst_pvr_file_open(&file_, nullptr, 1, 0, 0, 0, 0, 0), -1);
  EXPECT_THAT(LogCapture::messages(kError), ElementsAre(kNullFile));
  EXPECT_EQ(LogCapture::lines().size(), 1u);
  EXPECT_EQ(file_.is_opened, 0);
  EXPECT_FALSE(is_locked());
}

// ---- Open ----

TEST_F(PvrFileOpenTest, OpenWritesTheseLinesInThisOrder) {
  EXPECT_EQ(
      open(rec_, {.permission = 0, .io = 0, .type = 1, .ext = 0, .append_mode = 1, .atsc3 = 1}), 1);
  const auto lines = LogCapture::lines();
  const std::vector<std::pair<int, std::string>> want = {
      {kInfo, "[EXT_FMG] file_path=[" + rec_ +
                  "], permission=[0](0:Write, 1:Read), io=[0](0:BufferIO, 1:DirectIO), "
                  "type=[1](0:Normal, 1:Timeshift), ext=[0](0:Stream, 1:Index), "
                  "append_mode=[1], ext=[1] (0:normal, 1: atsc3.0)"},
      {kInfo, "[EXT_FMG] file mode = [1](0:Socket, 1:Disk)"},
      {kError,
       "[EXT_FMG] [PLG_ERR] pvr_file->var.file_mode = [1], pvr_file->var.file_type = [0], "
       "pvr_file->var.record_type = [1], stream type is [1]"},
      {kError, "[EXT_FMG] [PLG_ERR] create normal file."}};
  ASSERT_GT(lines.size(), want.size());
  for (size_t i = 0; i < want.size(); ++i) {
    EXPECT_EQ(lines[i].priority, want[i].first);
    EXPECT_EQ(lines[i].message, want[i].second);
    EXPECT_EQ(lines[i].function, i < 2 ? "gst_pvr_file_open" : "_gst_pvr_file_new_file");
  }
  EXPECT_EQ(lines[want.size()].function, "gst_normal_file_open");
}

TEST_F(PvrFileOpenTest, TheLineOfTheChoiceShowsRecordTypeFileTypeAndAppendModeInItsPlaces) {
  open(index_, {.permission = 0, .type = 7, .ext = 9, .append_mode = 256});
  EXPECT_LOGGED(kError,
                "[EXT_FMG] [PLG_ERR] pvr_file->var.file_mode = [1], pvr_file->var.file_type = [9], "
                "pvr_file->var.record_type = [7], stream type is [256]");
}

TEST_F(PvrFileOpenTest, OpenStoresTheDescription) {
  EXPECT_EQ(open(index_, {.permission = 0, .io = 0, .type = 1, .ext = 1}), 1);
  EXPECT_EQ(file_.read_permission, 0);
  EXPECT_EQ(file_.direct_io, 0);
  EXPECT_EQ(file_.var.file_type, GST_PVR_FILE_TIMESHIFT);
  EXPECT_EQ(file_.var.record_type, GST_PVR_FILE_INDEX);
  EXPECT_EQ(file_.var.file_mode, GST_PVR_FILE_MODE_DISK);
  EXPECT_EQ(file_.is_opened, 1);
}

TEST_F(PvrFileOpenTest, AnyPermissionButZeroIsReading) {
  EXPECT_EQ(open(rec_, {.permission = 7}), 1);
  EXPECT_EQ(file_.read_permission, 1);
  EXPECT_LOGGED(kInfo, "[EXT_FMG] file_path=[" + rec_ +
                           "], permission=[7](0:Write, 1:Read), io=[0](0:BufferIO, 1:DirectIO), "
                           "type=[0](0:Normal, 1:Timeshift), ext=[0](0:Stream, 1:Index), "
                           "append_mode=[0], ext=[0] (0:normal, 1: atsc3.0)");
}

TEST_F(PvrFileOpenTest, APermissionOf256IsReadingToo) {
  EXPECT_EQ(open(rec_, {.permission = 256}), 1);
  EXPECT_EQ(file_.read_permission, 1);
}

TEST_F(PvrFileOpenTest, AnyIoButZeroIsDirect) {
  EXPECT_EQ(open(rec_, {.io = 0x100}), 1);
  EXPECT_EQ(file_.direct_io, 1);
  EXPECT_NE(file_.tpbuf, nullptr);
}

TEST_F(PvrFileOpenTest, AnAppendModeOf256DoesNotTruncate) {
  EXPECT_EQ(open(rec_, {.permission = 0, .append_mode = 256}), 1);
  EXPECT_EQ(read_file(rec_).size(), 1000u);
}

TEST_F(PvrFileOpenTest, AFailedOpenIsReportedAndLeavesTheBackEndInstalled) {
  EXPECT_EQ(open(dir_.file("missing.kvf")), -1);
  EXPECT_EQ(LogCapture::lines().back().message,
            "[EXT_FMG] [PLG_ERR] pvr_file open failed, ret = [-1]");
  EXPECT_EQ(LogCapture::lines().back().priority, kError);
  EXPECT_EQ(file_.is_opened, 0);
  EXPECT_EQ(file_.var.error_number, ENOENT);
  EXPECT_FALSE(is_locked());
  EXPECT_TRUE(same(file_.ops, kNormalFile));
}

TEST_F(PvrFileOpenTest, AHandleIsOpenedAgainWithoutANewInit) {
  GMutex *const lock = file_.var.lock;
  EXPECT_EQ(open(), 1);
  EXPECT_EQ(gst_pvr_file_close(&file_), 1);
  EXPECT_EQ(file_.var.lock, lock);
  EXPECT_EQ(open(index_, {.permission = 0, .ext = 1}), 1);
  EXPECT_EQ(file_.is_opened, 1);
}

TEST_F(PvrFileOpenTest, AFailedOpenAfterACloseIsNotOpened) {
  EXPECT_EQ(open(), 1);
  EXPECT_EQ(gst_pvr_file_close(&file_), 1);
  EXPECT_EQ(open(dir_.file("missing.kvf")), -1);
  EXPECT_EQ(file_.is_opened, 0);
}

// ---- The choice of the back-end ----

struct Choice {
  const char *name;
  Description how;
};

class ChoiceTest : public PvrFileOpenTest, public ::testing::WithParamInterface<Choice> {
 protected:
  std::string path() const { return GetParam().how.ext == GST_PVR_FILE_INDEX ? index_ : rec_; }
};

TEST_P(ChoiceTest, OnDiskIsTheNormalFile) {
  write_file(index_, counting_bytes(100));
  file_.is_normal_file = 0;
  EXPECT_EQ(open(path(), GetParam().how), 1);
  EXPECT_EQ(file_.var.file_mode, GST_PVR_FILE_MODE_DISK);
  EXPECT_EQ(file_.is_normal_file, 1);
  EXPECT_LOGGED(kError, "[EXT_FMG] [PLG_ERR] create normal file.");
  EXPECT_TRUE(same(file_.ops, kNormalFile));
}

TEST_P(ChoiceTest, WithABoxInUseIsTheSocketFile) {
  const BoxServer box;
  const std::string where = path();  // lives until close
  given_a_box_on("2014");
  for (const guint8 flag : {0, 1}) {
    LogCapture::clear();
    file_.is_normal_file = flag;
    EXPECT_EQ(open(where, GetParam().how), 1);
    EXPECT_EQ(file_.is_normal_file, flag);
    EXPECT_EQ(file_.is_opened, 1);
    EXPECT_LOGGED(kError, "[EXT_FMG] [PLG_ERR] create socket file.");
    EXPECT_TRUE(same(file_.ops, kSocketFile));
    EXPECT_EQ(gst_pvr_file_close(&file_), 1);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Files, ChoiceTest,
    ::testing::Values(Choice{"NormalStreamRead", {.permission = 1}},
                      Choice{"NormalStreamWrite", {.permission = 0}},
                      Choice{"NormalIndexWrite", {.permission = 0, .ext = 1}},
                      Choice{"TimeshiftIndexWrite", {.permission = 0, .type = 1, .ext = 1}},
                      Choice{"TimeshiftIndexRead", {.permission = 1, .type = 1, .ext = 1}},
                      Choice{"TimeshiftStreamAppend",
                             {.permission = 0, .type = 1, .append_mode = 1}}),
    [](const auto &choice) { return choice.param.name; });

// ---- The cut file ----

class CutChoiceTest : public PvrFileOpenTest, public ::testing::WithParamInterface<Choice> {
 protected:
  void TearDown() override {
    PvrFileOpenTest::TearDown();
    gst_shared_cut_info_remove();
  }
  GstCutFile &state() { return file_.var.state.cut; }
};

TEST_P(CutChoiceTest, IsTheCutFile) {
  EXPECT_EQ(open(rec_, GetParam().how), 1);
  EXPECT_EQ(file_.var.file_mode, GST_PVR_FILE_MODE_DISK);
  EXPECT_EQ(file_.is_normal_file, 0);
  EXPECT_LOGGED(kError, "[EXT_FMG] [PLG_ERR] create cut file.");
  const PvrFileOps &ops = file_.ops;
  EXPECT_EQ(ops.read, gst_cut_file_read);
  EXPECT_EQ(ops.write, gst_cut_file_write);
  EXPECT_EQ(ops.seek, gst_cut_file_seek);
  EXPECT_EQ(ops.tell, gst_cut_file_tell);
  EXPECT_EQ(ops.fsync, gst_cut_file_fsync);
  EXPECT_EQ(ops.size, gst_cut_file_size);
  EXPECT_EQ(ops.set_max_time, gst_cut_file_set_max_time);
  EXPECT_EQ(ops.set_last_wrote_time, gst_cut_file_set_last_wrote_time);
  EXPECT_EQ(state().key, 0);
  EXPECT_EQ(gst_pvr_file_close(&file_), 1);
  EXPECT_EQ(state().key, -1) << "the cut file's own close";
}

TEST_P(CutChoiceTest, GetsPermissionDirectIoAndBroadcastKind) {
  EXPECT_EQ(open(rec_, GetParam().how), 1);
  const Description &how = GetParam().how;
  EXPECT_LOGGED(kInfo, "[EXT_FMG] file_path:" + rec_ +
                           ",read_mode:" + std::to_string(how.permission) +
                           ",direct_mode:" + std::to_string(how.io) + ",append_mode:0");
  EXPECT_EQ(state().read_mode, how.permission);
  ASSERT_EQ(state().cut_buffer_mgr != nullptr, how.permission == GST_PVR_FILE_WRITE);
  if (state().cut_buffer_mgr != nullptr) {
    EXPECT_EQ(state().cut_buffer_mgr->is_atsc3, how.atsc3 != 0 ? 1u : 0u);
  }
}

TEST_P(CutChoiceTest, TellsItsMaximumTimeThroughTheTable) {
  EXPECT_EQ(open(rec_, GetParam().how), 1);
  const bool is_writer = GetParam().how.permission == GST_PVR_FILE_WRITE;
  EXPECT_EQ(gst_pvr_file_set_max_time(&file_, 400000), is_writer ? 1 : -1);
  EXPECT_EQ(gst_pvr_file_get_max_time(&file_), is_writer ? 340000 : 0);
}

INSTANTIATE_TEST_SUITE_P(
    Streams, CutChoiceTest,
    ::testing::Values(Choice{"Read", {.permission = 1, .type = 1}},
                      Choice{"ReadDirect", {.permission = 1, .io = 1, .type = 1}},
                      Choice{"Write", {.permission = 0, .type = 1}},
                      Choice{"WriteDirect", {.permission = 0, .io = 1, .type = 1}},
                      Choice{"WriteAtsc3", {.permission = 0, .type = 1, .atsc3 = 1}},
                      Choice{"WriteAtsc3AsAnyNumber", {.permission = 0, .type = 1, .atsc3 = 256}}),
    [](const auto &choice) { return choice.param.name; });

TEST_F(CutChoiceTest, AShortMaximumTimeIsRefused) {
  EXPECT_EQ(open(rec_, {.permission = 0, .type = 1}), 1);
  EXPECT_EQ(gst_pvr_file_set_max_time(&file_, 359999), -1);
  EXPECT_EQ(gst_pvr_file_get_max_time(&file_), 0);
}

TEST_F(CutChoiceTest, TheLastWroteTimeReachesItWithoutTheLock) {
  EXPECT_EQ(open(rec_, {.permission = 0, .type = 1}), 1);
  g_mutex_lock(file_.var.lock);
  gst_pvr_file_set_last_wrote_time(&file_, 77);
  g_mutex_unlock(file_.var.lock);
  EXPECT_EQ(state().last_wrote_time, 77u);
}

TEST_F(CutChoiceTest, AnotherTypeThanTimeshiftIsTheNormalFile) {
  EXPECT_EQ(open(rec_, {.type = 2}), 1);
  EXPECT_TRUE(same(file_.ops, kNormalFile));
}

TEST_F(CutChoiceTest, ItsBusyResultsPassUnchanged) {
  EXPECT_EQ(open(rec_, {.permission = 1, .type = 1}), 1);
  gst_shared_info_update_cut_mode(gst_shared_info_get(), 0, TRUE);
  EXPECT_EQ(gst_pvr_file_tell(&file_), GST_CUT_FILE_BUSY);
  gst_shared_info_update_cut_mode(gst_shared_info_get(), 0, FALSE);
  EXPECT_EQ(gst_pvr_file_tell(&file_), 0);
}

TEST_F(CutChoiceTest, AnOpenDuringALongCutIsBusyAndNotOpened) {
  gst_shared_info_update_cut_mode(gst_shared_info_get(), 0, TRUE);
  EXPECT_EQ(open(rec_, {.permission = 1, .type = 1}), GST_CUT_FILE_BUSY);
  EXPECT_EQ(LogCapture::lines().back().message,
            "[EXT_FMG] [PLG_ERR] pvr_file open failed, ret = [-3]");
  EXPECT_EQ(file_.is_opened, 0);
  gst_shared_info_update_cut_mode(gst_shared_info_get(), 0, FALSE);
}

// Nobody may ever take the mark back, and a process must be able to get rid of its handles.
TEST_F(CutChoiceTest, DeinitWithoutACloseDoesNotWaitForACutThatHasNotBegun) {
  EXPECT_EQ(open(rec_, {.permission = 1, .type = 1}), 1);
  gst_shared_info_update_cut_mode(gst_shared_info_get(), 0, TRUE);
  gst_pvr_file_deinit(&file_);
  EXPECT_EQ(file_.var.lock, nullptr);
  EXPECT_EQ(state().key, -1);
  EXPECT_EQ(state().descriptor, -1);
  EXPECT_EQ(gst_shared_info_get_item(gst_shared_info_get(), 0)->read_count, 0);
}

TEST_F(CutChoiceTest, NorDoesAnOpenOfAHandleThatWasNotClosed) {
  EXPECT_EQ(open(rec_, {.permission = 1, .type = 1}), 1);
  gst_shared_info_update_cut_mode(gst_shared_info_get(), 0, TRUE);
  EXPECT_EQ(open(rec_, {.permission = 1}), 1);
  EXPECT_TRUE(same(file_.ops, kNormalFile));
  EXPECT_EQ(gst_shared_info_get_item(gst_shared_info_get(), 0)->read_count, 1);
}

TEST_F(PvrFileOpenTest, WithABoxInUseATimeshiftWriterIsASocketFileToo) {
  const BoxServer box;
  given_a_box_on("2013");
  EXPECT_EQ(open(rec_, {.permission = 0, .type = GST_PVR_FILE_TIMESHIFT, .atsc3 = 7}), 1);
  EXPECT_TRUE(same(file_.ops, kSocketFile));
  EXPECT_EQ(box.last_request().at(542), 1);  // time-shift
  EXPECT_EQ(box.last_request().at(544), 1);  // ATSC 3.0
  EXPECT_EQ(gst_pvr_file_close(&file_), 1);
}

TEST_F(PvrFileOpenTest, WithABoxInUseTheModeIsSocket) {
  const BoxServer box;
  given_a_box_on("2013");
  open();
  EXPECT_EQ(file_.var.file_mode, GST_PVR_FILE_MODE_SOCKET);
  EXPECT_LOGGED(kInfo, "[EXT_FMG] file mode = [0](0:Socket, 1:Disk)");
  EXPECT_LOGGED(kError,
                "[EXT_FMG] [PLG_ERR] pvr_file->var.file_mode = [0], pvr_file->var.file_type = [0], "
                "pvr_file->var.record_type = [0], stream type is [0]");
}

TEST_F(PvrFileOpenTest, ABoxOnAnotherBoardLeavesTheFilesOnDisk) {
  given_a_box_on("2012");
  EXPECT_EQ(open(), 1);
  EXPECT_EQ(file_.var.file_mode, GST_PVR_FILE_MODE_DISK);
}

TEST_F(PvrFileOpenTest, TheBoxIsAskedForAtEveryOpen) {
  const BoxServer box;
  given_a_box_on("2013");
  open();
  gst_pvr_file_close(&file_);
  box_connected = 0;
  EXPECT_EQ(open(), 1);
  EXPECT_EQ(file_.var.file_mode, GST_PVR_FILE_MODE_DISK);
}

TEST_F(PvrFileOpenTest, TheBackEndOpensUnderTheLock) {
  static GstPvrFile *handle;
  static std::optional<bool> locked;
  handle = &file_;
  locked.reset();
  Faults faults;
  faults.before("open64", [] {
    locked = !g_mutex_trylock(handle->var.lock);
    if (!*locked) g_mutex_unlock(handle->var.lock);
  });
  EXPECT_EQ(open(), 1);
  EXPECT_EQ(locked, true);
  EXPECT_FALSE(is_locked());
}

// ---- Close ----

TEST_F(PvrFileOpenTest, CloseWithoutAHandleFails) {
  EXPECT_EQ(gst_pvr_file_close(nullptr), -1);
  EXPECT_THAT(LogCapture::messages(kError), ElementsAre(kNullFile));
}

TEST_F(PvrFileOpenTest, CloseWithoutALockFails) {
  GstPvrFile file{};
  EXPECT_EQ(gst_pvr_file_close(&file), -1);
  EXPECT_THAT(LogCapture::messages(kError), ElementsAre(kNullLock));
}

TEST_F(PvrFileOpenTest, CloseOfAHandleNeverOpenedFailsSilently) {
  EXPECT_EQ(gst_pvr_file_close(&file_), -1);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
  EXPECT_FALSE(is_locked());
}

TEST_F(PvrFileOpenTest, CloseGivesTheBackEndsResult) {
  EXPECT_EQ(open(), 1);
  LogCapture::clear();
  EXPECT_EQ(gst_pvr_file_close(&file_), 1);
  EXPECT_EQ(file_.is_opened, 0);
  EXPECT_FALSE(is_locked());
  EXPECT_NE(file_.ops.close, nullptr);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(PvrFileOpenTest, AFailedCloseCountsAsClosed) {
  EXPECT_EQ(open(), 1);
  file_.ops.close = [](GstPvrFile *) -> gint64 { return -3; };
  EXPECT_EQ(gst_pvr_file_close(&file_), -3);
  EXPECT_EQ(file_.is_opened, 0);
  gst_normal_file_close(&file_);
}

TEST_F(PvrFileOpenTest, ClosingTwiceCallsTheBackEndTwice) {
  static int closes;
  closes = 0;
  file_.ops.close = [](GstPvrFile *) -> gint64 { return ++closes; };
  EXPECT_EQ(gst_pvr_file_close(&file_), 1);
  EXPECT_EQ(gst_pvr_file_close(&file_), 2);
}

TEST_F(PvrFileOpenTest, ClosingAnOpenedFileTwiceFailsTheSecondTime) {
  EXPECT_EQ(open(), 1);
  EXPECT_EQ(gst_pvr_file_close(&file_), 1);
  EXPECT_EQ(gst_pvr_file_close(&file_), -1);
  EXPECT_EQ(file_.var.error_number, EBADF);
}

}  // namespace
}  // namespace plexa_test
