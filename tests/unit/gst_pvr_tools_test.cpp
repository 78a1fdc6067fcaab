// Path helpers, the millisecond tick, and the log of the free space around a recording.
#include "gst-plexa/gst_pvr_tools.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "faults.h"
#include "gst_pvr_tools_internal.h"
#include "library_state.h"
#include "log_capture.h"
#include "temp_dir.h"

namespace plexa_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Optional;

using Text = std::optional<std::string>;

Text taken(gchar *result) {
  const std::unique_ptr<gchar, void (*)(void *)> owner(result, free);
  return result == nullptr ? Text() : Text(result);
}

class PathToolTest : public ::testing::Test {
 protected:
  PathToolTest() { LogCapture::clear(); }
};

// --- without extension

Text no_ext(const char *path) { return taken(gst_pvr_tool_extract_filepath_no_ext(path)); }

TEST_F(PathToolTest, NoExtIsThePartBeforeTheLastDot) {
  EXPECT_THAT(no_ext("/x/rec.kvf"), Optional(std::string("/x/rec")));
  EXPECT_THAT(no_ext("/x/rec.a.kvf"), Optional(std::string("/x/rec.a")));
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(PathToolTest, NoExtOfAPathWithADotInAFolderAloneLosesWhatFollows) {
  EXPECT_THAT(no_ext("/x.y/rec"), Optional(std::string("/x")));
}

TEST_F(PathToolTest, NoExtOfALeadingDotIsEmpty) {
  EXPECT_THAT(no_ext(".kvf"), Optional(std::string()));
}

TEST_F(PathToolTest, NoExtRefusesAPathWithoutADot) {
  EXPECT_EQ(no_ext("/x/rec"), std::nullopt);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre("[EXT_TOOL] [PLG_ERR] can not find char of [.]"));
}

TEST_F(PathToolTest, NoExtRefusesANullPath) {
  EXPECT_EQ(no_ext(nullptr), std::nullopt);
  EXPECT_THAT(LogCapture::messages(kError), ElementsAre("[EXT_TOOL] [PLG_ERR] path is NULL"));
}

TEST_F(PathToolTest, NoExtWithoutMemoryIsNull) {
  Faults faults;
  faults.fail("malloc", ENOMEM);
  gchar *const result = gst_pvr_tool_extract_filepath_no_ext("/x/rec.kvf");
  EXPECT_EQ(result, nullptr);
}

// --- another extension

Text change(const char *path, const char *ext) {
  return taken(gst_pvr_tool_change_extension(path, ext));
}

TEST_F(PathToolTest, ChangeReplacesTheLastExtensionOnly) {
  EXPECT_THAT(change("/x/rec.a.kvf", ".mdb"), Optional(std::string("/x/rec.a.mdb")));
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre("[EXT_TOOL] [PLG_ERR] the ext file name [/x/rec.a.mdb]"));
}

TEST_F(PathToolTest, ChangeTakesTheExtensionAsItIs) {
  EXPECT_THAT(change("/x/rec.kvf", ""), Optional(std::string("/x/rec")));
  EXPECT_THAT(change("/x/rec.kvf", "tm"), Optional(std::string("/x/rectm")));
}

