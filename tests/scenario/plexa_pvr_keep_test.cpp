// plexa-pvr keep: a time-shift buffer becomes a recording, whatever has been cut off its front.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <set>

#include "crash_point.h"
#include "gst-plexa/gst_edit_unit.h"
#include "plexa_pvr_support.h"
#include "temp_dir.h"

namespace plexa_test {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

using Bytes = std::vector<uint8_t>;

constexpr int64_t kUnit = GST_EDIT_UNIT_SIZE;
constexpr int64_t kPacket = 188;

std::set<std::string> names_in(const std::string &folder) {
  std::set<std::string> names;
  for (const auto &entry : std::filesystem::directory_iterator(folder)) {
    names.insert(entry.path().filename().string());
  }
  return names;
}

ino_t inode_of(const std::string &path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

void expect_sound(const std::string &stream) {
  const Ended run = pvr({"check", stream});
  EXPECT_EQ(run.exit_code, 0) << run.out << run.err;
}

// Thirteen GOPs of 480 ms, about half a unit each; the index tells of all of them.
class PlexaPvrKeepTest : public ::testing::Test {
 protected:
  PlexaPvrKeepTest() : buffer_(record(h264_stream(), dir_.file("buffer.kvf"))) {}

  // As time-shift leaves it.
  void lose_front(int64_t units) {
    const Bytes all = read_file(buffer_.stream);
    write_file(buffer_.stream, {all.begin() + units * kUnit, all.end()});
  }
  void lose_end(int64_t bytes) { truncate_to(buffer_.stream, size_of(buffer_.stream) - bytes); }
  // The recorder was killed: no end is known, the last records and a part of one are missing.
  void crash_recorder(size_t records) {
    change_base(buffer_.index, [](pvr_base_table_s &base) {
      base.end_time_code = 0;
      base.total_size = 0;
    });
    const auto missing = static_cast<int64_t>(records * sizeof(pvr_gop_info_s));
    truncate_to(buffer_.index, size_of(buffer_.index) - missing + (records > 0 ? 50 : 0));
  }

  JsonText keep() {
    const Ended run = pvr({"keep", buffer_.stream, kept_.stream, "--json"});
    EXPECT_EQ(run.exit_code, 0) << run.err;
    EXPECT_THAT(run.err, IsEmpty());
    return JsonText(run.out);
  }

  void expect_refused(const std::string &to, const std::string &words, int exit_code = 1) {
    const Bytes stream = read_file(buffer_.stream);
    const Bytes index = read_file(buffer_.index);
    const auto names = names_in(dir_.path());
    const Ended run = pvr({"keep", buffer_.stream, to});
    EXPECT_EQ(run.exit_code, exit_code) << run.out;
    EXPECT_THAT(run.out, IsEmpty());
    EXPECT_THAT(run.err, HasSubstr(words));
    EXPECT_TRUE(read_file(buffer_.stream) == stream);
    EXPECT_TRUE(read_file(buffer_.index) == index);
    EXPECT_EQ(names_in(dir_.path()), names);
  }

  TempDir dir_;
  RecordingFiles buffer_;
  const RecordingFiles kept_{dir_.file("kept.kvf"), dir_.file("kept.mdb")};
};

class PlexaPvrKeepFrontTest : public PlexaPvrKeepTest, public ::testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(Units, PlexaPvrKeepFrontTest, ::testing::Values(0, 1, 2, 3, 5));

TEST_P(PlexaPvrKeepFrontTest, IsFoundWhateverItsLength) {
  const int64_t lost = GetParam() * kUnit;
  const auto before = gop_records(buffer_.index);
  lose_front(GetParam());
  const Bytes stream = read_file(buffer_.stream);
  const ino_t inode = inode_of(buffer_.stream);
  const JsonText json = keep();

  EXPECT_EQ(json.number("bytes_lost"), lost);
  EXPECT_EQ(inode_of(kept_.stream), inode);  // renamed, not copied
  EXPECT_TRUE(read_file(kept_.stream) == stream);
  EXPECT_THAT(names_in(dir_.path()), UnorderedElementsAre("kept.kvf", "kept.mdb"));
  expect_sound(kept_.stream);

  const auto after = gop_records(kept_.index);
  ASSERT_FALSE(after.empty());
  const size_t gone = before.size() - after.size();
  EXPECT_GE(static_cast<int64_t>(before[gone].packet_count) * kPacket, lost);
  EXPECT_TRUE(gone == 0 || static_cast<int64_t>(before[gone - 1].packet_count) * kPacket < lost);
  EXPECT_EQ(json.number("from_ms"), static_cast<int64_t>(before[gone].time_code));
  EXPECT_EQ(json.number("gops"), static_cast<int64_t>(after.size()));
  EXPECT_EQ(json.number("duration_ms"), 6000 - static_cast<int64_t>(before[gone].time_code));
  for (size_t i = 0; i < after.size(); ++i) {
    pvr_gop_info_s expected = before[gone + i];
    expected.time_code -= before[gone].time_code;
    expected.last_frame_time -= before[gone].time_code;
    expected.next_gop_first_time -= before[gone].time_code;
    expected.packet_count -= static_cast<uint64_t>(lost / kPacket);
    expected.last_frame_packet_count -= static_cast<uint64_t>(lost / kPacket);
    expected.next_gop_first_packet_count -= static_cast<uint64_t>(lost / kPacket);
    EXPECT_EQ(std::memcmp(&after[i], &expected, sizeof expected), 0) << "GOP " << i;
  }
}

TEST_P(PlexaPvrKeepFrontTest, OfABufferThatACrashLeftIsFoundToo) {
  const auto before = gop_records(buffer_.index);
  lose_front(GetParam());
  crash_recorder(2);
  append(buffer_.stream, Bytes(100, 0x47));  // of a packet that was being written
  const JsonText json = keep();
  EXPECT_EQ(json.number("bytes_lost"), GetParam() * kUnit);
  // What no record told of has been indexed.
  EXPECT_EQ(gop_records(kept_.index).back().pts, before.back().pts);
  EXPECT_EQ(size_of(kept_.stream) % kPacket, 0);
  const JsonText info(pvr({"info", kept_.stream, "--json"}).out);
  EXPECT_EQ(info.text("state"), "complete");
  expect_sound(kept_.stream);
}

TEST_P(PlexaPvrKeepFrontTest, OfABufferThatLostItsEndIsFoundToo) {
  lose_front(GetParam());
  lose_end(100000);
  crash_recorder(0);
  const JsonText json = keep();
  EXPECT_EQ(json.number("bytes_lost"), GetParam() * kUnit);
  expect_sound(kept_.stream);
}

TEST_F(PlexaPvrKeepTest, SaysWhatItDid) {
  lose_front(2);
  const Ended run = pvr({"keep", buffer_.index, kept_.stream});
  EXPECT_EQ(run.out, kept_.stream + ": 00:00:04.080, 9 GOPs, " + kilobytes(size_of(kept_.stream)) +
                         "; kept from 00:00:01.920 on, 385.0 kB had been removed before it\n");
}

TEST_F(PlexaPvrKeepTest, APlaceWithinTheKeptPartIsFoundByTimeAndPicturesAreMade) {
  const auto before = gop_records(buffer_.index);
  lose_front(2);
  keep();
  const JsonText json(pvr({"seek", kept_.stream, "--time", "1", "--json"}).out);
  EXPECT_EQ(json.number("frame.time_ms"), 960);
  EXPECT_EQ(json.number("frame.pts"), static_cast<int64_t>(before[6].pts));
  EXPECT_EQ(pvr({"thumbnail", kept_.stream}).exit_code, 0);
}

TEST_F(PlexaPvrKeepTest, TheThumbnailFileOfTheBufferGoes) {
  ASSERT_EQ(pvr({"thumbnail", buffer_.stream}).exit_code, 0);
  keep();
  EXPECT_THAT(names_in(dir_.path()), UnorderedElementsAre("kept.kvf", "kept.mdb"));
}

TEST_F(PlexaPvrKeepTest, ABufferThatCountsFromAnotherTimeAndPacketIsKept) {
  const auto gops = gop_records(buffer_.index);
  for (size_t i = 0; i < gops.size(); ++i) {
    pvr_gop_info_s gop = gops[i];
    for (auto *const time : {&gop.time_code, &gop.last_frame_time, &gop.next_gop_first_time}) {
      *time += 5000;
    }
    for (auto *const packet :
         {&gop.packet_count, &gop.last_frame_packet_count, &gop.next_gop_first_packet_count}) {
      *packet += 700;
    }
    write_gop(buffer_.index, i, gop);
  }
  change_base(buffer_.index, [](pvr_base_table_s &base) {
    base.start_time_code = 5000;
    base.end_time_code += 5000;
    base.start_packet_count = 700;
  });
  lose_front(2);
  EXPECT_EQ(keep().number("duration_ms"), 4080);
  expect_sound(kept_.stream);
}

TEST(PlexaPvrKeepLayoutTest, KeepsTheLegacyLayout) {
  TempDir dir;
  const RecordingFiles buffer = record(h264_stream(), dir.file("buffer.kvf"), {"--legacy"});
  const Bytes all = read_file(buffer.stream);
  write_file(buffer.stream, {all.begin() + 2 * kUnit, all.end()});
  EXPECT_EQ(pvr({"keep", buffer.stream, dir.file("kept.kvf")}).exit_code, 0);
  const JsonText info(pvr({"info", dir.file("kept.kvf"), "--json"}).out);
  EXPECT_EQ(info.text("layout"), "legacy");
  EXPECT_EQ(info.number("gops"), 9);
  expect_sound(dir.file("kept.kvf"));
}

TEST(PlexaPvrKeepLayoutTest, KeepsMpeg2) {
  TempDir dir;
  const RecordingFiles buffer = record(mpeg2_stream(), dir.file("buffer.kvf"));
  const Bytes all = read_file(buffer.stream);
  write_file(buffer.stream, {all.begin() + kUnit, all.end()});
  const Ended run = pvr({"keep", buffer.stream, dir.file("kept.kvf")});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  expect_sound(dir.file("kept.kvf"));
}

// ---- Refusals: nothing is touched ----

TEST_F(PlexaPvrKeepTest, ABufferThatIsBeingRecordedIsRefused) {
  const int descriptor = ::open(buffer_.stream.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(::flock(descriptor, LOCK_EX), 0);
  expect_refused(kept_.stream, "is being recorded or changed by another program");
  ::close(descriptor);
}

TEST_F(PlexaPvrKeepTest, AnExistingStreamFileIsNotReplaced) {
  write_file(kept_.stream, Bytes(10));
  expect_refused(kept_.stream, "kept.kvf: exists already");
}

TEST_F(PlexaPvrKeepTest, AnExistingIndexIsNotReplaced) {
  write_file(kept_.index, Bytes(10));
  expect_refused(kept_.stream, "kept.mdb: exists already");
}

TEST_F(PlexaPvrKeepTest, TheBufferItselfIsNoNewName) {
  expect_refused(buffer_.stream, "exists already");
}

TEST_F(PlexaPvrKeepTest, ANameWithoutTheExtensionIsRefused) {
  expect_refused(dir_.file("kept.ts"), "must end in .kvf", 2);
  expect_refused(dir_.file(".kvf"), "must end in .kvf", 2);
}

TEST_F(PlexaPvrKeepTest, AFolderThatDoesNotExistIsRefused) {
  expect_refused(dir_.file("no/kept.kvf"), "No such file or directory");
}

TEST_F(PlexaPvrKeepTest, AnIndexOfAnotherStreamIsRefused) {
  const RecordingFiles other = record(mpeg2_stream(), dir_.file("other.kvf"));
  copy_file(other.index, buffer_.index);
  expect_refused(kept_.stream, "the index does not fit the stream file");
}

TEST_F(PlexaPvrKeepTest, AFrontThatIsNoWholeUnitIsRefused) {
  const Bytes all = read_file(buffer_.stream);
  write_file(buffer_.stream, {all.begin() + kUnit + 188, all.end()});
  expect_refused(kept_.stream, "the index does not fit the stream file");
}

TEST_F(PlexaPvrKeepTest, OneGopThatIsNotInItsPlaceIsEnoughToRefuse) {
  lose_front(1);
  Bytes stream = read_file(buffer_.stream);
  const auto gop = gop_records(buffer_.index)[7];
  stream[gop.packet_count * kPacket - kUnit + 1] ^= 0x40;  // no PES packet begins there
  write_file(buffer_.stream, stream);
  expect_refused(kept_.stream, "the index does not fit the stream file");
}

TEST_F(PlexaPvrKeepTest, AnIndexThatContradictsItselfIsRefused) {
  pvr_gop_info_s gop = gop_records(buffer_.index)[5];
  gop.packet_count = ~uint64_t{0} / 2;
  write_gop(buffer_.index, 5, gop);
  expect_refused(kept_.stream, "contradicts itself");
}

TEST_F(PlexaPvrKeepTest, ABufferWithoutAWholeGopIsRefused) {
  lose_front(6);
  lose_end(100000);
  expect_refused(kept_.stream, "the index does not fit the stream file");
}

TEST_F(PlexaPvrKeepTest, ABufferWithAPartOfAGopIsRefused) {
  lose_front(5);
  lose_end(kUnit + 1000);
  expect_refused(kept_.stream, "no whole GOP is left in it");
}

TEST_F(PlexaPvrKeepTest, AnotherFileSystemIsRefused) {
  struct stat here {};
  struct stat there {};
  if (::stat(dir_.path().c_str(), &here) != 0 || ::stat("/dev/shm", &there) != 0 ||
      here.st_dev == there.st_dev) {
    GTEST_SKIP() << "no second file system";
  }
  std::string folder = "/dev/shm/plexa-test-XXXXXX";
  ASSERT_NE(::mkdtemp(folder.data()), nullptr);
  expect_refused(folder + "/kept.kvf", "lies on another file system");
  EXPECT_THAT(names_in(folder), IsEmpty());
  std::filesystem::remove_all(folder);
}

// ---- Crashes ----

TEST_F(PlexaPvrKeepTest, ACrashLeavesTheBufferOrTheRecording) {
  lose_front(2);
  const Bytes stream = read_file(buffer_.stream);
  const Bytes index = read_file(buffer_.index);
  int buffers = 0;
  int recordings = 0;
  for (int call = 1; crash_before(call, {"keep", buffer_.stream, kept_.stream}); ++call) {
    if (exists(buffer_.stream)) {
      ++buffers;
      EXPECT_TRUE(read_file(buffer_.stream) == stream) << "call " << call;
      EXPECT_TRUE(read_file(buffer_.index) == index) << "call " << call;
      EXPECT_FALSE(exists(kept_.stream)) << "call " << call;
      // The same command does it.
      EXPECT_EQ(keep().number("bytes_lost"), 2 * kUnit) << "call " << call;
    } else {
      ++recordings;
    }
    EXPECT_TRUE(read_file(kept_.stream) == stream) << "call " << call;
    expect_sound(kept_.stream);
    for (const std::string &name : names_in(dir_.path())) std::filesystem::remove(dir_.file(name));
    write_file(buffer_.stream, stream);
    write_file(buffer_.index, index);
  }
  EXPECT_GE(buffers, 4);
  EXPECT_GE(recordings, 2);
}

TEST_F(PlexaPvrKeepTest, ACrashWhileTheEndIsIndexedLeavesARecordingThatCanBeRepaired) {
  lose_front(2);
  crash_recorder(3);
  append(buffer_.stream, Bytes(100, 0x47));
  const Bytes stream = read_file(buffer_.stream);
  const Bytes index = read_file(buffer_.index);
  int recordings = 0;
  for (int call = 1; crash_before(call, {"keep", buffer_.stream, kept_.stream}); ++call) {
    if (!exists(buffer_.stream)) {
      ++recordings;
      EXPECT_EQ(pvr({"info", kept_.stream}).exit_code, 0) << "call " << call;
      EXPECT_EQ(pvr({"index", kept_.stream, "--repair"}).exit_code, 0) << "call " << call;
      const JsonText info(pvr({"info", kept_.stream, "--json"}).out);
      EXPECT_EQ(info.text("state"), "complete") << "call " << call;
      EXPECT_EQ(info.number("gops"), 9) << "call " << call;
    }
    for (const std::string &name : names_in(dir_.path())) std::filesystem::remove(dir_.file(name));
    write_file(buffer_.stream, stream);
    write_file(buffer_.index, index);
  }
  EXPECT_GE(recordings, 5);
}

}  // namespace
}  // namespace plexa_test
