// Cuts that go wrong at any of their steps, or take too long.
//
// The program's own close, fsync, open64, lseek64 and read stand before the C library's. They fail
// on demand in threads that the test has not started: in the cut thread.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "library_state.h"
#include "temp_dir.h"
#include "timeshift_support.h"

using namespace plexa_test;

namespace {

thread_local bool t_is_the_tests = false;

enum Call : int { kNone, kClose, kFsync, kOpen, kSeek, kRead, kTruncate };

// How long this thread's next read takes, and whether it has begun.
thread_local std::chrono::milliseconds t_read_takes{0};
std::atomic<bool> g_is_reading{false};

std::atomic<int> g_call{kNone};
std::atomic<int> g_calls_left{0};
std::atomic<bool> g_has_fired{false};

void fail_in_cut(Call call, int nth) {
  g_has_fired = false;
  g_calls_left = nth;
  g_call = call;
}

void fail_nothing_more() { g_call = kNone; }

bool is_to_fail(Call call) {
  if (g_call != call || t_is_the_tests) return false;
  if (--g_calls_left != 0) return false;
  g_has_fired = true;
  errno = EIO;
  return true;
}

template <class Function>
Function next_of(const char *name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

#define SEEN_BY_THE_LIBRARY extern "C" __attribute__((visibility("default")))

// The kernel lets go of the descriptor even when it reports a failure.
SEEN_BY_THE_LIBRARY int close(int fd) {
  static const auto real = next_of<int (*)(int)>("close");
  const int result = real(fd);
  return is_to_fail(kClose) ? -1 : result;
}

SEEN_BY_THE_LIBRARY int fsync(int fd) {
  static const auto real = next_of<int (*)(int)>("fsync");
  return is_to_fail(kFsync) ? -1 : real(fd);
}

SEEN_BY_THE_LIBRARY int open64(const char *path, int flags, ...) {
  static const auto real = next_of<int (*)(const char *, int, ...)>("open64");
  va_list args;
  va_start(args, flags);
  const auto mode = (flags & O_CREAT) != 0 ? va_arg(args, mode_t) : 0;
  va_end(args);
  return is_to_fail(kOpen) ? -1 : real(path, flags, mode);
}

SEEN_BY_THE_LIBRARY off64_t lseek64(int fd, off64_t offset, int whence) noexcept {
  static const auto real = next_of<off64_t (*)(int, off64_t, int)>("lseek64");
  return is_to_fail(kSeek) ? -1 : real(fd, offset, whence);
}

SEEN_BY_THE_LIBRARY ssize_t read(int fd, void *buffer, size_t count) {
  static const auto real = next_of<ssize_t (*)(int, void *, size_t)>("read");
  if (t_read_takes.count() > 0) {
    g_is_reading = true;
    std::this_thread::sleep_for(std::exchange(t_read_takes, std::chrono::milliseconds(0)));
    g_is_reading = false;
  }
  return is_to_fail(kRead) ? -1 : real(fd, buffer, count);
}

namespace {

constexpr uint32_t kKeep = 12000;
constexpr uint32_t kFirstCut = 15000;
constexpr int kReaders = 3;
constexpr int64_t kCut = 2 * kUnit;  // the units before the picture at 3 seconds

class TimeshiftFailures : public testing::Test {
 protected:
  TimeshiftFailures() { t_is_the_tests = true; }
  ~TimeshiftFailures() override {
    fail_nothing_more();
    before_truncation(nullptr);
    for (int i = 0; i < 5000 && open_descriptors() != descriptors_; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(open_descriptors(), descriptors_) << "something leaks";
    EXPECT_TRUE(registry_is_empty());
  }

  const int descriptors_ = [] {
    bytes_cut_off();
    return open_descriptors();
  }();
  TempDir folder_;
  Complaints complaints_;
};

// A recording at the brink of its first cut. Its handles are listed in the order writer, readers;
// the readers stand some packets into unit 5, 10 and 13.
class BrinkOfACut {
 public:
  BrinkOfACut(const std::string &stem, Complaints &complaints) : recording_(stem, tiny_gops()) {
    t_is_the_tests = true;
    EXPECT_TRUE(recording_.open());
    EXPECT_TRUE(recording_.set_span(kKeep, kFirstCut));
    for (unsigned i = 0; i < kReaders; ++i) {
      readers_.push_back(std::make_unique<Reader>(recording_, complaints, i));
      EXPECT_TRUE(readers_.back()->open());
    }
    EXPECT_TRUE(recording_.write_units(15));
    const int64_t places[kReaders] = {5, 10, 13};
    for (size_t i = 0; i < kReaders; ++i) {
      EXPECT_GE(gst_pvr_file_seek(file(i), places[i] * kUnit + 7 * kPacket, SEEK_SET), 0);
      places_.push_back(places[i] * kUnit + 7 * kPacket);
    }
  }

  void cut() {
    EXPECT_TRUE(recording_.write_units(1));
    recording_.wait_for_cut();
  }

  Recording &recording() { return recording_; }
  Reader &reader(size_t i) { return *readers_[i]; }
  GstPvrFile *file(size_t i) { return readers_[i]->handle().get(); }
  int64_t place(size_t i) const { return places_[i]; }

  // Stream offset of what the reader gets next; -1 when it gets nothing.
  int64_t next_byte_of(size_t i) {
    std::vector<uint8_t> packets(static_cast<size_t>(20 * kPacket));
    const auto size = static_cast<gint64>(packets.size());
    if (gst_pvr_file_read(file(i), packets.data(), size) != size) return -1;
    const int64_t place = offset_of_packet(packets.data());
    EXPECT_TRUE(is_stream(place, packets.data(), size));
    return place;
  }

  void close() {
    for (const auto &reader : readers_) reader->close();
    recording_.close();
  }

 private:
  // A unit holds more of them than the index parser keeps at a time, and none begins with a unit:
  // the cut thread has to read the index, too.
  static Recording::Shape tiny_gops() {
    Recording::Shape shape;
    shape.gop_packets = 15;
    return shape;
  }

  Recording recording_;
  std::vector<std::unique_ptr<Reader>> readers_;
  std::vector<int64_t> places_;
};

void expect_cutting_is_off(Recording &recording) {
  const int before = truncations();
  EXPECT_TRUE(recording.write_units(8));  // two cut points
  recording.wait_for_cut();
  EXPECT_EQ(truncations(), before);
}

void expect_cutting_goes_on(Recording &recording) {
  const int before = truncations();
  EXPECT_TRUE(recording.write_units(4));
  recording.wait_for_cut();
  EXPECT_EQ(truncations(), before + 1);
}

TEST_F(TimeshiftFailures, NotHappeningLetTheCutsGoOn) {
  BrinkOfACut brink(folder_.file("live"), complaints_);
  brink.cut();
  EXPECT_EQ(bytes_cut_off(), kCut);
  for (size_t i = 0; i < kReaders; ++i) EXPECT_EQ(brink.next_byte_of(i), brink.place(i));
  expect_cutting_goes_on(brink.recording());
}

TEST_F(TimeshiftFailures, OfTheRemovalLeaveEverythingInPlace) {
  BrinkOfACut brink(folder_.file("live"), complaints_);
  before_truncation([] { return EOPNOTSUPP; });
  brink.cut();
  before_truncation(nullptr);
  EXPECT_EQ(bytes_cut_off(), 0);
  for (size_t i = 0; i < kReaders; ++i) EXPECT_EQ(brink.next_byte_of(i), brink.place(i));
  expect_cutting_is_off(brink.recording());
  EXPECT_EQ(start_of_stream_file(brink.recording().path()), 0);
}

// Descriptors of somebody who opens his files in the middle of a cut, and so gets the numbers that
// have just come free.
class Strangers {
 public:
  Strangers() { descriptors_.fill(-1); }
  ~Strangers() {
    for (const int fd : descriptors_) ::close(fd);
  }
  bool open_all() {
    for (int &fd : descriptors_) fd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    return are_open();
  }
  bool are_open() const {
    return std::all_of(descriptors_.begin(), descriptors_.end(), [](int fd) {
      struct stat status {};
      return fstat(fd, &status) == 0 && S_ISCHR(status.st_mode);
    });
  }

 private:
  std::array<int, 2 * kReaders> descriptors_{};
};

// A cut calls close for each handle, and for the file that it shortens.
TEST_F(TimeshiftFailures, OfAnyCloseKeepEveryReaderOnItsByte) {
  for (int nth = 1; nth <= kReaders + 2; ++nth) {
    SCOPED_TRACE("close " + std::to_string(nth));
    BrinkOfACut brink(folder_.file("live"), complaints_);
    Strangers strangers;
    before_truncation([&strangers] { return strangers.open_all() ? 0 : EMFILE; });
    fail_in_cut(kClose, nth);
    brink.cut();
    fail_nothing_more();
    before_truncation(nullptr);
    EXPECT_TRUE(g_has_fired);
    EXPECT_TRUE(strangers.are_open()) << "a foreign descriptor was closed";
    for (size_t i = 0; i < kReaders; ++i) EXPECT_EQ(brink.next_byte_of(i), brink.place(i));
    expect_cutting_is_off(brink.recording());
    EXPECT_EQ(start_of_stream_file(brink.recording().path()), kCut);
    brink.close();
  }
}

// What closes a handle does not depend on its fsync; what shortens the file does.
TEST_F(TimeshiftFailures, OfTheFsyncKeepEveryReaderOnItsByte) {
  for (int nth = 1; nth <= kReaders + 2; ++nth) {
    SCOPED_TRACE("fsync " + std::to_string(nth));
    BrinkOfACut brink(folder_.file("live"), complaints_);
    fail_in_cut(kFsync, nth);
    brink.cut();
    fail_nothing_more();
    EXPECT_TRUE(g_has_fired);
    for (size_t i = 0; i < kReaders; ++i) EXPECT_EQ(brink.next_byte_of(i), brink.place(i));
    if (nth <= kReaders + 1) {
      expect_cutting_goes_on(brink.recording());
    } else {
      expect_cutting_is_off(brink.recording());
      EXPECT_EQ(start_of_stream_file(brink.recording().path()), kCut);
    }
    brink.close();
  }
}

TEST_F(TimeshiftFailures, OfTheFirstOpenRemoveNothing) {
  BrinkOfACut brink(folder_.file("live"), complaints_);
  fail_in_cut(kOpen, 1);
  brink.cut();
  fail_nothing_more();
  EXPECT_TRUE(g_has_fired);
  EXPECT_EQ(bytes_cut_off(), 0);
  for (size_t i = 0; i < kReaders; ++i) EXPECT_EQ(brink.next_byte_of(i), brink.place(i));
  expect_cutting_is_off(brink.recording());
}

// The reopening stops at the first handle that fails. Those before it are open, and since the steps
// that follow are carried out, they stand on their byte; the others have no descriptor.
TEST_F(TimeshiftFailures, OfAReopeningCostOnlyTheHandlesFromThereOn) {
  for (int nth = 2; nth <= kReaders + 2; ++nth) {
    SCOPED_TRACE("open " + std::to_string(nth));
    const size_t lost = static_cast<size_t>(nth) - 2;  // in the list: the writer, then the readers
    BrinkOfACut brink(folder_.file("live"), complaints_);
    fail_in_cut(kOpen, nth);
    brink.cut();
    fail_nothing_more();
    EXPECT_TRUE(g_has_fired);
    const int stranger = ::open("/dev/null", O_RDWR | O_CLOEXEC);  // takes a number that came free
    for (size_t i = 0; i < kReaders; ++i) {
      if (i + 1 < lost) {
        EXPECT_EQ(brink.next_byte_of(i), brink.place(i));
      } else {
        char byte = 0;
        EXPECT_EQ(gst_pvr_file_read(brink.file(i), &byte, 1), -1);
        EXPECT_EQ(gst_pvr_file_get_error_num(brink.file(i)), EBADF);
        EXPECT_EQ(gst_pvr_file_tell(brink.file(i)), -1);
        EXPECT_EQ(brink.reader(i).close(), -1);
      }
    }
    if (lost > 0) {
      expect_cutting_is_off(brink.recording());
    } else {
      EXPECT_EQ(brink.recording().write_unit(), -1);
      EXPECT_EQ(gst_pvr_file_get_error_num(brink.recording().writer().get()), EBADF);
    }
    EXPECT_GE(fcntl(stranger, F_GETFD), 0) << "a foreign descriptor was closed";
    ::close(stranger);
    brink.close();
    EXPECT_EQ(start_of_stream_file(brink.recording().path()), kCut);
  }
}

// Any of them, until there is none left to fail: where a handle stands is what its tell says.
TEST_F(TimeshiftFailures, OfAnySeekLeaveEveryHandleWhereItsTellSays) {
  int nth = 1;
  for (;; ++nth) {
    SCOPED_TRACE("seek " + std::to_string(nth));
    BrinkOfACut brink(folder_.file("live"), complaints_);
    fail_in_cut(kSeek, nth);
    brink.cut();
    fail_nothing_more();
    const bool has_fired = g_has_fired;
    const int64_t start = start_of_stream_file(brink.recording().path()).value_or(-1);
    EXPECT_EQ(start, kCut);
    const int64_t unknown = start - bytes_cut_off();  // cut off, but no longer accounted for
    for (size_t i = 0; i < kReaders; ++i) {
      const gint64 place = gst_pvr_file_tell(brink.file(i));
      EXPECT_EQ(brink.next_byte_of(i), place + unknown);
    }
    EXPECT_TRUE(brink.recording().write_units(5));
    brink.recording().wait_for_cut();
    EXPECT_TRUE(start_of_stream_file(brink.recording().path()).has_value());
    brink.close();
    if (!has_fired) break;
  }
  EXPECT_GT(nth, 2 * (kReaders + 1));
}

TEST_F(TimeshiftFailures, OfTheIndexInTheCutKeepEveryReaderOnItsByte) {
  BrinkOfACut brink(folder_.file("live"), complaints_);
  fail_in_cut(kRead, 1);
  brink.cut();
  fail_nothing_more();
  EXPECT_TRUE(g_has_fired);
  EXPECT_EQ(bytes_cut_off(), 0) << "what is cut off is stored with its time, or not at all";
  for (size_t i = 0; i < kReaders; ++i) EXPECT_EQ(brink.next_byte_of(i), brink.place(i));
  expect_cutting_is_off(brink.recording());
  EXPECT_EQ(start_of_stream_file(brink.recording().path()), kCut);
}

TEST_F(TimeshiftFailures, OfTheIndexBeforeACutSwitchCuttingOff) {
  Recording recording(folder_.file("live"));
  ASSERT_TRUE(recording.open());
  ASSERT_EQ(unlink(recording.index_path().c_str()), 0);  // the manager has not opened it yet
  ASSERT_TRUE(recording.set_span(kKeep, kFirstCut));
  const int before = truncations();
  EXPECT_TRUE(recording.write_units(30));
  recording.wait_for_cut();
  EXPECT_EQ(truncations(), before);
  EXPECT_EQ(start_of_stream_file(recording.path()), 0);
}

// ---- A cut that takes its time ----

using TimeshiftSlowCut = TimeshiftFailures;

// Three seconds, and longer on a machine that is slow to start the others.
void hang_until(const std::function<bool()> &is_enough) {
  for (int i = 0; i < 300 || (i < 6000 && !is_enough()); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

TEST_F(TimeshiftSlowCut, GivesMinus3AfterTwoSecondsAndAllIsWellAfterwards) {
  BrinkOfACut brink(folder_.file("live"), complaints_);
  std::atomic<int> answers{0};
  std::atomic<bool> is_over{false};
  before_truncation([&] {
    hang_until([&] { return answers == 5; });
    is_over = true;
    return 0;
  });
  ASSERT_TRUE(brink.recording().write_units(1));
  const auto began = std::chrono::steady_clock::now();
  std::vector<std::thread> threads;
  std::atomic<int> busy{0};
  char byte = 0;
  const auto impatient = [&](const std::function<gint64()> &call) {
    threads.emplace_back([&, call] {
      t_is_the_tests = true;
      if (call() == GST_CUT_FILE_BUSY && !is_over) ++busy;
      ++answers;
    });
  };
  impatient([&] { return gst_pvr_file_read(brink.file(0), &byte, 1); });
  impatient([&] { return gst_pvr_file_tell(brink.file(1)); });
  impatient([&] { return gst_pvr_file_size(brink.file(2)); });
  impatient([&] { return brink.recording().write_unit(); });
  Handle latecomer;
  impatient([&] { return latecomer.open_to_read(brink.recording().path()); });
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(busy, 5);
  EXPECT_GE(std::chrono::steady_clock::now() - began, std::chrono::milliseconds(1900));
  brink.recording().wait_for_cut();
  before_truncation(nullptr);
  for (size_t i = 0; i < kReaders; ++i) EXPECT_EQ(brink.next_byte_of(i), brink.place(i));
  EXPECT_EQ(latecomer.open_to_read(brink.recording().path()), 1);
  EXPECT_EQ(gst_pvr_file_tell(latecomer.get()), kCut);
  expect_cutting_goes_on(brink.recording());
}

TEST_F(TimeshiftSlowCut, LetsACloseThatWaitedInVainBeTriedAgain) {
  BrinkOfACut brink(folder_.file("live"), complaints_);
  std::atomic<bool> has_given_up{false};
  before_truncation([&] {
    hang_until([&] { return has_given_up.load(); });
    return 0;
  });
  ASSERT_TRUE(brink.recording().write_units(1));
  EXPECT_EQ(gst_pvr_file_close(brink.file(0)), GST_CUT_FILE_BUSY);
  has_given_up = true;
  EXPECT_EQ(gst_pvr_file_close(brink.file(0)), 1);
  before_truncation(nullptr);
  EXPECT_EQ(brink.next_byte_of(1), brink.place(1));
}

// ---- A reader that keeps a cut waiting ----

class TimeshiftBusyReader : public TimeshiftFailures {
 protected:
  // A read that is still on its way when the cut thread has lost its patience.
  void read_slowly(BrinkOfACut &brink, size_t reader) {
    thread_ = std::jthread([&brink, this, reader] {
      t_is_the_tests = true;
      t_read_takes = std::chrono::milliseconds(1500);
      place_ = brink.next_byte_of(reader);
    });
    while (!g_is_reading) std::this_thread::yield();
  }

  void wait_for_patience_to_end(BrinkOfACut &brink) {
    while (brink.recording().is_cutting())
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ASSERT_TRUE(g_is_reading) << "the machine is too slow for this test";
  }

  void end_reading() { thread_.join(); }

  int64_t place_ = 0;

 private:
  std::jthread thread_;
};

TEST_F(TimeshiftBusyReader, SwitchesCuttingOffAndTheCutComesAllTheSame) {
  BrinkOfACut brink(folder_.file("live"), complaints_);
  const int before = truncations();
  read_slowly(brink, 0);
  ASSERT_TRUE(brink.recording().write_units(1));
  wait_for_patience_to_end(brink);
  EXPECT_EQ(truncations(), before);
  EXPECT_EQ(brink.next_byte_of(1), brink.place(1)) << "meanwhile the others read on";
  end_reading();
  EXPECT_EQ(place_, brink.place(0));
  for (int i = 0; i < 5000 && truncations() == before; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(truncations(), before + 1);
  EXPECT_EQ(brink.next_byte_of(2), brink.place(2));
  EXPECT_EQ(bytes_cut_off(), kCut);
  expect_cutting_is_off(brink.recording());
}

TEST_F(TimeshiftBusyReader, LetsAWriterCloseBeforeItsCutAndThenThereIsNone) {
  for (int i = 0; i < count_of(2, 20); ++i) {
    BrinkOfACut brink(folder_.file("live"), complaints_);
    const int before = truncations();
    read_slowly(brink, 0);
    ASSERT_TRUE(brink.recording().write_units(1));
    wait_for_patience_to_end(brink);
    EXPECT_EQ(brink.recording().close(), 1);
    EXPECT_TRUE(g_is_reading) << "the writer has waited for its cut";
    end_reading();
    EXPECT_EQ(place_, brink.place(0));
    EXPECT_EQ(brink.next_byte_of(1), brink.place(1));
    brink.close();
    EXPECT_EQ(truncations(), before);
    EXPECT_EQ(start_of_stream_file(brink.recording().path()), 0);
  }
}

// ---- ATSC 3.0 ----

using TimeshiftAtsc3 = TimeshiftFailures;

int descriptors_of(const std::string &path) {
  int count = 0;
  for (int fd = 0; fd < 1024; ++fd) {
    char target[4096];
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t size = readlink(link.c_str(), target, sizeof target);
    if (size > 0 && std::string(target, static_cast<size_t>(size)) == path) ++count;
  }
  return count;
}

// The writer of the index has it open, and the manager of a recording that is cut.
TEST_F(TimeshiftAtsc3, IsNeverCutAndItsIndexNeverOpened) {
  for (const bool is_atsc3 : {false, true}) {
    SCOPED_TRACE(is_atsc3 ? "ATSC 3.0" : "any other");
    Recording recording(folder_.file("live"));
    Handle::Options options;
    options.atsc3 = is_atsc3;
    ASSERT_TRUE(recording.open(options));
    ASSERT_TRUE(recording.set_span(kKeep, kFirstCut));
    const int before = truncations();
    ASSERT_TRUE(recording.write_units(30));
    recording.wait_for_cut();
    EXPECT_EQ(descriptors_of(recording.index_path()), is_atsc3 ? 1 : 2);
    EXPECT_EQ(truncations() == before, is_atsc3);
    EXPECT_EQ(bytes_cut_off() == 0, is_atsc3);
    EXPECT_EQ(start_of_stream_file(recording.path()), bytes_cut_off());
  }
}

}  // namespace
