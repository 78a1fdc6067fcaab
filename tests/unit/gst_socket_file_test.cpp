// The socket file: the handle's operations on a file of the companion box, and what the front does
// with it while a box is in use.
#include "gst-plexa/gst_socket_file.h"

#include <dlfcn.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <optional>
#include <thread>

#include "box_server.h"
#include "fake_platform.h"
#include "faults.h"
#include "gst-plexa/gst_file_shared_info.h"
#include "gst-plexa/gst_zeb.h"
#include "library_state.h"
#include "log_capture.h"
#include "temp_dir.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
using MeantToLeak = __lsan::ScopedDisabler;
#else
struct MeantToLeak {
  MeantToLeak() {}
};
#endif

namespace {
gint32 box_connected = 0;
std::atomic<int> cleared_locks = 0;
}  // namespace

gint32 gst_zeb_is_connected(void) { return box_connected; }

// Counts the locks that are given back, and passes them on to GLib.
__attribute__((visibility("default"))) void g_mutex_clear(GMutex *lock) {
  static const auto clear = reinterpret_cast<void (*)(GMutex *)>(dlsym(RTLD_NEXT, "g_mutex_clear"));
  ++cleared_locks;
  clear(lock);
}

namespace plexa_test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr char kPath[] = "/rec/a.kvf";
constexpr gint32 kUntouched = 4711;  // an error number that nobody sets

std::string error_line(const std::string &message) { return "[EXT_FMG] [PLG_ERR] " + message; }

class SocketFileTest : public ::testing::Test {
 protected:
  SocketFileTest() {
    box_connected = 1;
    fake_platform().reset();
    fake_platform().tv_year = "2013";
    std::memset(static_cast<void *>(&file_), 0xA5, sizeof file_);
    gst_pvr_file_init(&file_);
    file_.var.file_type = GST_PVR_FILE_NORMAL;
    file_.var.record_type = GST_PVR_FILE_STREAM;
    file_.var.error_number = kUntouched;
    gst_shared_cut_info_remove();
    LogCapture::clear();
  }
  ~SocketFileTest() override {
    if (opened_) gst_socket_file_close(&file_);
    gst_pvr_file_deinit(&file_);
    gst_shared_cut_info_remove();
  }

  gint64 open(guint8 read_mode = 1, guint8 direct_mode = 0) {
    opened_ = true;
    return gst_socket_file_open(&file_, kPath, read_mode, direct_mode, 0, 0);
  }
  void given_an_open_file() {
    ASSERT_EQ(open(), 1);
    box_.forget_requests();
    LogCapture::clear();
  }
  void given_an_open_timeshift_writer() {
    file_.var.file_type = GST_PVR_FILE_TIMESHIFT;
    ASSERT_EQ(open(0, 1), 1);
    box_.forget_requests();
    LogCapture::clear();
  }
  GstSocketFile &state() { return file_.var.state.socket; }
  bool latched() { return state().socket_io.t_bSockErrOccurred != 0; }
  bool is_locked() {
    if (!g_mutex_trylock(file_.var.lock)) return true;
    g_mutex_unlock(file_.var.lock);
    return false;
  }

  BoxServer box_;
  GstPvrFile file_;
  bool opened_ = false;
};

// ---- Open and close ----

TEST_F(SocketFileTest, OpenSendsPathFlagsAndMode) {
  file_.var.file_type = 7;
  file_.var.record_type = 9;
  opened_ = true;
  EXPECT_EQ(gst_socket_file_open(&file_, kPath, 3, 4, 5, 6), 1);
  EXPECT_THAT(
      box_.requests(),
      ElementsAre(
          Wire().header(545, 10).path(kPath).path(kPath).u8(3).u8(4).u8(1).u8(1).u8(6).bytes()));
  EXPECT_EQ(state().path, kPath);
  EXPECT_EQ(state().flags.read_mode, 3);
  EXPECT_EQ(state().flags.direct_mode, 4);
  EXPECT_EQ(LogCapture::messages(kInfo).front(),
            "[EXT_FMG] [ZEB::Client] Open socket file. filepath=[/rec/a.kvf]");
  EXPECT_THAT(LogCapture::messages(kError), IsEmpty());
}

