// Partial delete: whole units out of a stream, in place, through the platform or the box.
#include "gst-plexa/gst_edit_unit.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "fake_platform.h"
#include "faults.h"
#include "gst-plexa/gst_pvr_file.h"
#include "gst-plexa/gst_zeb.h"
#include "library_state.h"
#include "log_capture.h"
#include "temp_dir.h"

namespace {

// What the box was asked, and its answer.
struct Box {
  gint32 connected = 0;
  gint32 answer = 0;
  int calls = 0;
  std::string path;
  long long start = 0;
  long long end = 0;
  const gchar *new_name = nullptr;
};
Box box;

}  // namespace

gint32 gst_zeb_is_connected(void) { return box.connected; }

extern "C" {
gint32 __wrap_gst_pvr_file_cut_file(const gchar *path, gint64 start, gint64 end,
                                    const gchar *new_name);
gint32 __wrap_gst_pvr_file_cut_file(const gchar *path, gint64 start, gint64 end,
                                    const gchar *new_name) {
  ++box.calls;
  box.path = path;
  box.start = start;
  box.end = end;
  box.new_name = new_name;
  return box.answer;
}
}

namespace plexa_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr long long kUnit = 192512;

struct Asked {
  int fd;
  int64_t start;
  int64_t end;
  std::string name;
};

class EditUnitTest : public ::testing::Test {
 protected:
  void SetUp() override {
    box = Box{};
    write_file(rec_, counting_bytes(4096));
    fake_platform().reset();
    fake_platform().truncate_range = [this](int fd, int64_t start, int64_t end,
                                            const std::string &name) {
      asked_.push_back({fd, start, end, name});
      errno = error_;
      return result_;
    };
    LogCapture::clear();
  }
  void TearDown() override { EXPECT_EQ(open_descriptors(), descriptors_); }

  gint64 partial_delete(gint64 start, gint64 end) {
    return gst_edit_unit_do_partial_delete(rec_.c_str(), start, end);
  }
  gint64 erase(const gchar *new_name = nullptr) {
    return gst_edit_unit_erase_record(rec_.c_str(), 10, 20, new_name);
  }
  std::string deleting(long long start, long long end) const {
    return "[EXT_EDT] file_path = [" + rec_ + "], start_offset = [" + std::to_string(start) +
           "], end_offset = [" + std::to_string(end) + "]";
  }
  std::string erasing(long long start, long long end) const {
    return "[EXT_EDT] in_file = [" + rec_ + "], start_offset = [" + std::to_string(start) +
           "], end_offset = [" + std::to_string(end) + "]";
  }
  std::string erased() const {
    return "[EXT_EDT] [PLG_ERR] FTRUNCATERANGE return 0 [" + rec_ + "]";
  }

  const int descriptors_ = open_descriptors();
  TempDir dir_;
  const std::string rec_ = dir_.file("rec.kvf");
  std::vector<Asked> asked_;
  int result_ = 0;
  int error_ = 0;
};

const char kTooShort[] = "[EXT_EDT] [PLG_ERR] A-B is too short. No P.Erase Needed";

// ---- The range ----

struct Range {
  const char *name;
  long long start, end;
  long long asked_start, asked_end;
};

class RangeTest : public EditUnitTest, public ::testing::WithParamInterface<Range> {};

TEST_P(RangeTest, IsMovedDownToWholeUnits) {
  const Range &range = GetParam();
  EXPECT_EQ(partial_delete(range.start, range.end), range.asked_end - range.asked_start);
  ASSERT_EQ(asked_.size(), 1u);
  EXPECT_EQ(asked_[0].start, range.asked_start);
  EXPECT_EQ(asked_[0].end, range.asked_end);
}

INSTANTIATE_TEST_SUITE_P(Ranges, RangeTest,
                         ::testing::Values(Range{"Exact", 192512, 577536, 192512, 577536},
                                           Range{"Inside", 100000, 400000, 0, 385024},
                                           Range{"OneByteShortOfTwo", 1, 2 * kUnit - 1, 0, kUnit},
                                           Range{"OneUnit", kUnit - 1, kUnit, 0, kUnit},
                                           Range{"Beyond4GiB", 30000 * kUnit + 5, 50001 * kUnit,
                                                 30000 * kUnit, 50001 * kUnit},
                                           Range{"Longest", 0, INT64_MAX, 0,
                                                 INT64_MAX / kUnit *kUnit}),
                         [](const auto &range) { return range.param.name; });

