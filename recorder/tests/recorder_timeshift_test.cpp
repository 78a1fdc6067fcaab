// What a time-shift recording is: whole units, told times, cuts, and what a full disk, a cut that
// hangs and a failing one do to it.
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <set>

#include "fake_platform.h"
#include "faults.h"
#include "gst-plexa/gst_file_shared_info.h"
#include "gst-plexa/gst_zeb.h"
#include "library_state.h"
#include "recording_fixture.h"
#include "session.h"
#include "timeshift_writer.h"

namespace plexa_test {
namespace {

// What the recorder calls, before the library or the system gets it. Nothing set: passed through.
struct Hooks {
  std::function<void(const GstPvrFile *file, uint32_t time)> last_wrote_time;
  std::function<std::optional<gint64>(GstPvrFile *file, gint64 size)> write;
  std::function<std::optional<gint64>()> set_max_time;
  std::function<std::optional<gint64>(GstPvrFile *file)> close;
  std::function<std::optional<uint64_t>()> free_space;
  bool is_box_connected = false;
  bool no_thread = false;  // for the library's task
};
Hooks hooks;

}  // namespace
}  // namespace plexa_test

using plexa_test::hooks;

// In place of the library's own: is a companion box connected?
gint32 gst_zeb_is_connected(void) { return hooks.is_box_connected ? 1 : 0; }

gboolean gst_task_start(GstTask *task) {
  static const auto own =
      reinterpret_cast<gboolean (*)(GstTask *)>(dlsym(RTLD_NEXT, "gst_task_start"));
  return hooks.no_thread ? FALSE : own(task);
}

extern "C" {

void __real_gst_pvr_file_set_last_wrote_time(GstPvrFile *file, guint32 time);
void __wrap_gst_pvr_file_set_last_wrote_time(GstPvrFile *file, guint32 time);
void __wrap_gst_pvr_file_set_last_wrote_time(GstPvrFile *file, guint32 time) {
  if (hooks.last_wrote_time) hooks.last_wrote_time(file, time);
  __real_gst_pvr_file_set_last_wrote_time(file, time);
}

gint64 __real_gst_pvr_file_write(GstPvrFile *file, const void *buffer, gint64 size);
gint64 __wrap_gst_pvr_file_write(GstPvrFile *file, const void *buffer, gint64 size);
gint64 __wrap_gst_pvr_file_write(GstPvrFile *file, const void *buffer, gint64 size) {
  const bool is_buffer = file->var.file_type == GST_PVR_FILE_TIMESHIFT;
  const auto answer = is_buffer && hooks.write ? hooks.write(file, size) : std::nullopt;
  return answer ? *answer : __real_gst_pvr_file_write(file, buffer, size);
}

gint64 __real_gst_pvr_file_set_max_time(GstPvrFile *file, gint64 max_time);
gint64 __wrap_gst_pvr_file_set_max_time(GstPvrFile *file, gint64 max_time);
gint64 __wrap_gst_pvr_file_set_max_time(GstPvrFile *file, gint64 max_time) {
  const auto answer = hooks.set_max_time ? hooks.set_max_time() : std::nullopt;
  return answer ? *answer : __real_gst_pvr_file_set_max_time(file, max_time);
}

gint64 __real_gst_pvr_file_close(GstPvrFile *file);
gint64 __wrap_gst_pvr_file_close(GstPvrFile *file);
gint64 __wrap_gst_pvr_file_close(GstPvrFile *file) {
  const bool is_buffer = file->var.file_type == GST_PVR_FILE_TIMESHIFT;
  const auto answer = is_buffer && hooks.close ? hooks.close(file) : std::nullopt;
  return answer ? *answer : __real_gst_pvr_file_close(file);
}

int __real_statvfs64(const char *path, struct statvfs64 *status);
int __wrap_statvfs64(const char *path, struct statvfs64 *status);
int __wrap_statvfs64(const char *path, struct statvfs64 *status) {
  const int result = __real_statvfs64(path, status);
  if (!hooks.free_space) return result;
  const auto answer = hooks.free_space();
  if (!answer) return -1;
  status->f_frsize = 1;
  status->f_bavail = *answer;
  return 0;
}
}