TEST_F(SocketFileTest, ANormalStreamHasNeitherFlag) {
  EXPECT_EQ(open(), 1);
  const BoxBytes request = box_.last_request();
  EXPECT_EQ(request[542], 0);
  EXPECT_EQ(request[543], 0);
}

TEST_F(SocketFileTest, AFailedConnectLeavesItsErrnoInTheHandle) {
  Faults faults;
  faults.fail("connect", EHOSTUNREACH);
  EXPECT_EQ(open(), -1);
  EXPECT_EQ(file_.var.error_number, EHOSTUNREACH);
}

TEST_F(SocketFileTest, ARefusedOpenHasNoErrno) {
  box_.will_answer_open(refused());
  EXPECT_EQ(open(), -1);
  EXPECT_EQ(file_.var.error_number, kUntouched);
}

TEST_F(SocketFileTest, CloseSendsCloseAndForgetsThePath) {
  given_an_open_file();
  EXPECT_EQ(gst_socket_file_close(&file_), 1);
  EXPECT_THAT(box_.commands(), ElementsAre(11));
  EXPECT_EQ(state().path, nullptr);
  EXPECT_EQ(state().socket_io.clnt_sock, -1);
  EXPECT_EQ(gst_socket_file_close(&file_), 1);
}

TEST_F(SocketFileTest, AFailedCloseLeavesItsErrnoInTheHandle) {
  given_an_open_file();
  Faults faults;
  faults.fail("send", EPIPE);
  EXPECT_EQ(gst_socket_file_close(&file_), -1);
  EXPECT_EQ(file_.var.error_number, EPIPE);
}

TEST_F(SocketFileTest, ARefusedCloseHasNoErrno) {
  given_an_open_file();
  box_.will_answer(refused());
  errno = EPIPE;
  EXPECT_EQ(gst_socket_file_close(&file_), -1);
  EXPECT_EQ(file_.var.error_number, kUntouched);
}

// ---- The operations ----

const BoxBytes kData = {1, 2, 3};
guint8 destination[3];

struct Operation {
  const char *name;
  std::function<gint64(GstPvrFile *)> act;
  BoxBytes request;
  BoxBytes answer;
  gint64 result;
};

void PrintTo(const Operation &operation, std::ostream *out) { *out << operation.name; }

const Operation kOperations[] = {
    {"read", [](GstPvrFile *f) { return gst_socket_file_read(f, destination, 3); },
     Wire().header(32, 12).u32(3).bytes(), data_packet(3, kData), 3},
    {"write", [](GstPvrFile *f) { return gst_socket_file_write(f, kData.data(), 3); },
     Wire().header(35, 13).u32(3).u8(1).u8(2).u8(3).bytes(), ok(3).bytes, 3},
    {"seek", [](GstPvrFile *f) { return gst_socket_file_seek(f, -6000000000, 2); },
     Wire().header(40, 14).u32(2).u64(static_cast<uint64_t>(-6000000000)).bytes(), ok(9).bytes, 9},
    {"tell", [](GstPvrFile *f) { return gst_socket_file_tell(f); }, Wire().header(28, 15).bytes(),
     ok(9).bytes, 9},
    {"size", [](GstPvrFile *f) { return gst_socket_file_size(f); }, Wire().header(28, 16).bytes(),
     ok(9).bytes, 9},
    {"fsync", [](GstPvrFile *f) { return gst_socket_file_fsync(f); }, Wire().header(28, 17).bytes(),
     ok(9).bytes, 1},
    {"set_max_time", [](GstPvrFile *f) { return gst_socket_file_set_max_time(f, 111, 222); },
     Wire().header(36, 19).u64(222).bytes(), ok(9).bytes, 9},
};

class SocketFileOperationTest : public SocketFileTest,
                                public ::testing::WithParamInterface<Operation> {};

INSTANTIATE_TEST_SUITE_P(All, SocketFileOperationTest, ::testing::ValuesIn(kOperations),
                         [](const auto &test) { return std::string(test.param.name); });