class TooShortTest : public EditUnitTest,
                     public ::testing::WithParamInterface<std::pair<long long, long long>> {};

TEST_P(TooShortTest, TouchesNothing) {
  const auto [start, end] = GetParam();
  Faults faults;
  EXPECT_EQ(partial_delete(start, end), 80000003);
  EXPECT_THAT(faults.calls(), IsEmpty());
  EXPECT_THAT(asked_, IsEmpty());
  EXPECT_THAT(LogCapture::messages(kError), ElementsAre(deleting(start, end), kTooShort));
  EXPECT_THAT(LogCapture::messages(kInfo), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Ranges, TooShortTest,
                         ::testing::Values(std::pair{0LL, 192511LL}, std::pair{0LL, 0LL},
                                           std::pair{kUnit, kUnit}, std::pair{kUnit, 2 * kUnit - 1},
                                           std::pair{3 * kUnit, kUnit}, std::pair{-1LL, 2 * kUnit},
                                           std::pair{-2 * kUnit, 2 * kUnit},
                                           std::pair{-5 * kUnit, -kUnit},
                                           std::pair<long long, long long>{INT64_MIN, INT64_MAX}));

TEST_F(EditUnitTest, PartialDeleteLogsItsStepsAtErrorLevel) {
  EXPECT_EQ(partial_delete(100000, 400000), 385024);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre(deleting(100000, 400000), erasing(0, 385024), erased()));
  EXPECT_THAT(LogCapture::messages(kInfo), IsEmpty());
}

