// The normal file: a place in the registry, and plain file access through one of the two layers.
#include "gst-plexa/gst_normal_file.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "faults.h"
#include "gst-plexa/gst_file_shared_info.h"
#include "log_capture.h"
#include "temp_dir.h"

namespace plexa_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr guint8 kRead = 1;
constexpr guint8 kWrite = 0;

// A handle whose storage held anything before init, as a caller's local does.
class Handle {
 public:
  Handle() {
    std::memset(static_cast<void *>(&file_), 0x5A, sizeof file_);
    gst_pvr_file_init(&file_);
  }
  ~Handle() {
    if (state().descriptor > 0 && state().descriptor != 0x5A5A5A5A) gst_normal_file_close(&file_);
    gst_pvr_file_deinit(&file_);
  }
  Handle(const Handle &) = delete;
  Handle &operator=(const Handle &) = delete;

  gint64 open(const std::string &path, guint8 read_mode, guint8 direct = 0,
              guint32 append_mode = 0) {
    file_.direct_io = direct;
    return gst_normal_file_open(&file_, path.c_str(), read_mode, direct, append_mode, 0);
  }
  gint64 close() { return gst_normal_file_close(&file_); }
  const GstNormalFile &state() const { return file_.var.state.normal; }
  GstNormalFile &state() { return file_.var.state.normal; }
  GstPvrFile *get() { return &file_; }
  GstPvrFile *operator->() { return &file_; }

 private:
  GstPvrFile file_;
};

GstFileInfo *item_of(const Handle &handle) {
  return gst_shared_info_get_item(gst_shared_info_get(), static_cast<guint32>(handle.state().key));
}

bool anything_registered() {
  for (guint32 key = 0; key < GST_KEY_MGR_SLOTS; ++key) {
    if (gst_shared_info_get()->slots[key].used != 0) return true;
  }
  return false;
}

class NormalFileTest : public ::testing::Test {
 protected:
  ~NormalFileTest() override { gst_shared_info_remove(gst_shared_info_get()); }

  void SetUp() override {
    write_file(rec_, counting_bytes(10000));
    LogCapture::clear();
  }

  TempDir dir_;
  const std::string rec_ = dir_.file("rec.kvf");
  const std::string index_ = dir_.file("rec.mdb");
};

// ---- Open ----

TEST_F(NormalFileTest, OpenRegistersTheReader) {
  Handle handle;
  EXPECT_EQ(handle.open(rec_, kRead), 1);
  ASSERT_GE(handle.state().key, 0);
  EXPECT_EQ(item_of(handle)->read_count, 1);
  EXPECT_EQ(item_of(handle)->write_count, 0);
  EXPECT_EQ(item_of(handle)->handle_list, nullptr);  // only cut files are listed
  EXPECT_GT(handle.state().descriptor, 0);
  EXPECT_EQ(handle.state().path, rec_);
  EXPECT_EQ(handle.state().read_mode, 1);
}

TEST_F(NormalFileTest, OpenRegistersTheWriter) {
  Handle handle;
  EXPECT_EQ(handle.open(rec_, kWrite), 1);
  EXPECT_EQ(item_of(handle)->write_count, 1);
  EXPECT_EQ(item_of(handle)->read_count, 0);
  EXPECT_EQ(handle.state().read_mode, 0);
}

TEST_F(NormalFileTest, ThePathStringIsNotCopied) {
  Handle handle;
  EXPECT_EQ(handle.open(rec_, kRead), 1);
  EXPECT_EQ(static_cast<const void *>(handle.state().path),
            static_cast<const void *>(rec_.c_str()));
}

TEST_F(NormalFileTest, OpenLogsItsArgumentsFirst) {
  Handle handle;
  EXPECT_EQ(handle.open(rec_, kWrite, 0, 1), 1);
  EXPECT_EQ(LogCapture::lines()[0].message, "[EXT_FMG] enter gst_normal_file_open,file_path:" +
                                                rec_ + ",read_mode:0,direct_mode:0,append_mode:1");
  EXPECT_EQ(LogCapture::lines()[0].priority, kInfo);
}

TEST_F(NormalFileTest, BufferedOpenHasNoBounceBuffer) {
  Handle handle;
  EXPECT_EQ(handle.open(rec_, kRead), 1);
  EXPECT_EQ(handle->tpbuf, nullptr);
  EXPECT_EQ(fcntl(handle.state().descriptor, F_GETFL) & O_DIRECT, 0);
}

