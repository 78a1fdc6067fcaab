// The direct layer: any range through the bounce buffer, odd writes padded with sync bytes.
#include "gst-plexa/gst_file_direct_io.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <set>
#include <thread>
#include <tuple>

#include "faults.h"
#include "gst_file_direct_io_internal.h"
#include "log_capture.h"
#include "temp_dir.h"

namespace plexa_test {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Bytes = std::vector<uint8_t>;

constexpr guint8 kRead = 1;
constexpr guint8 kWrite = 0;
constexpr gint64 kGiB = gint64{1} << 30;
constexpr gint64 kBounce = 0x1E0000;
constexpr char kCountBelowZero[] = "[EXT_FMG] [PLG_ERR] count < 0";

struct FreeMemory {
  void operator()(uint8_t *memory) const { std::free(memory); }
};
using Pages = std::unique_ptr<uint8_t, FreeMemory>;

Pages pages(const Bytes &content) {
  Pages memory(static_cast<uint8_t *>(std::aligned_alloc(4096, content.size())));
  std::copy(content.begin(), content.end(), memory.get());
  return memory;
}

class DirectIoTest : public ::testing::Test {
 protected:
  void SetUp() override { gst_pvr_file_init(&file_); }
  void TearDown() override {
    if (descriptor_ > 0) gst_file_direct_io_close(&file_, &descriptor_);
    gst_pvr_file_deinit(&file_);
  }

  gint64 open(guint8 read_mode) {
    return gst_file_direct_io_open(&file_, &descriptor_, rec_.c_str(), read_mode, 1, 0);
  }
  // A file of counting bytes, opened for reading, at a position; the log starts now.
  void given_open_at(gint64 position, gint64 size = 10000) {
    write_file(rec_, counting_bytes(static_cast<size_t>(size)));
    ASSERT_EQ(open(kRead), 1);
    move_to(position);
    LogCapture::clear();
  }
  void given_open_for_writing() {
    ASSERT_EQ(open(kWrite), 1);
    LogCapture::clear();
  }

  void move_to(gint64 position) { ASSERT_EQ(lseek64(descriptor_, position, SEEK_SET), position); }
  gint64 position() const { return lseek64(descriptor_, 0, SEEK_CUR); }

  // What a read delivers; the buffer is as large as asked for, or as room says.
  gint64 read(gint64 count, gint64 room = -1) {
    got_.assign(static_cast<size_t>(room < 0 ? std::max<gint64>(count, 0) : room), 0xEE);
    return gst_file_direct_io_read(&file_, &descriptor_, got_.data(), count);
  }
  void expect_got(gint64 from, gint64 count) const {
    const Bytes want = counting_bytes(static_cast<size_t>(count), static_cast<size_t>(from));
    ASSERT_GE(got_.size(), want.size());
    EXPECT_TRUE(std::equal(want.begin(), want.end(), got_.begin()));
    EXPECT_TRUE(std::all_of(got_.begin() + count, got_.end(), [](int b) { return b == 0xEE; }))
        << "written behind what was delivered";
  }

  gint64 write(const Bytes &data) {
    return gst_file_direct_io_write(&file_, &descriptor_, data.data(),
                                    static_cast<gint64>(data.size()));
  }

  TempDir dir_;
  const std::string rec_ = dir_.file("rec.kvf");
  GstPvrFile file_;
  gint32 descriptor_ = -1;
  Bytes got_;
};

// ---- Open and close ----

TEST_F(DirectIoTest, OpenForReadingAllocatesThePageAlignedBounceBuffer) {
  write_file(rec_, counting_bytes(10));
  long long asked = 0;
  Faults faults;
  faults.watch("valloc", [&](int, const char *, long long size) { asked = size; });
  EXPECT_EQ(open(kRead), 1);
  EXPECT_EQ(asked, kBounce);
  ASSERT_NE(file_.tpbuf, nullptr);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(file_.tpbuf) % 4096, 0u);
}

TEST_F(DirectIoTest, TheDescriptorBypassesThePageCache) {
  write_file(rec_, counting_bytes(10));
  EXPECT_EQ(open(kRead), 1);
  EXPECT_EQ(fcntl(descriptor_, F_GETFL) & O_DIRECT, O_DIRECT);
}

TEST_F(DirectIoTest, OpenForWritingNeedsNoBounceBuffer) {
  file_.tpbuf = &file_;  // whatever the storage held
  Faults faults;
  EXPECT_EQ(open(kWrite), 1);
  EXPECT_EQ(faults.count("valloc"), 0);
  EXPECT_EQ(file_.tpbuf, nullptr);
}

