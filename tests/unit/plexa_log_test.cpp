// The log line: its parts, its stamp, and what it must not do to its caller.
//
// This program has a platform log and a real-time clock of its own, both without allocation.
#include "plexa_log.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <pthread.h>

#include <array>
#include <atomic>
#include <barrier>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "dlog.h"
#include "faults.h"

#define PLEXA_LOG_AREA "EXT_FMG"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define UNSANITIZED __attribute__((no_sanitize("address", "thread", "undefined")))
#else
#define UNSANITIZED
#endif

namespace {

// What the platform log was given last, on this thread.
struct Line {
  int buffer = 0;
  int priority = 0;
  char tag[32] = {};
  char text[512] = {};
};

thread_local Line last;
std::atomic<int> platform_calls{0};
std::atomic<int> errno_afterwards{-1};  // what the platform leaves in errno; -1: what it found

// The real-time clock stands still here while it is set.
std::atomic<bool> clock_is_set{false};
std::atomic<long long> clock_second{0};
std::atomic<long> clock_nanosecond{0};

std::atomic<int> allocations{0};

}  // namespace

extern "C" int __dlog_print(int buffer, int priority, const char *tag, const char *format, ...) {
  last.buffer = buffer;
  last.priority = priority;
  std::snprintf(last.tag, sizeof last.tag, "%s", tag);
  va_list args;
  va_start(args, format);
  const int size = std::vsnprintf(last.text, sizeof last.text, format, args);
  va_end(args);
  platform_calls.fetch_add(1);
  if (errno_afterwards >= 0) errno = errno_afterwards;
  return size;
}

#if defined(__i386__)
#define CLOCK_SYMBOL __clock_gettime64
#define CLOCK_NAME "__clock_gettime64"
#else
#define CLOCK_SYMBOL clock_gettime
#define CLOCK_NAME "clock_gettime"
#endif

extern "C" UNSANITIZED int CLOCK_SYMBOL(clockid_t clock, timespec *now) noexcept {
  if (clock == CLOCK_REALTIME && clock_is_set) {
    now->tv_sec = static_cast<time_t>(clock_second.load());
    now->tv_nsec = clock_nanosecond;
    return 0;
  }
  using Clock = int (*)(clockid_t, timespec *);
  static const Clock real = reinterpret_cast<Clock>(dlsym(RTLD_NEXT, CLOCK_NAME));
  return real(clock, now);
}