TEST_F(PathToolTest, ChangeWithoutAnExtensionIsNullWithoutAWord) {
  EXPECT_EQ(change("/x/rec.kvf", nullptr), std::nullopt);
  EXPECT_EQ(change(nullptr, nullptr), std::nullopt);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(PathToolTest, ChangeOfAPathWithoutADotIsNull) {
  EXPECT_EQ(change("/x/rec", ".mdb"), std::nullopt);
  EXPECT_THAT(LogCapture::messages(), ElementsAre("[EXT_TOOL] [PLG_ERR] can not find char of [.]"));
}

TEST_F(PathToolTest, ChangeOfANullPathIsNull) {
  EXPECT_EQ(change(nullptr, ".mdb"), std::nullopt);
  EXPECT_THAT(LogCapture::messages(), ElementsAre("[EXT_TOOL] [PLG_ERR] path is NULL"));
}

TEST_F(PathToolTest, ChangeWithoutMemoryIsNullAtEitherAllocation) {
  for (const int nth : {1, 2}) {
    Faults faults;
    faults.fail("malloc", ENOMEM, nth);
    gchar *const result = gst_pvr_tool_change_extension("/x/rec.kvf", ".mdb");
    EXPECT_EQ(result, nullptr) << "allocation " << nth;
  }
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

// --- the folder

Text base(const char *path) { return taken(gst_pvr_tool_extract_filepath_base(path)); }

TEST_F(PathToolTest, BaseIsTheFolderWithoutItsSlash) {
  EXPECT_THAT(base("/x/y/rec.kvf"), Optional(std::string("/x/y")));
  EXPECT_THAT(LogCapture::messages(kInfo), ElementsAre("[EXT_TOOL] path = [/x/y/rec.kvf]"));
  EXPECT_THAT(LogCapture::messages(kError), IsEmpty());
}

TEST_F(PathToolTest, BaseOfAFileInTheRootIsEmpty) {
  EXPECT_THAT(base("/rec"), Optional(std::string()));
}

TEST_F(PathToolTest, BaseRefusesAPathWithoutASlash) {
  EXPECT_EQ(base("rec.kvf"), std::nullopt);
  EXPECT_TRUE(logged_in_order(
      {"[EXT_TOOL] path = [rec.kvf]", "[EXT_TOOL] [PLG_ERR] can not find char of [/]"}));
  EXPECT_LOGGED(kError, "[EXT_TOOL] [PLG_ERR] can not find char of [/]");
}

TEST_F(PathToolTest, BaseRefusesANullPath) {
  EXPECT_EQ(base(nullptr), std::nullopt);
  EXPECT_LOGGED(kError, "[EXT_TOOL] [PLG_ERR] path is NULL");
  EXPECT_EQ(LogCapture::lines().size(), 1u);
}

// --- the file's name

Text del_base(const char *path) { return taken(gst_pvr_tool_extract_filepath_del_base(path)); }

TEST_F(PathToolTest, DelBaseIsTheNameBehindTheLastSlash) {
  EXPECT_THAT(del_base("/x/y/rec.kvf"), Optional(std::string("rec.kvf")));
  EXPECT_THAT(LogCapture::messages(kInfo), ElementsAre("[EXT_TOOL] [dorvik]path = [/x/y/rec.kvf]"));
  EXPECT_THAT(LogCapture::messages(kError), IsEmpty());
}

TEST_F(PathToolTest, DelBaseOfAFolderIsEmpty) {
  EXPECT_THAT(del_base("/x/"), Optional(std::string()));
}

TEST_F(PathToolTest, DelBaseRefusesAPathWithoutASlash) {
  EXPECT_EQ(del_base("rec.kvf"), std::nullopt);
  EXPECT_TRUE(logged_in_order(
      {"[EXT_TOOL] [dorvik]path = [rec.kvf]", "[EXT_TOOL] [PLG_ERR] can not find char of [/]"}));
  EXPECT_LOGGED(kError, "[EXT_TOOL] [PLG_ERR] can not find char of [/]");
}

TEST_F(PathToolTest, DelBaseRefusesANullPath) {
  EXPECT_EQ(del_base(nullptr), std::nullopt);
  EXPECT_LOGGED(kError, "[EXT_TOOL] [PLG_ERR] [dorvik]path is NULL");
  EXPECT_EQ(LogCapture::lines().size(), 1u);
}

// --- searching

TEST_F(PathToolTest, RemovePrefixGivesThePlaceBehindTheFirstOccurrence) {
  const char text[] = "file:///x/file://y";
  EXPECT_EQ(gst_pvr_tool_remove_prefix("file://", text), text + 7);
}

TEST_F(PathToolTest, RemovePrefixFindsThePrefixInTheMiddleToo) {
  const char text[] = "pvr:/mnt/rec";
  EXPECT_EQ(gst_pvr_tool_remove_prefix("/mnt", text), text + 8);
}

TEST_F(PathToolTest, RemovePrefixOfAnAbsentPrefixIsNull) {
  EXPECT_EQ(gst_pvr_tool_remove_prefix("abc", "abxc"), nullptr);
  EXPECT_EQ(gst_pvr_tool_remove_prefix(nullptr, "abxc"), nullptr);
  EXPECT_EQ(gst_pvr_tool_remove_prefix("abc", nullptr), nullptr);
}

TEST_F(PathToolTest, IncludeTellsWhetherTheNeedleOccurs) {
  EXPECT_TRUE(gst_pvr_tool_is_include_string("mdb", "/x/rec.mdb"));
  EXPECT_FALSE(gst_pvr_tool_is_include_string("mdb", "/x/rec.kvf"));
  EXPECT_FALSE(gst_pvr_tool_is_include_string(nullptr, "/x/rec.kvf"));
  EXPECT_FALSE(gst_pvr_tool_is_include_string("mdb", nullptr));
}

// --- tick

TEST(TickTest, IsTheTickCountTimesTheLengthOfATick) {
  const guint32 length = static_cast<guint32>(1000 / sysconf(_SC_CLK_TCK));
  Faults faults;
  faults.answer("times", 1234);
  EXPECT_EQ(gst_pvr_tool_tick(), 1234 * length);
}

TEST(TickTest, AdvancesInStepsOfTenWithAHundredTicksASecond) {
  EXPECT_EQ(plexa::tick_milliseconds(7, 100), 70u);
  EXPECT_EQ(plexa::tick_milliseconds(8, 100), 80u);
}

TEST(TickTest, DividesBeforeItMultiplies) {
  EXPECT_EQ(plexa::tick_milliseconds(100, 300), 300u);
  EXPECT_EQ(plexa::tick_milliseconds(100, 2000), 0u);
}

TEST(TickTest, WrapsAroundIn32Bits) {
  EXPECT_EQ(plexa::tick_milliseconds(429496730, 100), 4u);
  EXPECT_EQ(plexa::tick_milliseconds(-1, 100), 4294967286u);
}

TEST(TickTest, TakesAHundredTicksWhenTheSystemNamesNone) {
  EXPECT_EQ(plexa::tick_milliseconds(7, 0), 70u);
  EXPECT_EQ(plexa::tick_milliseconds(7, -1), 70u);
}

// --- free space

// Puts a df of the test's own into the shell's path. It notes its arguments and prints what it is
// told to.
class FileSystemSizeTest : public ::testing::Test {
 protected:
  FileSystemSizeTest() : old_path_(getenv("PATH")) {
    write_text("df", "#!/bin/sh\nprintf '%s\\n' $# \"$@\" >'" + dir_.file("arguments") +
                         "'\ncat '" + dir_.file("output") + "'\n");
    chmod(dir_.file("df").c_str(), 0755);
    setenv("PATH", (dir_.path() + ":" + old_path_).c_str(), 1);
    df_prints("header\nnumbers\n");
    LogCapture::clear();
  }
  ~FileSystemSizeTest() override { setenv("PATH", old_path_.c_str(), 1); }

  void df_prints(const std::string &output) { write_text("output", output); }
  void write_text(const std::string &name, const std::string &text) {
    write_file(dir_.file(name), {text.begin(), text.end()});
  }

  // How many arguments df got, and each of them, one a line.
  std::string df_arguments() const {
    const auto bytes = read_file(dir_.file("arguments"));
    return {bytes.begin(), bytes.end()};
  }

  void check(const std::string &path) { gst_pvr_tool_check_filesystem_size(path.c_str()); }

  TempDir dir_;

 private:
  std::string old_path_;
};

TEST_F(FileSystemSizeTest, LogsThePathAndTheFirstTwoLines) {
  df_prints("header\nnumbers\nmore\n");
  check("/mnt/usb/CONTENT/rec.kvf");
  EXPECT_THAT(LogCapture::messages(kInfo),
              ElementsAre("[EXT_TOOL] recording path=[/mnt/usb/CONTENT/rec.kvf]",
                          "[EXT_TOOL] header", "[EXT_TOOL] numbers"));
  EXPECT_THAT(LogCapture::messages(kError), IsEmpty());
}

TEST_F(FileSystemSizeTest, AsksAboutTheFolderBeforeTheFirstContent) {
  check("/mnt/usb/CONTENT/CONTENT/rec.kvf");
  EXPECT_EQ(df_arguments(), "1\n/mnt/usb\n");
}

TEST_F(FileSystemSizeTest, LeavesOutTheCharacterBeforeContentWhateverItIs) {
  check("/mnt/usbXCONTENT");
  EXPECT_EQ(df_arguments(), "1\n/mnt/usb\n");
}

TEST_F(FileSystemSizeTest, RefusesANullPath) {
  gst_pvr_tool_check_filesystem_size(nullptr);
  EXPECT_LOGGED(kError, "[EXT_TOOL] [PLG_ERR] path is NULL");
  EXPECT_FALSE(exists(dir_.file("arguments")));
}

TEST_F(FileSystemSizeTest, RefusesAPathWithoutContent) {
  check("/mnt/usb/content/rec.kvf");
  EXPECT_LOGGED(kError,
                "[EXT_TOOL] [PLG_ERR] can not find dir CONTENT in path. path = "
                "[/mnt/usb/content/rec.kvf]");
  EXPECT_FALSE(exists(dir_.file("arguments")));
}

TEST_F(FileSystemSizeTest, LogsTheFullPathWhenTheShellCannotBeStarted) {
  Faults faults;
  faults.fail("popen", EMFILE);
  check("/mnt/usb/CONTENT/rec.kvf");
  EXPECT_THAT(LogCapture::messages(),
              ElementsAre("[EXT_TOOL] [PLG_ERR] popen failed. path = [/mnt/usb/CONTENT/rec.kvf]"));
  EXPECT_LOGGED(kError, "[EXT_TOOL] [PLG_ERR] popen failed. path = [/mnt/usb/CONTENT/rec.kvf]");
}

TEST_F(FileSystemSizeTest, AsksAboutEverythingWhenThePathBeginsWithContent) {
  for (const char *const path : {"CONTENT/rec.kvf", "/CONTENT/rec.kvf"}) {
    LogCapture::clear();
    check(path);
    EXPECT_EQ(df_arguments(), "0\n") << path;
    EXPECT_LOGGED(kInfo, "[EXT_TOOL] numbers");
  }
}

TEST_F(FileSystemSizeTest, HandsTheFolderToTheShellAsOneWord) {
  const std::string folder = "/mnt/it's $(touch broken) `id` \"x\"; *|&\\";
  check(folder + "/CONTENT/rec.kvf");
  EXPECT_EQ(df_arguments(), "1\n" + folder + "\n");
  EXPECT_FALSE(exists("broken"));
}

TEST_F(FileSystemSizeTest, WritesAnOrdinaryFolderIntoTheCommandAsItIs) {
  const char *const rows[][2] = {
      {"/mnt/usb-1_a.b+c,d:e@f%g=H9/CONTENT/rec.kvf", "df /mnt/usb-1_a.b+c,d:e@f%g=H9"},
      {"/CONTENT/rec.kvf", "df "},
      {"/mnt/my disk/CONTENT/rec.kvf", "df '/mnt/my disk'"},
      {"~root/CONTENT/rec.kvf", "df '~root'"}};
  for (const auto &row : rows) {
    std::vector<std::string> commands;
    Faults faults;
    faults.watch("popen", [&](int, const char *command, long long length_of_mode) {
      commands.emplace_back(command);
      EXPECT_EQ(length_of_mode, 1) << "reading, and nothing else";
    });
    check(row[0]);
    EXPECT_THAT(commands, ElementsAre(row[1]));
  }
}

TEST_F(FileSystemSizeTest, KeepsThePipeFromProgramsStartedMeanwhile) {
  int closed_on_exec = -1;
  Faults faults;
  faults.watch("fcntl", [&](int fd, const char *, long long) { closed_on_exec = fd; });
  check("/mnt/usb/CONTENT/rec.kvf");
  EXPECT_GT(closed_on_exec, STDERR_FILENO);
}

TEST_F(FileSystemSizeTest, UsesAtMost128BytesOfTheFolder) {
  const std::string folder = "/" + std::string(127, 'a');
  check(folder + "/CONTENT");
  EXPECT_EQ(df_arguments(), "1\n" + folder + "\n");
  check(folder + "bcd/CONTENT");
  EXPECT_EQ(df_arguments(), "1\n" + folder + "\n");
}

TEST_F(FileSystemSizeTest, LogsALineOf200BytesWhole) {
  df_prints(std::string(200, 'h') + "\nnumbers\n");
  check("/mnt/CONTENT");
  EXPECT_LOGGED(kInfo, "[EXT_TOOL] " + std::string(200, 'h'));
  EXPECT_LOGGED(kInfo, "[EXT_TOOL] numbers");
}

TEST_F(FileSystemSizeTest, CutsALongerLineAndGoesOnBehindItsNewline) {
  df_prints(std::string(200, 'h') + std::string(700, 'x') + "\nnumbers\n");
  check("/mnt/CONTENT");
  EXPECT_THAT(LogCapture::messages(),
              ElementsAre("[EXT_TOOL] recording path=[/mnt/CONTENT]",
                          "[EXT_TOOL] " + std::string(200, 'h'), "[EXT_TOOL] numbers"));
}

TEST_F(FileSystemSizeTest, LogsWhatLinesThereAre) {
  df_prints("header without newline");
  check("/mnt/CONTENT");
  EXPECT_THAT(LogCapture::messages(), ElementsAre("[EXT_TOOL] recording path=[/mnt/CONTENT]",
                                                  "[EXT_TOOL] header without newline"));
  LogCapture::clear();
  df_prints("");
  check("/mnt/CONTENT");
  EXPECT_THAT(LogCapture::messages(), ElementsAre("[EXT_TOOL] recording path=[/mnt/CONTENT]"));
}

TEST_F(FileSystemSizeTest, EndsAtALongLineThatNeverEnds) {
  df_prints(std::string(900, 'h'));
  check("/mnt/CONTENT");
  EXPECT_THAT(LogCapture::messages(), ElementsAre("[EXT_TOOL] recording path=[/mnt/CONTENT]",
                                                  "[EXT_TOOL] " + std::string(200, 'h')));
}

TEST_F(FileSystemSizeTest, NeverTakesTheOutputOrThePathForAFormat) {
  df_prints("%s%n 100%\n%d\n");
  check("/mnt/%s/CONTENT/%n.kvf");
  EXPECT_THAT(LogCapture::messages(kInfo),
              ElementsAre("[EXT_TOOL] recording path=[/mnt/%s/CONTENT/%n.kvf]",
                          "[EXT_TOOL] %s%n 100%", "[EXT_TOOL] %d"));
}

TEST_F(FileSystemSizeTest, LeavesNoChildAndNoDescriptorBehind) {
  const int before = open_descriptors();
  df_prints("header\nnumbers\n" + std::string(1 << 20, 'x'));  // more than the pipe holds
  check("/mnt/CONTENT");
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

}  // namespace
}  // namespace plexa_test
