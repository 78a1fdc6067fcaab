// plexa-pvr cut: what was asked for is gone, all else is there, and a crash leaves one or the
// other.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <set>

#include "crash_point.h"
#include "plexa_pvr_support.h"
#include "temp_dir.h"

namespace plexa_test {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

using Bytes = std::vector<uint8_t>;

constexpr int64_t kUnit = 192512;
constexpr int64_t kPacket = 188;
constexpr int kNullPid = 0x1fff;

// Both files of a recording, as they are now.
struct Content {
  explicit Content(const RecordingFiles &files)
      : stream(read_file(files.stream)), index(read_file(files.index)) {}
  bool operator==(const Content &) const = default;
  Bytes stream;
  Bytes index;
};

Bytes part(const Bytes &bytes, int64_t from, int64_t to) {
  return {bytes.begin() + from, bytes.begin() + to};
}

int pid_of(const uint8_t *packet) { return (packet[1] & 0x1f) << 8 | packet[2]; }

std::set<std::string> names_in(const std::string &folder) {
  std::set<std::string> names;
  for (const auto &entry : std::filesystem::directory_iterator(folder)) {
    names.insert(entry.path().filename().string());
  }
  return names;
}

void expect_sound(const std::string &stream) {
  const Ended run = pvr({"check", stream});
  EXPECT_EQ(run.exit_code, 0) << run.out << run.err;
}

// Thirteen GOPs of 480 ms, about half a unit each.
class PlexaPvrCutTest : public ::testing::Test {
 protected:
  PlexaPvrCutTest() : film_(record(h264_stream(), dir_.file("film.kvf"))) {}

  JsonText cut(const std::vector<std::string> &range) {
    std::vector<std::string> command{"cut", film_.stream, "--json"};
    command.insert(command.end(), range.begin(), range.end());
    const Ended run = pvr(command);
    EXPECT_EQ(run.exit_code, 0) << run.err;
    EXPECT_THAT(run.err, IsEmpty());
    return JsonText(run.out);
  }

  void expect_refused(const std::vector<std::string> &arguments, const std::string &words,
                      int exit_code = 1) {
    const Content before(film_);
    const auto names = names_in(dir_.path());
    std::vector<std::string> command{"cut", film_.stream};
    command.insert(command.end(), arguments.begin(), arguments.end());
    const Ended run = pvr(command);
    EXPECT_EQ(run.exit_code, exit_code) << run.out;
    EXPECT_THAT(run.out, IsEmpty());
    EXPECT_THAT(run.err, HasSubstr(words));
    EXPECT_TRUE(Content(film_) == before);
    EXPECT_EQ(names_in(dir_.path()), names);
  }

