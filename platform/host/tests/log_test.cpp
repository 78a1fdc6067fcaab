// log_test.cpp - what one message does: text, level, one write, errno; and the log's settings.
//
// The log's write(), malloc() and vsnprintf() are replaced.
#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "dlog.h"
#include "plexa_platform_host.h"

namespace {

// What the replaced calls do. write() takes the next planned result: a negative one is an errno, a
// positive one the most bytes it takes.
std::deque<int> g_planned_writes;
std::atomic<int> g_writes{0};
std::atomic<int> g_formattings{0};
thread_local bool g_no_memory = false;

}  // namespace

extern "C" {

ssize_t __real_write(int fd, const void *data, size_t size);
ssize_t __wrap_write(int fd, const void *data, size_t size);
void *__real_malloc(size_t size);
void *__wrap_malloc(size_t size);
int __real_vsnprintf(char *to, size_t capacity, const char *format, va_list args)
    __attribute__((format(printf, 3, 0)));
int __wrap_vsnprintf(char *to, size_t capacity, const char *format, va_list args)
    __attribute__((format(printf, 3, 0)));

ssize_t __wrap_write(int fd, const void *data, size_t size) {
  ++g_writes;
  if (g_planned_writes.empty()) return __real_write(fd, data, size);
  const int planned = g_planned_writes.front();
  g_planned_writes.pop_front();
  if (planned > 0) return __real_write(fd, data, std::min(size, static_cast<size_t>(planned)));
  errno = -planned;
  return planned == 0 ? 0 : -1;
}

void *__wrap_malloc(size_t size) { return g_no_memory ? nullptr : __real_malloc(size); }

int __wrap_vsnprintf(char *to, size_t capacity, const char *format, va_list args) {
  ++g_formattings;
  const int length = __real_vsnprintf(to, capacity, format, args);
  errno = EXDEV;  // as it may; the log keeps errno itself
  return length;
}
}

namespace {

using testing::EndsWith;
using testing::StartsWith;

class LogTest : public testing::Test {
 protected:
  LogTest() {
    std::string pattern = testing::TempDir() + "plexa-host-log-XXXXXX";
    folder_ = mkdtemp(pattern.data());
    plexa_host_set_log_level(PLEXA_HOST_LOG_LEVEL_DEBUG);
    EXPECT_EQ(plexa_host_set_log_file(path("log").c_str()), 0);
    g_planned_writes.clear();
    g_writes = 0;
    g_formattings = 0;
  }
  ~LogTest() override {
    plexa_host_set_log_file(nullptr);
    std::filesystem::remove_all(folder_);
  }

  std::string path(const std::string &name) const { return folder_ / name; }

  std::string log(const std::string &name = "log") const {
    std::ifstream stream(path(name), std::ios::binary);
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
  }

