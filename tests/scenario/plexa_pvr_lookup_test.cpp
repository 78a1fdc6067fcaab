// plexa-pvr info, frames and seek; and what every reading command says about wrong input.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>

#include "index_builder.h"
#include "plexa_pvr_support.h"
#include "temp_dir.h"

namespace plexa_test {
namespace {

using ::testing::ElementsAre;
using ::testing::Gt;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class PlexaPvrLookupTest : public ::testing::Test {
 protected:
  PlexaPvrLookupTest() : film_(record(h264_stream(), dir_.file("film.kvf"))) {}

  static JsonText json(std::vector<std::string> arguments) {
    arguments.push_back("--json");
    const Ended run = pvr(arguments);
    EXPECT_EQ(run.exit_code, 0) << run.err;
    EXPECT_THAT(run.err, IsEmpty());
    return JsonText(run.out);
  }

  TempDir dir_;
  RecordingFiles film_;
};

TEST_F(PlexaPvrLookupTest, InfoTellsWhatTheRecordingIs) {
  const JsonText info = json({"info", film_.stream});
  EXPECT_EQ(info.text("recording"), film_.stream);
  EXPECT_EQ(info.text("index"), film_.index);
  EXPECT_EQ(info.text("layout"), "current");
  EXPECT_EQ(info.text("state"), "complete");
  EXPECT_EQ(info.number("duration_ms"), 6000);
  EXPECT_EQ(info.number("size"), size_of(film_.stream));
  EXPECT_EQ(info.number("packets"), size_of(film_.stream) / 188);
  EXPECT_EQ(info.number("index_size"), size_of(film_.index));
  EXPECT_EQ(info.number("stored_size"), size_of(film_.stream));
  EXPECT_EQ(info.number("gops"), 13);
  EXPECT_EQ(info.number("shortest_gop_ms"), 240);
  EXPECT_EQ(info.number("longest_gop_ms"), 480);
  EXPECT_EQ(info.count("channels"), 1u);
  EXPECT_EQ(info.text("channels.0.codec"), "H.264");
  EXPECT_EQ(info.number("channels.0.gops"), 13);
  EXPECT_EQ(info.number("channels.0.video_pid"), gop_records(film_.index)[0].video_pid);
}

TEST_F(PlexaPvrLookupTest, InfoGivesTheBitRateOfTheLookups) {
  const auto gops = gop_records(film_.index);
  std::vector<int64_t> rates;
  for (const pvr_gop_info_s &gop : gops) {
    rates.push_back(static_cast<int64_t>(gop.next_gop_first_packet_count - gop.packet_count) * 188 *
                    8000 / (gop.next_gop_first_time - gop.time_code));
  }
  std::sort(rates.begin(), rates.end());
  const JsonText info = json({"info", film_.stream});
  EXPECT_EQ(info.number("bit_rate.lowest"), rates.front());
  EXPECT_EQ(info.number("bit_rate.highest"), rates.back());
  const auto bytes = (gops.back().next_gop_first_packet_count - gops[0].packet_count) * 188;
  EXPECT_EQ(info.number("bit_rate.mean"), static_cast<int64_t>(bytes * 8000 / 6000));
}

TEST_F(PlexaPvrLookupTest, InfoSaysTheSameAsText) {
  const Ended run = pvr({"info", film_.stream});
  EXPECT_EQ(run.exit_code, 0);
  for (const char *line : {"Layout:     current\n", "State:      complete\n",
                           "Duration:   00:00:06.000 (6000 ms)\n", "GOPs:       13, 240 to 480 ms",
                           "Codec:      H.264\n", "Bit rate:   ", "PIDs:       video ",
                           "  slot 0, from 00:00:00.000, 13 GOPs: H.264, video PID "}) {
    EXPECT_THAT(run.out, HasSubstr(line));
  }
}

TEST_F(PlexaPvrLookupTest, ARecordingIsNamedByEitherFileAndThroughLinks) {
  std::filesystem::create_symlink(film_.stream, dir_.file("link.kvf"));
  std::filesystem::create_directory(dir_.file("deep"));
  const std::string direct = pvr({"info", film_.stream}).out;
  EXPECT_EQ(pvr({"info", film_.index}).out, direct);
  EXPECT_EQ(pvr({"info", dir_.file("link.kvf")}).out, direct);
  EXPECT_EQ(pvr({"info", "film.kvf"}, {.folder = dir_.path()}).out, direct);
  EXPECT_EQ(pvr({"info", "deep/../film.mdb"}, {.folder = dir_.path()}).out, direct);
}

TEST_F(PlexaPvrLookupTest, FramesAreTheRecordsOfTheIndex) {
  const auto gops = gop_records(film_.index);
  const JsonText frames = json({"frames", film_.stream});
  ASSERT_EQ(frames.count("frames"), gops.size());
  for (size_t i = 0; i < gops.size(); ++i) {
    const std::string at = "frames." + std::to_string(i) + ".";
    EXPECT_EQ(frames.number(at + "number"), static_cast<int64_t>(i));
    EXPECT_EQ(frames.number(at + "time_ms"), gops[i].time_code - gops[0].time_code);
    EXPECT_EQ(frames.number(at + "pts"), static_cast<int64_t>(gops[i].pts));
    EXPECT_EQ(frames.number(at + "offset"), static_cast<int64_t>(gops[i].packet_count * 188));
    EXPECT_EQ(frames.number(at + "length"), int64_t{gops[i].iframe_size} * 188);
    EXPECT_EQ(frames.number(at + "channel"), 0);
    EXPECT_TRUE(frames.flag(at + "has_sequence_header"));
  }
  EXPECT_TRUE(frames.flag("complete"));
}

TEST_F(PlexaPvrLookupTest, FramesOfARangeBeginInsideIt) {
  const JsonText frames = json({"frames", film_.stream, "--from", "480ms", "--to", "1.92"});
  EXPECT_THAT(frames.numbers("frames", "time_ms"), ElementsAre(480, 960, 1440));
  EXPECT_THAT(json({"frames", film_.stream, "--from", "481ms", "--to", "1921ms"})
                  .numbers("frames", "time_ms"),
              ElementsAre(960, 1440, 1920));
  EXPECT_THAT(json({"frames", film_.stream, "--from", "1:00"}).numbers("frames", "time_ms"),
              IsEmpty());
}

TEST_F(PlexaPvrLookupTest, FramesAsTextAreOneLineEach) {
  const Ended run = pvr({"frames", film_.stream});
  EXPECT_EQ(std::count(run.out.begin(), run.out.end(), '\n'), 14);
  EXPECT_THAT(run.out, HasSubstr("\n       1   00:00:00.480  "));
}

TEST_F(PlexaPvrLookupTest, ManyWindowsOfRecordsAreListedInOrder) {
  IndexBuilder builder;
  pvr_channel_info_s channel{};
  channel.video_pid = 0x100;
  builder.channel(0, channel).gops(1000, 500, 20).write(dir_.file("long.mdb"));
  write_file(dir_.file("long.kvf"), std::vector<uint8_t>(1000 * 20 * 188, 0x47));
  for (const char *layout : {"current", "legacy"}) {
    if (std::string(layout) == "legacy") builder.legacy().write(dir_.file("long.mdb"));
    const JsonText frames = json({"frames", dir_.file("long.kvf")});
    const auto times = frames.numbers("frames", "time_ms");
    ASSERT_EQ(times.size(), 1000u) << layout;
    for (size_t i = 0; i < times.size(); ++i) EXPECT_EQ(times[i], static_cast<int64_t>(i) * 500);
    EXPECT_EQ(json({"info", dir_.file("long.kvf")}).text("layout"), layout);
  }
}

TEST_F(PlexaPvrLookupTest, SeekFindsTheIFrameAtOrBeforeATime) {
  const auto gops = gop_records(film_.index);
  for (size_t i = 0; i < gops.size(); ++i) {
    const int64_t time = gops[i].time_code - gops[0].time_code;
    for (const int64_t asked : {time, time + 200}) {
      const JsonText found = json({"seek", film_.stream, "--time", std::to_string(asked) + "ms"});
      EXPECT_EQ(found.number("frame.number"), static_cast<int64_t>(i)) << asked;
      EXPECT_EQ(found.number("frame.time_ms"), time);
      EXPECT_EQ(found.number("frame.offset"), static_cast<int64_t>(gops[i].packet_count * 188));
      EXPECT_EQ(found.number("time_by_offset_ms"), time);
    }
  }
}

TEST_F(PlexaPvrLookupTest, SeekFindsTheIFrameAtOrBeforeAnOffset) {
  const auto gops = gop_records(film_.index);
  for (size_t i = 0; i < gops.size(); ++i) {
    const auto offset = static_cast<int64_t>(gops[i].packet_count * 188);
    const JsonText found = json({"seek", film_.stream, "--offset", std::to_string(offset + 100)});
    EXPECT_EQ(found.number("frame.number"), static_cast<int64_t>(i));
    EXPECT_EQ(found.number("asked.offset"), offset + 100);
    EXPECT_EQ(found.number("channel.video_pid"), gops[i].video_pid);
  }
  EXPECT_EQ(json({"seek", film_.stream, "--offset", "0x10"}).number("asked.offset"), 16);
}

TEST_F(PlexaPvrLookupTest, SeekStepsByIntervals) {
  EXPECT_EQ(json({"seek", film_.stream, "--time", "2", "--interval", "3"}).number("frame.number"),
            7);
  EXPECT_EQ(json({"seek", film_.stream, "--time", "2", "--interval=-4"}).number("frame.number"), 0);
  for (const char *interval : {"9", "-5", "2147483647", "-2147483647"}) {
    const Ended run = pvr({"seek", film_.stream, "--time", "2", "--interval", interval});
    EXPECT_EQ(run.exit_code, 1) << interval;
    EXPECT_THAT(run.out, IsEmpty());
    EXPECT_TRUE(complains_once(run, "no I-frame")) << run.err;
  }
}

TEST_F(PlexaPvrLookupTest, SeekBehindTheEndGivesTheLastIFrame) {
  EXPECT_EQ(json({"seek", film_.stream, "--time", "10:00"}).number("frame.number"), 12);
  const JsonText found = json({"seek", film_.stream, "--offset", "9223372036854775807"});
  EXPECT_EQ(found.number("frame.number"), 12);
  EXPECT_TRUE(found.is_null("time_by_offset_ms"));
}

TEST_F(PlexaPvrLookupTest, SeekAsTextNamesEveryAnswer) {
  const Ended run = pvr({"seek", film_.stream, "--time", "1"});
  EXPECT_EQ(run.exit_code, 0);
  for (const char *name : {"I-frame:         2\n", "Time:            00:00:00.960 (960 ms)\n",
                           "PTS: ", "Offset: ", "Length: ", "Next GOP: ", "Time by offset: ",
                           "Bit rate: ", "Channel:         0 (H.264, "}) {
    EXPECT_THAT(run.out, HasSubstr(name));
  }
}

TEST_F(PlexaPvrLookupTest, ARecordingWithoutEndTimeIsNotComplete) {
  change_base(film_.index, [](pvr_base_table_s &table) { table.end_time_code = 0; });
  const JsonText info = json({"info", film_.stream});
  EXPECT_FALSE(info.flag("complete"));
  EXPECT_EQ(info.text("state"), "cut short");
  EXPECT_THAT(info.number("duration_ms"), Gt(5000));
  EXPECT_FALSE(json({"frames", film_.stream}).flag("complete"));
}

// What every reading command refuses, with one line, exit code 1 and no data.
class PlexaPvrWrongInputTest : public PlexaPvrLookupTest {
 protected:
  void expect_refused(const std::string &path, const std::string &words,
                      const RunOptions &options = {}) {
    const std::vector<std::vector<std::string>> commands = {
        {"info", path},
        {"info", path, "--json"},
        {"frames", path},
        {"frames", path, "--json"},
        {"seek", path, "--time", "1"},
        {"check", path},
        {"check", path, "--json"},
        {"export", path, dir_.file("out.ts"), "--from", "1"}};
    for (const auto &command : commands) {
      const Ended run = pvr(command, options);
      EXPECT_EQ(run.exit_code, 1) << command[0];
      EXPECT_THAT(run.out, IsEmpty()) << command[0];
      EXPECT_TRUE(complains_once(run, words)) << command[0] << ": " << run.err;
    }
    EXPECT_FALSE(exists(dir_.file("out.ts")));
  }
};

TEST_F(PlexaPvrWrongInputTest, NoFile) {
  expect_refused(dir_.file("none.kvf"), "none.kvf: No such file or directory");
  expect_refused("", "path of the recording is empty");
}

TEST_F(PlexaPvrWrongInputTest, NoIndex) {
  std::filesystem::remove(film_.index);
  expect_refused(film_.stream, "film.mdb: no such file");
}

TEST_F(PlexaPvrWrongInputTest, NoStream) {
  std::filesystem::remove(film_.stream);
  expect_refused(film_.index, "film.kvf: no such file");
}

TEST_F(PlexaPvrWrongInputTest, ADirectory) {
  expect_refused(dir_.path(), "is a directory");
  std::filesystem::remove(film_.index);
  std::filesystem::create_directory(film_.index);
  expect_refused(film_.stream, "film.mdb: is a directory");
}

TEST_F(PlexaPvrWrongInputTest, APipeIsNotWaitedFor) {
  std::filesystem::remove(film_.index);
  ASSERT_EQ(::mkfifo(film_.index.c_str(), 0600), 0);
  expect_refused(film_.stream, "no regular file");
}

TEST_F(PlexaPvrWrongInputTest, ANameWithoutExtension) {
  copy_file(film_.stream, dir_.file("film"));
  expect_refused(dir_.file("film"), "no extension");
}

TEST_F(PlexaPvrWrongInputTest, NoPermission) {
  ::chmod(film_.stream.c_str(), 0);
  expect_refused(film_.stream, "film.kvf: Permission denied", {.obey_permissions = true});
  ::chmod(film_.stream.c_str(), 0600);
  ::chmod(film_.index.c_str(), 0);
  expect_refused(film_.stream, "film.mdb: Permission denied", {.obey_permissions = true});
}

TEST_F(PlexaPvrWrongInputTest, AnIndexThatIsNone) {
  write_file(film_.index, std::vector<uint8_t>(2000000, 'x'));
  expect_refused(film_.stream, "not an index, or of another version (0x78787878");
  copy_file(film_.stream, film_.index);
  expect_refused(film_.stream, "not an index");
}

TEST_F(PlexaPvrWrongInputTest, AnotherVersion) {
  change_base(film_.index, [](pvr_base_table_s &table) { table.mdb_version = 0x20120916; });
  expect_refused(film_.stream, "another version (0x20120916 instead of 0x20110916)");
}

TEST_F(PlexaPvrWrongInputTest, UnknownRecordSizes) {
  change_base(film_.index, [](pvr_base_table_s &table) { table.channel_info_size = 233; });
  expect_refused(film_.stream, "channel records of 233 bytes");
}

TEST_F(PlexaPvrWrongInputTest, TruncatedIndexes) {
  truncate_to(film_.index, 954360 + 103);
  expect_refused(film_.stream, "holds no GOP record");
  truncate_to(film_.index, 954359);
  expect_refused(film_.stream,
                 "truncated index: 954359 bytes, and its GOP records begin at 954360");
  truncate_to(film_.index, 4087);
  expect_refused(film_.stream, "truncated index: 4087 bytes");
  truncate_to(film_.index, 0);
  expect_refused(film_.stream, "truncated index: 0 bytes");
}

TEST_F(PlexaPvrWrongInputTest, GopRecordsBehindTheEnd) {
  change_base(film_.index, [](pvr_base_table_s &table) { table.gop_start_offset = 0xfffffff0; });
  expect_refused(film_.stream, "GOP records begin at 4294967280");
}

TEST_F(PlexaPvrLookupTest, AnIndexLongerThanTheStreamIsSaidAfterTheData) {
  truncate_to(film_.stream, size_of(film_.stream) / 2);
  for (const std::vector<std::string> &command : {std::vector<std::string>{"info", film_.stream},
                                                  {"frames", film_.stream, "--json"},
                                                  {"seek", film_.stream, "--time", "1"}}) {
    const Ended run = pvr(command);
    EXPECT_EQ(run.exit_code, 1);
    EXPECT_THAT(run.out, Not(IsEmpty()));
    EXPECT_TRUE(complains_once(run, "index longer than the stream")) << run.err;
  }
}

TEST_F(PlexaPvrLookupTest, AnIndexShorterThanTheStreamIsSaidAfterTheData) {
  append(film_.stream, read_file(film_.stream));
  const Ended run = pvr({"info", film_.stream, "--json"});
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_TRUE(complains_once(run, "index shorter than the stream")) << run.err;
  EXPECT_THAT(JsonText(run.out).text("mismatch"), HasSubstr("index shorter than the stream"));
}

}  // namespace
}  // namespace plexa_test