TEST_F(DirectIoTest, OpenPassesTheAppendModeOn) {
  long long flags = 0;
  Faults faults;
  faults.watch("open64", [&](int, const char *, long long asked) { flags = asked; });
  EXPECT_EQ(gst_file_direct_io_open(&file_, &descriptor_, rec_.c_str(), kWrite, 1, 1), 1);
  EXPECT_EQ(flags & (O_APPEND | O_TRUNC | O_DIRECT), O_APPEND | O_DIRECT);
}

TEST_F(DirectIoTest, OpenWithoutAPathFails) {
  LogCapture::clear();
  file_.tpbuf = &file_;
  EXPECT_EQ(gst_file_direct_io_open(&file_, &descriptor_, nullptr, kRead, 1, 0), -1);
  EXPECT_THAT(LogCapture::messages(kError), ElementsAre("[EXT_FMG] [PLG_ERR] file_path is NULL"));
  EXPECT_EQ(file_.tpbuf, nullptr);
}

TEST_F(DirectIoTest, OpenWithoutMemoryFailsBeforeTheFileIsOpened) {
  write_file(rec_, counting_bytes(10));
  LogCapture::clear();
  Faults faults;
  faults.fail("valloc", ENOMEM);
  EXPECT_EQ(open(kRead), -1);
  EXPECT_EQ(faults.count("open64"), 0);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre("[EXT_FMG] [PLG_ERR] Allocate memery failed!"));
  EXPECT_EQ(file_.tpbuf, nullptr);
}

TEST_F(DirectIoTest, AFailedOpenFreesTheBounceBuffer) {
  EXPECT_EQ(open(kRead), -1);  // no such file
  EXPECT_EQ(file_.tpbuf, nullptr);
  EXPECT_EQ(file_.var.error_number, ENOENT);
}

TEST_F(DirectIoTest, CloseFreesTheBounceBuffer) {
  given_open_at(0);
  EXPECT_EQ(gst_file_direct_io_close(&file_, &descriptor_), 1);
  EXPECT_EQ(file_.tpbuf, nullptr);
  EXPECT_EQ(descriptor_, -1);
}

TEST_F(DirectIoTest, AFailedCloseFreesItToo) {
  given_open_at(0);
  {
    Faults faults;
    faults.fail("close", EIO);
    EXPECT_EQ(gst_file_direct_io_close(&file_, &descriptor_), -1);
  }
  EXPECT_EQ(file_.tpbuf, nullptr);
  descriptor_ = -1;
}

// ---- Bounce buffers kept from a close for the next open ----

TEST_F(DirectIoTest, ABounceBufferCanBeKeptForTheNextOpen) {
  const plexa::KeptBounceBuffers kept;
  given_open_at(0);
  const void *const buffer = file_.tpbuf;
  EXPECT_EQ(gst_file_direct_io_close(&file_, &descriptor_), 1);
  EXPECT_EQ(file_.tpbuf, nullptr);
  Faults faults;
  EXPECT_EQ(open(kRead), 1);
  EXPECT_EQ(file_.tpbuf, buffer);
  EXPECT_EQ(faults.count("valloc"), 0);
  EXPECT_EQ(read(10000), 10000);
  expect_got(0, 10000);
}

TEST_F(DirectIoTest, OfSeveralKeptEachIsGivenOnce) {
  const plexa::KeptBounceBuffers kept;
  given_open_at(0);
  GstPvrFile other{};
  gint32 descriptor = -1;
  ASSERT_EQ(gst_file_direct_io_open(&other, &descriptor, rec_.c_str(), kRead, 1, 0), 1);
  const std::set<const void *> buffers{file_.tpbuf, other.tpbuf};
  gst_file_direct_io_close(&file_, &descriptor_);
  gst_file_direct_io_close(&other, &descriptor);
  EXPECT_EQ(open(kRead), 1);
  ASSERT_EQ(gst_file_direct_io_open(&other, &descriptor, rec_.c_str(), kRead, 1, 0), 1);
  EXPECT_EQ((std::set<const void *>{file_.tpbuf, other.tpbuf}), buffers);
  gst_file_direct_io_close(&other, &descriptor);
}