TEST_P(SocketFileOperationTest, IsOneExchange) {
  given_an_open_file();
  box_.will_answer({GetParam().answer});
  EXPECT_EQ(GetParam().act(&file_), GetParam().result);
  EXPECT_THAT(box_.requests(), ElementsAre(GetParam().request));
  EXPECT_EQ(file_.var.error_number, kUntouched);
}

TEST_P(SocketFileOperationTest, AFailedSystemCallLeavesItsErrnoInTheHandle) {
  given_an_open_file();
  Faults faults;
  faults.fail("recv", ETIMEDOUT);
  EXPECT_EQ(GetParam().act(&file_), -1);
  EXPECT_EQ(file_.var.error_number, ETIMEDOUT);
}

TEST_P(SocketFileOperationTest, ARefusalByTheBoxHasNoErrno) {
  given_an_open_file();
  box_.will_answer(refused());
  errno = EPIPE;
  EXPECT_EQ(GetParam().act(&file_), -1);
  EXPECT_EQ(file_.var.error_number, kUntouched);
}

TEST_F(SocketFileTest, TheMaximumTimeIsTheSharedCutInfos) {
  given_an_open_file();
  gst_shared_cut_info_set_fixed_duration(gst_shared_cut_info_get(), 360000);
  EXPECT_EQ(gst_socket_file_get_max_time(&file_), 360000);
  EXPECT_THAT(box_.requests(), IsEmpty());
}

TEST_F(SocketFileTest, ANegativeResultOfTheBoxIsNotAFailure) {
  given_an_open_file();
  box_.will_answer(ok(-1));
  EXPECT_EQ(gst_socket_file_set_max_time(&file_, 1, 2), -1);
  EXPECT_EQ(file_.var.error_number, kUntouched);
  EXPECT_FALSE(latched());
}

// ---- Sizes ----

TEST_F(SocketFileTest, SizesOf4GiBAndMoreAreRefused) {
  given_an_open_file();
  for (const gint64 size : {gint64{1} << 32, (gint64{1} << 32) + 3, G_MAXINT64}) {
    LogCapture::clear();
    const std::string line =
        error_line("[ZEB::Client] size too large [" + std::to_string(size) + "]");
    EXPECT_EQ(gst_socket_file_read(&file_, destination, size), -1);
    EXPECT_EQ(gst_socket_file_write(&file_, kData.data(), size), -1);
    EXPECT_THAT(LogCapture::messages(), ElementsAre(line, line));
  }
  EXPECT_THAT(box_.requests(), IsEmpty());
  EXPECT_FALSE(latched());
}

TEST_F(SocketFileTest, TheLargestSizeIsSent) {
  given_an_open_file();
  box_.will_answer({data_packet(3, kData)});
  EXPECT_EQ(gst_socket_file_read(&file_, destination, 0xffffffff), 3);
  EXPECT_EQ(box_.last_request(), Wire().header(32, 12).u32(0xffffffff).bytes());
}

TEST_F(SocketFileTest, AReadOfNothingIsSentAndItsAnswerLeftUnread) {
  for (const gint64 size : {gint64{0}, gint64{-1}, G_MININT64}) {
    given_an_open_file();
    EXPECT_EQ(gst_socket_file_read(&file_, destination, size), 0);
    box_.wait_for_requests(1);
    EXPECT_EQ(box_.last_request(), Wire().header(32, 12).u32(0).bytes());
    EXPECT_EQ(gst_socket_file_close(&file_), 1);
  }
}

TEST_F(SocketFileTest, AWriteOfNothingIsAFailureAndSendsNothing) {
  for (const gint64 size : {gint64{0}, gint64{-1}, G_MININT64}) {
    given_an_open_file();
    EXPECT_EQ(gst_socket_file_write(&file_, kData.data(), size), -1);
    EXPECT_TRUE(latched());
    EXPECT_THAT(box_.requests(), IsEmpty());
    EXPECT_EQ(gst_socket_file_close(&file_), 1);
  }
}