namespace plexa_test {
namespace {

using plexa::rec::Pace;
using plexa::rec::Timeshift;
using plexa::rec::TimeshiftFile;
using plexa::rec::TimeshiftObserver;
using plexa::rec::TimeshiftWriter;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr uint64_t kUnit = TimeshiftWriter::kUnit;
constexpr uint64_t kReserve = uint64_t{64} << 20;
constexpr uint64_t kPlenty = uint64_t{1} << 40;
constexpr int64_t kSixMinutes = 360000;

int64_t removed_now() { return gst_shared_cut_info_get_total_cutoffset(gst_shared_cut_info_get()); }

// The recording's own view, and what is done in the middle of it.
struct Observer : TimeshiftObserver {
  void taken(const uint8_t *packets, size_t count) override {
    taken_bytes.insert(taken_bytes.end(), packets, packets + count * kPacketSize);
  }
  void began(const std::string &path) override {
    events.push_back("began");
    stream = path;
  }
  void stored(uint64_t bytes) override {
    stored_bytes = bytes;
    if (on_stored) on_stored(bytes);
  }
  void ended() override {
    events.push_back("ended");
    if (on_ended) on_ended();
  }

  Bytes taken_bytes;
  std::vector<std::string> events;
  std::string stream;
  uint64_t stored_bytes = 0;
  std::function<void(uint64_t)> on_stored;
  std::function<void()> on_ended;
};

class TimeshiftTest : public RecordingTest {
 protected:
  void SetUp() override {
    hooks = {};
    hooks.free_space = [] { return kPlenty; };
    fake_platform().truncate_range = [this](int fd, int64_t start, int64_t end,
                                            const std::string &) {
      ++truncations_;
      return truncate_result_ == 0 ? take_out(fd, start, end) : truncate_result_.load();
    };
  }
  void TearDown() override {
    hooks = {};
    fake_platform().truncate_range = nullptr;
    EXPECT_TRUE(registry_is_empty());
  }

  // One picture a second, an I-picture every five, and other packets, each of which carries its
  // number; with 300 of them behind every five pictures a minute is four units.
  static Bytes minutes(unsigned count, size_t others = 300) {
    TestStream stream(Codec::kMpeg2);
    stream.duration = 90000;
    stream.tables();
    for (unsigned second = 0; second < count * 60; second += 5) {
      stream.gop(5);
      stream.packets(numbered(others, stream.count()));
    }
    return stream.bytes();
  }

  // The last picture lasts 40 ms, as its header says.
  static uint32_t duration(unsigned count) { return count * 60000 - 960; }

  static Bytes numbered(size_t count, uint64_t first) {
    Bytes out;
    Bytes packet = ts_packet(0x1ffe, repeat(0x55, 184));
    for (size_t i = 0; i < count; ++i) {
      const uint64_t number = first + i;
      for (size_t at = 0; at < 8; ++at) packet[10 + at] = static_cast<uint8_t>(number >> 8 * at);
      out.insert(out.end(), packet.begin(), packet.end());
    }
    return out;
  }

  Outcome shift(const Bytes &bytes, const Timeshift &timeshift = {.max_time_ms = kSixMinutes}) {
    Options options;
    options.timeshift = timeshift;
    options.timeshift->observer = &observer_;
    return record(bytes, options);
  }

  // Whole units; what is there is what was recorded from the removed byte on, and the index is that
  // of an ordinary recording.
  void expect_sound(const Outcome &outcome) {
    const Bytes file = read_file(stream());
    const uint64_t removed = outcome.summary.removed;
    EXPECT_EQ(outcome.summary.bytes % kPacketSize, 0u);
    EXPECT_EQ(removed % kUnit, 0u);
    ASSERT_EQ(file.size(), outcome.summary.bytes - removed);
    ASSERT_LE(outcome.summary.bytes, observer_.taken_bytes.size());
    const auto from = observer_.taken_bytes.begin() + static_cast<std::ptrdiff_t>(removed);
    EXPECT_TRUE(std::equal(file.begin(), file.end(), from));
    const IndexFile index = index_file();
    ASSERT_FALSE(index.gops.empty());
    EXPECT_EQ(index.torn_bytes, 0u);
    EXPECT_EQ(index.base.total_size, outcome.summary.bytes);
    EXPECT_EQ(index.base.end_time_code, index.gops.back().next_gop_first_time);
    EXPECT_LE(index.gops.back().next_gop_first_packet_count * kPacketSize, outcome.summary.bytes);
    for (const pvr_gop_info_s &gop : index.gops) {
      EXPECT_EQ(observer_.taken_bytes[gop.packet_count * kPacketSize + 1] & 0x5f, 0x41);
    }
  }

