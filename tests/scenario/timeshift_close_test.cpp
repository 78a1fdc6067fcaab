// The writer of a time-shift recording closes while a cut is due, pending, running or just over.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <random>
#include <thread>

#include "library_state.h"
#include "temp_dir.h"
#include "timeshift_support.h"

using namespace plexa_test;

namespace {

constexpr uint32_t kKeep = 3000;
constexpr uint32_t kFirstCut = 5000;

class TimeshiftClose : public testing::Test {
 protected:
  // Whatever still runs of a cut ends by itself, and takes its descriptors along.
  void expect_nothing_left() {
    for (int i = 0; i < 5000 && open_descriptors() != descriptors_; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(open_descriptors(), descriptors_);
    EXPECT_TRUE(registry_is_empty());
  }

  // Up to the write that starts a cut, now and then one less; closes up to some milliseconds later.
  void record_and_close(Recording &recording) {
    ASSERT_TRUE(recording.open());
    ASSERT_TRUE(recording.set_span(kKeep, kFirstCut));
    ASSERT_TRUE(recording.write_units(5 + pick(3)));
    std::this_thread::sleep_for(std::chrono::microseconds(pick(4) == 0 ? 0 : pick(12000)));
    ASSERT_EQ(recording.close(), 1);
  }

  int pick(int below) { return std::uniform_int_distribution<int>(0, below - 1)(engine_); }

  const int descriptors_ = [] {
    bytes_cut_off();
    return open_descriptors();
  }();
  TempDir folder_;
  Complaints complaints_;
  std::mt19937 engine_{1000};
};

TEST_F(TimeshiftClose, AtAnyMomentAroundACutLeavesAWholeFile) {
  const int rounds = count_of(40, 1000);
  const int before = truncations();
  for (int i = 0; i < rounds && !HasFailure(); ++i) {
    Recording recording(folder_.file("live"));
    record_and_close(recording);
    EXPECT_TRUE(start_of_stream_file(recording.path()).has_value()) << "round " << i;
    EXPECT_TRUE(registry_is_empty()) << "round " << i;
  }
  EXPECT_GT(truncations(), before);
  expect_nothing_left();
}

TEST_F(TimeshiftClose, AtAnyMomentAroundACutLetsReadersReadOn) {
  const int rounds = count_of(25, 500);
  for (int i = 0; i < rounds && !HasFailure(); ++i) {
    Recording recording(folder_.file("live"));
    ASSERT_TRUE(recording.open());
    std::vector<std::unique_ptr<Reader>> readers;
    Threads threads;
    for (unsigned n = 0; n < 4; ++n) {
      readers.push_back(std::make_unique<Reader>(recording, complaints_, n));
      ASSERT_TRUE(readers.back()->open());
      threads.run([&reader = *readers.back()] { reader.read_unbroken(); });
    }
    ASSERT_TRUE(recording.set_span(kKeep, kFirstCut));
    ASSERT_TRUE(recording.write_units(5 + pick(3)));
    std::this_thread::sleep_for(std::chrono::microseconds(pick(12000)));
    ASSERT_EQ(recording.close(), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));  // they still read
    threads.stop();
    for (const auto &reader : readers) EXPECT_EQ(reader->close(), 1);
    EXPECT_TRUE(start_of_stream_file(recording.path()).has_value()) << "round " << i;
  }
  EXPECT_EQ(complaints_.text(), "");
  expect_nothing_left();
}

// The next recording takes the slot that the last one has just left.
TEST_F(TimeshiftClose, IsFollowedAtOnceByTheNextRecordingUnderTheSameKey) {
  const int rounds = count_of(20, 500);
  for (int i = 0; i < rounds && !HasFailure(); ++i) {
    Recording first(folder_.file("first"));
    record_and_close(first);
    Recording second(folder_.file("second"));
    ASSERT_TRUE(second.open());
    EXPECT_EQ(bytes_cut_off(), 0);
    ASSERT_TRUE(second.set_span(kKeep, kFirstCut));
    ASSERT_TRUE(second.write_units(7));
    second.wait_for_cut();
    EXPECT_EQ(start_of_stream_file(second.path()), bytes_cut_off()) << "round " << i;
    EXPECT_GT(bytes_cut_off(), 0);
  }
  expect_nothing_left();
}

}  // namespace
