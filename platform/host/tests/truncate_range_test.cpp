// truncate_range_test.cpp - the removal of a byte range, on a real disk and in memory.
//
// The system calls that the removal makes, its allocation and its log are replaced, so that each
// can be counted and made to fail. A file in memory never collapses; the disk is the one that the
// build tree is on.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <new>
#include <numeric>
#include <optional>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "dlog.h"
#include "ppi_pvr_control.h"

namespace {

// ---- Replaced calls ----------------------------------------------------------------------------

enum Call { kFstat, kFstatfs, kAllocate, kRead, kWrite, kCollapse, kTruncate, kCalls };

struct Tally {
  int calls = 0;
  std::int64_t bytes = 0;  // moved by successful reads and writes
};

struct Machine {
  std::array<Tally, kCalls> tally{};
  int all_calls = 0;

  // Gives the errno that a call fails with, or 0. `nth` counts all calls from 1.
  std::function<int(Call call, int nth)> fault;
  // A write that fails has arrived all the same, as with a synchronous write whose flush fails.
  bool failing_writes_arrive = false;
  std::int64_t most_bytes = std::numeric_limits<std::int64_t>::max();

  std::vector<std::string> errors;   // messages of priority 6
  std::vector<std::string> details;  // messages of any other

  // True when the call is to fail, with errno set.
  bool fails(Call call) {
    ++tally[call].calls;
    ++all_calls;
    const int error = fault ? fault(call, all_calls) : 0;
    if (error != 0) errno = error;
    return error != 0;
  }
  size_t limit(size_t size) const {
    return static_cast<size_t>(std::min(static_cast<std::int64_t>(size), most_bytes));
  }
  ssize_t count(Call call, ssize_t result) {
    if (result > 0) tally[call].bytes += result;
    return result;
  }
};

Machine g_machine;

}  // namespace

extern "C" {

int __real_fallocate64(int fd, int mode, off64_t offset, off64_t length);
int __wrap_fallocate64(int fd, int mode, off64_t offset, off64_t length);
int __real_fstatfs64(int fd, struct statfs64 *to);
int __wrap_fstatfs64(int fd, struct statfs64 *to);
int __real_ftruncate64(int fd, off64_t size);
int __wrap_ftruncate64(int fd, off64_t size);
ssize_t __real_pread64(int fd, void *to, size_t size, off64_t offset);
ssize_t __wrap_pread64(int fd, void *to, size_t size, off64_t offset);
ssize_t __real_pwrite64(int fd, const void *from, size_t size, off64_t offset);
ssize_t __wrap_pwrite64(int fd, const void *from, size_t size, off64_t offset);
int __wrap___dlog_print(int buffer, int priority, const char *tag, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

int __wrap_fallocate64(int fd, int mode, off64_t offset, off64_t length) {
  if (g_machine.fails(kCollapse)) return -1;
  return __real_fallocate64(fd, mode, offset, length);
}

int __wrap_fstatfs64(int fd, struct statfs64 *to) {
  return g_machine.fails(kFstatfs) ? -1 : __real_fstatfs64(fd, to);
}

int __wrap_ftruncate64(int fd, off64_t size) {
  return g_machine.fails(kTruncate) ? -1 : __real_ftruncate64(fd, size);
}

ssize_t __wrap_pread64(int fd, void *to, size_t size, off64_t offset) {
  if (g_machine.fails(kRead)) return -1;
  return g_machine.count(kRead, __real_pread64(fd, to, g_machine.limit(size), offset));
}

ssize_t __wrap_pwrite64(int fd, const void *from, size_t size, off64_t offset) {
  if (g_machine.fails(kWrite)) {
    const int error = errno;
    if (g_machine.failing_writes_arrive) __real_pwrite64(fd, from, size, offset);
    errno = error;
    return -1;
  }
  return g_machine.count(kWrite, __real_pwrite64(fd, from, g_machine.limit(size), offset));
}

int __wrap___dlog_print(int buffer, int priority, const char *tag, const char *format, ...) {
  EXPECT_EQ(buffer, 2);
  EXPECT_STREQ(tag, "PLEXA_HOST");
  char text[1024];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  (priority == 6 ? g_machine.errors : g_machine.details).emplace_back(text);
  errno = EXDEV;  // the caller keeps errno itself
  return 0;
}

#if __SIZEOF_POINTER__ == 4
int __real___fstat64_time64(int fd, struct stat64 *to);
int __wrap___fstat64_time64(int fd, struct stat64 *to);
int __wrap___fstat64_time64(int fd, struct stat64 *to) {
  return g_machine.fails(kFstat) ? -1 : __real___fstat64_time64(fd, to);
}
void *__real__ZnajRKSt9nothrow_t(size_t size, const std::nothrow_t &tag);
void *__wrap__ZnajRKSt9nothrow_t(size_t size, const std::nothrow_t &tag);
void *__wrap__ZnajRKSt9nothrow_t(size_t size, const std::nothrow_t &tag) {
  return g_machine.fails(kAllocate) ? nullptr : __real__ZnajRKSt9nothrow_t(size, tag);
}
#else
int __real_fstat64(int fd, struct stat64 *to);
int __wrap_fstat64(int fd, struct stat64 *to);
int __wrap_fstat64(int fd, struct stat64 *to) {
  return g_machine.fails(kFstat) ? -1 : __real_fstat64(fd, to);
}
void *__real__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t &tag);
void *__wrap__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t &tag);
void *__wrap__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t &tag) {
  return g_machine.fails(kAllocate) ? nullptr : __real__ZnamRKSt9nothrow_t(size, tag);
}
#endif
}

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using Bytes = std::vector<char>;