  std::filesystem::path folder_;
};

// The number of this process's descriptors that lead to the file, and the flags of the last one.
int descriptors_of(const std::string &file, int *flags = nullptr) {
  int count = 0;
  for (int fd = 0; fd < 256; ++fd) {
    struct stat wanted = {};
    struct stat found = {};
    if (stat(file.c_str(), &wanted) != 0 || fstat(fd, &found) != 0) continue;
    if (wanted.st_dev != found.st_dev || wanted.st_ino != found.st_ino) continue;
    ++count;
    if (flags != nullptr) *flags = fcntl(fd, F_GETFD);
  }
  return count;
}

// ---- Text --------------------------------------------------------------------------------------

TEST_F(LogTest, AMessageIsOneLineAndOneWrite) {
  __dlog_print(2, 6, "PVR_SYS_PLG", "read %d of %s", 12, "a.kvf");
  EXPECT_EQ(log(), "E/PVR_SYS_PLG: read 12 of a.kvf\n");
  EXPECT_EQ(g_writes, 1);
}

TEST_F(LogTest, TheResultIsTheNumberOfBytesWritten) {
  EXPECT_EQ(__dlog_print(2, 6, "T", "text"), 10);
  EXPECT_EQ(log().size(), 10u);
}

TEST_F(LogTest, AMessageThatEndsWithANewlineGetsNoSecondOne) {
  __dlog_print(2, 6, "T", "text\n");
  EXPECT_EQ(log(), "E/T: text\n");
}

TEST_F(LogTest, AnEmptyMessageIsALineToo) {
  const char *const empty = "";
  __dlog_print(2, 6, "T", "%s", empty);
  EXPECT_EQ(log(), "E/T: \n");
}

TEST_F(LogTest, NewlinesAndTabsInsideAMessageStay) {
  __dlog_print(2, 6, "T", "a\nb\tc");
  EXPECT_EQ(log(), "E/T: a\nb\tc\n");
  EXPECT_EQ(g_writes, 1);
}

TEST_F(LogTest, WhatSteersATerminalIsBlanked) {
  __dlog_print(2, 6, "T", "%s", "a\x1b[2Jb\rc\x7f\xc3\xa4");
  EXPECT_EQ(log(), "E/T: a?[2Jb?c?\xc3\xa4\n");
}

TEST_F(LogTest, ThePriorityShowsAsALetter) {
  for (const int priority : {3, 4, 5, 6, 7, 99}) __dlog_print(2, priority, "T", "x");
  EXPECT_EQ(log(), "D/T: x\nI/T: x\nW/T: x\nE/T: x\nF/T: x\nF/T: x\n");
}

TEST_F(LogTest, AMissingTagIsAnEmptyOne) {
  __dlog_print(2, 6, nullptr, "x");
  EXPECT_EQ(log(), "E/: x\n");
}

TEST_F(LogTest, AMissingFormatIsRefused) {
  int (*const print)(int, int, const char *, const char *, ...) = __dlog_print;
  EXPECT_EQ(print(2, 6, "T", nullptr), -EINVAL);
  EXPECT_EQ(log(), "");
}

TEST_F(LogTest, ALongMessageIsWrittenWholeByOneWrite) {
  const std::string text(100000, 'x');
  EXPECT_EQ(__dlog_print(2, 6, "T", "%s", text.c_str()), 100006);
  EXPECT_EQ(log(), "E/T: " + text + "\n");
  EXPECT_EQ(g_writes, 1);
}

TEST_F(LogTest, NoLengthIsCut) {
  for (std::size_t size = 2000; size < 2100; ++size) {
    for (const char *const end : {"", "\n"}) {
      const std::string text(size, 'x');
      plexa_host_set_log_file(path(std::to_string(size) + end).c_str());
      __dlog_print(2, 6, "T", "%s%s", text.c_str(), end);
      ASSERT_EQ(log(std::to_string(size) + end), "E/T: " + text + "\n") << size;
    }
  }
}

TEST_F(LogTest, ALongTagIsNotCutEither) {
  const std::string tag(3000, 't');
  __dlog_print(2, 6, tag.c_str(), "%s", "x");
  EXPECT_EQ(log(), "E/" + tag + ": x\n");
}

TEST_F(LogTest, WithoutMemoryALongMessageIsCutAndSaysSo) {
  const std::string text(5000, 'x');
  g_no_memory = true;
  __dlog_print(2, 6, "T", "%s", text.c_str());
  g_no_memory = false;
  EXPECT_THAT(log(), StartsWith("E/T: xxxxx"));
  EXPECT_THAT(log(), EndsWith("x [cut: no memory for the rest]\n"));
  EXPECT_EQ(log().size(), 2047u);
  EXPECT_EQ(g_writes, 1);
}

TEST_F(LogTest, AMessageThatCannotBePrintedLeavesItsBeginning) {
  const wchar_t unprintable[] = {L'a', static_cast<wchar_t>(0x7fffffff), L'\0'};
  __dlog_print(2, 6, "T", "%ls", unprintable);
  EXPECT_THAT(log(), StartsWith("E/T: "));
  EXPECT_THAT(log(), EndsWith(" [the message cannot be printed]\n"));
}

// ---- errno -------------------------------------------------------------------------------------

// ISO C++ has no "%m", the platform's log does.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"

TEST_F(LogTest, PercentMPrintsTheErrnoAtEntry) {
  errno = ENOSPC;
  __dlog_print(2, 6, "T", "errno=[%d:%m]", ENOSPC);
  EXPECT_EQ(log(), "E/T: errno=[28:No space left on device]\n");
}

TEST_F(LogTest, PercentMPrintsTheErrnoAtEntryInALongMessageToo) {
  const std::string text(5000, 'x');
  errno = ENOSPC;
  __dlog_print(2, 6, "T", "%s %m", text.c_str());
  EXPECT_THAT(log(), EndsWith("x No space left on device\n"));
}

#pragma GCC diagnostic pop

TEST_F(LogTest, ErrnoStaysWhenTheMessageIsWritten) {
  errno = ERANGE;
  __dlog_print(2, 6, "T", "x");
  EXPECT_EQ(errno, ERANGE);
}

TEST_F(LogTest, ErrnoStaysWhenTheWriteFails) {
  g_planned_writes = {-EIO};
  errno = ERANGE;
  EXPECT_EQ(__dlog_print(2, 6, "T", "x"), -EIO);
  EXPECT_EQ(errno, ERANGE);
}

TEST_F(LogTest, ErrnoStaysWhenTheMessageIsNotWanted) {
  plexa_host_set_log_level(PLEXA_HOST_LOG_LEVEL_OFF);
  errno = ERANGE;
  __dlog_print(2, 6, "T", "x");
  EXPECT_EQ(errno, ERANGE);
}

// ---- The write ---------------------------------------------------------------------------------

TEST_F(LogTest, AnInterruptedWriteIsRepeated) {
  g_planned_writes = {-EINTR, -EINTR};
  EXPECT_EQ(__dlog_print(2, 6, "T", "text"), 10);
  EXPECT_EQ(log(), "E/T: text\n");
}

TEST_F(LogTest, AShortWriteIsContinued) {
  g_planned_writes = {3, 1};
  EXPECT_EQ(__dlog_print(2, 6, "T", "text"), 10);
  EXPECT_EQ(log(), "E/T: text\n");
  EXPECT_EQ(g_writes, 3);
}

TEST_F(LogTest, AWriteThatTakesNothingEndsTheMessage) {
  g_planned_writes = {0};
  EXPECT_EQ(__dlog_print(2, 6, "T", "text"), -EIO);
  EXPECT_EQ(g_writes, 1);
}

// ---- Levels ------------------------------------------------------------------------------------

TEST_F(LogTest, OffKeepsNothingAndFormatsNothing) {
  plexa_host_set_log_level(PLEXA_HOST_LOG_LEVEL_OFF);
  for (const int priority : {INT_MIN, 3, 6, 7, 8, INT_MAX}) {
    EXPECT_EQ(__dlog_print(2, priority, "T", "x"), 0);
  }
  EXPECT_EQ(log(), "");
  EXPECT_EQ(g_writes, 0);
  EXPECT_EQ(g_formattings, 0);
}

TEST_F(LogTest, ErrorKeepsPriority6AndAbove) {
  plexa_host_set_log_level(PLEXA_HOST_LOG_LEVEL_ERROR);
  for (const int priority : {2, 3, 4, 5, 6, 7}) __dlog_print(2, priority, "T", "%d", priority);
  EXPECT_EQ(log(), "E/T: 6\nF/T: 7\n");
  EXPECT_EQ(g_formattings, 2);
}

TEST_F(LogTest, DebugKeepsPriority3AndAbove) {
  for (const int priority : {INT_MIN, 0, 2, 3}) __dlog_print(2, priority, "T", "%d", priority);
  EXPECT_EQ(log(), "D/T: 3\n");
}

TEST_F(LogTest, TheLevelInForceCanBeRead) {
  for (const auto level :
       {PLEXA_HOST_LOG_LEVEL_OFF, PLEXA_HOST_LOG_LEVEL_ERROR, PLEXA_HOST_LOG_LEVEL_DEBUG}) {
    plexa_host_set_log_level(level);
    EXPECT_EQ(plexa_host_get_log_level(), level);
  }
}

TEST_F(LogTest, ALevelThatDoesNotExistCountsAsError) {
  plexa_host_set_log_level(static_cast<PlexaHostLogLevel>(3));
  EXPECT_EQ(plexa_host_get_log_level(), PLEXA_HOST_LOG_LEVEL_ERROR);
}

TEST_F(LogTest, LevelsHaveNames) {
  PlexaHostLogLevel level = PLEXA_HOST_LOG_LEVEL_ERROR;
  EXPECT_EQ(plexa_host_log_level_from_name("off", &level), 0);
  EXPECT_EQ(level, PLEXA_HOST_LOG_LEVEL_OFF);
  EXPECT_EQ(plexa_host_log_level_from_name("error", &level), 0);
  EXPECT_EQ(level, PLEXA_HOST_LOG_LEVEL_ERROR);
  EXPECT_EQ(plexa_host_log_level_from_name("debug", &level), 0);
  EXPECT_EQ(level, PLEXA_HOST_LOG_LEVEL_DEBUG);
}

TEST_F(LogTest, OtherNamesAreRefused) {
  for (const char *const name : {"", "Error", "debug ", static_cast<const char *>(nullptr)}) {
    PlexaHostLogLevel level = PLEXA_HOST_LOG_LEVEL_DEBUG;
    errno = 0;
    EXPECT_EQ(plexa_host_log_level_from_name(name, &level), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(level, PLEXA_HOST_LOG_LEVEL_DEBUG);
  }
  EXPECT_EQ(plexa_host_log_level_from_name("debug", nullptr), -1);
}

// ---- The file ----------------------------------------------------------------------------------

TEST_F(LogTest, AnExistingFileIsAppendedTo) {
  std::ofstream(path("old")) << "before\n";
  EXPECT_EQ(plexa_host_set_log_file(path("old").c_str()), 0);
  __dlog_print(2, 6, "T", "x");
  EXPECT_EQ(log("old"), "before\nE/T: x\n");
}

TEST_F(LogTest, TheDescriptorIsNotHandedToOtherPrograms) {
  int flags = 0;
  EXPECT_EQ(descriptors_of(path("log"), &flags), 1);
  EXPECT_EQ(flags, FD_CLOEXEC);
  plexa_host_set_log_file(path("second").c_str());
  flags = 0;
  EXPECT_EQ(descriptors_of(path("second"), &flags), 1);
  EXPECT_EQ(flags, FD_CLOEXEC);
}

TEST_F(LogTest, ANewFileTakesThePlaceOfTheOld) {
  __dlog_print(2, 6, "T", "first");
  EXPECT_EQ(plexa_host_set_log_file(path("second").c_str()), 0);
  __dlog_print(2, 6, "T", "second");
  EXPECT_EQ(log(), "E/T: first\n");
  EXPECT_EQ(log("second"), "E/T: second\n");
  EXPECT_EQ(descriptors_of(path("log")), 0);
}

TEST_F(LogTest, AFileThatCannotBeOpenedLeavesTheLogWhereItIs) {
  errno = 0;
  EXPECT_EQ(plexa_host_set_log_file(path("missing/log").c_str()), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(plexa_host_set_log_file(""), -1);
  EXPECT_EQ(plexa_host_set_log_file(folder_.c_str()), -1);
  EXPECT_EQ(errno, EISDIR);
  __dlog_print(2, 6, "T", "x");
  EXPECT_EQ(log(), "E/T: x\n");
}

TEST_F(LogTest, TheLogCanGoBackToStandardErrorAndLetsGoOfTheFile) {
  EXPECT_EQ(plexa_host_set_log_file(nullptr), 0);
  testing::internal::CaptureStderr();
  __dlog_print(2, 6, "T", "x");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "E/T: x\n");
  EXPECT_EQ(log(), "");
  EXPECT_EQ(descriptors_of(path("log")), 0);
}

// ---- Threads -----------------------------------------------------------------------------------

// Counts whole lines by text; anything torn shows as a text of its own.
std::map<std::string, int> lines_of(const std::string &text) {
  std::map<std::string, int> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) ++lines[line];
  return lines;
}

TEST_F(LogTest, MessagesOfManyThreadsArriveWholeWhileTheFileChanges) {
  constexpr int kThreads = 4;
  constexpr int kMessages = 1000;
  std::vector<std::thread> threads;
  for (int number = 0; number < kThreads; ++number) {
    threads.emplace_back([number] {
      const std::string text(static_cast<std::size_t>(100 + 1500 * number),
                             static_cast<char>('a' + number));
      for (int i = 0; i < kMessages; ++i) __dlog_print(2, 6, "T", "%s", text.c_str());
    });
  }
  for (int i = 0; i < 200; ++i) {
    EXPECT_EQ(plexa_host_set_log_file(path(i % 2 == 0 ? "even" : "odd").c_str()), 0);
    std::this_thread::yield();
  }
  for (std::thread &thread : threads) thread.join();

  std::map<std::string, int> expected;
  for (int number = 0; number < kThreads; ++number) {
    expected["E/T: " + std::string(static_cast<std::size_t>(100 + 1500 * number),
                                   static_cast<char>('a' + number))] = kMessages;
  }
  EXPECT_EQ(lines_of(log() + log("even") + log("odd")), expected);
}

}  // namespace