  Observer observer_;
  std::atomic<int> truncations_{0};
  std::atomic<int> truncate_result_{0};

 private:
  static int take_out(int fd, int64_t start, int64_t end) {
    struct stat64 status {};
    if (fstat64(fd, &status) != 0) return -1;
    Bytes rest(static_cast<size_t>(status.st_size - end));
    if (pread64(fd, rest.data(), rest.size(), end) != static_cast<ssize_t>(rest.size())) return -1;
    if (pwrite64(fd, rest.data(), rest.size(), start) != static_cast<ssize_t>(rest.size())) {
      return -1;
    }
    return ftruncate64(fd, start + static_cast<int64_t>(rest.size()));
  }
};

// --- the recording

TEST_F(TimeshiftTest, NoMoreThanTheSpanIsKeptAndTheIndexStaysWhole) {
  const Bytes input = minutes(15);
  size_t largest = 0;
  observer_.on_stored = [&](uint64_t bytes) {
    largest = std::max<size_t>(largest, bytes - static_cast<uint64_t>(removed_now()));
  };
  const Outcome outcome = shift(input);
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_EQ(outcome.summary.duration_ms, duration(15));
  EXPECT_EQ(outcome.summary.note, "");
  EXPECT_FALSE(outcome.summary.disk_full);
  expect_sound(outcome);
  EXPECT_GE(truncations_, 8);
  // Six minutes, and what a queue of blocks and a unit add.
  EXPECT_LT(largest, input.size() / 15 * 6 + (size_t{2} << 20));
  EXPECT_GT(outcome.summary.removed, input.size() / 15 * 7);

  const std::vector<pvr_gop_info_s> gops = index_file().gops;
  remove_recording();
  ASSERT_TRUE(record(input).ok);
  const std::vector<pvr_gop_info_s> plain = index_file().gops;
  ASSERT_EQ(gops.size(), plain.size());
  for (size_t i = 0; i + 1 < gops.size(); ++i) {
    EXPECT_EQ(gops[i].packet_count, plain[i].packet_count) << i;
    EXPECT_EQ(gops[i].time_code, plain[i].time_code) << i;
    EXPECT_EQ(gops[i].next_gop_first_packet_count, plain[i].next_gop_first_packet_count) << i;
  }
}

TEST_F(TimeshiftTest, TheStreamIsWrittenInWholeUnitsAndFilledUpWithNullPackets) {
  const Bytes input = minutes(1);
  std::vector<gint64> sizes;
  hooks.write = [&](GstPvrFile *, gint64 size) -> std::optional<gint64> {
    sizes.push_back(size);
    return {};
  };
  const Outcome outcome = shift(input);
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_THAT(sizes, ::testing::Each(gint64{kUnit}));
  const Bytes file = read_file(stream());
  EXPECT_EQ(file.size(), sizes.size() * kUnit);
  EXPECT_EQ(file.size(), outcome.summary.bytes);
  ASSERT_GT(file.size(), input.size());
  EXPECT_TRUE(std::equal(input.begin(), input.end(), file.begin()));
  Bytes null_packet(kPacketSize, 0xff);
  std::copy_n(Bytes{0x47, 0x1f, 0xff, 0x10}.begin(), 4, null_packet.begin());
  for (size_t at = input.size(); at < file.size(); at += kPacketSize) {
    ASSERT_TRUE(std::equal(null_packet.begin(), null_packet.end(), file.begin() + at)) << at;
  }
  EXPECT_TRUE(is_usable(stream()));
}

TEST_F(TimeshiftTest, AStreamOfWholeUnitsGetsNoNullPackets) {
  Bytes input = minutes(1);
  const size_t missing = TimeshiftWriter::filling(input.size() / kPacketSize);
  const Bytes rest = numbered(missing, 0);
  input.insert(input.end(), rest.begin(), rest.end());
  const Outcome outcome = shift(input);
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_EQ(read_file(stream()), input);
}

TEST_F(TimeshiftTest, TheTimeIsToldBeforeEveryWriteAndNeverAheadOfTheIndex) {
  std::vector<std::string> calls;
  std::set<uint32_t> times;
  hooks.last_wrote_time = [&](const GstPvrFile *, uint32_t time) {
    calls.push_back("time");
    times.insert(time);
    const IndexFile index = index_file();
    EXPECT_LE(time, index.gops.empty() ? 0 : index.gops.back().next_gop_first_time);
  };
  hooks.write = [&](GstPvrFile *, gint64) -> std::optional<gint64> {
    calls.push_back("write");
    return {};
  };
  ASSERT_TRUE(shift(minutes(3)).ok);
  ASSERT_FALSE(times.empty());
  for (size_t i = 0; i < calls.size(); ++i) EXPECT_EQ(calls[i], i % 2 == 0 ? "time" : "write") << i;
  EXPECT_GT(*times.rbegin(), 60000u);
}

// Time may jump when storing has run ahead of indexing; cuts come a minute apart.
TEST_F(TimeshiftTest, TheToldTimeCatchesUpInSteps) {
  std::vector<uint32_t> times;
  hooks.last_wrote_time = [&](const GstPvrFile *, uint32_t time) { times.push_back(time); };
  write_file(stream(), {});
  TimeshiftWriter writer({.max_time_ms = kSixMinutes});
  ASSERT_TRUE(writer.create(stream()));
  const Bytes unit = numbered(TimeshiftWriter::kUnitPackets, 0);
  for (int i = 0; i < 10; ++i) writer.write(unit.data(), unit.size());
  writer.set_time(100000);
  for (int i = 0; i < 5; ++i) writer.write(unit.data(), unit.size());
  EXPECT_TRUE(writer.finish());
  times.erase(times.begin(), times.begin() + 10);
  EXPECT_THAT(times, ElementsAre(30000, 60000, 90000, 100000, 100000));
}

TEST_F(TimeshiftTest, AStreamOfFewUnitsIsToldItsOwnSteps) {
  std::vector<uint32_t> times;
  hooks.last_wrote_time = [&](const GstPvrFile *, uint32_t time) { times.push_back(time); };
  write_file(stream(), {});
  TimeshiftWriter writer({.max_time_ms = kSixMinutes});
  ASSERT_TRUE(writer.create(stream()));
  const Bytes unit = numbered(TimeshiftWriter::kUnitPackets, 0);
  for (uint32_t i = 0; i < 5; ++i) {
    writer.set_time(i * 40000);
    writer.write(unit.data(), unit.size());
  }
  EXPECT_TRUE(writer.finish());
  EXPECT_THAT(times, ElementsAre(0, 40000, 80000, 120000, 160000));
}

TEST_F(TimeshiftTest, TheIndexIsAnotherWriterOfTheSameRecording) {
  std::optional<int> writers;
  observer_.on_stored = [&](uint64_t) {
    const gint32 key = gst_shared_info_pre_add_item(gst_shared_info_get(), stream().c_str());
    writers =
        gst_shared_info_get_item(gst_shared_info_get(), static_cast<guint32>(key))->write_count;
  };
  ASSERT_TRUE(shift(minutes(1)).ok);
  EXPECT_EQ(writers, 2);
}

TEST_F(TimeshiftTest, TheObserverIsToldTheEndWhileOffsetsStillHold) {
  int64_t removed = 0;
  gint64 size = 0;
  observer_.on_ended = [&] {
    removed = removed_now();
    GstPvrFile file{};
    gst_pvr_file_init(&file);
    EXPECT_GE(gst_pvr_file_open(&file, observer_.stream.c_str(), GST_PVR_FILE_READ,
                                GST_PVR_FILE_BUFFER_IO, GST_PVR_FILE_TIMESHIFT, GST_PVR_FILE_STREAM,
                                0, 0),
              0);
    size = gst_pvr_file_size(&file);
    gst_pvr_file_close(&file);
    gst_pvr_file_deinit(&file);
  };
  const Outcome outcome = shift(minutes(8));
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_THAT(observer_.events, ElementsAre("began", "ended"));
  EXPECT_EQ(observer_.stored_bytes, outcome.summary.bytes);
  EXPECT_GT(removed, 0);
  EXPECT_EQ(static_cast<uint64_t>(removed), outcome.summary.removed);
  EXPECT_EQ(static_cast<uint64_t>(size), outcome.summary.bytes);
  EXPECT_EQ(removed_now(), 0);
}

TEST_F(TimeshiftTest, ARecordingWithoutAWholeGopLeavesNothingAndTellsItsEnd) {
  hooks.write = [](GstPvrFile *, gint64) { return std::optional<gint64>(0); };
  const Outcome outcome = shift(minutes(1));
  EXPECT_FALSE(outcome.ok);
  EXPECT_THAT(outcome.error, HasSubstr("Input/output error"));
  EXPECT_THAT(files(), IsEmpty());
  EXPECT_THAT(observer_.events, ElementsAre("began", "ended"));
}

TEST_F(TimeshiftTest, AStopEndsItWithWholeUnits) {
  std::atomic<bool> stop{false};
  observer_.on_stored = [&](uint64_t bytes) { stop = bytes > 6 * kUnit; };
  Options options;
  options.timeshift = Timeshift{.max_time_ms = kSixMinutes, .observer = &observer_};
  options.stop = &stop;
  const Outcome outcome = record(minutes(8), options);
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_LT(outcome.summary.duration_ms, duration(8));
  EXPECT_EQ(outcome.summary.bytes % kUnit, 0u);
  expect_sound(outcome);
}

// --- refused before anything is touched

TEST_F(TimeshiftTest, ABufferBelowSixMinutesOrInTheLegacyLayoutIsRefused) {
  EXPECT_THAT(shift(minutes(1), {.max_time_ms = kSixMinutes - 1}).error, HasSubstr("6 minutes"));
  Options options;
  options.timeshift = Timeshift{.max_time_ms = kSixMinutes};
  options.layout = Layout::kLegacy;
  EXPECT_THAT(record(minutes(1), options).error, HasSubstr("current index layout"));
  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(TimeshiftTest, ALibraryThatTakesNoSpanLeavesNothing) {
  hooks.set_max_time = [] { return std::optional<gint64>(-1); };
  const Outcome outcome = shift(minutes(1));
  EXPECT_FALSE(outcome.ok);
  EXPECT_THAT(outcome.error, HasSubstr("cannot write"));
  EXPECT_THAT(files(), IsEmpty());
  EXPECT_THAT(observer_.events, IsEmpty());
}

// --- cuts that hang, or fail

TEST_F(TimeshiftTest, AWriteThatMetAHangingCutIsRepeated) {
  int call = 0;
  hooks.write = [&](GstPvrFile *, gint64) -> std::optional<gint64> {
    ++call;
    if (call >= 3 && call < 3 + 14) return -3;
    return {};
  };
  const Outcome outcome = shift(minutes(3));
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_EQ(outcome.summary.note, "");
  expect_sound(outcome);
}

TEST_F(TimeshiftTest, ACutThatHangsForHalfAMinuteEndsTheRecordingButKeepsIt) {
  int call = 0;
  hooks.write = [&](GstPvrFile *, gint64) -> std::optional<gint64> {
    if (++call > 4) return -3;
    return {};
  };
  const Outcome outcome = shift(minutes(3));
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_EQ(call, 4 + 15);
  EXPECT_THAT(outcome.summary.note, HasSubstr("Device or resource busy"));
  EXPECT_FALSE(outcome.summary.disk_full);
  EXPECT_EQ(outcome.summary.bytes, 4 * kUnit);
  expect_sound(outcome);
  EXPECT_TRUE(is_usable(stream()));
}

TEST_F(TimeshiftTest, OtherCallsThatMetAHangingCutAreRepeatedToo) {
  int closes = 0;
  int settings = 0;
  hooks.close = [&](GstPvrFile *) {
    return ++closes < 4 ? std::optional<gint64>(-3) : std::nullopt;
  };
  hooks.set_max_time = [&] { return ++settings < 4 ? std::optional<gint64>(-3) : std::nullopt; };
  const Outcome outcome = shift(minutes(1));
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_EQ(closes, 4);
  EXPECT_EQ(settings, 4);
  EXPECT_TRUE(is_usable(stream()));
}

TEST_F(TimeshiftTest, AHandleThatACutDoesNotLetGoOutlivesTheRecording) {
  static GstPvrFile *handle = nullptr;  // kept for good: what is left to a cut is never freed
  hooks.close = [&](GstPvrFile *file) {
    handle = file;
    return std::optional<gint64>(-3);
  };
  const Outcome outcome = shift(minutes(1));
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_THAT(outcome.summary.note, HasSubstr("Device or resource busy"));
  EXPECT_TRUE(is_usable(stream()));
  hooks.close = nullptr;
  EXPECT_EQ(gst_pvr_file_tell(handle), static_cast<gint64>(outcome.summary.bytes));
  EXPECT_EQ(gst_pvr_file_close(handle), 1);
  gst_pvr_file_deinit(handle);
}

TEST_F(TimeshiftTest, WhenTheFrontCannotBeCutOffTheRecordingGoesOn) {
  truncate_result_ = -1;
  const Outcome outcome = shift(minutes(9));
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_THAT(outcome.summary.note, HasSubstr("a cut failed and cutting stopped"));
  EXPECT_GE(truncations_, 1);
  EXPECT_EQ(outcome.summary.removed, 0u);
  EXPECT_EQ(outcome.summary.duration_ms, duration(9));
  expect_sound(outcome);
  EXPECT_TRUE(is_usable(stream()));
}

TEST_F(TimeshiftTest, ACutThatGotNoThreadIsNotWaitedFor) {
  hooks.no_thread = true;
  Faults faults;
  faults.all_threads();
  faults.answer("usleep", 0);
  const Outcome outcome = shift(minutes(9));
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_EQ(faults.count("usleep"), 0);
  EXPECT_EQ(truncations_, 0);
  EXPECT_EQ(outcome.summary.removed, 0u);
  EXPECT_EQ(outcome.summary.duration_ms, duration(9));
}

TEST_F(TimeshiftTest, WhileACutHangsTheSpanIsLeftAlone) {
  TimeshiftFile file;
  ASSERT_TRUE(file.open(stream()));
  ASSERT_TRUE(file.set_max_time(kSixMinutes));
  const auto span = [] {
    return gst_shared_cut_info_get_fixed_duration(gst_shared_cut_info_get());
  };
  gst_shared_info_update_cut_mode(gst_shared_info_get(), 0, TRUE);
  {
    Faults faults;
    faults.answer("usleep", 0);
    EXPECT_FALSE(file.shorten(90000, 200000));
    EXPECT_EQ(span(), 300000);
  }
  gst_shared_info_update_cut_mode(gst_shared_info_get(), 0, FALSE);
  EXPECT_TRUE(file.shorten(90000, 200000));
  EXPECT_EQ(span(), 90000);
  EXPECT_TRUE(file.close());
}

// --- disks

TEST_F(TimeshiftTest, AShortWriteIsCompleted) {
  write_file(input(), minutes(1));
  for (int nth = 1; nth <= 4; ++nth) {
    remove_recording();
    observer_ = {};
    const OpenFile in(input());
    Options options;
    options.timeshift = Timeshift{.max_time_ms = kSixMinutes, .observer = &observer_};
    Outcome outcome;
    int call = 0;
    {
      Faults faults;
      faults.all_threads();
      hooks.write = [&](GstPvrFile *, gint64) -> std::optional<gint64> {
        if (++call == nth) faults.shorten("write", 3 * 4096);
        return {};
      };
      outcome = plexa::rec::record(in.fd(), stream(), options);
    }
    ASSERT_TRUE(outcome.ok) << outcome.error;
    EXPECT_EQ(static_cast<uint64_t>(call), outcome.summary.bytes / kUnit + 1);
    expect_sound(outcome);
    EXPECT_TRUE(is_usable(stream()));
  }
}

// A part of a unit arrives and then the disk is full, at every write.
TEST_F(TimeshiftTest, AWriteThatEndsHalfWayLeavesWholePackets) {
  const Bytes input = minutes(2);
  bool fired = true;
  int taken_by_the_index = 0;
  for (int nth = 1; fired; ++nth) {
    ASSERT_LT(nth, 50);
    remove_recording();
    observer_ = {};
    write_file(this->input(), input);
    const OpenFile in(this->input());
    Options options;
    options.timeshift = Timeshift{.max_time_ms = kSixMinutes, .observer = &observer_};
    Outcome outcome;
    int call = 0;
    fired = false;
    {
      Faults faults;
      faults.all_threads();
      hooks.write = [&](GstPvrFile *, gint64) -> std::optional<gint64> {
        if (++call == nth) faults.shorten("write", 3 * 4096);
        if (call == nth + 1) {
          fired = true;
          faults.fail("write", ENOSPC);
        }
        return {};
      };
      outcome = plexa::rec::record(in.fd(), stream(), options);
    }
    if (!fired) break;
    if (!outcome.ok) {
      EXPECT_THAT(files(), IsEmpty()) << nth;
      continue;
    }
    EXPECT_TRUE(outcome.summary.disk_full) << nth;
    EXPECT_EQ(outcome.summary.bytes % kPacketSize, 0u) << nth;
    const uint64_t whole_packets =
        (static_cast<uint64_t>(nth - 1) * kUnit + 3 * 4096) / kPacketSize * kPacketSize;
    // The next write of any thread is the short one; now and then that is the index's.
    if (outcome.summary.bytes != whole_packets && ++taken_by_the_index < 20) {
      --nth;
      continue;
    }
    EXPECT_EQ(outcome.summary.bytes, whole_packets);
    expect_sound(outcome);
    EXPECT_TRUE(is_usable(stream())) << nth;
  }
}

TEST_F(TimeshiftTest, AnyWriteThatFailsLeavesAUsableRecordingOrNothing) {
  write_file(input(), minutes(2));
  for (const int error : {ENOSPC, EIO, EDQUOT}) {
    bool fired = true;
    for (int nth = 1; fired; ++nth) {
      ASSERT_LT(nth, 100);
      remove_recording();
      observer_ = {};
      const OpenFile in(input());
      Options options;
      options.timeshift = Timeshift{.max_time_ms = kSixMinutes, .observer = &observer_};
      Outcome outcome;
      {
        Faults faults;
        faults.all_threads();
        faults.fail("write", error, nth);
        outcome = plexa::rec::record(in.fd(), stream(), options);
        fired = faults.count("write") >= nth;
      }
      if (!fired) break;
      if (outcome.ok) {
        EXPECT_TRUE(is_usable(stream())) << nth;
        EXPECT_EQ(outcome.summary.disk_full, error != EIO) << nth;
        EXPECT_THAT(outcome.summary.note, HasSubstr("takes no more")) << nth;
      } else if (!files().empty()) {
        EXPECT_THAT(outcome.error, HasSubstr("index cannot be completed"));
        EXPECT_TRUE(is_usable(stream(), false)) << nth;
      }
    }
  }
}

TEST_F(TimeshiftTest, AQuotaThatIsUsedUpHasTheBufferCutEarly) {
  bool full = false;
  hooks.write = [&](GstPvrFile *file, gint64) -> std::optional<gint64> {
    full = full || observer_.stored_bytes > 20 * kUnit;  // five minutes
    if (!full || removed_now() > 0) return {};
    // The library's own write fails, and starts the cut that is due.
    Faults faults;
    faults.fail("write", EDQUOT);
    const Bytes block(4096);
    return __real_gst_pvr_file_write(file, block.data(), 4096);
  };
  const Outcome outcome = shift(minutes(7));
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_TRUE(full);
  EXPECT_EQ(outcome.summary.duration_ms, duration(7));
  EXPECT_FALSE(outcome.summary.disk_full);
  EXPECT_THAT(outcome.summary.note, HasSubstr("the disk was nearly full"));
  expect_sound(outcome);
}

// --- the reserve

TEST_F(TimeshiftTest, ADiskWithoutTheReserveTakesNothing) {
  hooks.free_space = [] { return kReserve + kUnit - 1; };
  const Outcome outcome = shift(minutes(1));
  EXPECT_FALSE(outcome.ok);
  EXPECT_THAT(outcome.error, HasSubstr("the disk is full: less than 64 MiB of it would stay free"));
  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(TimeshiftTest, TheReserveStaysFreeToTheByte) {
  uint64_t space = kReserve + 7 * kUnit;
  hooks.free_space = [&] { return space; };
  hooks.write = [&](GstPvrFile *, gint64 size) -> std::optional<gint64> {
    space -= static_cast<uint64_t>(size);
    return {};
  };
  const Outcome outcome = shift(minutes(3));
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_EQ(space, kReserve);
  EXPECT_EQ(outcome.summary.bytes, 7 * kUnit);
  EXPECT_TRUE(outcome.summary.disk_full);
  EXPECT_THAT(outcome.summary.note, HasSubstr("less than 64 MiB of it would stay free"));
  EXPECT_TRUE(is_usable(stream()));
}

TEST_F(TimeshiftTest, ADiskThatDoesNotTellHasRoom) {
  hooks.free_space = [] { return std::nullopt; };
  const Outcome outcome = shift(minutes(1));
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_EQ(outcome.summary.note, "");
}

TEST_F(TimeshiftTest, ANearlyFullDiskHasTheBufferCutEarlyAndTheRecordingGoesOn) {
  // Room for four minutes: less than the buffer would hold.
  const uint64_t room = kReserve + 16 * kUnit;
  uint64_t least = UINT64_MAX;
  const auto free_now = [&] {
    return room - std::min(room, observer_.stored_bytes - static_cast<uint64_t>(removed_now()));
  };
  hooks.free_space = [&] { return free_now(); };
  observer_.on_stored = [&](uint64_t) { least = std::min(least, free_now()); };
  const Outcome outcome = shift(minutes(15));
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_EQ(outcome.summary.duration_ms, duration(15));
  EXPECT_FALSE(outcome.summary.disk_full);
  EXPECT_THAT(outcome.summary.note, HasSubstr("the disk was nearly full: the buffer was cut to"));
  EXPECT_GE(least, kReserve);
  EXPECT_LE(read_file(stream()).size(), 16 * kUnit);
  EXPECT_GT(truncations_, 8);
  expect_sound(outcome);
}

TEST_F(TimeshiftTest, ADiskThatOthersFillUpEndsTheRecordingBehindTheShortestBuffer) {
  hooks.free_space = [&] {
    return observer_.stored_bytes > 30 * kUnit ? kReserve + kUnit - 1 : kPlenty;
  };
  const Outcome outcome = shift(minutes(15));
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_TRUE(outcome.summary.disk_full);
  EXPECT_THAT(outcome.summary.note, HasSubstr("less than 64 MiB of it would stay free"));
  EXPECT_GT(outcome.summary.removed, 20 * kUnit);
  EXPECT_LT(outcome.summary.duration_ms, duration(15));
  expect_sound(outcome);
}

TEST_F(TimeshiftTest, WhenAnEarlyCutRemovesNothingTheRecordingEnds) {
  truncate_result_ = -1;
  hooks.free_space = [&] {
    return observer_.stored_bytes > 16 * kUnit ? kReserve + kUnit - 1 : kPlenty;
  };
  const Outcome outcome = shift(minutes(9));
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_EQ(truncations_, 1);
  EXPECT_TRUE(outcome.summary.disk_full);
  EXPECT_EQ(outcome.summary.bytes, 18 * kUnit);
  EXPECT_TRUE(is_usable(stream()));
}

// 70 seconds are recorded when it gets scarce; three quarters of them would be less than a minute.
TEST_F(TimeshiftTest, ABufferIsNotCutToLessThanAMinute) {
  hooks.free_space = [&] {
    return observer_.stored_bytes >= 42 * kUnit ? kReserve + kUnit - 1 : kPlenty;
  };
  const Outcome outcome = shift(minutes(2, 3000));
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_EQ(truncations_, 0);
  EXPECT_TRUE(outcome.summary.disk_full);
  EXPECT_EQ(outcome.summary.bytes, 42 * kUnit);
  EXPECT_GT(outcome.summary.duration_ms, 61000u);
  EXPECT_TRUE(is_usable(stream()));
}

// --- pace

TEST(PaceTest, ARecordingIsHeldBackToTheClock) {
  using Clock = std::chrono::steady_clock;
  Pace pace(1000, nullptr);
  const auto start = Clock::now();
  pace.wait_for(1);
  pace.wait_for(30000);
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(30));
}

TEST(PaceTest, AStopEndsTheWaitAndNoSpeedNeverWaits) {
  const std::atomic<bool> stop{true};
  Pace slow(0.01, &stop);
  slow.wait_for(INT32_MAX);
  Pace unbounded(0, nullptr);
  unbounded.wait_for(INT32_MAX);
}

}  // namespace
}  // namespace plexa_test