// ---- The last wrote time ----

TEST_F(SocketFileTest, ATimeshiftWriterTellsTheBoxItsTime) {
  given_an_open_timeshift_writer();
  EXPECT_EQ(gst_socket_file_set_last_wrote_time(&file_, 0xfffffff0), 1);
  EXPECT_THAT(box_.requests(), ElementsAre(Wire().header(36, 21).u32(0xfffffff0).u32(0).bytes()));
}

TEST_F(SocketFileTest, NobodyElseDoes) {
  struct Other {
    guint32 file_type;
    guint8 read_mode, direct_mode;
  };
  for (const Other &other : {Other{0, 0, 1}, Other{1, 1, 1}, Other{1, 0, 0}}) {
    file_.var.file_type = other.file_type;
    ASSERT_EQ(open(other.read_mode, other.direct_mode), 1);
    box_.forget_requests();
    EXPECT_EQ(gst_socket_file_set_last_wrote_time(&file_, 1000), 1);
    EXPECT_THAT(box_.requests(), IsEmpty());
    EXPECT_EQ(gst_socket_file_close(&file_), 1);
  }
}

TEST_F(SocketFileTest, SettingTheTimeSucceedsEvenWhenTheExchangeFails) {
  given_an_open_timeshift_writer();
  box_.will_answer(refused(-2));
  EXPECT_EQ(gst_socket_file_set_last_wrote_time(&file_, 1000), 1);
  EXPECT_LOGGED(kError, error_line("[ZEB::Client] Receive packet error !filePath=[/rec/a.kvf], "
                                   "command=[-2]"));
  EXPECT_TRUE(latched());
  Faults faults;
  faults.fail("send", EPIPE);
  EXPECT_EQ(gst_socket_file_set_last_wrote_time(&file_, 1000), 1);
  EXPECT_EQ(file_.var.error_number, EPIPE);
}

TEST_F(SocketFileTest, SettingTheTimeOfAClosedFileSendsNothing) {
  given_an_open_timeshift_writer();
  EXPECT_EQ(gst_socket_file_close(&file_), 1);
  LogCapture::clear();
  EXPECT_EQ(gst_socket_file_set_last_wrote_time(&file_, 1000), 1);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(SocketFileTest, TheTimeIsSentUnderTheHandlesLock) {
  given_an_open_timeshift_writer();
  std::optional<bool> locked;
  Faults faults;
  faults.before("send", [&] { locked = is_locked(); });
  EXPECT_EQ(gst_socket_file_set_last_wrote_time(&file_, 1000), 1);
  EXPECT_EQ(locked, true);
  EXPECT_FALSE(is_locked());
}

TEST_F(SocketFileTest, WithoutALockTheTimeIsNotSent) {
  given_an_open_timeshift_writer();
  GMutex *const lock = std::exchange(file_.var.lock, nullptr);
  EXPECT_EQ(gst_socket_file_set_last_wrote_time(&file_, 1000), 1);
  EXPECT_THAT(LogCapture::messages(), ElementsAre(error_line("pvr_file->var.lock is NULL")));
  EXPECT_THAT(box_.requests(), IsEmpty());
  file_.var.lock = lock;
}

// ---- Rename and cut file ----

TEST_F(SocketFileTest, RenameLeavesTheOpenFileAsItWas) {
  given_an_open_file();
  const GstSocketFile before = state();
  EXPECT_EQ(gst_socket_file_rename(&file_, "/rec/old", "/rec/new"), 1);
  EXPECT_EQ(std::memcmp(&before, &state(), sizeof before), 0);
  EXPECT_EQ(box_.connections(), 2);
  EXPECT_THAT(box_.requests(),
              ElementsAre(Wire().header(540, 22).path("/rec/old").path("/rec/new").bytes()));
  box_.will_answer(ok(5));
  EXPECT_EQ(gst_socket_file_tell(&file_), 5);
  EXPECT_EQ(box_.connections(), 2);
}

TEST_F(SocketFileTest, AFailedRenameIsReported) {
  box_.will_answer(refused(-6));
  EXPECT_EQ(gst_socket_file_rename(&file_, "/rec/old", "/rec/new"), -1);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre(error_line("receiv packet error! retval=[28], "
                                     "socket_io->header_data.command=[-6]"),
                          error_line("socket_io rename failed!")));
  EXPECT_EQ(file_.var.error_number, kUntouched);
}