constexpr std::int64_t kBlock = 4096;
constexpr std::int64_t kEraseUnit = 192512;  // 47 blocks
constexpr std::int64_t kGiB = std::int64_t{1} << 30;

// ---- Files -------------------------------------------------------------------------------------

enum class Where { disk, memory };

// GoogleTest looks for this name.
[[maybe_unused]] void PrintTo(Where where, std::ostream *to) {
  *to << (where == Where::disk ? "disk" : "memory");
}

class File {
 public:
  explicit File(Where where, int flags = O_RDWR)
      : fd_(where == Where::memory
                ? memfd_create("truncate-range", MFD_CLOEXEC)
                : open(PLEXA_HOST_TEST_DIR, O_TMPFILE | O_CLOEXEC | flags, 0600)) {
    EXPECT_GE(fd_, 0) << strerror(errno);
  }
  ~File() { close(fd_); }
  File(const File &) = delete;
  File &operator=(const File &) = delete;

  int fd() const { return fd_; }

  void write_at(std::int64_t offset, const Bytes &bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t now = __real_pwrite64(fd_, bytes.data() + done, bytes.size() - done,
                                          offset + static_cast<std::int64_t>(done));
      ASSERT_GT(now, 0) << strerror(errno);
      done += static_cast<std::size_t>(now);
    }
  }
  Bytes read_at(std::int64_t offset, std::int64_t size) const {
    Bytes bytes(static_cast<std::size_t>(size));
    std::size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t now = __real_pread64(fd_, bytes.data() + done, bytes.size() - done,
                                         offset + static_cast<std::int64_t>(done));
      if (now <= 0) break;
      done += static_cast<std::size_t>(now);
    }
    bytes.resize(done);
    return bytes;
  }
  void replace(const Bytes &bytes) {
    resize(0);
    write_at(0, bytes);
  }
  void resize(std::int64_t size) { ASSERT_EQ(__real_ftruncate64(fd_, size), 0); }
  std::int64_t size() const { return lseek64(dup_for_seeking(), 0, SEEK_END); }
  Bytes contents() const { return read_at(0, size()); }

 private:
  // A position of its own, so that looking at the size does not move the descriptor's.
  int dup_for_seeking() const {
    static int fd = -1;
    if (fd >= 0) close(fd);
    fd = open(("/proc/self/fd/" + std::to_string(fd_)).c_str(), O_RDONLY | O_CLOEXEC);
    return fd;
  }

  const int fd_;
};

// No two neighbourhoods look alike, so that a byte at a wrong place shows.
Bytes pattern(std::int64_t size, unsigned seed = 1) {
  Bytes bytes(static_cast<std::size_t>(size));
  std::minstd_rand random(seed);
  std::generate(bytes.begin(), bytes.end(), [&random] { return static_cast<char>(random() >> 8); });
  return bytes;
}

Bytes without(Bytes bytes, std::int64_t start, std::int64_t end) {
  const auto size = static_cast<std::int64_t>(bytes.size());
  bytes.erase(bytes.begin() + std::min(start, size), bytes.begin() + std::min(end, size));
  return bytes;
}

// Asks the disk itself, past all replaced calls.
bool disk_collapses() {
  File probe(Where::disk);
  probe.resize(16 * kBlock);
  return __real_fallocate64(probe.fd(), FALLOC_FL_COLLAPSE_RANGE, 0, kBlock) == 0;
}

class TruncateRangeTest : public testing::Test {
 protected:
  TruncateRangeTest() { g_machine = Machine(); }
  ~TruncateRangeTest() override { g_machine = Machine(); }

  // The errno of a failure is in error_.
  int remove_range(int fd, std::int64_t start, std::int64_t end) {
    pvr_truncate_range_s request = {start, end, "rec.kvf"};
    errno = 0;
    const int result = ppi_pvr_control_file_truncate_range(fd, &request);
    error_ = errno;
    return result;
  }
  int remove_range(const File &file, std::int64_t start, std::int64_t end) {
    return remove_range(file.fd(), start, end);
  }

