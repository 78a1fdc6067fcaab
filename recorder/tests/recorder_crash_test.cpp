// A recorder that is killed at any moment leaves a recording that is usable up to its last whole
// GOP, and that repair brings to its end.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <random>
#include <thread>

#include "recording_fixture.h"
#include "session.h"

namespace plexa_test {
namespace {

class CrashTest : public RecordingTest, public ::testing::WithParamInterface<bool> {
 protected:
  static Bytes long_stream() {
    TestStream stream(Codec::kH264);
    stream.tables();
    for (unsigned i = 0; i < 300; ++i) stream.gop(12, {.size = 1500});
    return stream.bytes();
  }

  // Starts a recording of what is written into the result's pipe.
  pid_t start(int &input, bool direct) {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const pid_t child = fork();
    if (child == 0) {
      close(ends[1]);
      Options options;
      options.direct = direct;
      plexa::rec::record(ends[0], stream(), options);
      _exit(0);
    }
    close(ends[0]);
    input = ends[1];
    return child;
  }

  static void write_all(int fd, const uint8_t *data, size_t size) {
    while (size > 0) {
      const ssize_t wrote = write(fd, data, size);
      if (wrote <= 0) return;
      data += wrote;
      size -= static_cast<size_t>(wrote);
    }
  }
};

INSTANTIATE_TEST_SUITE_P(Modes, CrashTest, ::testing::Bool(),
                         [](const auto &mode) { return mode.param ? "Direct" : "Buffered"; });

TEST_P(CrashTest, KilledAtAnyMomentItIsUsableAndCanBeRepaired) {
  plexa::rec::prepare_gstreamer();
  const Bytes bytes = long_stream();
  std::mt19937 random(11);
  size_t most_gops = 0;
  for (int round = 0; round < 15; ++round) {
    remove_recording();
    int input = -1;
    const pid_t child = start(input, GetParam());
    ASSERT_GT(child, 0);
    const size_t size = random() % bytes.size();
    write_all(input, bytes.data(), size);
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
    ASSERT_EQ(kill(child, SIGKILL), 0);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    close(input);
    // Before the first I-picture, or between the creation of the index and that of the stream.
    if (!exists(stream())) continue;
    ASSERT_TRUE(is_usable(stream(), false)) << round;
    const size_t gops = index_file().gops.size();
    most_gops = std::max(most_gops, gops);
    if (gops > 0) {
      EXPECT_EQ(index_file().base.end_time_code, 0u);
      EXPECT_TRUE(lookups_find_every_gop(stream())) << round;
    }
    const Bytes stored = read_file(stream());
    if (stored.size() < 3 * kPacketSize) continue;
    const Outcome repaired = plexa::rec::repair_index(stream(), {});
    if (!repaired.ok) {
      EXPECT_EQ(gops, 0u) << repaired.error;
      continue;
    }
    EXPECT_GE(repaired.summary.gops, gops) << round;
    EXPECT_EQ(read_file(stream()), stored) << round;
    // Repair leaves the stream alone, so that a torn packet stays at its end.
    const IndexFile whole = index_file();
    EXPECT_EQ(whole.base.end_time_code, whole.gops.back().next_gop_first_time);
    EXPECT_TRUE(is_usable(stream(), false)) << round;
  }
  EXPECT_GT(most_gops, 20u);
}

}  // namespace
}  // namespace plexa_test