TEST_F(SocketFileTest, ARenameWithoutAConnectionLeavesItsErrnoInTheHandle) {
  Faults faults;
  faults.fail("connect", ENETUNREACH);
  EXPECT_EQ(gst_socket_file_rename(&file_, "/rec/old", "/rec/new"), -1);
  EXPECT_EQ(file_.var.error_number, ENETUNREACH);
}

TEST_F(SocketFileTest, ARenamesMessagesHaveNoPath) {
  Faults faults;
  faults.fail("send", EPIPE);
  EXPECT_EQ(gst_socket_file_rename(&file_, "/rec/old", "/rec/new"), -1);
  EXPECT_LOGGED(kError, error_line("[ZEB::Client] Send failed !, filePath=[]"));
}

pvr_cut_request_s request_for(const std::string &name) {
  pvr_cut_request_s request{};
  std::memcpy(request.kvf_file_name, name.data(), name.size());
  return request;
}

TEST_F(SocketFileTest, CutFileSendsTheRequestAndLeavesTheOpenFileAsItWas) {
  given_an_open_file();
  const GstSocketFile before = state();
  pvr_cut_request_s request;
  std::memset(&request, 0xC7, sizeof request);
  EXPECT_EQ(gst_socket_file_cut_file(&file_, &request), 1);
  BoxBytes wanted = Wire().header(560, 25).bytes();
  wanted.resize(560, 0xC7);
  EXPECT_THAT(box_.requests(), ElementsAre(wanted));
  EXPECT_EQ(std::memcmp(&before, &state(), sizeof before), 0);
  EXPECT_EQ(box_.connections(), 2);
}

TEST_F(SocketFileTest, ACutsMessagesShowTheRequestsName) {
  const pvr_cut_request_s request = request_for("/rec/b.kvf");
  Faults faults;
  faults.fail("send", EPIPE);
  EXPECT_EQ(gst_socket_file_cut_file(&file_, &request), 0);
  EXPECT_LOGGED(kError, error_line("[ZEB::Client] Send failed !, filePath=[/rec/b.kvf]"));
  EXPECT_EQ(LogCapture::messages(kError).back(), error_line("gst_file_socket_io_cut_file failed"));
  EXPECT_EQ(file_.var.error_number, EPIPE);
}

TEST_F(SocketFileTest, ANameWithoutAnEndEndsWithItsField) {
  const std::string name(256, 'n');
  pvr_cut_request_s request;
  std::memset(&request, 'x', sizeof request);
  std::memcpy(request.kvf_file_name, name.data(), 256);
  Faults faults;
  faults.fail("send", EPIPE);
  EXPECT_EQ(gst_socket_file_cut_file(&file_, &request), 0);
  EXPECT_LOGGED(kError, error_line("[ZEB::Client] Send failed !, filePath=[" + name + "]"));
}

TEST_F(SocketFileTest, ARefusedCutIsReported) {
  const pvr_cut_request_s request = request_for("/rec/b.kvf");
  box_.will_answer(refused(-8));
  EXPECT_EQ(gst_socket_file_cut_file(&file_, &request), 0);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre(error_line("receive packet error! retval=[28], "
                                     "socket_io->header_data.command=[-8]"),
                          error_line("gst_file_socket_io_cut_file failed")));
  EXPECT_EQ(file_.var.error_number, kUntouched);
}

// ---- Through the front, with a box in use ----

class FrontTest : public SocketFileTest {
 protected:
  void SetUp() override { descriptors_ = open_descriptors(); }