  void expect_refused(const File &file, std::int64_t start, std::int64_t end, int error) {
    const Bytes before = file.contents();
    EXPECT_EQ(remove_range(file, start, end), -1) << start << " to " << end;
    EXPECT_EQ(error_, error) << start << " to " << end;
    EXPECT_EQ(file.contents(), before);
    EXPECT_EQ(calls(kTruncate) + calls(kCollapse) + calls(kWrite), 0);
  }

  static void always_fail(Call wanted, int error) {
    g_machine.fault = [wanted, error](Call call, int) { return call == wanted ? error : 0; };
  }
  static void refuse_to_collapse() { always_fail(kCollapse, EOPNOTSUPP); }

  static int calls(Call call) { return g_machine.tally[call].calls; }
  static std::int64_t bytes(Call call) { return g_machine.tally[call].bytes; }

  int error_ = 0;
};

// The same for a disk that collapses. Where the disk does not, the test says that it was skipped.
class CollapseTest : public TruncateRangeTest {
 protected:
  void SetUp() override {
    if (!disk_collapses()) GTEST_SKIP() << PLEXA_HOST_TEST_DIR << " is on no disk that collapses";
  }
};

// ---- Refusals ----------------------------------------------------------------------------------

TEST_F(TruncateRangeTest, ANullRequestIsRefused) {
  File file(Where::memory);
  errno = 0;
  EXPECT_EQ(ppi_pvr_control_file_truncate_range(file.fd(), nullptr), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(TruncateRangeTest, RangesThatAreNoneAreRefused) {
  File file(Where::memory);
  file.replace(pattern(10000));
  expect_refused(file, -1, 100, EINVAL);
  expect_refused(file, std::numeric_limits<std::int64_t>::min(), 100, EINVAL);
  expect_refused(file, 100, 100, EINVAL);
  expect_refused(file, 101, 100, EINVAL);
  expect_refused(file, 100, -1, EINVAL);
  expect_refused(file, 0, std::numeric_limits<std::int64_t>::min(), EINVAL);
}

TEST_F(TruncateRangeTest, ARangeThatBeginsAtTheEndOrBehindItIsRefused) {
  File file(Where::memory);
  file.replace(pattern(10000));
  expect_refused(file, 10000, 10001, EINVAL);
  expect_refused(file, 20000, 30000, EINVAL);
  file.resize(0);
  expect_refused(file, 0, 1, EINVAL);
}

TEST_F(TruncateRangeTest, ADescriptorThatIsNotOpenIsRefused) {
  EXPECT_EQ(remove_range(-1, 0, 1), -1);
  EXPECT_EQ(error_, EBADF);
  EXPECT_EQ(remove_range(1 << 20, 0, 1), -1);
  EXPECT_EQ(error_, EBADF);
}

TEST_F(TruncateRangeTest, ADescriptorForOneDirectionOnlyIsRefused) {
  File file(Where::memory);
  file.replace(pattern(10000));
  const std::string path = "/proc/self/fd/" + std::to_string(file.fd());
  for (const int flags : {O_RDONLY, O_WRONLY, O_PATH}) {
    const int other = open(path.c_str(), flags | O_CLOEXEC);
    ASSERT_GE(other, 0);
    EXPECT_EQ(remove_range(other, 0, 5000), -1) << flags;
    EXPECT_EQ(error_, EBADF) << flags;
    close(other);
  }
  EXPECT_EQ(file.contents(), pattern(10000));
}

TEST_F(TruncateRangeTest, ADescriptorWhoseWritesIgnoreOffsetsIsRefused) {
  File file(Where::disk, O_RDWR | O_APPEND);
  file.replace(pattern(10000));
  expect_refused(file, 0, 4096, EINVAL);
}

TEST_F(TruncateRangeTest, ADescriptorWhoseTransfersNeedAlignmentIsRefused) {
  File file(Where::memory);
  file.replace(pattern(10000));
  if (fcntl(file.fd(), F_SETFL, O_DIRECT) != 0) {
    File disk(Where::disk);
    disk.replace(pattern(10000));
    ASSERT_EQ(fcntl(disk.fd(), F_SETFL, O_DIRECT), 0);
    EXPECT_EQ(remove_range(disk, 0, 4096), -1);
    EXPECT_EQ(error_, EINVAL);
    EXPECT_EQ(disk.size(), 10000);
    return;
  }
  expect_refused(file, 0, 4096, EINVAL);
}

TEST_F(TruncateRangeTest, AnythingButARegularFileIsRefused) {
  int sockets[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets), 0);
  EXPECT_EQ(remove_range(sockets[0], 0, 1), -1);
  EXPECT_EQ(error_, EINVAL);
  close(sockets[0]);
  close(sockets[1]);
}

TEST_F(TruncateRangeTest, AFileWhoseSizeCannotBeAskedIsLeftAlone) {
  File file(Where::memory);
  file.replace(pattern(10000));
  always_fail(kFstat, EOVERFLOW);
  expect_refused(file, 0, 100, EOVERFLOW);
}

// ---- Truncation --------------------------------------------------------------------------------

class TruncationTest : public TruncateRangeTest,
                       public testing::WithParamInterface<std::int64_t> {};

TEST_P(TruncationTest, ARangeThatReachesTheEndCutsTheFileThereAndCopiesNothing) {
  File file(Where::disk);
  const Bytes before = pattern(3 * kEraseUnit);
  for (const std::int64_t start :
       {std::int64_t{0}, std::int64_t{1}, kEraseUnit, 3 * kEraseUnit - 1}) {
    g_machine = Machine();
    file.replace(before);
    EXPECT_EQ(remove_range(file, start, GetParam()), 0);
    EXPECT_EQ(file.contents(), without(before, start, GetParam()));
    EXPECT_EQ(calls(kTruncate), 1);
    EXPECT_EQ(calls(kCollapse) + calls(kRead) + calls(kWrite), 0);
    EXPECT_THAT(g_machine.details, ElementsAre(HasSubstr(" by truncating")));
  }
}

INSTANTIATE_TEST_SUITE_P(Ends, TruncationTest,
                         testing::Values(3 * kEraseUnit, 3 * kEraseUnit + 1, 4 * kEraseUnit,
                                         std::numeric_limits<std::int64_t>::max()));

TEST_F(TruncateRangeTest, AnInterruptedTruncationIsRepeated) {
  File file(Where::memory);
  file.replace(pattern(10000));
  g_machine.fault = [](Call call, int) {
    return call == kTruncate && calls(kTruncate) < 3 ? EINTR : 0;
  };
  EXPECT_EQ(remove_range(file, 5000, 10000), 0);
  EXPECT_EQ(file.size(), 5000);
}

// ---- Collapsing --------------------------------------------------------------------------------

TEST_F(CollapseTest, WholeBlocksAreCollapsedAndNothingIsCopied) {
  File file(Where::disk);
  const Bytes before = pattern(5 * kEraseUnit + 188);
  file.replace(before);
  EXPECT_EQ(remove_range(file, kEraseUnit, 3 * kEraseUnit), 0);
  EXPECT_EQ(file.contents(), without(before, kEraseUnit, 3 * kEraseUnit));
  EXPECT_EQ(calls(kCollapse), 1);
  EXPECT_EQ(calls(kRead) + calls(kWrite) + calls(kAllocate) + calls(kTruncate), 0);
  EXPECT_THAT(g_machine.details,
              ElementsAre("rec.kvf: removed bytes 192512 to 577536 by collapsing"));
  EXPECT_THAT(g_machine.errors, IsEmpty());
}

TEST_F(CollapseTest, TheFrontOfAFileIsCollapsed) {
  File file(Where::disk);
  const Bytes before = pattern(5 * kEraseUnit);
  file.replace(before);
  EXPECT_EQ(remove_range(file, 0, 4 * kEraseUnit), 0);
  EXPECT_EQ(file.contents(), without(before, 0, 4 * kEraseUnit));
  EXPECT_EQ(calls(kCollapse), 1);
  EXPECT_EQ(calls(kWrite), 0);
}

TEST_F(CollapseTest, WholeBlocksThatBeginInsideABlockCostLessThanABlockOfCopying) {
  File file(Where::disk);
  const Bytes before = pattern(5 * kEraseUnit);
  for (const std::int64_t start : {std::int64_t{188}, kBlock - 1, kEraseUnit + 1}) {
    g_machine = Machine();
    file.replace(before);
    EXPECT_EQ(remove_range(file, start, start + kEraseUnit), 0);
    EXPECT_EQ(file.contents(), without(before, start, start + kEraseUnit)) << start;
    EXPECT_EQ(calls(kCollapse), 1);
    EXPECT_EQ(calls(kTruncate), 0);
    EXPECT_LT(bytes(kWrite), kBlock);
    EXPECT_THAT(g_machine.details, ElementsAre(HasSubstr(" by collapsing")));
  }
}

TEST_F(CollapseTest, AFileLargerThanFourGigabytesCollapses) {
  File file(Where::disk);
  file.resize(5 * kGiB + kEraseUnit);
  file.write_at(0, pattern(kEraseUnit, 1));
  file.write_at(3 * kEraseUnit, pattern(kEraseUnit, 2));
  file.write_at(5 * kGiB, pattern(kEraseUnit, 3));
  EXPECT_EQ(remove_range(file, kEraseUnit, 3 * kEraseUnit), 0);
  EXPECT_EQ(calls(kCollapse), 1);
  EXPECT_EQ(calls(kTruncate), 0);
  EXPECT_EQ(file.size(), 5 * kGiB - kEraseUnit);
  EXPECT_EQ(file.read_at(0, kEraseUnit), pattern(kEraseUnit, 1));
  EXPECT_EQ(file.read_at(kEraseUnit, kEraseUnit), pattern(kEraseUnit, 2));
  EXPECT_EQ(file.read_at(5 * kGiB - 2 * kEraseUnit, kEraseUnit), pattern(kEraseUnit, 3));
}

TEST_F(CollapseTest, ARangeBehindFourGigabytesCollapses) {
  File file(Where::disk);
  file.resize(5 * kGiB + 3 * kEraseUnit);
  file.write_at(5 * kGiB, pattern(3 * kEraseUnit));
  EXPECT_EQ(remove_range(file, kGiB, 5 * kGiB + kBlock), 0);
  EXPECT_EQ(calls(kCollapse), 1);
  EXPECT_EQ(calls(kTruncate), 0);
  EXPECT_EQ(file.size(), kGiB + 3 * kEraseUnit - kBlock);
  EXPECT_EQ(file.read_at(kGiB, 3 * kEraseUnit), without(pattern(3 * kEraseUnit), 0, kBlock));
}

// Whatever a file system answers that means "not this way", the bytes are moved instead.
class RefusalTest : public TruncateRangeTest, public testing::WithParamInterface<int> {};

TEST_P(RefusalTest, ACollapseThatIsRefusedIsDoneByMoving) {
  File file(Where::disk);
  const Bytes before = pattern(5 * kEraseUnit);
  file.replace(before);
  always_fail(kCollapse, GetParam());
  EXPECT_EQ(remove_range(file, kEraseUnit, 2 * kEraseUnit), 0);
  EXPECT_EQ(file.contents(), without(before, kEraseUnit, 2 * kEraseUnit));
  EXPECT_EQ(calls(kCollapse), 1);
  EXPECT_EQ(bytes(kWrite), 3 * kEraseUnit);
  EXPECT_THAT(g_machine.details, ElementsAre(HasSubstr(" by moving the rest")));
  EXPECT_THAT(g_machine.errors, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Errors, RefusalTest,
                         testing::Values(EINVAL, EOPNOTSUPP, ENOSYS, EPERM, EACCES, ENODEV,
                                         ETXTBSY));

// Any other error may come in the middle of it.
class BrokenCollapseTest : public TruncateRangeTest, public testing::WithParamInterface<int> {};

TEST_P(BrokenCollapseTest, ACollapseThatBreaksOffIsReportedAndNothingElseIsTried) {
  File file(Where::disk);
  file.replace(pattern(5 * kEraseUnit));
  always_fail(kCollapse, GetParam());
  EXPECT_EQ(remove_range(file, kEraseUnit, 2 * kEraseUnit), -1);
  EXPECT_EQ(error_, GetParam());
  EXPECT_EQ(calls(kCollapse), 1);
  EXPECT_EQ(calls(kWrite) + calls(kTruncate), 0);
  EXPECT_THAT(g_machine.errors,
              ElementsAre("rec.kvf: removing bytes 192512 to 385024: the file system broke off "
                          "collapsing bytes 192512 to 385024, errno=[" +
                          std::to_string(GetParam()) + ":" + strerror(GetParam()) +
                          "]; how much it removed is unknown, check the file"));
  EXPECT_THAT(g_machine.details, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Errors, BrokenCollapseTest,
                         testing::Values(EIO, ENOSPC, ENOMEM, EINTR, EDQUOT));

// ---- Moving ------------------------------------------------------------------------------------

TEST_F(TruncateRangeTest, ARangeOfPartBlocksIsMovedWithoutAskingTheFileSystem) {
  File file(Where::disk);
  const Bytes before = pattern(5 * kEraseUnit);
  file.replace(before);
  EXPECT_EQ(remove_range(file, kEraseUnit, kEraseUnit + 188), 0);
  EXPECT_EQ(file.contents(), without(before, kEraseUnit, kEraseUnit + 188));
  EXPECT_EQ(calls(kCollapse), 0);
  EXPECT_EQ(calls(kTruncate), 1);
}

TEST_F(TruncateRangeTest, WhereTheBlockSizeCannotBeAskedTheRestIsMoved) {
  File file(Where::disk);
  const Bytes before = pattern(5 * kEraseUnit);
  file.replace(before);
  always_fail(kFstatfs, EIO);
  EXPECT_EQ(remove_range(file, kEraseUnit, 2 * kEraseUnit), 0);
  EXPECT_EQ(file.contents(), without(before, kEraseUnit, 2 * kEraseUnit));
  EXPECT_EQ(calls(kCollapse), 0);
}

TEST_F(TruncateRangeTest, AFileInMemoryIsMovedAfterTheKernelRefused) {
  File file(Where::memory);
  const Bytes before = pattern(5 * kEraseUnit);
  file.replace(before);
  EXPECT_EQ(remove_range(file, kEraseUnit, 2 * kEraseUnit), 0);
  EXPECT_EQ(file.contents(), without(before, kEraseUnit, 2 * kEraseUnit));
  EXPECT_EQ(calls(kCollapse), 1);
  EXPECT_EQ(calls(kTruncate), 1);
}

TEST_F(TruncateRangeTest, AShortRestIsMovedWithoutCollapsing) {
  File file(Where::disk);
  const Bytes before = pattern(2 * kBlock + 100);
  file.replace(before);
  EXPECT_EQ(remove_range(file, 90, 90 + 2 * kBlock), 0);  // ten bytes stay behind the range
  EXPECT_EQ(file.contents(), without(before, 90, 90 + 2 * kBlock));
  EXPECT_EQ(calls(kCollapse), 0);
  EXPECT_EQ(bytes(kWrite), 10);
}

TEST_F(TruncateRangeTest, ARestOfSeveralBuffersIsMoved) {
  File file(Where::memory);
  const Bytes before = pattern(5'000'000);
  file.replace(before);
  EXPECT_EQ(remove_range(file, 1000, 2'000'001), 0);
  EXPECT_EQ(file.contents(), without(before, 1000, 2'000'001));
  EXPECT_EQ(calls(kAllocate), 1);
  EXPECT_LE(calls(kRead), 3);
  EXPECT_LE(calls(kWrite), 3);
}

TEST_F(TruncateRangeTest, ARangeOfOneByteIsMovedByteByByte) {
  File file(Where::memory);
  const Bytes before = pattern(5000);
  file.replace(before);
  EXPECT_EQ(remove_range(file, 10, 11), 0);
  EXPECT_EQ(file.contents(), without(before, 10, 11));
  EXPECT_EQ(calls(kRead), 1);
}

TEST_F(TruncateRangeTest, OffsetsPastFourGigabytesAreMoved) {
  File file(Where::disk);
  file.resize(5 * kGiB);
  file.write_at(5 * kGiB - 1000, pattern(3 * kEraseUnit));
  EXPECT_EQ(remove_range(file, 5 * kGiB, 5 * kGiB + 777), 0);
  EXPECT_EQ(file.size(), 5 * kGiB - 1000 + 3 * kEraseUnit - 777);
  EXPECT_EQ(file.read_at(5 * kGiB - 1000, 3 * kEraseUnit),
            without(pattern(3 * kEraseUnit), 1000, 1777));
  EXPECT_EQ(calls(kCollapse), 0);
}

TEST_F(TruncateRangeTest, TheDescriptorsPositionStays) {
  for (const std::int64_t end : {kEraseUnit, kEraseUnit + 188, 9 * kEraseUnit}) {
    File file(Where::disk);
    file.replace(pattern(5 * kEraseUnit));
    ASSERT_EQ(lseek64(file.fd(), 4711, SEEK_SET), 4711);
    EXPECT_EQ(remove_range(file, 0, end), 0);
    EXPECT_EQ(lseek64(file.fd(), 0, SEEK_CUR), 4711);
  }
}

TEST_F(TruncateRangeTest, ShortReadsAndWritesAreContinued) {
  File file(Where::memory);
  const Bytes before = pattern(3 * kEraseUnit);
  file.replace(before);
  g_machine.most_bytes = 1000;
  EXPECT_EQ(remove_range(file, 188, kEraseUnit), 0);
  EXPECT_EQ(file.contents(), without(before, 188, kEraseUnit));
  EXPECT_GT(calls(kRead), 300);
  EXPECT_GT(calls(kWrite), 300);
}

TEST_F(TruncateRangeTest, InterruptedReadsAndWritesAreRepeated) {
  File file(Where::memory);
  const Bytes before = pattern(3 * kEraseUnit);
  file.replace(before);
  g_machine.most_bytes = 10000;
  g_machine.fault = [](Call call, int nth) {
    return (call == kRead || call == kWrite) && nth % 2 == 0 ? EINTR : 0;
  };
  EXPECT_EQ(remove_range(file, 188, kEraseUnit), 0);
  EXPECT_EQ(file.contents(), without(before, 188, kEraseUnit));
}

TEST_F(TruncateRangeTest, AnUnterminatedNameIsPrintedToItsEnd) {
  File file(Where::memory);
  file.replace(pattern(1000));
  struct {
    pvr_truncate_range_s request;
    char next[8];
  } memory = {{0, 1000, {}}, "next"};
  memset(memory.request.file_name, 'n', sizeof memory.request.file_name);
  EXPECT_EQ(ppi_pvr_control_file_truncate_range(file.fd(), &memory.request), 0);
  EXPECT_THAT(g_machine.details,
              ElementsAre(std::string(64, 'n') + ": removed bytes 0 to 1000 by truncating"));
}

// ---- Against a model ---------------------------------------------------------------------------

class ModelTest : public TruncateRangeTest, public testing::WithParamInterface<Where> {};

TEST_P(ModelTest, RandomRangesLeaveWhatTheModelLeaves) {
  std::mt19937 random(20240229);
  const auto below = [&random](std::int64_t limit) {
    return std::uniform_int_distribution<std::int64_t>(0, limit - 1)(random);
  };
  // Offsets that file systems, packets and neither care about.
  const auto offset = [&](std::int64_t limit) {
    const std::int64_t any = below(limit);
    const std::int64_t grain =
        std::array<std::int64_t, 3>{1, 188, kBlock}[static_cast<size_t>(below(3))];
    return any / grain * grain;
  };
  File file(GetParam());
  int moved = 0;
  int truncated = 0;
  int collapsed = 0;
  for (int round = 0; round < 600; ++round) {
    g_machine = Machine();
    const Bytes before = pattern(1 + below(100'000), static_cast<unsigned>(round + 1));
    const auto size = static_cast<std::int64_t>(before.size());
    const std::int64_t start = offset(size);
    const std::int64_t length = 1 + below(3) == 1 ? kBlock * (1 + below(10)) : 1 + offset(size);
    file.replace(before);
    ASSERT_EQ(remove_range(file, start, start + length), 0)
        << size << ' ' << start << ' ' << length;
    ASSERT_TRUE(file.contents() == without(before, start, start + length))
        << size << ' ' << start << ' ' << length;
    ASSERT_EQ(g_machine.details.size(), 1u);
    moved += g_machine.details[0].ends_with("by moving the rest") ? 1 : 0;
    truncated += g_machine.details[0].ends_with("by truncating") ? 1 : 0;
    collapsed += g_machine.details[0].ends_with("by collapsing") ? 1 : 0;
  }
  EXPECT_GT(moved, 100);
  EXPECT_GT(truncated, 100);
  if (GetParam() == Where::disk && disk_collapses()) {
    EXPECT_GT(collapsed, 50);
  }
  EXPECT_EQ(moved + truncated + collapsed, 600);
}

INSTANTIATE_TEST_SUITE_P(Files, ModelTest, testing::Values(Where::disk, Where::memory),
                         [](const auto &param_info) {
                           return param_info.param == Where::disk ? "OnDisk" : "InMemory";
                         });

// ---- Failures ----------------------------------------------------------------------------------

struct Gap {
  long long start = -1;
  long long end = -1;
};

// What a message names as still to be removed.
std::optional<Gap> gap_of(const std::string &message) {
  Gap gap;
  const std::size_t lost = message.find("lost, bytes ");
  if (lost != std::string::npos &&
      sscanf(message.c_str() + lost, "lost, bytes %lld to %lld", &gap.start, &gap.end) == 2) {
    return gap;
  }
  const std::size_t broke = message.find("collapsing bytes ");
  if (broke != std::string::npos &&
      sscanf(message.c_str() + broke, "collapsing bytes %lld to %lld", &gap.start, &gap.end) == 2) {
    return gap;
  }
  return std::nullopt;
}

TEST_F(TruncateRangeTest, AFailedTruncationSaysWhatRemains) {
  File file(Where::memory);
  file.replace(pattern(10000));
  always_fail(kTruncate, EIO);
  EXPECT_EQ(remove_range(file, 5000, 10000), -1);
  EXPECT_EQ(error_, EIO);
  EXPECT_EQ(file.contents(), pattern(10000));
  EXPECT_THAT(g_machine.errors,
              ElementsAre("rec.kvf: removing bytes 5000 to 10000: truncate failed, "
                          "errno=[5:Input/output error]; nothing that stays is lost, bytes 5000 to "
                          "10000 remain to be removed"));
}

TEST_F(TruncateRangeTest, AFailedTruncationAfterTheMoveSaysThatOnlyTheEndRemains) {
  File file(Where::memory);
  file.replace(pattern(10000));
  always_fail(kTruncate, EPERM);
  EXPECT_EQ(remove_range(file, 1000, 2000), -1);
  EXPECT_EQ(error_, EPERM);
  EXPECT_THAT(g_machine.errors, ElementsAre(HasSubstr("bytes 9000 to 10000 remain")));
}

TEST_F(TruncateRangeTest, AFullDiskInTheMiddleSaysWhatRemains) {
  File file(Where::memory);
  const Bytes before = pattern(10000);
  file.replace(before);
  g_machine.fault = [](Call call, int) {
    return call == kWrite && calls(kWrite) == 4 ? ENOSPC : 0;
  };
  EXPECT_EQ(remove_range(file, 1000, 2000), -1);
  EXPECT_EQ(error_, ENOSPC);
  EXPECT_THAT(g_machine.errors,
              ElementsAre("rec.kvf: removing bytes 1000 to 2000: write failed, errno=[28:No space "
                          "left on device]; nothing that stays is lost, bytes 4000 to 5000 remain "
                          "to be removed"));
  EXPECT_EQ(without(file.contents(), 4000, 5000), without(before, 1000, 2000));
}

TEST_F(TruncateRangeTest, WithoutMemoryNothingIsTouched) {
  File file(Where::memory);
  file.replace(pattern(10000));
  always_fail(kAllocate, EAGAIN);
  EXPECT_EQ(remove_range(file, 1000, 2000), -1);
  EXPECT_EQ(error_, ENOMEM);
  EXPECT_EQ(file.contents(), pattern(10000));
  EXPECT_THAT(g_machine.errors, ElementsAre(HasSubstr("memory failed")));
}

TEST_F(TruncateRangeTest, AFileThatShrinksMeanwhileEndsTheRemoval) {
  File file(Where::memory);
  file.replace(pattern(10000));
  g_machine.fault = [&file](Call call, int) {
    if (call == kRead) file.resize(4000);
    return 0;
  };
  EXPECT_EQ(remove_range(file, 1000, 2000), -1);
  EXPECT_EQ(error_, EIO);
  EXPECT_THAT(g_machine.errors, ElementsAre(HasSubstr("read failed")));
}

TEST_F(TruncateRangeTest, AWriteThatTakesNothingEndsTheRemoval) {
  File file(Where::memory);
  const Bytes before = pattern(10000);
  file.replace(before);
  g_machine.fault = [](Call call, int) {
    if (call == kWrite) g_machine.most_bytes = 0;
    return 0;
  };
  EXPECT_EQ(remove_range(file, 1000, 2000), -1);
  EXPECT_EQ(error_, EIO);
  EXPECT_EQ(file.contents(), before);
}

struct Sweep {
  const char *name;
  Where where;
  std::int64_t size;
  std::int64_t start;
  std::int64_t end;
  bool collapses;
};

[[maybe_unused]] void PrintTo(const Sweep &sweep, std::ostream *to) { *to << sweep.name; }

class FailureSweepTest : public TruncateRangeTest, public testing::WithParamInterface<Sweep> {
 protected:
  // Makes the n-th call fail, then looks at what is left. False when there is no n-th call.
  bool survives_failure_of_call(int nth, int error) {
    const Sweep &sweep = GetParam();
    const Bytes before = pattern(sweep.size);
    const Bytes after = without(before, sweep.start, sweep.end);
    File file(sweep.where);
    file.replace(before);
    bool fired = false;
    const bool arrive = g_machine.failing_writes_arrive;
    g_machine = Machine();
    g_machine.failing_writes_arrive = arrive;
    g_machine.most_bytes = 3000;
    g_machine.fault = [&](Call call, int number) {
      if (call == kCollapse && !sweep.collapses) return EOPNOTSUPP;
      if (number != nth) return 0;
      fired = true;
      return error;
    };
    const int result = remove_range(file, sweep.start, sweep.end);
    if (result == 0) {
      EXPECT_EQ(file.contents(), after) << "call " << nth;
      EXPECT_THAT(g_machine.errors, IsEmpty()) << "call " << nth;
    } else {
      EXPECT_EQ(result, -1);
      EXPECT_TRUE(error_ == error || error_ == ENOMEM) << strerror(error_);
      expect_finished_by_a_second_call(file, before, after, nth);
    }
    return fired;
  }

  void expect_finished_by_a_second_call(const File &file, const Bytes &before, const Bytes &after,
                                        int nth) {
    if (g_machine.errors.empty()) {  // refused before anything began
      EXPECT_EQ(file.contents(), before) << "call " << nth;
      return;
    }
    const std::optional<Gap> gap = gap_of(g_machine.errors.at(0));
    ASSERT_TRUE(gap) << g_machine.errors.at(0);
    EXPECT_EQ(gap->end - gap->start, GetParam().end - GetParam().start);
    EXPECT_EQ(without(file.contents(), gap->start, gap->end), after) << "call " << nth;
    g_machine = Machine();
    EXPECT_EQ(remove_range(file, gap->start, gap->end), 0) << "call " << nth;
    EXPECT_EQ(file.contents(), after) << "call " << nth;
  }
};

TEST_P(FailureSweepTest, NoFailedCallLosesAByteThatStays) {
  for (const int error : {EIO, ENOSPC}) {
    for (const bool arrive : {false, true}) {
      int nth = 1;
      for (; nth < 10000; ++nth) {
        g_machine.failing_writes_arrive = arrive;
        if (!survives_failure_of_call(nth, error)) break;
        ASSERT_FALSE(HasFailure());
      }
      EXPECT_GE(nth, 3);
      EXPECT_LT(nth, 10000);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Ways, FailureSweepTest,
    testing::Values(Sweep{"Truncation", Where::memory, 10000, 5000, 10000, true},
                    Sweep{"WideGap", Where::memory, 50000, 4000, 30000, true},
                    Sweep{"NarrowGap", Where::memory, 20000, 4000, 4188, true},
                    Sweep{"OneByteGap", Where::memory, 300, 100, 101, true},
                    Sweep{"WholeBlocksRefused", Where::disk, 50000, kBlock, 2 * kBlock, false},
                    Sweep{"PartBlockThenRefused", Where::disk, 50000, 188, 188 + 2 * kBlock, false},
                    Sweep{"WholeBlocksCollapsed", Where::disk, 50000, kBlock, 2 * kBlock, true},
                    Sweep{"PartBlockThenCollapsed", Where::disk, 50000, 188, 188 + 2 * kBlock,
                          true}),
    [](const auto &param_info) { return param_info.param.name; });

}  // namespace
