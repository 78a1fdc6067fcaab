// The buffered layer: open flags, refused paths, one system call an operation, one way to fail.
#include "gst-plexa/gst_file_io.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>

#include "faults.h"
#include "log_capture.h"
#include "temp_dir.h"

namespace plexa_test {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr guint8 kRead = 1;
constexpr guint8 kWrite = 0;
constexpr gint64 kGiB = gint64{1} << 30;

class FileIoTest : public ::testing::Test {
 protected:
  void SetUp() override {
    gst_pvr_file_init(&file_);
    LogCapture::clear();
  }
  void TearDown() override {
    LogCapture::set_hook(nullptr);
    if (descriptor_ > 0) close(descriptor_);
    gst_pvr_file_deinit(&file_);
  }

  gint64 open(const std::string &path, guint8 read_mode, guint8 append_mode = 0,
              guint8 direct_mode = 0) {
    return gst_file_io_open(&file_, &descriptor_, path.c_str(), read_mode, direct_mode,
                            append_mode);
  }
  gint64 close_it() { return gst_file_io_close(&file_, &descriptor_); }
  gint64 write_text(const std::string &text) {
    return gst_file_io_write(&file_, &descriptor_, text.data(), static_cast<guint32>(text.size()));
  }
  std::string text_of(const std::string &path) const {
    const auto bytes = read_file(path);
    return {bytes.begin(), bytes.end()};
  }
  void given(const std::string &path, const std::string &text) {
    write_file(path, {text.begin(), text.end()});
  }
  // An open file with some content, and a log that starts now.
  void given_open(const std::string &text, guint8 read_mode) {
    given(rec_, text);
    ASSERT_EQ(open(rec_, read_mode, 1), 1);
    LogCapture::clear();
  }

  std::string handle_in_brackets() const { return "[" + std::to_string(descriptor_) + "]"; }

  // The failure's two lines, and nothing else: what failed, then the reporter's.
  void expect_failure(const std::string &what, const std::string &call, int error) {
    EXPECT_EQ(file_.var.error_number, error);
    const std::string report = "[EXT_FMG] [PLG_ERR] " + call + " was failed, errno=[" +
                               std::to_string(error) + ":" + std::strerror(error) + "]\n";
    EXPECT_THAT(LogCapture::messages(kError), ElementsAre("[EXT_FMG] [PLG_ERR] " + what, report));
    const auto lines = LogCapture::lines();
    EXPECT_EQ(lines.back().function, "_gst_file_io_error");
  }

