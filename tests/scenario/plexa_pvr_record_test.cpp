// plexa-pvr record and plexa-pvr index: recordings of real streams, refusals, Ctrl-C, full disks.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>
#include <thread>

#include "plexa_pvr_support.h"
#include "temp_dir.h"

namespace plexa_test {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr int64_t kGopTable = 954360;
constexpr int64_t kCodecAt = 4088 + 176;  // in the first channel record

std::string as_text(const std::vector<uint8_t> &bytes) { return {bytes.begin(), bytes.end()}; }

class PlexaPvrRecordTest : public ::testing::Test {
 protected:
  void expect_refused(const std::vector<std::string> &arguments, const std::string &words,
                      const RunOptions &options = {}) {
    const Ended run = pvr(arguments, options);
    EXPECT_EQ(run.exit_code, 1) << run.out;
    EXPECT_THAT(run.out, IsEmpty());
    EXPECT_TRUE(complains_once(run, words)) << run.err;
  }

  void expect_sound(const RecordingFiles &files) {
    const Ended run = pvr({"check", files.stream});
    EXPECT_EQ(run.exit_code, 0) << run.out << run.err;
  }

  std::vector<std::string> names() {
    std::vector<std::string> out;
    for (const auto &entry : std::filesystem::directory_iterator(dir_.path())) {
      out.push_back(entry.path().filename());
    }
    std::sort(out.begin(), out.end());
    return out;
  }