TEST_F(EditUnitTest, PartialDeleteWithoutAPathGivesMinusOne) {
  EXPECT_EQ(gst_edit_unit_do_partial_delete(nullptr, 0, kUnit), -1);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(EditUnitTest, PartialDeleteTurnsAFailedRemovalIntoItsOwnCode) {
  result_ = -1;
  error_ = EIO;
  EXPECT_EQ(partial_delete(0, kUnit), 80000000);
  EXPECT_EQ(LogCapture::messages(kError).back(),
            "[EXT_EDT] [PLG_ERR] gst_edit_unit_erase_record failed,  error = [-1]");
  EXPECT_EQ(LogCapture::lines().back().function, "gst_edit_unit_do_partial_delete");
}

TEST_F(EditUnitTest, PartialDeleteTurnsAnOverlongPathIntoItsOwnCode) {
  const std::string path = dir_.path() + std::string(256 - dir_.path().size(), '/');
  EXPECT_EQ(gst_edit_unit_do_partial_delete((path + "rec.kvf").c_str(), 0, kUnit), 80000000);
  EXPECT_LOGGED(kError,
                "[EXT_EDT] [PLG_ERR] gst_edit_unit_erase_record failed,  error = [80000003]");
  EXPECT_THAT(asked_, IsEmpty());
}

// ---- Erase ----

TEST_F(EditUnitTest, EraseTakesTheRangeAsItIs) {
  EXPECT_EQ(erase(), 0);
  ASSERT_EQ(asked_.size(), 1u);
  EXPECT_EQ(asked_[0].start, 10);
  EXPECT_EQ(asked_[0].end, 20);
  EXPECT_THAT(LogCapture::messages(kError), ElementsAre(erasing(10, 20), erased()));
  EXPECT_THAT(LogCapture::messages(kInfo), IsEmpty());
}

TEST_F(EditUnitTest, TheStepsOfAnEraseComeInThisOrder) {
  Faults faults;
  EXPECT_EQ(erase(dir_.file("new.kvf").c_str()), 0);
  EXPECT_THAT(faults.calls(), ElementsAre("open64", "fcntl", "fsync", "close", "rename"));
}

TEST_F(EditUnitTest, EraseOpensForReadingAndWritingAndCreates) {
  long long flags = 0;
  Faults faults;
  faults.watch("open64", [&](int, const char *, long long asked) { flags = asked; });
  EXPECT_EQ(erase(), 0);
  EXPECT_EQ(flags, O_RDWR | O_CREAT);
}

TEST_F(EditUnitTest, ProgramsThatAreStartedMeanwhileDoNotInheritTheDescriptor) {
  int flags = -1;
  fake_platform().truncate_range = [&](int fd, int64_t, int64_t, const std::string &) {
    flags = fcntl(fd, F_GETFD);
    return 0;
  };
  EXPECT_EQ(erase(), 0);
  EXPECT_EQ(flags, FD_CLOEXEC);
}

TEST_F(EditUnitTest, ADescriptorThatWouldBeInheritedIsGoodEnough) {
  Faults faults;
  faults.fail("fcntl", EPERM);
  EXPECT_EQ(erase(), 0);
  EXPECT_EQ(asked_.size(), 1u);
}

TEST_F(EditUnitTest, AMissingFileIsCreatedWithMode0744) {
  const mode_t old_mask = umask(0);
  const std::string path = dir_.file("missing.kvf");
  EXPECT_EQ(gst_edit_unit_erase_record(path.c_str(), 0, 1, nullptr), 0);
  umask(old_mask);
  struct stat64 status {};
  ASSERT_EQ(stat64(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0744u);
}

TEST_F(EditUnitTest, ThePlatformGetsADescriptorThatCanBeReadAndWritten) {
  int mode = -1;
  fake_platform().truncate_range = [&](int fd, int64_t, int64_t, const std::string &) {
    mode = fcntl(fd, F_GETFL) & O_ACCMODE;
    return 0;
  };
  EXPECT_EQ(erase(), 0);
  EXPECT_EQ(mode, O_RDWR);
}

TEST_F(EditUnitTest, AnyAnswerOfThePlatformButANegativeOneIsSuccess) {
  result_ = 1;
  EXPECT_EQ(erase(), 0);
}

TEST_F(EditUnitTest, ThePlatformGetsAtMost63CharactersOfTheName) {
  const std::string path = dir_.file(std::string(100, 'x') + ".kvf");
  EXPECT_EQ(gst_edit_unit_erase_record(path.c_str(), 0, 1, nullptr), 0);
  ASSERT_EQ(asked_.size(), 1u);
  EXPECT_EQ(asked_[0].name, path.substr(0, 63));
}

TEST_F(EditUnitTest, AShortNameReachesThePlatformWhole) {
  const std::string there = "e.kvf";
  EXPECT_EQ(gst_edit_unit_erase_record(there.c_str(), 0, 1, nullptr), 0);
  unlink(there.c_str());
  ASSERT_EQ(asked_.size(), 1u);
  EXPECT_EQ(asked_[0].name, there);
}

TEST_F(EditUnitTest, EraseWithoutAPathGivesMinusOne) {
  EXPECT_EQ(gst_edit_unit_erase_record(nullptr, 0, 1, "new.kvf"), -1);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(EditUnitTest, AFileThatCannotBeOpenedIsReported) {
  Faults faults;
  faults.fail("open64", EACCES);
  EXPECT_EQ(erase(), 80000000);
  EXPECT_THAT(faults.calls(), ElementsAre("open64"));
  EXPECT_EQ(errno, EACCES);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre(erasing(10, 20), "[EXT_EDT] [PLG_ERR] File Open Error"));
}

class LongPathTest : public EditUnitTest {
 protected:
  // A path of exactly this many characters to a file that is not there yet.
  std::string path_of(size_t length) const {
    const std::string name = "/new.kvf";
    return dir_.path() + std::string(length - dir_.path().size() - name.size(), '/') + name;
  }
};

TEST_F(LongPathTest, Of256CharactersIsRefusedAfterItWasOpened) {
  const std::string path = path_of(256);
  ASSERT_EQ(path.size(), 256u);
  Faults faults;
  EXPECT_EQ(gst_edit_unit_erase_record(path.c_str(), 0, kUnit, nullptr), 80000003);
  EXPECT_THAT(faults.calls(), ElementsAre("open64", "fcntl", "close"));
  EXPECT_TRUE(exists(dir_.file("new.kvf")));
  EXPECT_THAT(asked_, IsEmpty());
  EXPECT_EQ(LogCapture::messages(kError).back(),
            "[EXT_EDT] [PLG_ERR] The input file name is too long, please check");
}

TEST_F(LongPathTest, Of255CharactersIsAccepted) {
  EXPECT_EQ(gst_edit_unit_erase_record(path_of(255).c_str(), 0, kUnit, nullptr), 0);
  EXPECT_EQ(asked_.size(), 1u);
}

TEST_F(EditUnitTest, AFailedRemovalIsReportedWithItsCauseAndClosesTheFile) {
  result_ = -1;
  error_ = ENOSPC;
  Faults faults;
  faults.fail("close", EIO);  // does not hide the first error
  EXPECT_EQ(erase(dir_.file("new.kvf").c_str()), -1);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_THAT(faults.calls(), ElementsAre("open64", "fcntl", "close"));
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre(erasing(10, 20),
                          "[EXT_EDT] [PLG_ERR] FTRUNCATERANGE return error, errno=[28:No space "
                          "left on device]\n"));
}

TEST_F(EditUnitTest, AFailedFlushIsReportedAfterTheRemovalAndClosesTheFile) {
  Faults faults;
  faults.fail("fsync", EIO);
  EXPECT_EQ(erase(dir_.file("new.kvf").c_str()), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_THAT(faults.calls(), ElementsAre("open64", "fcntl", "fsync", "close"));
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre(erasing(10, 20), erased(),
                          "[EXT_EDT] [PLG_ERR] fsync return error, errno=[5:Input/output "
                          "error]\n"));
}

TEST_F(EditUnitTest, AFailedCloseIsReportedAndNotRepeated) {
  Faults faults;
  faults.fail("close", EIO);
  EXPECT_EQ(erase(dir_.file("new.kvf").c_str()), -1);
  EXPECT_THAT(faults.calls(), ElementsAre("open64", "fcntl", "fsync", "close"));
  EXPECT_EQ(LogCapture::messages(kError).back(),
            "[EXT_EDT] [PLG_ERR] close return error, errno=[5:Input/output error]\n");
}

TEST_F(EditUnitTest, WithoutANewNameNothingIsRenamed) {
  Faults faults;
  EXPECT_EQ(erase(), 0);
  EXPECT_EQ(faults.count("rename"), 0);
}

TEST_F(EditUnitTest, ANewNameIsGivenToTheFile) {
  const std::string fresh = dir_.file("new.kvf");
  EXPECT_EQ(erase(fresh.c_str()), 0);
  EXPECT_FALSE(exists(rec_));
  EXPECT_EQ(read_file(fresh), counting_bytes(4096));
}

TEST_F(EditUnitTest, AFailedRenameIsReportedWithBothNames) {
  const std::string fresh = dir_.file("no/new.kvf");
  EXPECT_EQ(erase(fresh.c_str()), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(LogCapture::messages(kError).back(),
            "[EXT_EDT] [PLG_ERR] rename [" + rec_ + "] -> [" + fresh +
                "] failed. errno=[2:No such file or directory]");
}

// ---- The box ----

class BoxTest : public EditUnitTest {
 protected:
  void SetUp() override {
    EditUnitTest::SetUp();
    box.connected = 1;
    fake_platform().tv_year = "2013";
  }
};

TEST_F(BoxTest, GetsTheRequestAsItIs) {
  Faults faults;
  EXPECT_EQ(erase("new.kvf"), 0);
  EXPECT_THAT(faults.calls(), IsEmpty());
  EXPECT_THAT(asked_, IsEmpty());
  EXPECT_EQ(box.calls, 1);
  EXPECT_EQ(box.path, rec_);
  EXPECT_EQ(box.start, 10);
  EXPECT_EQ(box.end, 20);
  EXPECT_STREQ(box.new_name, "new.kvf");
  EXPECT_EQ(LogCapture::messages(kError).front(), erasing(10, 20));
}

TEST_F(BoxTest, GetsWholeUnitsOfAPartialDelete) {
  EXPECT_EQ(partial_delete(100000, 400000), 385024);
  EXPECT_EQ(box.start, 0);
  EXPECT_EQ(box.end, 385024);
  EXPECT_EQ(box.new_name, nullptr);
}

TEST_F(BoxTest, ItsRefusalIsReported) {
  box.answer = 80000000;
  EXPECT_EQ(erase(), 80000000);
  EXPECT_EQ(partial_delete(0, kUnit), 80000000);
  EXPECT_LOGGED(kError,
                "[EXT_EDT] [PLG_ERR] gst_edit_unit_erase_record failed,  error = [80000000]");
}

TEST_F(BoxTest, OnAnotherBoardIsNotAsked) {
  fake_platform().tv_year = "2012";
  EXPECT_EQ(erase(), 0);
  EXPECT_EQ(box.calls, 0);
  EXPECT_EQ(asked_.size(), 1u);
}

}  // namespace
}  // namespace plexa_test
