// A recording process that is killed during its cuts, and what it leaves on disk.
//
//   timeshift_kill_test --record STEM    the process that will be killed: records for good, and
//                                        writes a byte to standard output as each removal begins
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <thread>

#include "temp_dir.h"
#include "timeshift_support.h"

extern char **environ;

using namespace plexa_test;

namespace {

constexpr int64_t kGopPackets = 300;

int record(const std::string &stem) {
  Recording::Shape shape;
  shape.gop_packets = kGopPackets;
  Recording recording(stem, shape);
  Complaints complaints;
  before_truncation([] { return write(STDOUT_FILENO, "c", 1) == 1 ? 0 : EPIPE; });
  if (!recording.open() || !recording.set_span(3000, 5000)) return 1;
  Reader reader(recording, complaints, 1);
  if (!reader.open()) return 1;
  Threads threads;
  threads.run([&] { reader.look_around(1); });
  while (recording.write_units(1)) {
  }
  return 1;
}

class Child {
 public:
  explicit Child(const std::string &stem) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    std::string self = std::filesystem::canonical("/proc/self/exe").string();
    std::string option = "--record";
    std::string argument = stem;
    char *const arguments[] = {self.data(), option.data(), argument.data(), nullptr};
    if (posix_spawn(&pid_, self.c_str(), &actions, nullptr, arguments, environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    from_child_ = ends[0];
  }
  ~Child() {
    kill_now();
    if (from_child_ >= 0) close(from_child_);
  }
  Child(const Child &) = delete;
  Child &operator=(const Child &) = delete;

  bool wait_for_cuts(int count) {
    char byte = 0;
    for (int i = 0; i < count; ++i) {
      if (read(from_child_, &byte, 1) != 1) return false;
    }
    return true;
  }

  // True when it was still at work.
  bool kill_now() {
    if (pid_ < 0) return false;
    kill(pid_, SIGKILL);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
  }

 private:
  pid_t pid_ = -1;
  int from_child_ = -1;
};

// The index's groups from the first one that is kept on: each begins where the index, less what has
// been cut off, says that it does.
void expect_index_to_match(const std::string &index_path, const std::vector<uint8_t> &stream) {
  GstPvrFile file;
  gst_pvr_file_init(&file);
  ASSERT_EQ(gst_pvr_file_open(&file, index_path.c_str(), GST_PVR_FILE_READ, GST_PVR_FILE_BUFFER_IO,
                              GST_PVR_FILE_NORMAL, GST_PVR_FILE_INDEX, 0, 0),
            1);
  const int64_t start = offset_of_packet(stream.data());
  EXPECT_EQ(start % kUnit, 0);
  GstIndexParser parser;
  gst_index_parser_init(&parser, &file);
  EXPECT_EQ(gst_index_parser_start(&parser), 1);
  const gint32 gops = gst_index_parser_get_max_gop_index(&parser);
  int kept = 0;
  for (gint32 gop = 0; gop < gops; ++gop) {
    if (gop % GST_INDEX_CACHE_GOPS == 0) gst_index_parser_read_gop(&parser, gop + 16);
    const int64_t offset = gop * kGopPackets * kPacket;
    if (offset < start) continue;
    const frameData frame = gst_index_parser_get_iframe_by_offset(&parser, offset, 0);
    ASSERT_TRUE(frame.is_valid);
    ASSERT_EQ(static_cast<int64_t>(frame.stream_offset), offset);
    const int64_t at = offset - start;
    ASSERT_LE(at + kGopPackets * kPacket, static_cast<int64_t>(stream.size())) << "group " << gop;
    ASSERT_EQ(offset_of_packet(stream.data() + at), offset) << "group " << gop;
    ++kept;
  }
  EXPECT_GT(kept, 0);
  gst_index_parser_stop(&parser);
  gst_pvr_file_close(&file);
  gst_pvr_file_deinit(&file);
}

TEST(TimeshiftKill, DuringACutLeavesWholePacketsAndAnIndexThatMatchesThem) {
  const TempDir folder;
  const int rounds = count_of(8, 200);
  std::mt19937 random(9);
  const auto pick = [&](int below) {
    return std::uniform_int_distribution<int>(0, below - 1)(random);
  };
  for (int i = 0; i < rounds && !testing::Test::HasFailure(); ++i) {
    SCOPED_TRACE("round " + std::to_string(i));
    const std::string stem = folder.file("live");
    Child child(stem);
    ASSERT_TRUE(child.wait_for_cuts(1 + pick(4)));
    std::this_thread::sleep_for(std::chrono::microseconds(pick(2) == 0 ? pick(1500) : pick(30000)));
    ASSERT_TRUE(child.kill_now());

    const std::vector<uint8_t> stream = read_file(stem + ".kvf");
    ASSERT_GT(stream.size(), 0u);
    EXPECT_EQ(stream.size() % static_cast<size_t>(kUnit), 0u);
    EXPECT_TRUE(start_of_stream_file(stem + ".kvf").has_value());
    expect_index_to_match(stem + ".mdb", stream);
    std::filesystem::remove(stem + ".kvf");
    std::filesystem::remove(stem + ".mdb");
  }
}

}  // namespace

int main(int argc, char **argv) {
  if (argc == 3 && std::strcmp(argv[1], "--record") == 0) return record(argv[2]);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