  TempDir dir_;
};

TEST_F(PlexaPvrRecordTest, RecordsEveryCodecSoundly) {
  const std::vector<std::pair<std::string, std::string>> streams = {
      {h264_stream(), "H.264"}, {mpeg2_stream(), "MPEG-2"}, {h265_stream(), "H.265"}};
  for (const auto &[input, codec] : streams) {
    const RecordingFiles film = record(input, dir_.file(codec + ".kvf"));
    expect_sound(film);
    EXPECT_EQ(size_of(film.stream), size_of(input)) << codec;
    const JsonText info(pvr({"info", film.stream, "--json"}).out);
    EXPECT_EQ(info.text("channels.0.codec"), codec);
    EXPECT_EQ(info.number("gops"), 13) << codec;
    EXPECT_EQ(info.number("duration_ms"), 6000) << codec;
  }
}

TEST_F(PlexaPvrRecordTest, PrintsASummary) {
  const Ended text = pvr({"record", h264_stream(), dir_.file("film.kvf")});
  EXPECT_EQ(text.exit_code, 0);
  EXPECT_THAT(text.err, IsEmpty());
  EXPECT_THAT(text.out, HasSubstr("Recording:  " + dir_.file("film.kvf") + "\n"));
  EXPECT_THAT(text.out, HasSubstr("Duration:   00:00:06.000 (6000 ms)\n"));
  EXPECT_THAT(text.out, HasSubstr("GOPs:       13\n"));
  const Ended json = pvr({"record", h264_stream(), dir_.file("other.kvf"), "--json"});
  const JsonText summary(json.out);
  EXPECT_EQ(summary.number("duration_ms"), 6000);
  EXPECT_EQ(summary.number("size"), size_of(h264_stream()));
  EXPECT_EQ(summary.number("packets"), size_of(h264_stream()) / 188);
  EXPECT_EQ(summary.number("gops"), 13);
  EXPECT_FALSE(summary.flag("disk_full"));
}

TEST_F(PlexaPvrRecordTest, APipeGivesTheSameRecordingAsAFile) {
  const RecordingFiles film = record(h264_stream(), dir_.file("film.kvf"));
  const Ended piped =
      pvr({"record", "-", dir_.file("piped.kvf")}, {.input = as_text(read_file(h264_stream()))});
  EXPECT_EQ(piped.exit_code, 0) << piped.err;
  EXPECT_EQ(read_file(dir_.file("piped.kvf")), read_file(film.stream));
  EXPECT_EQ(read_file(dir_.file("piped.mdb")), read_file(film.index));
}

TEST_F(PlexaPvrRecordTest, WritesTheLegacyLayoutWhenAsked) {
  const RecordingFiles film = record(h264_stream(), dir_.file("film.kvf"), {"--legacy"});
  expect_sound(film);
  const JsonText info(pvr({"info", film.stream, "--json"}).out);
  EXPECT_EQ(info.text("layout"), "legacy");
  EXPECT_EQ(info.number("gops"), 13);
  EXPECT_EQ(size_of(film.index), 4088 + 4096 * 256 + 13 * 100);
}

TEST_F(PlexaPvrRecordTest, RecordsPastThePageCacheWhenAsked) {
  const RecordingFiles film = record(h264_stream(), dir_.file("film.kvf"), {"--direct"});
  expect_sound(film);
  const JsonText info(pvr({"info", film.stream, "--json"}).out);
  EXPECT_EQ(info.number("gops"), 13);
}

TEST_F(PlexaPvrRecordTest, RefusesAProgrammeThatIsNotThere) {
  const Ended run = pvr({"record", h264_stream(), dir_.file("film.kvf"), "--program", "999"});
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_TRUE(complains_once(run, "999")) << run.err;
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(PlexaPvrRecordTest, AnExistingRecordingIsReplacedOnlyWhenAsked) {
  const RecordingFiles film = record(h264_stream(), dir_.file("film.kvf"));
  const auto stream = read_file(film.stream);
  const auto index = read_file(film.index);
  expect_refused({"record", mpeg2_stream(), film.stream}, "exists already");
  EXPECT_EQ(read_file(film.stream), stream);
  EXPECT_EQ(read_file(film.index), index);

  const Ended replaced = pvr({"record", mpeg2_stream(), film.stream, "--overwrite"});
  EXPECT_EQ(replaced.exit_code, 0) << replaced.err;
  EXPECT_EQ(read_file(film.stream), read_file(mpeg2_stream()));
  expect_sound(film);
}

TEST_F(PlexaPvrRecordTest, TheThumbnailsOfAnOverwrittenRecordingGoWithIt) {
  const RecordingFiles film = record(h264_stream(), dir_.file("film.kvf"));
  ASSERT_EQ(pvr({"thumbnail", film.stream}).exit_code, 0);
  ASSERT_THAT(names(), SizeIs(4));
  expect_refused({"record", mpeg2_stream(), film.stream}, "exists already");
  expect_refused({"record", "/dev/null", film.stream, "--overwrite"}, "is empty");
  ASSERT_THAT(names(), SizeIs(4));
  EXPECT_EQ(pvr({"record", mpeg2_stream(), film.stream, "--overwrite"}).exit_code, 0);
  EXPECT_THAT(names(), SizeIs(2));
}

TEST_F(PlexaPvrRecordTest, AnInputThatIsNoneLeavesAnOldRecordingAlone) {
  const RecordingFiles film = record(h264_stream(), dir_.file("film.kvf"));
  const auto stream = read_file(film.stream);
  write_file(dir_.file("text.ts"), std::vector<uint8_t>(100000, 'x'));
  expect_refused({"record", dir_.file("text.ts"), film.stream, "--overwrite"},
                 "not an MPEG transport stream");
  EXPECT_EQ(read_file(film.stream), stream);
  expect_sound(film);
}

TEST_F(PlexaPvrRecordTest, RefusesToRecordAFileOntoItself) {
  const RecordingFiles film = record(h264_stream(), dir_.file("film.kvf"));
  const auto stream = read_file(film.stream);
  expect_refused({"record", film.stream, film.stream, "--overwrite"}, "the input itself");
  EXPECT_EQ(read_file(film.stream), stream);
}

TEST_F(PlexaPvrRecordTest, RefusesWrongInputsAndOutputs) {
  const std::string out = dir_.file("film.kvf");
  write_file(dir_.file("empty.ts"), {});
  expect_refused({"record", dir_.file("none.ts"), out}, "none.ts: No such file or directory");
  expect_refused({"record", dir_.path(), out}, "Is a directory");
  expect_refused({"record", dir_.file("empty.ts"), out}, "empty");
  expect_refused({"record", "-", out}, "empty");
  expect_refused({"record", h264_stream(), dir_.file("nowhere/film.kvf")},
                 "No such file or directory");
  EXPECT_THAT(names(), SizeIs(1));
  std::filesystem::create_directory(dir_.file("folder.kvf"));
  expect_refused({"record", h264_stream(), dir_.file("folder.kvf"), "--overwrite"},
                 "not a regular file");
}

TEST_F(PlexaPvrRecordTest, RefusesWhatItMayNotReadOrWrite) {
  copy_file(h264_stream(), dir_.file("secret.ts"));
  ::chmod(dir_.file("secret.ts").c_str(), 0);
  expect_refused({"record", dir_.file("secret.ts"), dir_.file("film.kvf")}, "Permission denied",
                 {.obey_permissions = true});
  std::filesystem::create_directory(dir_.file("locked"));
  ::chmod(dir_.file("locked").c_str(), 0555);
  expect_refused({"record", h264_stream(), dir_.file("locked/film.kvf")}, "Permission denied",
                 {.obey_permissions = true});
}

TEST_F(PlexaPvrRecordTest, AFullDiskEndsTheRecordingButKeepsIt) {
  // Above the index's own size, below the stream's.
  const int64_t limit = 1100000;
  const Ended run =
      pvr({"record", h264_stream(), dir_.file("film.kvf"), "--json"}, {.file_limit = limit});
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_TRUE(complains_once(run, "cut short")) << run.err;
  EXPECT_TRUE(JsonText(run.out).flag("disk_full"));
  const RecordingFiles film{dir_.file("film.kvf"), dir_.file("film.mdb")};
  EXPECT_LE(size_of(film.stream), limit);
  expect_sound(film);
  EXPECT_GT(JsonText(pvr({"info", film.stream, "--json"}).out).number("gops"), 5);
}

TEST_F(PlexaPvrRecordTest, CtrlCEndsTheRecordingCleanly) {
  const std::vector<uint8_t> data = read_file(h264_stream());
  const RecordingFiles film{dir_.file("film.kvf"), dir_.file("film.mdb")};
  RunningPvr recorder({"record", "-", film.stream, "--json"});
  recorder.feed(data, 0, data.size() / 2);
  while (!exists(film.index) || size_of(film.index) < kGopTable + 4 * 104) {
    std::this_thread::yield();
  }
  const JsonText running(pvr({"info", film.stream, "--json"}).out);
  EXPECT_EQ(running.text("state"), "running");
  EXPECT_FALSE(running.flag("complete"));
  recorder.interrupt();
  const Ended run = recorder.finish(true);
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_THAT(run.err, IsEmpty());
  EXPECT_GE(JsonText(run.out).number("gops"), 4);
  expect_sound(film);
  EXPECT_TRUE(JsonText(pvr({"info", film.stream, "--json"}).out).flag("complete"));
}

TEST_F(PlexaPvrRecordTest, AKilledRecordingIsUsableAndCanBeRepaired) {
  const std::vector<uint8_t> data = read_file(h264_stream());
  const RecordingFiles film{dir_.file("film.kvf"), dir_.file("film.mdb")};
  {
    RunningPvr recorder({"record", "-", film.stream});
    recorder.feed(data, 0, data.size() / 2);
    while (!exists(film.index) || size_of(film.index) < kGopTable + 4 * 104) {
      std::this_thread::yield();
    }
  }  // killed
  expect_sound(film);
  const JsonText info(pvr({"info", film.stream, "--json"}).out);
  EXPECT_EQ(info.text("state"), "cut short");
  EXPECT_GE(info.number("gops"), 4);
  const Ended repaired = pvr({"index", film.stream, "--repair"});
  EXPECT_EQ(repaired.exit_code, 0) << repaired.err;
  expect_sound(film);
  EXPECT_TRUE(JsonText(pvr({"info", film.stream, "--json"}).out).flag("complete"));
}

TEST_F(PlexaPvrRecordTest, ShowsAProgressBarOnATerminalOnlyAndClearsItAtTheEnd) {
  const std::vector<uint8_t> data = read_file(h264_stream());
  RunningPvr recorder({"record", "-", dir_.file("film.kvf")}, true);
  size_t fed = 0;
  // A little at a time, until the work has lasted long enough to show.
  while (recorder.errors().find("recording") == std::string::npos && fed + 1880 <= data.size()) {
    recorder.feed(data, fed, fed + 1880);
    fed += 1880;
  }
  recorder.feed(data, fed, data.size());
  const Ended run = recorder.finish();
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_THAT(run.err, HasSubstr("\rrecording "));
  EXPECT_THAT(run.err, HasSubstr("GOPs"));
  EXPECT_TRUE(run.err.ends_with("\r\033[K")) << run.err;
}

TEST_F(PlexaPvrRecordTest, IndexMakesALostIndexAnew) {
  for (const std::string &input : {h264_stream(), mpeg2_stream(), h265_stream()}) {
    const RecordingFiles film = record(input, dir_.file("film.kvf"), {"--overwrite"});
    const auto before = gop_records(film.index);
    std::filesystem::remove(film.index);
    const Ended run = pvr({"index", film.stream, "--json"});
    EXPECT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(JsonText(run.out).number("gops"), 13);
    expect_sound(film);
    const auto after = gop_records(film.index);
    ASSERT_EQ(after.size(), before.size());
    for (size_t i = 0; i < after.size(); ++i) {
      EXPECT_EQ(after[i].packet_count, before[i].packet_count);
      EXPECT_EQ(after[i].pts, before[i].pts);
      EXPECT_EQ(after[i].time_code - after[0].time_code, before[i].time_code - before[0].time_code);
    }
  }
}

TEST_F(PlexaPvrRecordTest, IndexTakesThePathOfTheLostIndexToo) {
  const RecordingFiles film = record(h264_stream(), dir_.file("film.kvf"));
  std::filesystem::remove(film.index);
  const Ended run = pvr({"index", film.index});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  expect_sound(film);
}

TEST_F(PlexaPvrRecordTest, IndexCanChangeTheLayout) {
  const RecordingFiles film = record(h264_stream(), dir_.file("film.kvf"));
  EXPECT_EQ(pvr({"index", film.stream, "--legacy"}).exit_code, 0);
  EXPECT_EQ(JsonText(pvr({"info", film.stream, "--json"}).out).text("layout"), "legacy");
  expect_sound(film);
}

TEST_F(PlexaPvrRecordTest, RepairRedoesTheTailThatACrashLeftBehind) {
  const RecordingFiles film = record(h264_stream(), dir_.file("film.kvf"));
  const auto before = gop_records(film.index);
  change_base(film.index, [](pvr_base_table_s &table) { table.end_time_code = 0; });
  truncate_to(film.index, kGopTable + 7 * 104 + 50);
  poke(film.index, 4088 + 16, {'k', 'e', 'p', 't'});  // the channel's description
  EXPECT_EQ(pvr({"check", film.stream}).exit_code, 1);
  const Ended run = pvr({"index", film.stream, "--repair"});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  expect_sound(film);
  EXPECT_EQ(gop_records(film.index).size(), before.size());
  const auto bytes = read_file(film.index);
  EXPECT_EQ(std::string(bytes.begin() + 4088 + 16, bytes.begin() + 4088 + 20), "kept");
}

// What check calls a fault of a record, repair must not call sound.
TEST_F(PlexaPvrRecordTest, RepairMendsWhatCheckFindsInARecord) {
  for (const std::string &input : {h264_stream(), mpeg2_stream(), h265_stream()}) {
    const RecordingFiles film = record(input, dir_.file("film.kvf"), {"--overwrite"});
    const auto made = read_file(film.index);
    const int codec = made[kCodecAt];
    // The codec; the first PTS; the last frame's time and packet in the third record.
    for (const int64_t at :
         {kCodecAt, kGopTable, kGopTable + 2 * 104 + 63, kGopTable + 2 * 104 + 65}) {
      write_file(film.index, made);
      poke(film.index, at, {static_cast<uint8_t>(at == kCodecAt ? (codec == 0 ? 1 : 0) : 0x7f)});
      EXPECT_EQ(pvr({"check", film.stream}).exit_code, 1) << input << ' ' << at;
      const Ended run = pvr({"index", film.stream, "--repair"});
      EXPECT_EQ(run.exit_code, 0) << run.err;
      expect_sound(film);
    }
  }
}

TEST_F(PlexaPvrRecordTest, AnIndexThatCannotBeMadeLeavesTheOldOne) {
  const RecordingFiles film = record(h264_stream(), dir_.file("film.kvf"));
  const auto index = read_file(film.index);
  write_file(film.stream, std::vector<uint8_t>(200000, 'x'));
  expect_refused({"index", film.stream}, "188-byte packet");
  EXPECT_EQ(read_file(film.index), index);
  EXPECT_THAT(names(), SizeIs(2));
  expect_refused({"index", dir_.file("none.kvf")}, "No such file or directory");
  expect_refused({"index", dir_.path()}, "is a directory");
}

TEST_F(PlexaPvrRecordTest, AnIndexThatIsNoFileIsNeitherReadNorReplaced) {
  const RecordingFiles film = record(h264_stream(), dir_.file("film.kvf"));
  std::filesystem::remove(film.index);
  ASSERT_EQ(::mkfifo(film.index.c_str(), 0600), 0);
  for (const char *const option : {"--repair", "--legacy"}) {
    expect_refused({"index", film.stream, option}, "film.mdb' is not a regular file");
    EXPECT_TRUE(std::filesystem::is_fifo(film.index));
  }
  std::filesystem::remove(film.index);
  std::filesystem::create_directory(film.index);
  expect_refused({"index", film.stream, "--repair"}, "film.mdb' is not a regular file");
  EXPECT_THAT(names(), SizeIs(2));
}

TEST_F(PlexaPvrRecordTest, RenameTakesNoNameThatIsTaken) {
  const RecordingFiles film = record(h264_stream(), dir_.file("film.kvf"));
  const auto stream = read_file(film.stream);
  ASSERT_EQ(::mkfifo(dir_.file("pipe.kvf").c_str(), 0600), 0);
  std::filesystem::create_symlink("nowhere", dir_.file("link.mdb"));
  write_file(dir_.file("thumbs.tm"), {1});
  write_file(dir_.file("locked.kvf"), {1, 2, 3});
  ::chmod(dir_.file("locked.kvf").c_str(), 0);
  for (const char *const name : {"film", "pipe", "link", "thumbs", "locked"}) {
    const Ended run =
        pvr({"rename", film.stream, dir_.file(name) + ".kvf"}, {.obey_permissions = true});
    EXPECT_EQ(run.exit_code, 1) << name;
    EXPECT_TRUE(complains_once(run, "exists already")) << run.err;
  }
  EXPECT_EQ(read_file(film.stream), stream);
  EXPECT_EQ(size_of(dir_.file("locked.kvf")), 3);
}

TEST_F(PlexaPvrRecordTest, ARecordingsNameEndsInKvf) {
  const RecordingFiles film = record(h264_stream(), dir_.file("film.kvf"));
  for (const char *const name : {"other", "other.ts", "other.mdb", ".kvf", "."}) {
    for (const std::vector<std::string> &command :
         {std::vector<std::string>{"record", h264_stream(), dir_.file(name)},
          std::vector<std::string>{"rename", film.stream, dir_.file(name)}}) {
      const Ended run = pvr(command);
      EXPECT_EQ(run.exit_code, 2) << command[0] << ' ' << name;
      EXPECT_THAT(run.err, HasSubstr("must end in .kvf"));
    }
  }
  EXPECT_THAT(names(), SizeIs(2));
}

TEST_F(PlexaPvrRecordTest, ASizeIsRoundedToTheUnitThatItReaches) {
  const RecordingFiles film = record(h264_stream(), dir_.file("film.kvf"));
  truncate_to(film.stream, 999972);
  EXPECT_THAT(pvr({"info", film.stream}).out, HasSubstr("1.0 MB (999972 bytes"));
}

TEST_F(PlexaPvrRecordTest, AFullDiskLeavesTheOldIndex) {
  const RecordingFiles film = record(h264_stream(), dir_.file("film.kvf"));
  const auto index = read_file(film.index);
  const Ended run = pvr({"index", film.stream}, {.file_limit = 500000});
  EXPECT_EQ(run.exit_code, 1) << run.out;
  EXPECT_TRUE(complains_once(run, "File too large")) << run.err;
  EXPECT_EQ(read_file(film.index), index);
  EXPECT_THAT(names(), SizeIs(2));
}

}  // namespace
}  // namespace plexa_test