TEST_F(DirectIoTest, WithNoneLeftABounceBufferIsAllocated) {
  const plexa::KeptBounceBuffers kept;
  write_file(rec_, counting_bytes(10));
  Faults faults;
  EXPECT_EQ(open(kRead), 1);
  EXPECT_EQ(faults.count("valloc"), 1);
}

TEST_F(DirectIoTest, ABounceBufferIsKeptForItsThreadOnly) {
  const plexa::KeptBounceBuffers kept;
  given_open_at(0);
  gst_file_direct_io_close(&file_, &descriptor_);
  Faults faults;
  faults.all_threads();
  std::thread([&] { EXPECT_EQ(open(kRead), 1); }).join();
  EXPECT_EQ(faults.count("valloc"), 1);
}

TEST_F(DirectIoTest, AnOpenThatFailsGivesAKeptBounceBufferBackToTheSystem) {
  const plexa::KeptBounceBuffers kept;
  given_open_at(0);
  gst_file_direct_io_close(&file_, &descriptor_);
  Faults faults;
  faults.fail("open64", EACCES);
  EXPECT_EQ(open(kRead), -1);
  EXPECT_EQ(file_.tpbuf, nullptr);
  EXPECT_EQ(open(kRead), 1);
  EXPECT_EQ(faults.count("valloc"), 1);
}

TEST_F(DirectIoTest, NothingIsKeptAnyMoreAtTheEnd) {
  given_open_at(0);
  {
    const plexa::KeptBounceBuffers kept;
    gst_file_direct_io_close(&file_, &descriptor_);
  }
  Faults faults;
  EXPECT_EQ(open(kRead), 1);
  EXPECT_EQ(faults.count("valloc"), 1);
}

// ---- Reading ----

// Where a read starts, how long it is: all around block boundaries and the end of a 10000-byte
// file.
using Range = std::tuple<gint64, gint64>;
class RangeTest : public DirectIoTest, public ::testing::WithParamInterface<Range> {};

TEST_P(RangeTest, IsDeliveredAndThePositionIsBehindIt) {
  const auto [start, count] = GetParam();
  const gint64 want = std::clamp<gint64>(10000 - start, 0, count);
  given_open_at(start);
  EXPECT_EQ(read(count), want);
  expect_got(start, want);
  if (want > 0) {
    EXPECT_EQ(position(), start + want);
    EXPECT_THAT(LogCapture::messages(), IsEmpty());
  }
}

INSTANTIATE_TEST_SUITE_P(
    Around, RangeTest,
    ::testing::Combine(::testing::Values(0, 1, 188, 4095, 4096, 4097, 8191, 8192, 9999),
                       ::testing::Values(1, 188, 4095, 4096, 4097, 8192, 9999, 10000, 20000)));

TEST_F(DirectIoTest, OnlyTheBlocksThatHoldTheRangeAreRead) {
  given_open_at(5000);
  std::vector<long long> seeks;
  std::vector<long long> reads;
  Faults faults;
  faults.watch("lseek64", [&](int, const char *, long long to) { seeks.push_back(to); });
  faults.watch("read", [&](int, const char *, long long size) { reads.push_back(size); });
  EXPECT_EQ(read(100), 100);
  EXPECT_THAT(seeks, ElementsAre(0, 0, 4096, 5100));  // tell, end, aligned start, behind the data
  EXPECT_THAT(reads, ElementsAre(4096));
  expect_got(5000, 100);
}

TEST_F(DirectIoTest, AReadOverTheEndIsCutThere) {
  given_open_at(9950);
  EXPECT_EQ(read(100), 50);
  expect_got(9950, 50);
  EXPECT_EQ(position(), 10000);
}

TEST_F(DirectIoTest, ReadsFollowEachOther) {
  given_open_at(0);
  gint64 at = 0;
  for (gint64 size : {188, 3908, 188, 5000, 716}) {
    EXPECT_EQ(read(size), size);
    expect_got(at, size);
    at += size;
  }
  EXPECT_EQ(read(1), 0);
}

TEST_F(DirectIoTest, AtTheEndThereIsNothingToRead) {
  given_open_at(10000);
  Faults faults;
  EXPECT_EQ(read(100), 0);
  EXPECT_EQ(faults.count("read"), 0);
  EXPECT_THAT(LogCapture::messages(kInfo),
              ElementsAre("[EXT_FMG] curpos=10000,file_size=10000, *curpos >= *file_size",
                          "[EXT_FMG] count < 1"));
  EXPECT_THAT(LogCapture::messages(kError), IsEmpty());
  EXPECT_EQ(LogCapture::lines()[0].function, "_gst_file_direct_io_get_file_info");
  EXPECT_EQ(LogCapture::lines()[1].function, "gst_file_direct_io_read");
}