TEST_F(NormalFileTest, DirectOpenHasOne) {
  Handle handle;
  EXPECT_EQ(handle.open(rec_, kRead, 1), 1);
  EXPECT_NE(handle->tpbuf, nullptr);
  EXPECT_EQ(fcntl(handle.state().descriptor, F_GETFL) & O_DIRECT, O_DIRECT);
}

TEST_F(NormalFileTest, TheHandlesFlagChoosesTheLayer) {
  Handle handle;
  handle->direct_io = 1;
  EXPECT_EQ(gst_normal_file_open(handle.get(), rec_.c_str(), kRead, 0, 0, 0), 1);
  EXPECT_NE(handle->tpbuf, nullptr);  // the direct layer, on a descriptor opened as asked for
  EXPECT_EQ(fcntl(handle.state().descriptor, F_GETFL) & O_DIRECT, 0);
}

class AppendModeTest : public NormalFileTest, public ::testing::WithParamInterface<guint32> {};

TEST_P(AppendModeTest, AnyModeButZeroKeepsTheFile) {
  Handle handle;
  EXPECT_EQ(handle.open(rec_, kWrite, 0, GetParam()), 1);
  EXPECT_EQ(read_file(rec_).size(), 10000u);
}

INSTANTIATE_TEST_SUITE_P(Modes, AppendModeTest,
                         ::testing::Values(1u, 2u, 256u, 0x10000u, 0x80000000u));

TEST_F(NormalFileTest, WithoutAppendModeTheFileIsEmptied) {
  Handle handle;
  EXPECT_EQ(handle.open(rec_, kWrite), 1);
  EXPECT_EQ(read_file(rec_).size(), 0u);
}

TEST_F(NormalFileTest, TheBroadcastKindMakesNoDifference) {
  Handle handle;
  handle->direct_io = 0;
  EXPECT_EQ(gst_normal_file_open(handle.get(), rec_.c_str(), kRead, 0, 0, 1), 1);
}

TEST_F(NormalFileTest, OneFileOpenedTwiceIsCountedTwice) {
  Handle one;
  Handle two;
  EXPECT_EQ(one.open(rec_, kRead), 1);
  EXPECT_EQ(two.open(rec_, kRead), 1);
  EXPECT_EQ(one.state().key, two.state().key);
  EXPECT_EQ(item_of(one)->read_count, 2);
  EXPECT_EQ(two.close(), 1);
  EXPECT_EQ(item_of(one)->read_count, 1);
  EXPECT_EQ(one.close(), 1);
  EXPECT_FALSE(anything_registered());
}

TEST_F(NormalFileTest, StreamAndIndexShareOneKey) {
  Handle stream;
  Handle index;
  EXPECT_EQ(stream.open(rec_, kRead), 1);
  EXPECT_EQ(index.open(index_, kWrite), 1);
  EXPECT_EQ(stream.state().key, index.state().key);
  EXPECT_EQ(item_of(stream)->read_count, 1);
  EXPECT_EQ(item_of(stream)->write_count, 1);
}

// ---- Failed open ----

class FailedOpenTest : public NormalFileTest {
 protected:
  // Closed, and a close that follows releases nothing.
  void expect_nothing_left(Handle &handle) {
    EXPECT_EQ(handle.state().key, -1);
    EXPECT_EQ(handle.state().descriptor, -1);
    EXPECT_EQ(handle.state().path, nullptr);
    EXPECT_EQ(handle->tpbuf, nullptr);
    Faults faults;
    EXPECT_EQ(handle.close(), -1);
    EXPECT_EQ(faults.count("close"), 0);
    EXPECT_EQ(handle->var.error_number, EBADF);
    EXPECT_NOT_LOGGED(kError, "[EXT_FMG] [PLG_ERR] out of range. key=[-1]");
  }
};

TEST_F(FailedOpenTest, LeavesNothingRegistered) {
  Handle handle;
  EXPECT_EQ(handle.open(dir_.file("missing.kvf"), kRead), -1);
  EXPECT_FALSE(anything_registered());
  EXPECT_EQ(handle->var.error_number, ENOENT);
  EXPECT_LOGGED(kError, "[EXT_FMG] [PLG_ERR] gst_normal_file_open failed:ret=[-1]");
  expect_nothing_left(handle);
}

TEST_F(FailedOpenTest, LeavesNothingOfADirectReaderEither) {
  Handle handle;
  EXPECT_EQ(handle.open(dir_.file("missing.kvf"), kRead, 1), -1);
  EXPECT_FALSE(anything_registered());
  EXPECT_LOGGED(kError, "[EXT_FMG] [PLG_ERR] gst_normal_file_open failed:ret=[-1]");
  expect_nothing_left(handle);
}