  gint64 front_open(guint32 permission = GST_PVR_FILE_READ, guint32 io = 0, guint32 type = 0) {
    return gst_pvr_file_open(&file_, kPath, permission, io, type, GST_PVR_FILE_STREAM, 0, 0);
  }
  // The box's threads close their side a little later.
  bool only_descriptors(int wanted) {
    for (int i = 0; i < 100000 && open_descriptors() > wanted; ++i) std::this_thread::yield();
    return open_descriptors() == wanted;
  }

  int descriptors_ = 0;
};

TEST_F(FrontTest, EveryOperationReachesTheBox) {
  box_.will_answer({data_packet(3, kData)});
  for (const gint64 result : {3, 11, 12, 13, 0, 14}) box_.will_answer(ok(result));
  EXPECT_EQ(front_open(), 1);
  EXPECT_EQ(file_.is_opened, 1);
  EXPECT_EQ(gst_pvr_file_read(&file_, destination, 3), 3);
  EXPECT_EQ(gst_pvr_file_write(&file_, kData.data(), 3), 3);
  EXPECT_EQ(gst_pvr_file_seek(&file_, 11, 0), 11);
  EXPECT_EQ(gst_pvr_file_tell(&file_), 12);
  EXPECT_EQ(gst_pvr_file_size(&file_), 13);
  EXPECT_EQ(gst_pvr_file_fsync(&file_), 1);
  EXPECT_EQ(gst_pvr_file_set_max_time(&file_, 360000), 14);
  EXPECT_EQ(gst_pvr_file_get_max_time(&file_), 0);
  EXPECT_EQ(gst_pvr_file_close(&file_), 1);
  EXPECT_THAT(box_.commands(), ElementsAre(10, 12, 13, 14, 15, 16, 17, 19, 11));
}

TEST_F(FrontTest, TheMaximumIsSentNotTheTimeFromWhichCuttingStarts) {
  EXPECT_EQ(front_open(), 1);
  EXPECT_EQ(gst_pvr_file_set_max_time(&file_, 360000), 0);
  EXPECT_EQ(box_.last_request(), Wire().header(36, 19).u64(360000).bytes());
  EXPECT_EQ(gst_pvr_file_close(&file_), 1);
}

TEST_F(FrontTest, TheLastWroteTimeReachesTheBox) {
  EXPECT_EQ(front_open(GST_PVR_FILE_WRITE, GST_PVR_FILE_DIRECT_IO, GST_PVR_FILE_TIMESHIFT), 1);
  gst_pvr_file_set_last_wrote_time(&file_, 5000);
  EXPECT_EQ(box_.last_request(), Wire().header(36, 21).u32(5000).u32(0).bytes());
  EXPECT_EQ(gst_pvr_file_close(&file_), 1);
}

// Both make their request in the one packet buffer: at once, one of them would be lost or garbled.
TEST_F(FrontTest, TheLastWroteTimeDoesNotInterleaveWithAnotherOperation) {
  constexpr int kRounds = 200;
  ASSERT_EQ(front_open(GST_PVR_FILE_WRITE, GST_PVR_FILE_DIRECT_IO, GST_PVR_FILE_TIMESHIFT), 1);
  std::thread clock([this] {
    for (guint32 i = 0; i < kRounds; ++i) gst_pvr_file_set_last_wrote_time(&file_, i);
  });
  for (int i = 0; i < kRounds; ++i) EXPECT_EQ(gst_pvr_file_seek(&file_, 0, 0), 0);
  clock.join();
  EXPECT_FALSE(latched());
  std::vector<gint32> commands = box_.commands();
  EXPECT_EQ(std::count(commands.begin(), commands.end(), 21), kRounds);
  EXPECT_EQ(std::count(commands.begin(), commands.end(), 14), kRounds);
  EXPECT_EQ(gst_pvr_file_close(&file_), 1);
}

TEST_F(FrontTest, AnOpenWithoutABoxFailsWithItsErrno) {
  Faults faults;
  faults.fail("connect", ECONNREFUSED);
  EXPECT_EQ(front_open(), -1);
  EXPECT_EQ(file_.is_opened, 0);
  EXPECT_EQ(gst_pvr_file_get_error_num(&file_), ECONNREFUSED);
  EXPECT_LOGGED(kError, error_line("pvr_file open failed, ret = [-1]"));
}