TEST_F(DirectIoTest, BehindTheEndThePositionGoesBackToTheEnd) {
  given_open_at(20000);
  EXPECT_EQ(read(100), 0);
  EXPECT_LOGGED(kInfo, "[EXT_FMG] curpos=20000,file_size=10000, *curpos >= *file_size");
  EXPECT_EQ(position(), 10000);
}

TEST_F(DirectIoTest, AnEmptyFileIsAtItsEnd) {
  given_open_at(0, 0);
  EXPECT_EQ(read(100), 0);
  EXPECT_LOGGED(kInfo, "[EXT_FMG] curpos=0,file_size=0, *curpos >= *file_size");
  EXPECT_THAT(LogCapture::messages(kError), IsEmpty());
}

TEST_F(DirectIoTest, PositionsPassFourGiB) {
  write_file(rec_, {});
  fs::resize_file(rec_, 5 * kGiB);
  {
    const int plain = ::open(rec_.c_str(), O_WRONLY | O_CLOEXEC | O_LARGEFILE);
    const Bytes tail = counting_bytes(1000);
    ASSERT_EQ(pwrite64(plain, tail.data(), tail.size(), 5 * kGiB), 1000);
    ::close(plain);
  }
  ASSERT_EQ(open(kRead), 1);
  move_to(5 * kGiB + 10);
  EXPECT_EQ(read(500), 500);
  expect_got(10, 500);
  EXPECT_EQ(position(), 5 * kGiB + 510);
}

TEST_F(DirectIoTest, AFileThatGrowsMeanwhileIsReadToTheEndThatWasFound) {
  given_open_at(9950);
  Faults faults;
  faults.before("read", [this] { fs::resize_file(rec_, 20000); });
  EXPECT_EQ(read(5000), 50);
  expect_got(9950, 50);
  EXPECT_EQ(position(), 10000);
}

TEST_F(DirectIoTest, AReadOfNothingLeavesThePosition) {
  for (const gint64 start : {5000, 0}) {
    given_open_at(start);
    EXPECT_EQ(read(0), 0);
    EXPECT_EQ(position(), start);
    EXPECT_THAT(LogCapture::messages(), IsEmpty());
    gst_file_direct_io_close(&file_, &descriptor_);
  }
}

TEST_F(DirectIoTest, ANegativeCountIsRefused) {
  given_open_at(5000);
  Faults faults;
  EXPECT_EQ(read(-1), -1);
  EXPECT_THAT(faults.calls(), IsEmpty());
  EXPECT_THAT(LogCapture::messages(kError), ElementsAre(kCountBelowZero));
}

TEST_F(DirectIoTest, AFileOpenedForWritingCannotBeRead) {
  given_open_for_writing();
  EXPECT_EQ(read(10), -1);
  EXPECT_THAT(LogCapture::messages(kError), ElementsAre("[EXT_FMG] [PLG_ERR] io->tpbuf is NULL"));
}

// ---- Ranges larger than the bounce buffer ----

TEST_F(DirectIoTest, ALargeReadGoesThroughTheBounceBufferInPieces) {
  const gint64 start = 4096 + 5;
  const gint64 count = 2 * kBounce + 12345;
  given_open_at(start, 5000000);
  std::vector<long long> reads;
  Faults faults;
  faults.watch("read", [&](int, const char *, long long size) { reads.push_back(size); });
  EXPECT_EQ(read(count), count);
  EXPECT_THAT(reads, ElementsAre(kBounce, kBounce, 4 * 4096));
  expect_got(start, count);
  EXPECT_EQ(position(), start + count);
}

TEST_F(DirectIoTest, AReadThatFillsTheBounceBufferExactlyIsOnePiece) {
  given_open_at(188, 3000000);
  Faults faults;
  EXPECT_EQ(read(kBounce - 188), kBounce - 188);
  EXPECT_EQ(faults.count("read"), 1);
  expect_got(188, kBounce - 188);
}

TEST_F(DirectIoTest, OneByteMoreIsTwo) {
  given_open_at(188, 3000000);
  Faults faults;
  EXPECT_EQ(read(kBounce - 187), kBounce - 187);
  EXPECT_EQ(faults.count("read"), 2);
  expect_got(188, kBounce - 187);
}