TEST_F(FailedOpenTest, WithoutMemoryForTheBounceBufferLeavesNothing) {
  Handle handle;
  {
    Faults faults;
    faults.fail("valloc", ENOMEM);
    EXPECT_EQ(handle.open(rec_, kRead, 1), -1);
  }
  EXPECT_FALSE(anything_registered());
  expect_nothing_left(handle);
}

TEST_F(FailedOpenTest, DoesNotTouchWhatAnotherHandleHolds) {
  Handle other;
  ASSERT_EQ(other.open(rec_, kRead), 1);
  Handle handle;
  handle.state().key = other.state().key;  // left over in the storage
  handle.state().descriptor = other.state().descriptor;
  handle->tpbuf = &other;
  EXPECT_EQ(handle.open(dir_.file("missing.kvf"), kRead), -1);
  expect_nothing_left(handle);
  EXPECT_EQ(item_of(other)->read_count, 1);
  char byte;
  EXPECT_EQ(gst_normal_file_read(other.get(), &byte, 1), 1);
}

TEST_F(FailedOpenTest, WhenTheRegistryRefusesNothingIsOpened) {
  Handle open[4];
  for (int i = 0; i < 4; ++i) {
    ASSERT_EQ(open[i].open(dir_.file("r" + std::to_string(i) + ".kvf"), kWrite), 1);
  }
  Handle fifth;
  {
    Faults faults;
    EXPECT_EQ(fifth.open(rec_, kRead), -1);
    EXPECT_EQ(faults.count("open64"), 0);
  }
  EXPECT_NOT_LOGGED(kError, "[EXT_FMG] [PLG_ERR] gst_normal_file_open failed:ret=[-1]");
  expect_nothing_left(fifth);
  for (const Handle &handle : open) EXPECT_EQ(item_of(handle)->write_count, 1);
}

TEST_F(FailedOpenTest, ARefusedPathIsNotOpened) {
  Handle handle;
  EXPECT_EQ(handle.open(
                dir_.path() + "/../" + dir_.path().substr(dir_.path().rfind('/') + 1) + "/rec.kvf",
                kRead),
            -1);
  EXPECT_EQ(handle->var.error_number, 56);
  EXPECT_FALSE(anything_registered());
}

TEST_F(FailedOpenTest, WithoutAPathNothingIsRegistered) {
  Handle handle;
  EXPECT_EQ(gst_normal_file_open(handle.get(), nullptr, kRead, 0, 0, 0), -1);
  EXPECT_THAT(
      LogCapture::messages(),
      ElementsAre("[EXT_FMG] enter gst_normal_file_open,file_path:(null),read_mode:1,"
                  "direct_mode:0,append_mode:0",
                  "[EXT_TOOL] [PLG_ERR] path is NULL", "[EXT_FMG] [PLG_ERR] path_no_ext is NULL",
                  "[EXT_FMG] [PLG_ERR] key out of range,key =[-1]"));
  EXPECT_FALSE(anything_registered());
  expect_nothing_left(handle);
}

// ---- Close ----

TEST_F(NormalFileTest, CloseReleasesEverything) {
  Handle handle;
  ASSERT_EQ(handle.open(rec_, kWrite), 1);
  EXPECT_EQ(handle.close(), 1);
  EXPECT_EQ(handle.state().path, nullptr);
  EXPECT_EQ(handle.state().descriptor, -1);
  EXPECT_EQ(handle.state().key, -1);
  EXPECT_FALSE(anything_registered());
}

TEST_F(NormalFileTest, CloseOfADirectFileFreesTheBounceBuffer) {
  Handle handle;
  ASSERT_EQ(handle.open(rec_, kRead, 1), 1);
  EXPECT_EQ(handle.close(), 1);
  EXPECT_EQ(handle->tpbuf, nullptr);
}

TEST_F(NormalFileTest, AFailedCloseStillLeavesTheRegistry) {
  Handle handle;
  ASSERT_EQ(handle.open(rec_, kWrite), 1);
  {
    Faults faults;
    faults.fail("close", EIO);
    EXPECT_EQ(handle.close(), -1);
  }
  EXPECT_EQ(handle.state().key, -1);
  EXPECT_FALSE(anything_registered());
  EXPECT_EQ(handle->var.error_number, EIO);
  handle.state().descriptor = -1;  // the kernel has let it go
}

TEST_F(NormalFileTest, CloseTwiceUnregistersOnce) {
  Handle one;
  Handle two;
  ASSERT_EQ(one.open(rec_, kRead), 1);
  ASSERT_EQ(two.open(rec_, kRead), 1);
  EXPECT_EQ(one.close(), 1);
  EXPECT_EQ(one.close(), -1);
  EXPECT_EQ(item_of(two)->read_count, 1);
}