TEST_F(FrontTest, AFailedConnectLeavesNothingBehindAfterClose) {
  {
    Faults faults;
    faults.fail("connect", ECONNREFUSED);
    EXPECT_EQ(front_open(), -1);
  }
  EXPECT_EQ(gst_pvr_file_close(&file_), -1);
  EXPECT_EQ(open_descriptors(), descriptors_);
}

TEST_F(FrontTest, NorAfterDeinit) {
  {
    Faults faults;
    faults.fail("connect", ECONNREFUSED);
    EXPECT_EQ(front_open(), -1);
  }
  gst_pvr_file_deinit(&file_);
  EXPECT_EQ(open_descriptors(), descriptors_);
}

TEST_F(FrontTest, NorAfterManyOpens) {
  Faults faults;
  faults.fail_all("connect", ECONNREFUSED);
  for (int i = 0; i < 10; ++i) EXPECT_EQ(front_open(), -1);
  EXPECT_EQ(gst_pvr_file_close(&file_), -1);
  EXPECT_EQ(open_descriptors(), descriptors_);
}

TEST_F(FrontTest, NorWhenTheFileIsThenOpenedOnDisk) {
  TempDir dir;
  const std::string path = dir.file("a.kvf");
  write_file(path, counting_bytes(10));
  {
    Faults faults;
    faults.fail("connect", ECONNREFUSED);
    EXPECT_EQ(front_open(), -1);
  }
  box_connected = 0;
  EXPECT_EQ(gst_pvr_file_open(&file_, path.c_str(), 1, 0, 0, 0, 0, 0), 1);
  EXPECT_EQ(gst_pvr_file_close(&file_), 1);
  EXPECT_EQ(open_descriptors(), descriptors_);
  gst_shared_info_remove(gst_shared_info_get());
}

TEST_F(FrontTest, OpeningTwiceLeavesOneConnection) {
  EXPECT_EQ(front_open(), 1);
  const int with_one = open_descriptors();
  EXPECT_EQ(front_open(), 1);
  EXPECT_TRUE(only_descriptors(with_one));
  EXPECT_EQ(gst_pvr_file_close(&file_), 1);
  EXPECT_TRUE(only_descriptors(descriptors_));
}

TEST_F(FrontTest, DeinitOfAnOpenHandleDisconnects) {
  EXPECT_EQ(front_open(), 1);
  gst_pvr_file_deinit(&file_);
  EXPECT_TRUE(only_descriptors(descriptors_));
}

TEST_F(FrontTest, RenameHappensOnTheBoxUnderTheHandlesLock) {
  std::optional<bool> locked;
  Faults faults;
  faults.before("send", [&] { locked = is_locked(); });
  EXPECT_EQ(gst_pvr_file_rename(&file_, "/rec/old", "/rec/new"), 1);
  EXPECT_EQ(locked, true);
  EXPECT_FALSE(is_locked());
  EXPECT_EQ(faults.count("rename") + faults.count("access"), 0);
  EXPECT_THAT(box_.requests(),
              ElementsAre(Wire().header(540, 22).path("/rec/old").path("/rec/new").bytes()));
}

TEST_F(FrontTest, AFailedRenameOnTheBoxIsAFailure) {
  box_.will_answer(refused());
  EXPECT_EQ(gst_pvr_file_rename(&file_, "/rec/old", "/rec/new"), -1);
  EXPECT_LOGGED(kError, error_line("socket_io rename failed!"));
  EXPECT_THAT(LogCapture::messages(), Not(Contains("[EXT_FMG] rename normal/cut/talm+zeb file !")));
}

// ---- Cut file ----

constexpr gint32 kCutFailed = 80000000;