// Not inlined: half inlined, the optimiser takes malloc and delete for a mismatched pair.
[[gnu::noinline]] void *operator new(size_t size) {
  ++allocations;
  if (void *const memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void *memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void *memory, size_t) noexcept { std::free(memory); }

namespace plexa_test {
namespace {

using ::testing::EndsWith;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

constexpr long kMillisecond = 1000000;

class LogLineTest : public ::testing::Test {
 protected:
  LogLineTest() {
    set_clock(1700000000, 12 * kMillisecond);
    errno_afterwards = -1;
    platform_calls = 0;
    last = {};
  }
  ~LogLineTest() override { clock_is_set = false; }

  static void set_clock(long long second, long nanosecond) {
    clock_second = second;
    clock_nanosecond = nanosecond;
    clock_is_set = true;
  }
  static std::string stamp() { return plexa::log_stamp(); }
};

TEST_F(LogLineTest, IsFileFunctionLineVersionStampAreaMessage) {
  const int line = __LINE__ + 1;
  PLX_ERROR("[PLG_ERR] key=[%d]", 4);
  EXPECT_EQ(std::string(last.text), "plexa_log_test.cpp: TestBody(" + std::to_string(line) +
                                        ") > [1.0.0][1700000000.12][EXT_FMG] [PLG_ERR] key=[4]");
}

TEST_F(LogLineTest, NamesTheFunctionThatWritesIt) {
  const auto writes = [] { PLX_INFO("here"); };
  writes();
  EXPECT_THAT(last.text, StartsWith("plexa_log_test.cpp: operator()("));
}

TEST_F(LogLineTest, GoesToTheSystemBufferUnderTheLibrarysTag) {
  PLX_INFO("message");
  EXPECT_EQ(last.buffer, 2);
  EXPECT_STREQ(last.tag, "PVR_SYS_PLG");
}

TEST_F(LogLineTest, HasPriority3ForProgressAnd6ForFailures) {
  PLX_INFO("progress");
  EXPECT_EQ(last.priority, 3);
  PLX_ERROR("failure");
  EXPECT_EQ(last.priority, 6);
}

TEST_F(LogLineTest, MayNameAnotherAreaForOneLine) {
  PLX_LOG_AREA_LINE(::plexa::kLogInfo, "EXT_ZEB", "board %d", 4);
  EXPECT_THAT(last.text, EndsWith("][EXT_ZEB] board 4"));
}

TEST_F(LogLineTest, KeepsTheMessageLetterForLetter) {
  PLX_INFO(" 100%% Cached! \n");
  EXPECT_THAT(last.text, EndsWith("[EXT_FMG]  100% Cached! \n"));
}

TEST_F(LogLineTest, IsOnePlatformCall) {
  PLX_INFO("one");
  EXPECT_EQ(platform_calls, 1);
  PLX_ERROR("%s %d", "two", 2);
  EXPECT_EQ(platform_calls, 2);
}

TEST_F(LogLineTest, LooksAtItsArgumentsOnce) {
  int looks = 0;
  PLX_INFO("%d", ++looks);
  EXPECT_EQ(looks, 1);
}

TEST_F(LogLineTest, IsOneStatement) {
  const bool wanted = false;
  if (wanted)
    PLX_INFO("wanted");
  else
    PLX_ERROR("not wanted");
  EXPECT_THAT(last.text, EndsWith("not wanted"));
  EXPECT_EQ(platform_calls, 1);
}

TEST_F(LogLineTest, LeavesErrnoAsItFoundIt) {
  errno_afterwards = EPIPE;
  errno = ENOSPC;
  PLX_ERROR("failed");
  EXPECT_EQ(errno, ENOSPC);
  errno = 0;
  PLX_INFO("went well");
  EXPECT_EQ(errno, 0);
}

TEST_F(LogLineTest, LeavesErrnoAsItFoundItWhenAnArgumentChangesIt) {
  const auto fails = [] {
    errno = EIO;
    return 5;
  };
  errno = ENOSPC;
  PLX_ERROR("%d", fails());
  EXPECT_EQ(errno, ENOSPC);
}

// ISO C++ has no "%m", the platform's log does.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
TEST_F(LogLineTest, PrintsTheFailedCallsTextForPercentM) {
  errno = ENOSPC;
  PLX_ERROR("[PLG_ERR] write failed: %m");
#pragma GCC diagnostic pop
  EXPECT_THAT(last.text, EndsWith("[PLG_ERR] write failed: No space left on device"));
}

TEST_F(LogLineTest, AllocatesNothing) {
  PLX_INFO("the thread's first line");
  Faults faults;
  const int before = allocations;
  for (int i = 0; i < 5000; ++i) {
    set_clock(1700000000 + i / 1000, i % 1000 * kMillisecond);
    PLX_ERROR("[PLG_ERR] %s, %d, %lld", "text", i, 1LL << 40);
  }
  EXPECT_EQ(allocations - before, 0);
  EXPECT_EQ(faults.count("malloc") + faults.count("calloc") + faults.count("realloc"), 0);
}

// --- the stamp

TEST_F(LogLineTest, StampIsSecondsAndMillisecondsWithoutLeadingZeros) {
  const struct {
    long long second;
    long nanosecond;
    const char *text;
  } rows[] = {{1700000000, 0, "1700000000.0"},
              {1700000000, 5 * kMillisecond, "1700000000.5"},
              {1700000000, 50 * kMillisecond, "1700000000.50"},
              {1700000000, 999999999, "1700000000.999"},
              {0, 0, "0.0"},
              {7, 7 * kMillisecond, "7.7"}};
  for (const auto &row : rows) {
    set_clock(row.second, row.nanosecond);
    EXPECT_EQ(stamp(), row.text);
  }
}

TEST_F(LogLineTest, StampFollowsTheMillisecond) {
  EXPECT_EQ(stamp(), "1700000000.12");
  set_clock(1700000000, 13 * kMillisecond);
  EXPECT_EQ(stamp(), "1700000000.13");
  set_clock(1700000000, 9 * kMillisecond);
  EXPECT_EQ(stamp(), "1700000000.9");
  set_clock(1700000000, 123 * kMillisecond);
  EXPECT_EQ(stamp(), "1700000000.123");
}

TEST_F(LogLineTest, StampStaysWithinTheMillisecond) {
  const char *const before = plexa::log_stamp();
  set_clock(1700000000, 13 * kMillisecond - 1);
  EXPECT_STREQ(plexa::log_stamp(), "1700000000.12");
  EXPECT_EQ(plexa::log_stamp(), before) << "the same text, in its place";
}

TEST_F(LogLineTest, StampFollowsTheSecond) {
  set_clock(1699999999, 12 * kMillisecond);
  EXPECT_EQ(stamp(), "1699999999.12");
  set_clock(1700000000, 12 * kMillisecond);
  EXPECT_EQ(stamp(), "1700000000.12") << "the millisecond is the same, the second is not";
}

TEST_F(LogLineTest, StampFollowsAClockThatIsSetBack) {
  EXPECT_EQ(stamp(), "1700000000.12");
  set_clock(99, 12 * kMillisecond);
  EXPECT_EQ(stamp(), "99.12");
}

TEST_F(LogLineTest, StampPassesTheYear2038) {
  static_assert(sizeof(time_t) == 8);
  set_clock(4102444800, kMillisecond);
  EXPECT_EQ(stamp(), "4102444800.1");
}

TEST_F(LogLineTest, StampIsTheWallClock) {
  clock_is_set = false;
  const time_t before = time(nullptr);
  const long long second = std::stoll(stamp());
  EXPECT_GE(second, before - 1);  // time() may lag by a clock tick
  EXPECT_LE(second, time(nullptr) + 1);
}

// --- several threads

TEST_F(LogLineTest, EveryThreadHasAStampOfItsOwn) {
  const char *const ours = plexa::log_stamp();
  const char *theirs = nullptr;
  std::thread([&] {
    clock_second = 5;
    theirs = plexa::log_stamp();
    EXPECT_STREQ(theirs, "5.12");
  }).join();
  EXPECT_NE(ours, theirs);
  EXPECT_STREQ(ours, "1700000000.12") << "untouched by the other thread";
}

TEST_F(LogLineTest, LinesOfManyThreadsAreWhole) {
  constexpr int kThreads = 8;
  constexpr int kLines = 2000;
  clock_is_set = false;
  std::barrier start(kThreads);
  std::array<int, kThreads> broken = {};
  std::vector<std::thread> threads;
  for (int number = 0; number < kThreads; ++number) {
    threads.emplace_back([&, number] {
      const std::string message = "][EXT_FMG] thread " + std::to_string(number) + " line ";
      start.arrive_and_wait();
      for (int i = 0; i < kLines; ++i) {
        PLX_INFO("thread %d line %d", number, i);
        const std::string text = last.text;
        if (!text.ends_with(message + std::to_string(i))) ++broken[static_cast<size_t>(number)];
      }
      EXPECT_THAT(last.text, MatchesRegex("plexa_log_test\\.cpp: operator\\(\\)\\([0-9]+\\) > "
                                          "\\[1\\.0\\.0\\]\\[[0-9]+\\.[0-9]+\\]\\[EXT_FMG\\] .*"));
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_THAT(broken, ::testing::Each(0));
  EXPECT_EQ(platform_calls, kThreads * kLines);
}

}  // namespace
}  // namespace plexa_test