  TempDir dir_;
  RecordingFiles film_;
};

// ---- The range ----

TEST_F(PlexaPvrCutTest, TakesOutTheWholeGopsBetweenTheTimes) {
  const JsonText json = cut({"--from", "1", "--to", "4"});
  EXPECT_EQ(json.number("from_ms"), 1440);
  EXPECT_EQ(json.number("to_ms"), 3840);
  EXPECT_EQ(json.number("first_gop"), 3);
  EXPECT_EQ(json.number("gops_removed"), 5);
  EXPECT_EQ(json.number("gops"), 8);
  EXPECT_EQ(json.number("duration_ms"), 3600);
  EXPECT_EQ(json.number("size"), size_of(film_.stream));
  EXPECT_THAT(names_in(dir_.path()), UnorderedElementsAre("film.kvf", "film.mdb"));
  expect_sound(film_.stream);
}

TEST_F(PlexaPvrCutTest, AGopThatBeginsOrEndsJustThenGoes) {
  const JsonText json = cut({"--from", "1440ms", "--to", "3840ms"});
  EXPECT_EQ(json.number("from_ms"), 1440);
  EXPECT_EQ(json.number("to_ms"), 3840);
}

TEST_F(PlexaPvrCutTest, AGopThatTheRangeMissesByAMillisecondStays) {
  const JsonText json = cut({"--from", "1441ms", "--to", "3839ms"});
  EXPECT_EQ(json.number("from_ms"), 1920);
  EXPECT_EQ(json.number("to_ms"), 3360);
}

TEST_F(PlexaPvrCutTest, ATimeBehindTheEndIsTheEnd) {
  EXPECT_EQ(cut({"--from", "5", "--to", "60"}).number("to_ms"), 6000);
  expect_sound(film_.stream);
}

TEST_F(PlexaPvrCutTest, SaysWhatItDid) {
  const Ended run = pvr({"cut", film_.index, "--from", "1", "--to", "4"});
  EXPECT_EQ(run.out, film_.stream +
                         ": took out 00:00:01.440 to 00:00:03.840, 5 GOPs, 385.0 kB; left "
                         "00:00:03.600, " +
                         kilobytes(size_of(film_.stream)) + "\n");
}

// ---- What stays ----

TEST_F(PlexaPvrCutTest, LeavesAllOutsideTheRangeByteForByte) {
  const Content before(film_);
  const auto gops = gop_records(film_.index);
  const JsonText json = cut({"--from", "1", "--to", "4"});
  const Bytes after = read_file(film_.stream);
  const auto begin = static_cast<int64_t>(gops[3].packet_count) * kPacket;
  const auto behind = static_cast<int64_t>(gops[8].packet_count) * kPacket;
  const int64_t removed = json.number("bytes_removed");
  const auto old_size = static_cast<int64_t>(before.stream.size());
  const auto new_size = static_cast<int64_t>(after.size());
  EXPECT_GT(removed, 0);
  EXPECT_EQ(removed % kUnit, 0);
  ASSERT_EQ(new_size, old_size - removed);
  EXPECT_TRUE(part(after, 0, begin) == part(before.stream, 0, begin));
  EXPECT_TRUE(part(after, behind - removed, new_size) == part(before.stream, behind, old_size));
}

TEST_F(PlexaPvrCutTest, NothingOfThePicturesIsLeftAtTheSeam) {
  const auto gops = gop_records(film_.index);
  const JsonText json = cut({"--from", "1", "--to", "4"});
  const auto begin = static_cast<int64_t>(gops[3].packet_count) * kPacket;
  const int64_t size = json.number("bytes_overwritten");
  const Bytes seam = part(read_file(film_.stream), begin, begin + size);
  ASSERT_GT(size, 10 * kPacket);
  std::vector<int> others;
  for (int64_t at = 0; at < size; at += kPacket) {
    const uint8_t *const packet = seam.data() + at;
    EXPECT_EQ(packet[0], 0x47);
    if (pid_of(packet) == kNullPid) {
      EXPECT_THAT(others, IsEmpty()) << "a null packet behind the tables";
      EXPECT_THAT(part(seam, at + 4, at + kPacket), Each(0xff));
    } else {
      others.push_back(pid_of(packet));
    }
  }
  // PAT, PMT, then sound and picture.
  ASSERT_THAT(others, SizeIs(4));
  EXPECT_EQ(others[0], 0);
  EXPECT_EQ(std::set<int>(others.begin() + 2, others.end()).count(gops[0].video_pid), 1u);
}

TEST_F(PlexaPvrCutTest, TheJumpOfThePacketCountersIsAnnounced) {
  cut({"--from", "1", "--to", "4"});
  const auto gops = gop_records(film_.index);
  const Bytes stream = read_file(film_.stream);
  const auto entry = static_cast<size_t>(gops[3].packet_count) * kPacket;
  std::set<int> announced;
  for (size_t at = entry - 2 * kPacket; at < entry; at += kPacket) {
    const uint8_t *const packet = stream.data() + at;
    EXPECT_EQ(packet[3] & 0xf0, 0x20);  // an adaptation field alone
    EXPECT_EQ(packet[4], 183);
    EXPECT_EQ(packet[5], 0x80);
    announced.insert(pid_of(packet));
    size_t next = entry;
    while (pid_of(stream.data() + next) != pid_of(packet)) next += kPacket;
    EXPECT_EQ((packet[3] + 1) & 0x0f, stream[next + 3] & 0x0f);
  }
  EXPECT_THAT(announced, SizeIs(2));
  EXPECT_EQ(announced.count(gops[3].video_pid), 1u);
}

TEST_F(PlexaPvrCutTest, TheIndexGoesOnWhereTheRangeBegan) {
  const auto before = gop_records(film_.index);
  const JsonText json = cut({"--from", "1", "--to", "4"});
  const auto after = gop_records(film_.index);
  const auto packets = static_cast<uint64_t>(json.number("bytes_removed") / kPacket);
  ASSERT_THAT(after, SizeIs(8));
  for (size_t i = 0; i < 8; ++i) {
    pvr_gop_info_s expected = before[i < 3 ? i : i + 5];
    if (i >= 3) {
      expected.time_code -= 2400;
      expected.last_frame_time -= 2400;
      expected.next_gop_first_time -= 2400;
      expected.packet_count -= packets;
      expected.last_frame_packet_count -= packets;
      expected.next_gop_first_packet_count -= packets;
    }
    if (i == 2) {
      expected.next_gop_first_packet_count = before[8].packet_count - packets;
      expected.next_gop_pts = before[8].pts;
    }
    EXPECT_EQ(std::memcmp(&after[i], &expected, sizeof expected), 0) << "GOP " << i;
  }
}

TEST_F(PlexaPvrCutTest, TheBaseTableSaysTheNewEnd) {
  cut({"--from", "1", "--to", "4"});
  const JsonText info(pvr({"info", film_.stream, "--json"}).out);
  EXPECT_EQ(info.text("state"), "complete");
  EXPECT_EQ(info.number("duration_ms"), 3600);
  EXPECT_EQ(info.number("stored_size"), size_of(film_.stream));
}

TEST_F(PlexaPvrCutTest, FindsTheFirstPictureBehindTheCutAtItsTime) {
  const auto before = gop_records(film_.index);
  cut({"--from", "1", "--to", "4"});
  const JsonText json(pvr({"seek", film_.stream, "--time", "1440ms", "--json"}).out);
  EXPECT_EQ(json.number("frame.pts"), static_cast<int64_t>(before[8].pts));
}

TEST_F(PlexaPvrCutTest, AnIndexMadeAnewHasTheSameGops) {
  cut({"--from", "1", "--to", "4"});
  const auto mended = gop_records(film_.index);
  ASSERT_EQ(pvr({"index", film_.stream}).exit_code, 0);
  const auto anew = gop_records(film_.index);
  ASSERT_EQ(anew.size(), mended.size());
  for (size_t i = 0; i < anew.size(); ++i) {
    EXPECT_EQ(anew[i].packet_count, mended[i].packet_count);
    EXPECT_EQ(anew[i].iframe_size, mended[i].iframe_size);
    EXPECT_EQ(anew[i].pts, mended[i].pts);
  }
}

TEST_F(PlexaPvrCutTest, FromTheStartTheRecordingBeginsWithTheNextPicture) {
  const auto before = gop_records(film_.index);
  const JsonText json = cut({"--to", "2"});
  EXPECT_EQ(json.number("from_ms"), 0);
  EXPECT_EQ(json.number("to_ms"), 1920);
  const auto after = gop_records(film_.index);
  EXPECT_EQ(after[0].time_code, 0u);
  EXPECT_EQ(after[0].pts, before[4].pts);
  EXPECT_EQ(after[0].packet_count * kPacket,
            static_cast<uint64_t>(json.number("bytes_overwritten")));
  expect_sound(film_.stream);
}

TEST_F(PlexaPvrCutTest, ToTheEndTheStreamEndsWithTheLastPicture) {
  const Content before(film_);
  const auto gops = gop_records(film_.index);
  const JsonText json = cut({"--from", "3"});
  const auto end = static_cast<int64_t>(gops[7].packet_count) * kPacket;
  EXPECT_EQ(json.number("bytes_overwritten"), 0);
  EXPECT_TRUE(read_file(film_.stream) == part(before.stream, 0, end));
  EXPECT_EQ(gop_records(film_.index).back().next_gop_pts, gops[6].next_gop_pts);
  expect_sound(film_.stream);
}

TEST_F(PlexaPvrCutTest, ARangeWithoutAWholeUnitIsOverwritten) {
  const auto before = gop_records(film_.index);
  const int64_t size = size_of(film_.stream);
  const JsonText json = cut({"--from", "1440ms", "--to", "1920ms"});
  EXPECT_EQ(json.number("bytes_removed"), 0);
  EXPECT_EQ(json.number("gops_removed"), 1);
  EXPECT_EQ(json.number("bytes_overwritten"),
            static_cast<int64_t>(before[4].packet_count - before[3].packet_count) * kPacket);
  EXPECT_EQ(size_of(film_.stream), size);
  EXPECT_EQ(json.number("duration_ms"), 5520);
  expect_sound(film_.stream);
}

TEST_F(PlexaPvrCutTest, AfterACutAnotherOneIsPossible) {
  cut({"--from", "1", "--to", "3"});
  cut({"--to", "1"});
  cut({"--from", "2.5"});
  expect_sound(film_.stream);
  EXPECT_EQ(gop_records(film_.index).front().time_code, 0u);
}

TEST_F(PlexaPvrCutTest, TheThumbnailFileOfTheOldRecordingGoes) {
  ASSERT_EQ(pvr({"thumbnail", film_.stream}).exit_code, 0);
  cut({"--from", "1", "--to", "4"});
  EXPECT_THAT(names_in(dir_.path()), UnorderedElementsAre("film.kvf", "film.mdb"));
  EXPECT_EQ(pvr({"thumbnail", film_.stream}).exit_code, 0);
}

TEST_F(PlexaPvrCutTest, TheNewIndexHasThePermissionsOfTheOldOne) {
  ::chmod(film_.index.c_str(), 0640);
  cut({"--from", "1", "--to", "4"});
  struct stat status {};
  ASSERT_EQ(::stat(film_.index.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640u);
}

TEST(PlexaPvrCutLayoutTest, CutsTheLegacyLayout) {
  TempDir dir;
  const RecordingFiles film = record(h264_stream(), dir.file("film.kvf"), {"--legacy"});
  EXPECT_EQ(pvr({"cut", film.stream, "--from", "1", "--to", "4"}).exit_code, 0);
  const JsonText info(pvr({"info", film.stream, "--json"}).out);
  EXPECT_EQ(info.text("layout"), "legacy");
  EXPECT_EQ(info.number("gops"), 8);
  expect_sound(film.stream);
}

TEST(PlexaPvrCutLayoutTest, CutsARecordingThatBeganAtAnotherTimeAndPacket) {
  TempDir dir;
  const RecordingFiles film = record(h264_stream(), dir.file("film.kvf"));
  const auto gops = gop_records(film.index);
  for (size_t i = 0; i < gops.size(); ++i) {
    pvr_gop_info_s gop = gops[i];
    for (auto *const time : {&gop.time_code, &gop.last_frame_time, &gop.next_gop_first_time}) {
      *time += 5000;
    }
    for (auto *const packet :
         {&gop.packet_count, &gop.last_frame_packet_count, &gop.next_gop_first_packet_count}) {
      *packet += 700;
    }
    write_gop(film.index, i, gop);
  }
  change_base(film.index, [](pvr_base_table_s &base) {
    base.start_time_code = 5000;
    base.end_time_code += 5000;
    base.start_packet_count = 700;
  });
  expect_sound(film.stream);
  EXPECT_EQ(pvr({"cut", film.stream, "--from", "1", "--to", "4"}).exit_code, 0);
  EXPECT_EQ(gop_records(film.index)[3].time_code, 6440u);
  expect_sound(film.stream);
}

TEST(PlexaPvrCutLayoutTest, CutsMpeg2AndH265) {
  TempDir dir;
  for (const std::string &input : {mpeg2_stream(), h265_stream()}) {
    const RecordingFiles film = record(input, dir.file("film.kvf"), {"--overwrite"});
    EXPECT_EQ(pvr({"cut", film.stream, "--from", "2", "--to", "4"}).exit_code, 0);
    expect_sound(film.stream);
  }
}

// ---- Refusals: nothing is touched ----

TEST_F(PlexaPvrCutTest, WithoutARangeNothingIsTakenOut) {
  expect_refused({}, "give --from, --to or both", 2);
}

TEST_F(PlexaPvrCutTest, AReversedRangeIsRefused) {
  expect_refused({"--from", "4", "--to", "1"}, "--from must lie before --to", 2);
}

TEST_F(PlexaPvrCutTest, ARangeBehindTheEndIsRefused) {
  expect_refused({"--from", "6"}, "--from 00:00:06.000 lies behind the end, 00:00:06.000");
}

TEST_F(PlexaPvrCutTest, ARangeWithoutAWholeGopIsRefused) {
  expect_refused({"--from", "1.5", "--to", "2.3"},
                 "no whole GOP lies between 00:00:01.500 and 00:00:02.300");
  expect_refused({"--from", "5.8"}, "no whole GOP lies between 00:00:05.800 and 00:00:06.000");
}

TEST_F(PlexaPvrCutTest, TheWholeRecordingIsRefused) {
  expect_refused({"--from", "0"}, "nothing of the recording would be left");
}

TEST_F(PlexaPvrCutTest, ARecordingThatWasNeverEndedIsRefused) {
  change_base(film_.index, [](pvr_base_table_s &base) { base.end_time_code = 0; });
  expect_refused({"--to", "2"}, "was never ended");
}

TEST_F(PlexaPvrCutTest, ARecordingThatSomebodyChangesIsRefused) {
  const int descriptor = ::open(film_.stream.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(::flock(descriptor, LOCK_EX), 0);
  expect_refused({"--to", "2"}, "is being recorded or changed by another program");
  ::close(descriptor);
}

TEST_F(PlexaPvrCutTest, AnIndexThatDoesNotReachTheEndIsRefused) {
  append(film_.stream, Bytes(8192));
  expect_refused({"--to", "2"}, "index shorter than the stream");
}

TEST_F(PlexaPvrCutTest, AnIndexWhoseRecordsDoNotFollowEachOtherIsRefused) {
  pvr_gop_info_s gop = gop_records(film_.index)[9];
  ++gop.packet_count;
  write_gop(film_.index, 9, gop);
  expect_refused({"--to", "2"}, "the index does not agree with the stream");
}

TEST_F(PlexaPvrCutTest, AnIndexOfAnotherStreamIsRefused) {
  Bytes stream = read_file(film_.stream);
  const auto gop = gop_records(film_.index)[4];
  stream[gop.packet_count * kPacket + 1] ^= 0x40;  // no PES packet begins there
  write_file(film_.stream, stream);
  expect_refused({"--to", "2"}, "the index does not agree with the stream");
  expect_refused({"--from", "1.9"}, "the index does not agree with the stream");
}

TEST(PlexaPvrCutPlaceTest, AFileSystemThatCannotTakeRangesOutIsRefused) {
  struct statfs memory {};
  constexpr long kTmpfs = 0x01021994;
  if (::statfs("/dev/shm", &memory) != 0 || memory.f_type != kTmpfs) {
    GTEST_SKIP() << "no tmpfs at /dev/shm";
  }
  std::string folder = "/dev/shm/plexa-test-XXXXXX";
  ASSERT_NE(::mkdtemp(folder.data()), nullptr);
  const RecordingFiles film = record(h264_stream(), folder + "/film.kvf");
  const Content before(film);
  const Ended run = pvr({"cut", film.stream, "--from", "1", "--to", "4"});
  EXPECT_TRUE(complains_once(run, "cannot take a range out of a file in one step"));
  EXPECT_TRUE(Content(film) == before);
  EXPECT_THAT(names_in(folder), UnorderedElementsAre("film.kvf", "film.mdb"));
  // The end needs no such step.
  EXPECT_EQ(pvr({"cut", film.stream, "--from", "4"}).exit_code, 0);
  expect_sound(film.stream);
  std::filesystem::remove_all(folder);
}

// ---- Crashes ----

class PlexaPvrCutCrashTest : public PlexaPvrCutTest,
                             public ::testing::WithParamInterface<std::vector<std::string>> {
 protected:
  PlexaPvrCutCrashTest() {
    copy_file(film_.stream, dir_.file("keep.kvf"));
    copy_file(film_.index, dir_.file("keep.mdb"));
    command_.insert(command_.end(), GetParam().begin(), GetParam().end());
  }

  void restore() {
    for (const std::string &name : names_in(dir_.path())) {
      if (name.starts_with("film")) std::filesystem::remove(dir_.file(name));
    }
    copy_file(dir_.file("keep.kvf"), film_.stream);
    copy_file(dir_.file("keep.mdb"), film_.index);
  }

  // Every other command does this first.
  void settle() {
    const Ended run = pvr({"info", film_.stream});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_THAT(names_in(dir_.path()),
                UnorderedElementsAre("film.kvf", "film.mdb", "keep.kvf", "keep.mdb"));
  }

  std::vector<std::string> command_{"cut", film_.stream};
};

INSTANTIATE_TEST_SUITE_P(Ranges, PlexaPvrCutCrashTest,
                         ::testing::Values(std::vector<std::string>{"--from", "1", "--to", "4"},
                                           std::vector<std::string>{"--to", "3"},
                                           std::vector<std::string>{"--from", "4"},
                                           std::vector<std::string>{"--from", "1440ms", "--to",
                                                                    "1920ms"}));

TEST_P(PlexaPvrCutCrashTest, AtAnyMomentLeavesTheOldRecordingOrTheNewOne) {
  const Content old(film_);
  ASSERT_EQ(pvr(command_).exit_code, 0);
  const Content fresh(film_);
  ASSERT_FALSE(fresh == old);
  int olds = 0;
  int news = 0;
  for (int call = 1;; ++call) {
    restore();
    if (!crash_before(call, command_)) break;
    settle();
    const Content after(film_);
    ASSERT_TRUE(after == old || after == fresh) << "call " << call;
    EXPECT_TRUE(news == 0 || after == fresh) << "call " << call << " undid the cut";
    ++(after == old ? olds : news);
    if (after == old) {
      ASSERT_EQ(pvr(command_).exit_code, 0) << "call " << call;
    }
    ASSERT_TRUE(Content(film_) == fresh) << "call " << call;
  }
  EXPECT_TRUE(Content(film_) == fresh);
  EXPECT_GE(olds, 4);
  EXPECT_GE(news, 4);
}

class PlexaPvrCutJournalTest : public PlexaPvrCutTest {
 protected:
  const std::vector<std::string> command_{"cut", film_.stream, "--from", "1", "--to", "4"};
  const std::string journal_ = dir_.file("film.cut-journal");

  // Crashes as late as possible with the range still in, or as soon as possible with it out.
  void crash(bool with_range_out) {
    const Content old(film_);
    for (int call = 1;; ++call) {
      write_file(film_.stream, old.stream);
      write_file(film_.index, old.index);
      ASSERT_TRUE(crash_before(call, command_));
      if (!exists(journal_)) continue;
      if (!with_range_out || size_of(film_.stream) < static_cast<int64_t>(old.stream.size()))
        return;
      pvr({"info", film_.stream});
    }
  }
};

TEST_F(PlexaPvrCutJournalTest, IsFinishedAfterACrashWhileItWasBeingFinished) {
  const Content old(film_);
  ASSERT_EQ(pvr(command_).exit_code, 0);
  const Content fresh(film_);
  write_file(film_.stream, old.stream);
  write_file(film_.index, old.index);
  crash(true);
  const Content between(film_);
  const Bytes journal = read_file(journal_);
  const Bytes index = read_file(dir_.file("film.cut-index"));
  int call = 1;
  for (; crash_before(call, {"info", film_.stream}); ++call) {
    EXPECT_EQ(pvr({"info", film_.stream}).exit_code, 0) << "call " << call;
    EXPECT_TRUE(Content(film_) == fresh) << "call " << call;
    EXPECT_THAT(names_in(dir_.path()), UnorderedElementsAre("film.kvf", "film.mdb"));
    write_file(film_.stream, between.stream);
    write_file(film_.index, between.index);
    write_file(journal_, journal);
    write_file(dir_.file("film.cut-index"), index);
  }
  EXPECT_GT(call, 5);
}

TEST_F(PlexaPvrCutJournalTest, IsCalledOffAfterACrashWhileItWasBeingCalledOff) {
  const Content old(film_);
  crash(false);
  const Bytes journal = read_file(journal_);
  const Bytes index = read_file(dir_.file("film.cut-index"));
  int call = 1;
  for (; crash_before(call, {"info", film_.stream}); ++call) {
    EXPECT_EQ(pvr({"info", film_.stream}).exit_code, 0) << "call " << call;
    EXPECT_TRUE(Content(film_) == old) << "call " << call;
    EXPECT_THAT(names_in(dir_.path()), UnorderedElementsAre("film.kvf", "film.mdb"));
    write_file(journal_, journal);
    write_file(dir_.file("film.cut-index"), index);
  }
  EXPECT_GT(call, 2);
}

TEST_F(PlexaPvrCutJournalTest, IsSettledByEveryCommandThatReadsARecording) {
  const Content old(film_);
  for (const std::vector<std::string> &reader :
       std::vector<std::vector<std::string>>{{"info", film_.stream},
                                             {"check", film_.index},
                                             {"frames", film_.stream},
                                             {"index", film_.stream},
                                             {"index", film_.stream, "--repair"},
                                             {"seek", film_.stream, "--time", "1"},
                                             {"cut", film_.stream, "--to", "1"}}) {
    write_file(film_.stream, old.stream);
    write_file(film_.index, old.index);
    crash(true);
    EXPECT_EQ(pvr(reader).exit_code, 0) << reader[0];
    EXPECT_THAT(names_in(dir_.path()), UnorderedElementsAre("film.kvf", "film.mdb")) << reader[0];
    expect_sound(film_.stream);
  }
}

TEST_F(PlexaPvrCutJournalTest, DoesNotOutliveTheRecording) {
  crash(true);
  EXPECT_EQ(pvr({"record", mpeg2_stream(), film_.stream, "--overwrite"}).exit_code, 0);
  EXPECT_THAT(names_in(dir_.path()), UnorderedElementsAre("film.kvf", "film.mdb"));
  expect_sound(film_.stream);
}

TEST_F(PlexaPvrCutJournalTest, OfAnInterruptedCutIsLeftAloneWhileItIsAtWork) {
  crash(true);
  const int descriptor = ::open(film_.stream.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(::flock(descriptor, LOCK_EX), 0);
  EXPECT_TRUE(complains_once(pvr({"info", film_.stream}),
                             "changed by another program; a cut of the recording is at work"));
  EXPECT_TRUE(exists(journal_));
  ::close(descriptor);
  EXPECT_EQ(pvr({"info", film_.stream}).exit_code, 0);
}

TEST_F(PlexaPvrCutJournalTest, ThatMayNotBeFollowedIsNamedAsTheReason) {
  crash(true);
  ::chmod(film_.stream.c_str(), 0444);
  RunOptions options;
  options.obey_permissions = true;
  const Ended run = pvr({"info", film_.stream}, options);
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_TRUE(complains_once(run, "Permission denied; a cut of the recording")) << run.err;
  ::chmod(film_.stream.c_str(), 0644);
  EXPECT_EQ(pvr({"info", film_.stream}).exit_code, 0);
}

TEST_F(PlexaPvrCutJournalTest, ThatIsDamagedIsNotFollowed) {
  crash(true);
  const Content before(film_);
  const int64_t size = size_of(journal_);
  for (const int64_t at : {int64_t{16}, int64_t{48}, int64_t{300}, size - 1}) {
    const Bytes sound = read_file(journal_);
    poke(journal_, at, {static_cast<uint8_t>(sound[static_cast<size_t>(at)] ^ 1)});
    EXPECT_TRUE(complains_once(pvr({"info", film_.stream}), "is damaged")) << at;
    EXPECT_TRUE(Content(film_) == before);
    write_file(journal_, sound);
  }
  EXPECT_EQ(pvr({"info", film_.stream}).exit_code, 0);
}

TEST_F(PlexaPvrCutJournalTest, OfAnotherStreamIsNotFollowed) {
  crash(true);
  Bytes stream = read_file(film_.stream);
  std::reverse(stream.begin(), stream.end());
  write_file(film_.stream, stream);
  EXPECT_TRUE(complains_once(pvr({"info", film_.stream}), "of another stream file"));
  EXPECT_TRUE(read_file(film_.stream) == stream);
}

TEST_F(PlexaPvrCutJournalTest, WithAnotherIndexIsNotFollowed) {
  crash(true);
  poke(dir_.file("film.cut-index"), 5000, {1, 2, 3});
  const Bytes index = read_file(film_.index);
  EXPECT_TRUE(complains_once(pvr({"info", film_.stream}), "is not the index"));
  EXPECT_TRUE(read_file(film_.index) == index);
}

TEST_F(PlexaPvrCutJournalTest, AFileOfThatNameThatIsNoneIsLeftAlone) {
  write_file(journal_, Bytes(1000, 'x'));
  EXPECT_EQ(pvr({"info", film_.stream}).exit_code, 0);
  EXPECT_EQ(read_file(journal_), Bytes(1000, 'x'));
}

TEST_F(PlexaPvrCutJournalTest, ADiskThatIsFullLeavesTheOldRecording) {
  const Content before(film_);
  RunOptions options;
  options.file_limit = 100000;  // the new index does not fit
  const Ended run = pvr(command_, options);
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_TRUE(Content(film_) == before);
  EXPECT_THAT(names_in(dir_.path()), UnorderedElementsAre("film.kvf", "film.mdb"));
}

}  // namespace
}  // namespace plexa_test