  TempDir dir_;
  const std::string rec_ = dir_.file("rec.kvf");
  const std::string index_ = dir_.file("rec.mdb");
  GstPvrFile file_;
  gint32 descriptor_ = -1;
};

// ---- Open flags ----

struct FlagCase {
  const char *name;
  const char *file;
  guint8 read_mode, direct_mode, append_mode;
  long long flags;
};

// The kernel is asked with the large-file flag, which open64 adds below this layer.
constexpr int kNew = O_WRONLY | O_CREAT | O_TRUNC | O_NOATIME;
constexpr int kAppended = O_WRONLY | O_CREAT | O_APPEND | O_NOATIME;
constexpr int kKept = O_WRONLY | O_CREAT | O_NOATIME;

class FlagsTest : public FileIoTest, public ::testing::WithParamInterface<FlagCase> {};

TEST_P(FlagsTest, AreExactlyThese) {
  const FlagCase &c = GetParam();
  long long flags = -1;
  Faults faults;
  faults.fail("open64", ENXIO);  // the flags are what counts
  faults.watch("open64", [&](int, const char *, long long asked) { flags = asked; });
  EXPECT_EQ(open(dir_.file(c.file), c.read_mode, c.append_mode, c.direct_mode), -1);
  EXPECT_EQ(flags, c.flags) << std::hex << flags;
}

INSTANTIATE_TEST_SUITE_P(
    Open, FlagsTest,
    ::testing::Values(FlagCase{"ReadStream", "a.kvf", kRead, 0, 0, O_RDONLY},
                      FlagCase{"ReadStreamAppend", "a.kvf", kRead, 0, 1, O_RDONLY},
                      FlagCase{"ReadStreamDirect", "a.kvf", kRead, 1, 0, O_DIRECT},
                      FlagCase{"ReadIndex", "a.mdb", kRead, 0, 0, O_RDONLY},
                      FlagCase{"ReadIndexAppendDirect", "a.mdb", kRead, 1, 1, O_DIRECT},
                      FlagCase{"WriteStream", "a.kvf", kWrite, 0, 0, kNew},
                      FlagCase{"WriteStreamDirect", "a.kvf", kWrite, 1, 0, kNew | O_DIRECT},
                      FlagCase{"AppendStream", "a.kvf", kWrite, 0, 1, kAppended},
                      FlagCase{"AppendStreamDirect", "a.kvf", kWrite, 1, 1, kAppended | O_DIRECT},
                      FlagCase{"WriteIndex", "a.mdb", kWrite, 0, 0, kNew},
                      FlagCase{"WriteIndexDirect", "a.mdb", kWrite, 1, 0, kNew | O_DIRECT},
                      FlagCase{"AppendIndex", "a.mdb", kWrite, 0, 1, kKept},
                      FlagCase{"AppendIndexDirect", "a.mdb", kWrite, 1, 1, kKept | O_DIRECT},
                      FlagCase{"IndexNameWithinAName", "a.mdb.kvf", kWrite, 0, 1, kAppended}),
    [](const auto &case_info) { return case_info.param.name; });

#if defined(__i386__) || defined(__x86_64__)
TEST(FlagValues, OnX86AreTheOnesThatTracesShow) {
  EXPECT_EQ(kNew, 0x40241);
  EXPECT_EQ(kAppended, 0x40441);
  EXPECT_EQ(kKept, 0x40041);
  EXPECT_EQ(O_DIRECT, 0x4000);
}
#endif

// ---- Open ----

TEST_F(FileIoTest, OpenForReadingLogsItsStepsAtInformationLevel) {
  given(rec_, "abc");
  EXPECT_EQ(open(rec_, kRead), 1);
  EXPECT_THAT(LogCapture::messages(kInfo),
              ElementsAre("[EXT_FMG] enter gst_file_io_open,file_path:" + rec_ +
                              ",read_mode:1,direct_mode:0,append_mode:0",
                          "[EXT_FMG] gst_file_io_open success, handle=" + handle_in_brackets() +
                              ", file path=[" + rec_ +
                              "], read_mode=[1], direct_mode=[0], append_mode=[0]"));
  EXPECT_THAT(LogCapture::messages(kError), IsEmpty());
  EXPECT_EQ(LogCapture::lines()[0].function, "_gst_file_io_get_flags");
  EXPECT_EQ(LogCapture::lines()[1].function, "gst_file_io_open");
}

TEST_F(FileIoTest, AnIndexOpenedForWritingIsLoggedAsOne) {
  EXPECT_EQ(open(index_, kWrite), 1);
  EXPECT_TRUE(logged_in_order({"[EXT_FMG] is_mdb_file == TRUE", "[EXT_FMG] append_mode == FALSE"}));
  EXPECT_LOGGED(kInfo, "[EXT_FMG] is_mdb_file == TRUE");
  EXPECT_LOGGED(kInfo, "[EXT_FMG] append_mode == FALSE");
}

TEST_F(FileIoTest, AnAppendedIndexIsNotLoggedAsFresh) {
  EXPECT_EQ(open(index_, kWrite, 1), 1);
  EXPECT_LOGGED(kInfo, "[EXT_FMG] is_mdb_file == TRUE");
  EXPECT_NOT_LOGGED(kInfo, "[EXT_FMG] append_mode == FALSE");
}

TEST_F(FileIoTest, NeitherAStreamNorAnIndexOpenedForReadingIsLoggedAsIndex) {
  given(index_, "abc");
  EXPECT_EQ(open(index_, kRead), 1);
  close_it();
  EXPECT_EQ(open(rec_, kWrite), 1);
  EXPECT_NOT_LOGGED(kInfo, "[EXT_FMG] is_mdb_file == TRUE");
}

TEST_F(FileIoTest, ACreatedFileHasMode0644) {
  const mode_t old_mask = umask(0);
  EXPECT_EQ(open(rec_, kWrite), 1);
  umask(old_mask);
  struct stat64 status {};
  ASSERT_EQ(stat64(rec_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644u);
}

TEST_F(FileIoTest, TheDescriptorIsClosedOnExec) {
  EXPECT_EQ(open(rec_, kWrite), 1);
  EXPECT_EQ(fcntl(descriptor_, F_GETFD), FD_CLOEXEC);
}

TEST_F(FileIoTest, OpenForWritingEmptiesAStream) {
  given(rec_, "old");
  EXPECT_EQ(open(rec_, kWrite), 1);
  EXPECT_EQ(text_of(rec_), "");
}

TEST_F(FileIoTest, AnAppendedStreamIsWrittenAtItsEndWhateverThePosition) {
  given(rec_, "old");
  EXPECT_EQ(open(rec_, kWrite, 1), 1);
  EXPECT_EQ(gst_file_io_seek(&file_, &descriptor_, 0, SEEK_SET), 0);
  EXPECT_EQ(write_text("new"), 3);
  EXPECT_EQ(text_of(rec_), "oldnew");
}

TEST_F(FileIoTest, AnAppendedIndexIsKeptAndWrittenAtThePosition) {
  given(index_, "old index");
  EXPECT_EQ(open(index_, kWrite, 1), 1);
  EXPECT_EQ(write_text("new"), 3);
  EXPECT_EQ(text_of(index_), "new index");
}

TEST_F(FileIoTest, OpeningAMissingFileForReadingFails) {
  EXPECT_EQ(open(rec_, kRead, 1, 1), -1);
  expect_failure("gst_file_io_open error, file path=[" + rec_ +
                     "], read_mode=[1], direct_mode=[1], append_mode=[1]",
                 "open64", ENOENT);
  EXPECT_EQ(descriptor_, -1);
}

TEST_F(FileIoTest, AFailedOpenLeavesTheDescriptorAsItWas) {
  gint32 other = 77;
  EXPECT_EQ(gst_file_io_open(&file_, &other, rec_.c_str(), kRead, 0, 0), -1);
  EXPECT_EQ(other, 77);
}

TEST_F(FileIoTest, WithoutAPathNothingIsOpened) {
  Faults faults;
  EXPECT_EQ(gst_file_io_open(&file_, &descriptor_, nullptr, kWrite, 0, 0), -1);
  EXPECT_EQ(faults.count("open64"), 0);
  EXPECT_EQ(file_.var.error_number, EFAULT);
  EXPECT_THAT(LogCapture::messages(),
              ElementsAre("[EXT_FMG] [PLG_ERR] open64 was failed, errno=[14:Bad address]\n"));
}

TEST_F(FileIoTest, WhenCloseOnExecCannotBeSetTheDescriptorIsClosedAgain) {
  Faults faults;
  faults.fail("fcntl", EINVAL);
  faults.fail("close", EIO);  // does not hide the first error
  EXPECT_EQ(open(rec_, kWrite), -1);
  EXPECT_EQ(faults.count("close"), 1);
  EXPECT_EQ(descriptor_, -1);
  EXPECT_EQ(file_.var.error_number, EINVAL);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre("[EXT_FMG] [PLG_ERR] fcntl was failed, errno=[22:Invalid argument]\n"));
}

TEST_F(FileIoTest, TheStepsOfAnOpenComeInThisOrder) {
  Faults faults;
  EXPECT_EQ(open(rec_, kWrite), 1);
  EXPECT_THAT(faults.calls(), ElementsAre("realpath", "open64", "fcntl"));
}

// ---- Real path ----

class RealPathTest : public FileIoTest {
 protected:
  void expect_refused(const std::string &path, const std::string &resolved) {
    Faults faults;
    EXPECT_EQ(open(path, kRead), -1);
    EXPECT_EQ(faults.count("open64"), 0);
    expect_failure("path is not same with original(Hacked !!). resolved_path[" + resolved + "]",
                   "fcntl", 56);
    EXPECT_EQ(descriptor_, -1);
  }
};

TEST_F(RealPathTest, ASymbolicLinkToAFileIsRefused) {
  given(rec_, "abc");
  const std::string link = dir_.file("link.kvf");
  fs::create_symlink(rec_, link);
  expect_refused(link, rec_);
  EXPECT_EQ(LogCapture::lines()[1].function, "_check_real_path");
}

TEST_F(RealPathTest, APathThroughALinkedFolderIsRefused) {
  fs::create_directory(dir_.file("there"));
  given(dir_.file("there/rec.kvf"), "abc");
  fs::create_directory_symlink(dir_.file("there"), dir_.file("here"));
  expect_refused(dir_.file("here/rec.kvf"), dir_.file("there/rec.kvf"));
}

TEST_F(RealPathTest, APathWithTwoDotsIsRefused) {
  given(rec_, "abc");
  fs::create_directory(dir_.file("sub"));
  expect_refused(dir_.file("sub/../rec.kvf"), rec_);
}

TEST_F(RealPathTest, OnlyTheGivenPathsLengthIsCompared) {
  given(dir_.file("rec.kvf.part"), "abc");
  fs::create_symlink(dir_.file("rec.kvf.part"), rec_);
  EXPECT_EQ(open(rec_, kRead), 1);
}

TEST_F(RealPathTest, AFileThatIsNotThereYetIsAccepted) {
  EXPECT_EQ(open(dir_.file("new.kvf"), kWrite), 1);
  EXPECT_TRUE(exists(dir_.file("new.kvf")));
}

TEST_F(RealPathTest, APathThatCannotBeResolvedIsAccepted) {
  given(rec_, "abc");
  Faults faults;
  faults.fail("realpath", EACCES);
  EXPECT_EQ(open(rec_, kRead), 1);
}

TEST_F(RealPathTest, AnOverlongPathFailsInTheOpen) {
  EXPECT_EQ(open(dir_.path() + "/" + std::string(5000, 'x') + ".kvf", kRead), -1);
  EXPECT_EQ(file_.var.error_number, ENAMETOOLONG);
}

// ---- Close ----

TEST_F(FileIoTest, CloseFlushesFirst) {
  given_open("abc", kWrite);
  Faults faults;
  EXPECT_EQ(close_it(), 1);
  EXPECT_EQ(descriptor_, -1);
  EXPECT_THAT(faults.calls(), ElementsAre("fsync", "close"));
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(FileIoTest, CloseDoesNotMindAFailedFlush) {
  given_open("abc", kWrite);
  Faults faults;
  faults.fail("fsync", EIO);
  EXPECT_EQ(close_it(), 1);
  EXPECT_EQ(file_.var.error_number, 0);
}

TEST_F(FileIoTest, AFailedCloseKeepsTheDescriptorNumber) {
  given_open("abc", kWrite);
  const gint32 number = descriptor_;
  {
    Faults faults;
    faults.fail("close", EIO);
    EXPECT_EQ(close_it(), -1);
  }
  EXPECT_EQ(descriptor_, number);
  expect_failure("gst_file_io_close error, handle=" + handle_in_brackets(), "close", EIO);
  descriptor_ = -1;  // the kernel has let it go
}

class NotOpenTest : public FileIoTest, public ::testing::WithParamInterface<gint32> {};

TEST_P(NotOpenTest, IsACloseFailure) {
  descriptor_ = GetParam();
  Faults faults;
  EXPECT_EQ(close_it(), -1);
  EXPECT_THAT(faults.calls(), IsEmpty());
  EXPECT_EQ(descriptor_, GetParam());
  expect_failure("gst_file_io_close error, handle=" + handle_in_brackets(), "close", EBADF);
}

INSTANTIATE_TEST_SUITE_P(Descriptor, NotOpenTest, ::testing::Values(0, -1));

// ---- Transfers ----

TEST_F(FileIoTest, ReadGivesTheBytesAndThenZero) {
  given_open("abcde", kRead);
  char buffer[8] = {};
  EXPECT_EQ(gst_file_io_read(&file_, &descriptor_, buffer, 8), 5);
  EXPECT_STREQ(buffer, "abcde");
  EXPECT_EQ(gst_file_io_read(&file_, &descriptor_, buffer, 8), 0);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(FileIoTest, AShortReadIsReturnedAsItIs) {
  given_open("abcde", kRead);
  char buffer[8] = {};
  Faults faults;
  faults.shorten("read", 2);
  EXPECT_EQ(gst_file_io_read(&file_, &descriptor_, buffer, 5), 2);
  EXPECT_EQ(faults.count("read"), 1);
}

TEST_F(FileIoTest, AnInterruptedReadIsNotRetried) {
  given_open("abcde", kRead);
  char buffer[8] = {};
  Faults faults;
  faults.fail("read", EINTR);
  EXPECT_EQ(gst_file_io_read(&file_, &descriptor_, buffer, 5), -1);
  EXPECT_EQ(faults.count("read"), 1);
  expect_failure("gst_file_io_read error, handle=" + handle_in_brackets(), "read", EINTR);
}

TEST_F(FileIoTest, WriteWritesTheBytes) {
  given_open("", kWrite);
  EXPECT_EQ(write_text("hello"), 5);
  EXPECT_EQ(text_of(rec_), "hello");
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(FileIoTest, WritingNothingIsNoFailure) {
  given_open("", kWrite);
  EXPECT_EQ(write_text(""), 0);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(FileIoTest, AShortWriteIsReturnedAsItIs) {
  given_open("", kWrite);
  Faults faults;
  faults.shorten("write", 2);
  EXPECT_EQ(write_text("hello"), 2);
  EXPECT_EQ(faults.count("write"), 1);
}

TEST_F(FileIoTest, AFailedWriteIsReported) {
  given_open("", kWrite);
  Faults faults;
  faults.fail("write", ENOSPC);
  EXPECT_EQ(write_text("hello"), -1);
  EXPECT_EQ(faults.count("write"), 1);
  expect_failure("gst_file_io_write error, handle=" + handle_in_brackets(), "write", ENOSPC);
}

// ---- Position ----

TEST_F(FileIoTest, SeekKnowsTheThreeOrigins) {
  given_open("0123456789", kRead);
  EXPECT_EQ(gst_file_io_seek(&file_, &descriptor_, 4, 0), 4);
  EXPECT_EQ(gst_file_io_seek(&file_, &descriptor_, 3, 1), 7);
  EXPECT_EQ(gst_file_io_seek(&file_, &descriptor_, -1, 2), 9);
  EXPECT_EQ(gst_file_io_tell(&file_, &descriptor_), 9);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(FileIoTest, PositionsAndSizesPassFourGiB) {
  given(rec_, "");
  fs::resize_file(rec_, 5 * kGiB + 3);
  ASSERT_EQ(open(rec_, kRead), 1);
  EXPECT_EQ(gst_file_io_seek(&file_, &descriptor_, 5 * kGiB, SEEK_SET), 5 * kGiB);
  EXPECT_EQ(gst_file_io_tell(&file_, &descriptor_), 5 * kGiB);
  EXPECT_EQ(gst_file_io_seek(&file_, &descriptor_, 0, SEEK_END), 5 * kGiB + 3);
  EXPECT_EQ(gst_file_io_size(&file_, rec_.c_str()), 5 * kGiB + 3);
}

TEST_F(FileIoTest, ASeekBeforeTheStartIsReported) {
  given_open("abc", kRead);
  EXPECT_EQ(gst_file_io_seek(&file_, &descriptor_, -1, SEEK_SET), -1);
  expect_failure("gst_file_io_seek error, handle=" + handle_in_brackets(), "lseek64", EINVAL);
}

TEST_F(FileIoTest, AFailedTellIsReportedUnderItsOwnName) {
  given_open("abc", kRead);
  Faults faults;
  faults.fail("lseek64", ESPIPE);
  EXPECT_EQ(gst_file_io_tell(&file_, &descriptor_), -1);
  expect_failure("gst_file_io_tell error, handle=" + handle_in_brackets(), "tell", ESPIPE);
}

// ---- Size and fsync ----

TEST_F(FileIoTest, SizeAsksThePath) {
  given(rec_, "12345");
  EXPECT_EQ(gst_file_io_size(&file_, rec_.c_str()), 5);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(FileIoTest, TheSizeOfAMissingFileIsReported) {
  EXPECT_EQ(gst_file_io_size(&file_, rec_.c_str()), -1);
  expect_failure("gst_file_io_size error, file_path=[" + rec_ + "]", "stat64", ENOENT);
}

TEST_F(FileIoTest, TheSizeOfNoPathIsReported) {
  EXPECT_EQ(gst_file_io_size(&file_, nullptr), -1);
  expect_failure("gst_file_io_size error, file_path=[(null)]", "stat64", EFAULT);
}

TEST_F(FileIoTest, FsyncGivesZero) {
  given_open("abc", kWrite);
  Faults faults;
  EXPECT_EQ(gst_file_io_fsync(&file_, &descriptor_), 0);
  EXPECT_THAT(faults.calls(), ElementsAre("fsync"));
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(FileIoTest, AFailedFsyncIsReported) {
  given_open("abc", kWrite);
  Faults faults;
  faults.fail("fsync", EIO);
  EXPECT_EQ(gst_file_io_fsync(&file_, &descriptor_), -1);
  expect_failure("gst_file_io_fsync error, handle=" + handle_in_brackets(), "fsync", EIO);
}

// ---- Error number ----

TEST_F(FileIoTest, TheErrorNumberSurvivesALogThatDisturbsErrno) {
  given_open("abc", kRead);
  LogCapture::set_hook([] { errno = ECHILD; });
  char buffer[4];
  Faults faults;
  faults.fail("read", EIO);
  EXPECT_EQ(gst_file_io_read(&file_, &descriptor_, buffer, 4), -1);
  EXPECT_EQ(errno, EIO);
  expect_failure("gst_file_io_read error, handle=" + handle_in_brackets(), "read", EIO);
}

TEST_F(FileIoTest, SuccessKeepsTheLastErrorNumber) {
  given_open("abc", kRead);
  EXPECT_EQ(gst_file_io_seek(&file_, &descriptor_, -1, SEEK_SET), -1);
  EXPECT_EQ(gst_file_io_seek(&file_, &descriptor_, 0, SEEK_SET), 0);
  EXPECT_EQ(file_.var.error_number, EINVAL);
}

}  // namespace
}  // namespace plexa_test