// ---- Transfers, both layers ----

struct Layer {
  const char *name;
  guint8 direct;
};

class LayerTest : public NormalFileTest, public ::testing::WithParamInterface<Layer> {
 protected:
  void given_open(guint8 read_mode) {
    ASSERT_EQ(handle_.open(rec_, read_mode, GetParam().direct), 1);
    LogCapture::clear();
  }
  Handle handle_;
};

INSTANTIATE_TEST_SUITE_P(Layers, LayerTest,
                         ::testing::Values(Layer{"Buffered", 0}, Layer{"Direct", 1}),
                         [](const auto &layer) { return layer.param.name; });

TEST_P(LayerTest, ReadsAnyRange) {
  given_open(kRead);
  EXPECT_EQ(gst_normal_file_seek(handle_.get(), 5001, SEEK_SET), 5001);
  std::vector<uint8_t> got(1000);
  EXPECT_EQ(gst_normal_file_read(handle_.get(), got.data(), 1000), 1000);
  EXPECT_EQ(got, counting_bytes(1000, 5001));
  EXPECT_EQ(gst_normal_file_tell(handle_.get()), 6001);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_P(LayerTest, SeekMovesTheDescriptorItself) {
  given_open(kRead);
  EXPECT_EQ(gst_normal_file_seek(handle_.get(), 4097, SEEK_SET), 4097);
  EXPECT_EQ(lseek64(handle_.state().descriptor, 0, SEEK_CUR), 4097);
  EXPECT_EQ(gst_normal_file_seek(handle_.get(), 3, SEEK_CUR), 4100);
  EXPECT_EQ(gst_normal_file_seek(handle_.get(), -1, SEEK_END), 9999);
}

TEST_P(LayerTest, SizeAndFsyncAnswer) {
  given_open(kWrite);
  write_file(rec_, counting_bytes(777));
  EXPECT_EQ(gst_normal_file_size(handle_.get()), 777);
  EXPECT_EQ(gst_normal_file_fsync(handle_.get()), 0);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_P(LayerTest, ZeroIsAPositionAndASize) {
  given_open(kWrite);
  EXPECT_EQ(gst_normal_file_seek(handle_.get(), 0, SEEK_SET), 0);
  EXPECT_EQ(gst_normal_file_tell(handle_.get()), 0);
  EXPECT_EQ(gst_normal_file_size(handle_.get()), 0);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_P(LayerTest, AFailedReadIsLoggedAndReturned) {
  given_open(kRead);
  Faults faults;
  faults.fail("read", EIO);
  char byte;
  EXPECT_EQ(gst_normal_file_read(handle_.get(), &byte, 1), -1);
  EXPECT_EQ(LogCapture::messages(kError).back(),
            "[EXT_FMG] [PLG_ERR] gst_normal_file_read failed, ret:-1");
}

TEST_P(LayerTest, AFailedWriteIsLoggedAndReturned) {
  given_open(kWrite);
  Faults faults;
  faults.fail("write", ENOSPC);
  EXPECT_EQ(gst_normal_file_write(handle_.get(), "x", 1), -1);
  EXPECT_EQ(handle_->var.error_number, ENOSPC);
  EXPECT_EQ(LogCapture::messages(kError).back(),
            "[EXT_FMG] [PLG_ERR] gst_normal_file_write failed, ret:-1");
}

TEST_P(LayerTest, NoBytesAreNoFailure) {
  given_open(kRead);
  EXPECT_EQ(gst_normal_file_read(handle_.get(), nullptr, 0), 0);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
  handle_.close();
  given_open(kWrite);
  EXPECT_EQ(gst_normal_file_write(handle_.get(), nullptr, 0), 0);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_P(LayerTest, ANegativeReadReachesNoSystemCall) {
  given_open(kRead);
  Faults faults;
  char byte;
  EXPECT_EQ(gst_normal_file_read(handle_.get(), &byte, -1), -1);
  EXPECT_THAT(faults.calls(), IsEmpty());
  EXPECT_THAT(LogCapture::messages(),
              ElementsAre("[EXT_FMG] [PLG_ERR] gst_normal_file_read failed, ret:-1"));
}

TEST_P(LayerTest, ANegativeWriteReachesNoSystemCall) {
  given_open(kWrite);
  Faults faults;
  EXPECT_EQ(gst_normal_file_write(handle_.get(), "x", -4096), -1);
  EXPECT_THAT(faults.calls(), IsEmpty());
  EXPECT_THAT(LogCapture::messages(),
              ElementsAre("[EXT_FMG] [PLG_ERR] gst_normal_file_write failed, ret:-1"));
}

TEST_F(NormalFileTest, BufferedWriteWritesJustTheBytes) {
  Handle handle;
  ASSERT_EQ(handle.open(rec_, kWrite), 1);
  EXPECT_EQ(gst_normal_file_write(handle.get(), "hello", 5), 5);
  EXPECT_EQ(read_file(rec_).size(), 5u);
}

TEST_F(NormalFileTest, DirectWriteIsPadded) {
  Handle handle;
  ASSERT_EQ(handle.open(rec_, kWrite, 1), 1);
  EXPECT_EQ(gst_normal_file_write(handle.get(), "hello", 5), 4096);
  EXPECT_EQ(read_file(rec_).size(), 4096u);
}

TEST_F(NormalFileTest, OfABufferedSizeTheLow32BitsCount) {
  Handle writer;
  ASSERT_EQ(writer.open(rec_, kWrite), 1);
  EXPECT_EQ(gst_normal_file_write(writer.get(), "hello", (gint64{1} << 32) + 5), 5);
  Handle reader;
  ASSERT_EQ(reader.open(rec_, kRead), 1);
  char got[6] = {};
  EXPECT_EQ(gst_normal_file_read(reader.get(), got, (gint64{1} << 32) + 3), 3);
  EXPECT_STREQ(got, "hel");
}

// ---- Failures of the other operations ----

TEST_F(NormalFileTest, AFailedSeekIsLogged) {
  Handle handle;
  ASSERT_EQ(handle.open(rec_, kRead), 1);
  EXPECT_EQ(gst_normal_file_seek(handle.get(), -1, SEEK_SET), -1);
  EXPECT_EQ(LogCapture::messages().back(),
            "[EXT_FMG] [PLG_ERR] gst_normal_file_seek failed, ret:-1");
  EXPECT_LOGGED(kError, LogCapture::messages().back());
}

TEST_F(NormalFileTest, AFailedTellIsLogged) {
  Handle handle;
  ASSERT_EQ(handle.open(rec_, kRead), 1);
  Faults faults;
  faults.fail("lseek64", EIO);
  EXPECT_EQ(gst_normal_file_tell(handle.get()), -1);
  EXPECT_EQ(LogCapture::messages().back(),
            "[EXT_FMG] [PLG_ERR] gst_normal_file_tell failed, ret:-1");
  EXPECT_LOGGED(kError, LogCapture::messages().back());
}

TEST_F(NormalFileTest, AFailedSizeIsLogged) {
  Handle handle;
  ASSERT_EQ(handle.open(rec_, kRead), 1);
  ASSERT_EQ(unlink(rec_.c_str()), 0);
  EXPECT_EQ(gst_normal_file_size(handle.get()), -1);
  EXPECT_EQ(LogCapture::messages().back(),
            "[EXT_FMG] [PLG_ERR] gst_normal_file_size failed, ret:-1");
  EXPECT_LOGGED(kError, LogCapture::messages().back());
}

TEST_F(NormalFileTest, AClosedFileHasNoSize) {
  Handle handle;
  ASSERT_EQ(handle.open(rec_, kRead), 1);
  ASSERT_EQ(handle.close(), 1);
  EXPECT_EQ(gst_normal_file_size(handle.get()), -1);
}

TEST_F(NormalFileTest, AFailedFsyncIsLogged) {
  Handle handle;
  ASSERT_EQ(handle.open(rec_, kWrite), 1);
  Faults faults;
  faults.fail("fsync", EIO);
  EXPECT_EQ(gst_normal_file_fsync(handle.get()), -1);
  EXPECT_EQ(LogCapture::messages().back(),
            "[EXT_FMG] [PLG_ERR] gst_normal_file_fsync failed, ret:-1");
  EXPECT_LOGGED(kError, LogCapture::messages().back());
}

TEST_F(NormalFileTest, TheTimeOperationsDoNothing) {
  Handle handle;
  ASSERT_EQ(handle.open(rec_, kRead), 1);
  LogCapture::clear();
  Faults faults;
  EXPECT_EQ(gst_normal_file_set_max_time(handle.get(), 1, 2), -1);
  EXPECT_EQ(gst_normal_file_get_max_time(handle.get()), -1);
  EXPECT_EQ(gst_normal_file_set_last_wrote_time(handle.get(), 3), -1);
  EXPECT_THAT(faults.calls(), IsEmpty());
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

}  // namespace
}  // namespace plexa_test