TEST_F(DirectIoTest, TheLargestCountThereIsReadsToTheEnd) {
  given_open_at(9000);
  EXPECT_EQ(read(G_MAXINT64, 2000), 1000);
  expect_got(9000, 1000);
}

TEST_F(DirectIoTest, AFailureBehindTheFirstPieceDeliversWhatArrived) {
  given_open_at(5, 5000000);
  Faults faults;
  faults.fail("read", EIO, 2);
  EXPECT_EQ(read(2 * kBounce), kBounce - 5);
  expect_got(5, kBounce - 5);
  EXPECT_EQ(position(), kBounce);
  EXPECT_EQ(file_.var.error_number, EIO);
  EXPECT_LOGGED(kError, kCountBelowZero);
}

TEST_F(DirectIoTest, AShortPieceEndsTheRead) {
  given_open_at(5, 5000000);
  Faults faults;
  faults.shorten("read", 8192, 2);
  EXPECT_EQ(read(3 * kBounce / 2), kBounce - 5 + 8192);
  expect_got(5, kBounce - 5 + 8192);
  EXPECT_EQ(position(), kBounce + 8192);
}

// ---- Short reads and failures ----

TEST_F(DirectIoTest, AShortReadDeliversOnlyWhatArrived) {
  given_open_at(5000);
  Faults faults;
  faults.shorten("read", 4096);
  EXPECT_EQ(read(4000), 8192 - 5000);
  expect_got(5000, 8192 - 5000);
  EXPECT_EQ(position(), 8192);
}

