// Recordings that go on for a long time: offsets beyond 32 bits, times at the end of theirs.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "library_state.h"
#include "temp_dir.h"
#include "timeshift_support.h"

using namespace plexa_test;

namespace {

constexpr int64_t kTwoTo32 = int64_t{1} << 32;
constexpr int64_t kTwoTo31 = int64_t{1} << 31;

class TimeshiftDay : public testing::Test {
 protected:
  ~TimeshiftDay() override { EXPECT_TRUE(registry_is_empty()); }

  // Without it a cut copies what stays, and that would be gigabytes each time.
  bool can_collapse() {
    const int fd = open(folder_.file("probe").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    const bool can =
        ftruncate(fd, 2 * kUnit) == 0 && fallocate(fd, FALLOC_FL_COLLAPSE_RANGE, 0, kUnit) == 0;
    close(fd);
    return can;
  }

  // A whole unit through a handle that stands anywhere.
  void expect_unit_at(Handle &handle, int64_t offset) {
    std::vector<uint8_t> unit(kUnit);
    EXPECT_EQ(gst_pvr_file_seek(handle.get(), offset, SEEK_SET), offset);
    EXPECT_EQ(gst_pvr_file_read(handle.get(), unit.data(), kUnit), kUnit);
    EXPECT_TRUE(is_stream(offset, unit.data(), kUnit)) << "at " << offset;
    EXPECT_EQ(gst_pvr_file_tell(handle.get()), offset + kUnit);
  }

  TempDir folder_;
  Complaints complaints_;
};

// 60 MB a minute, of which only the first unit is really written; a group of pictures is a minute
// long, and the buffer 91 minutes, the longest there is. The file itself is beyond 4 GiB.
TEST_F(TimeshiftDay, OfRecordingKeepsNinetyMinutesAtHand) {
  if (!can_collapse()) GTEST_SKIP() << "the file system cannot collapse a range";
  constexpr int64_t kUnitsAMinute = 312;
  constexpr int64_t kMinute = kUnitsAMinute * kUnit;
  static_assert(90 * kMinute > kTwoTo32);
  Recording::Shape shape;
  shape.gop_packets = kUnitsAMinute * kUnitPackets;
  shape.time_of = [](int64_t packet) {
    return static_cast<uint32_t>(packet / kUnitPackets * 60000 / kUnitsAMinute);
  };
  Recording recording(folder_.file("day"), shape);
  ASSERT_TRUE(recording.open());
  ASSERT_EQ(gst_pvr_file_set_max_time(recording.writer().get(), 5460000), 1);
  Handle reader;
  ASSERT_EQ(reader.open_to_read(recording.path()), 1);

  const int minutes = 90 + count_of(60, 24 * 60 - 90);
  for (int minute = 0; minute < minutes && !HasFailure(); ++minute) {
    ASSERT_TRUE(recording.write_units(1));
    recording.wait_for_cut();
    const int64_t live = minute * kMinute;
    const int64_t oldest = minute < 91 ? 0 : (minute - 90) * kMinute;
    ASSERT_EQ(bytes_cut_off(), oldest) << "minute " << minute;
    expect_unit_at(reader, live);
    expect_unit_at(reader, oldest);
    EXPECT_EQ(gst_pvr_file_size(reader.get()), live + kUnit);
    EXPECT_EQ(gst_pvr_file_seek(reader.get(), oldest - 1, SEEK_SET), -1);
    EXPECT_EQ(gst_pvr_file_get_rel_start_time(), minute < 90 ? 0 : (minute - 90) * 60000);
    ASSERT_TRUE(recording.skip_units(kUnitsAMinute - 1));
  }
  EXPECT_EQ(bytes_cut_off(), (minutes - 91) * kMinute);
  EXPECT_EQ(reader.close(), 1);
  EXPECT_EQ(recording.close(), 1);
}

// 2^31 ms are 24 days. The clock jumps there after 20 seconds; cuts are due 15, 10 and 5 seconds
// before it, and the next one would be beyond what a time can say.
TEST_F(TimeshiftDay, TwentyFiveIsOneTooManyForTimesButNotForTheRecording) {
  Recording::Shape shape;
  shape.gop_packets = kUnitPackets;
  shape.time_of = [](int64_t packet) {
    const int64_t time = packet * 1000 / kUnitPackets;
    return static_cast<uint32_t>(time < 20000 ? time : kTwoTo31 - 60000 + time);
  };
  Recording recording(folder_.file("month"), shape);
  ASSERT_TRUE(recording.open());
  ASSERT_TRUE(recording.set_span(static_cast<uint32_t>(kTwoTo31 - 20000),
                                 static_cast<uint32_t>(kTwoTo31 - 15000)));
  const auto write_until = [&](int second) {
    while (recording.written() < second * kUnit) {
      ASSERT_TRUE(recording.write_units(1));
      recording.wait_for_cut();
    }
  };
  write_until(45);
  EXPECT_EQ(bytes_cut_off(), 0);
  for (const int seconds : {5, 10, 15}) {
    write_until(41 + seconds);
    EXPECT_EQ(bytes_cut_off(), seconds * kUnit);
  }
  const int before = truncations();
  write_until(150);
  EXPECT_EQ(truncations(), before) << "a sum of times has overflowed into a cut";
  EXPECT_EQ(start_of_stream_file(recording.path()), 15 * kUnit);

  Handle reader;
  ASSERT_EQ(reader.open_to_read(recording.path()), 1);
  expect_unit_at(reader, 15 * kUnit);
  expect_unit_at(reader, 149 * kUnit);
  EXPECT_EQ(reader.close(), 1);
  EXPECT_EQ(recording.close(), 1);
}

}  // namespace