TEST_F(FrontTest, CutFileSendsNameAndRange) {
  EXPECT_EQ(gst_pvr_file_cut_file("/rec/a.kvf", 188, 6000000000, nullptr), 0);
  EXPECT_THAT(box_.requests(), ElementsAre(Wire()
                                               .header(560, 25)
                                               .path("/rec/a.kvf")
                                               .u64(188)
                                               .u64(6000000000)
                                               .path("")
                                               .u32(0)
                                               .bytes()));
  EXPECT_EQ(LogCapture::messages(kInfo).front(),
            "[EXT_FMG] kvf_file_name = [/rec/a.kvf], start_offset = [188], "
            "end_offset = [6000000000]");
  EXPECT_THAT(LogCapture::messages(kError), IsEmpty());
  EXPECT_TRUE(only_descriptors(descriptors_));
}

TEST_F(FrontTest, CutFileSendsASecondNameWithItsMark) {
  EXPECT_EQ(gst_pvr_file_cut_file("/rec/a.kvf", -1, 0, "/rec/b.kvf"), 0);
  EXPECT_EQ(box_.last_request(), Wire()
                                     .header(560, 25)
                                     .path("/rec/a.kvf")
                                     .u64(~0ull)
                                     .u64(0)
                                     .path("/rec/b.kvf")
                                     .u32(1)
                                     .bytes());
}

TEST_F(FrontTest, AnEmptySecondNameIsGiven) {
  EXPECT_EQ(gst_pvr_file_cut_file("/rec/a.kvf", 0, 1, ""), 0);
  EXPECT_EQ(box_.last_request().at(28 + 528), 1);
}

TEST_F(FrontTest, LongNamesAreCutTo255Characters) {
  const std::string name(256, 'n');
  const std::string second(300, 's');
  EXPECT_EQ(gst_pvr_file_cut_file(name.c_str(), 0, 1, second.c_str()), 0);
  EXPECT_EQ(box_.last_request(),
            Wire().header(560, 25).path(name).u64(0).u64(1).path(second).u32(1).bytes());
  EXPECT_EQ(box_.last_request().at(28 + 255), 0);
}

TEST_F(FrontTest, CutFileDoesNotAskWhetherTheBoxIsInUse) {
  box_connected = 0;
  EXPECT_EQ(gst_pvr_file_cut_file("/rec/a.kvf", 0, 1, nullptr), 0);
  EXPECT_THAT(box_.commands(), ElementsAre(25));
}

// A cut that fails on the box keeps the lock of its own handle.
TEST_F(FrontTest, AFailedCutFileGivesItsNumber) {
  const MeantToLeak lock;
  box_.will_answer(refused(-1));
  EXPECT_EQ(gst_pvr_file_cut_file("/rec/a.kvf", 0, 1, nullptr), kCutFailed);
  EXPECT_EQ(LogCapture::messages(kError).back(), error_line("gst_socket_file_cut_file failed"));
}

TEST_F(FrontTest, CutFilesOwnHandleIsDeinitialisedAfterASuccessOnly) {
  const MeantToLeak lock;
  cleared_locks = 0;
  EXPECT_EQ(gst_pvr_file_cut_file("/rec/a.kvf", 0, 1, nullptr), 0);
  EXPECT_EQ(cleared_locks, 1);
  box_.will_answer(refused(-1));
  EXPECT_EQ(gst_pvr_file_cut_file("/rec/a.kvf", 0, 1, nullptr), kCutFailed);
  EXPECT_EQ(cleared_locks, 1);
}

TEST_F(FrontTest, ACutFileWithoutAConnectionLeavesNoDescriptor) {
  const MeantToLeak lock;
  {
    Faults faults;
    faults.fail("connect", ECONNREFUSED);
    EXPECT_EQ(gst_pvr_file_cut_file("/rec/a.kvf", 0, 1, nullptr), kCutFailed);
  }
  EXPECT_EQ(open_descriptors(), descriptors_);
}

TEST_F(FrontTest, CutFileWithoutANameFails) {
  EXPECT_EQ(gst_pvr_file_cut_file(nullptr, 0, 1, nullptr), kCutFailed);
  EXPECT_THAT(LogCapture::messages(), ElementsAre(error_line("pvr_file is NULL")));
  EXPECT_THAT(box_.requests(), IsEmpty());
}

}  // namespace
}  // namespace plexa_test