TEST_F(DirectIoTest, AReadThatArrivesWithNothingDeliversNothing) {
  given_open_at(5000);
  Faults faults;
  faults.shorten("read", 0);
  EXPECT_EQ(read(100), 0);
  expect_got(5000, 0);
  EXPECT_EQ(position(), 5000);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(DirectIoTest, AReadThatEndsBeforeTheRangeDeliversNothing) {
  given_open_at(5000);
  Faults faults;
  faults.answer("read", 500);  // of the 904 bytes in front of the range
  EXPECT_EQ(read(100), 0);
  expect_got(5000, 0);
}

TEST_F(DirectIoTest, AFailedReadGivesTheFailure) {
  given_open_at(5000);
  Faults faults;
  faults.fail("read", EIO);
  EXPECT_EQ(read(100), -1);
  EXPECT_EQ(file_.var.error_number, EIO);
  EXPECT_TRUE(logged_in_order(
      {"[EXT_FMG] [PLG_ERR] read was failed, errno=[5:Input/output error]\n", kCountBelowZero}));
  EXPECT_LOGGED(kError, kCountBelowZero);
  expect_got(5000, 0);
  EXPECT_EQ(position(), 4096);  // where the failed step left it
}

class FileInfoFailureTest : public DirectIoTest, public ::testing::WithParamInterface<int> {};

TEST_P(FileInfoFailureTest, WithoutPositionOrSizeNothingIsRead) {
  given_open_at(5000);
  Faults faults;
  faults.fail("lseek64", EIO, GetParam());
  EXPECT_EQ(read(100), -1);
  EXPECT_EQ(faults.count("read"), 0);
  EXPECT_LOGGED(kError, "[EXT_FMG] [PLG_ERR] *curpos < 0 || *file_size < 0 ");
  EXPECT_TRUE(logged_in_order(
      {"[EXT_FMG] [PLG_ERR] *curpos < 0 || *file_size < 0 ", "[EXT_FMG] count < 1"}));
  EXPECT_LOGGED(kInfo, "[EXT_FMG] count < 1");
}

INSTANTIATE_TEST_SUITE_P(TellAndEnd, FileInfoFailureTest, ::testing::Values(1, 2));

TEST_F(DirectIoTest, AFailedSeekToTheBlocksFails) {
  given_open_at(5000);
  Faults faults;
  faults.fail("lseek64", EIO, 3);
  EXPECT_EQ(read(100), -1);
  EXPECT_EQ(faults.count("read"), 0);
  EXPECT_LOGGED(kError, kCountBelowZero);
}

TEST_F(DirectIoTest, AFailedLastSeekStillDelivers) {
  given_open_at(5000);
  Faults faults;
  faults.fail("lseek64", EIO, 4);
  EXPECT_EQ(read(100), 100);
  expect_got(5000, 100);
  EXPECT_LOGGED(kError, kCountBelowZero);
}

// ---- Writing ----

TEST_F(DirectIoTest, AnOddWriteIsPaddedWithSyncBytes) {
  given_open_for_writing();
  const Bytes data = counting_bytes(188);
  EXPECT_EQ(write(data), 4096);
  Bytes want = data;
  want.resize(4096, 0x47);
  EXPECT_EQ(read_file(rec_), want);
  EXPECT_EQ(position(), 4096);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(DirectIoTest, AnOddWriteOverSeveralBlocksIsPaddedToTheNext) {
  given_open_for_writing();
  const Bytes data = counting_bytes(9000);
  EXPECT_EQ(write(data), 12288);
  Bytes want = data;
  want.resize(12288, 0x47);
  EXPECT_EQ(read_file(rec_), want);
}

TEST_F(DirectIoTest, WholeBlocksAreWrittenWithoutACopy) {
  given_open_for_writing();
  const Bytes data = counting_bytes(8192);
  const Pages memory = pages(data);
  Faults faults;
  EXPECT_EQ(gst_file_direct_io_write(&file_, &descriptor_, memory.get(), 8192), 8192);
  EXPECT_EQ(faults.count("valloc"), 0);
  EXPECT_EQ(read_file(rec_), data);
}

TEST_F(DirectIoTest, WritingNothingIsNoFailure) {
  given_open_for_writing();
  EXPECT_EQ(write({}), 0);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(DirectIoTest, AnAlignedWriteFollowsAPaddedOne) {
  given_open_for_writing();
  EXPECT_EQ(write(counting_bytes(1)), 4096);
  const Pages memory = pages(counting_bytes(4096));
  EXPECT_EQ(gst_file_direct_io_write(&file_, &descriptor_, memory.get(), 4096), 4096);
  EXPECT_EQ(read_file(rec_).size(), 8192u);
}

TEST_F(DirectIoTest, AWriteWithoutMemoryFails) {
  given_open_for_writing();
  Faults faults;
  faults.fail("valloc", ENOMEM);
  EXPECT_EQ(write(counting_bytes(188)), -1);
  EXPECT_EQ(faults.count("write"), 0);
  EXPECT_THAT(LogCapture::messages(kError), ElementsAre("[EXT_FMG] [PLG_ERR] pbuff is NULL"));
}

TEST_F(DirectIoTest, AnOddWriteThatNo32BitCountCanCarryIsRefusedUnread) {
  given_open_for_writing();
  const uint8_t one = 0;
  Faults faults;
  for (const gint64 size : {4 * kGiB - 1, 4 * kGiB + 1, G_MAXINT64}) {
    EXPECT_EQ(gst_file_direct_io_write(&file_, &descriptor_, &one, size), -1);
  }
  EXPECT_EQ(faults.count("valloc"), 0);
  EXPECT_EQ(faults.count("write"), 0);
  EXPECT_LOGGED(kError, "[EXT_FMG] [PLG_ERR] pbuff is NULL");
}

TEST_F(DirectIoTest, OfWholeBlocksTheLow32BitsCount) {
  given_open_for_writing();
  const Pages memory = pages(counting_bytes(4096));
  EXPECT_EQ(gst_file_direct_io_write(&file_, &descriptor_, memory.get(), 4 * kGiB + 4096), 4096);
}

TEST_F(DirectIoTest, ANegativeSizeIsRefused) {
  given_open_for_writing();
  const uint8_t one = 0;
  Faults faults;
  EXPECT_EQ(gst_file_direct_io_write(&file_, &descriptor_, &one, -4096), -1);
  EXPECT_EQ(faults.count("write"), 0);
  EXPECT_THAT(LogCapture::messages(kError), ElementsAre("[EXT_FMG] [PLG_ERR] size < 0 [-4096]"));
}

TEST_F(DirectIoTest, AFailedWriteGivesTheFailure) {
  given_open_for_writing();
  Faults faults;
  faults.fail("write", ENOSPC);
  EXPECT_EQ(write(counting_bytes(188)), -1);
  EXPECT_EQ(file_.var.error_number, ENOSPC);
}

TEST_F(DirectIoTest, AShortWriteIsReturnedAsItIs) {
  given_open_for_writing();
  Faults faults;
  faults.shorten("write", 4096);
  EXPECT_EQ(write(counting_bytes(5000)), 4096);
  EXPECT_EQ(faults.count("write"), 1);
}

}  // namespace
}  // namespace plexa_test
