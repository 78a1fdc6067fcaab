// plexa-pvr export: a piece of a recording that stands on its own, and nothing lost on the way.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>

#include "plexa_pvr_support.h"
#include "temp_dir.h"

namespace plexa_test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

struct Packet {
  const uint8_t *bytes;
  int pid() const { return (bytes[1] & 0x1f) << 8 | bytes[2]; }
  bool starts_unit() const { return (bytes[1] & 0x40) != 0; }
  const uint8_t *payload() const { return bytes + ((bytes[3] & 0x20) != 0 ? 5 + bytes[4] : 4); }
  // Of a PAT: behind the pointer and the table's header stand the programmes.
  int first_pmt_pid() const { return (payload()[11] & 0x1f) << 8 | payload()[12]; }
};

class PlexaPvrExportTest : public ::testing::Test {
 protected:
  PlexaPvrExportTest() : film_(record(h264_stream(), dir_.file("film.kvf"))) {}

  JsonText exported(const std::vector<std::string> &range) {
    std::vector<std::string> command{"export", film_.stream, out_, "--json", "--overwrite"};
    command.insert(command.end(), range.begin(), range.end());
    const Ended run = pvr(command);
    EXPECT_EQ(run.exit_code, 0) << run.err;
    EXPECT_THAT(run.err, IsEmpty());
    return JsonText(run.out);
  }

  void expect_refused(const std::vector<std::string> &arguments, const std::string &words,
                      const RunOptions &options = {}) {
    std::vector<std::string> command{"export"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    const Ended run = pvr(command, options);
    EXPECT_EQ(run.exit_code, 1) << run.out;
    EXPECT_THAT(run.out, IsEmpty());
    EXPECT_TRUE(complains_once(run, words)) << run.err;
  }

  size_t files_in_folder() const {
    const std::filesystem::directory_iterator all(dir_.path());
    return static_cast<size_t>(std::distance(begin(all), end(all)));
  }

  TempDir dir_;
  RecordingFiles film_;
  std::string out_ = dir_.file("out.ts");
};

TEST_F(PlexaPvrExportTest, BeginsWithThePatThePmtAndTheIFrame) {
  exported({"--from", "1", "--to", "3"});
  const auto bytes = read_file(out_);
  const pvr_gop_info_s gop = gop_records(film_.index)[2];
  ASSERT_EQ(bytes.size() % 188, 0u);
  const Packet pat{bytes.data()};
  EXPECT_EQ(pat.pid(), 0);
  EXPECT_TRUE(pat.starts_unit());
  const Packet pmt{bytes.data() + 188};
  EXPECT_EQ(pmt.pid(), pat.first_pmt_pid());
  EXPECT_TRUE(pmt.starts_unit());
  const Packet iframe{bytes.data() + 2 * 188};
  EXPECT_EQ(iframe.pid(), gop.video_pid);
  EXPECT_TRUE(iframe.starts_unit());
}

TEST_F(PlexaPvrExportTest, CopiesWholeGopsByteForByte) {
  const JsonText json = exported({"--from", "1", "--to", "3"});
  EXPECT_EQ(json.number("from_ms"), 960);
  EXPECT_EQ(json.number("to_ms"), 3360);
  EXPECT_EQ(json.number("first_gop"), 2);
  EXPECT_EQ(json.number("gops"), 5);
  EXPECT_EQ(json.number("size"), size_of(out_));
  const auto gops = gop_records(film_.index);
  const auto stream = read_file(film_.stream);
  const auto out = read_file(out_);
  const std::vector<uint8_t> range(
      stream.begin() + static_cast<std::ptrdiff_t>(gops[2].packet_count * 188),
      stream.begin() + static_cast<std::ptrdiff_t>(gops[7].packet_count * 188));
  EXPECT_EQ(std::vector<uint8_t>(out.begin() + 2 * 188, out.end()), range);
}

TEST_F(PlexaPvrExportTest, RangesAreWholeGopsWhateverTheTimes) {
  struct Case {
    std::vector<std::string> range;
    int64_t first;
    int64_t gops;
  };
  const std::vector<Case> cases = {{{}, 0, 13},
                                   {{"--from", "480ms"}, 1, 12},
                                   {{"--from", "481ms"}, 1, 12},
                                   {{"--from", "479ms", "--to", "480ms"}, 0, 1},
                                   {{"--to", "481ms"}, 0, 2},
                                   {{"--to", "1ms"}, 0, 1},
                                   {{"--from", "5.999", "--to", "1:00:00"}, 12, 1}};
  for (const Case &each : cases) {
    const JsonText json = exported(each.range);
    EXPECT_EQ(json.number("first_gop"), each.first);
    EXPECT_EQ(json.number("gops"), each.gops);
  }
}

TEST_F(PlexaPvrExportTest, RecordedAgainItHasTheSameIFrames) {
  for (const std::string &input : {h264_stream(), mpeg2_stream(), h265_stream()}) {
    film_ = record(input, film_.stream, {"--overwrite"});
    exported({"--from", "1", "--to", "3"});
    const RecordingFiles again = record(out_, dir_.file("again.kvf"), {"--overwrite"});
    EXPECT_EQ(pvr({"check", again.stream}).exit_code, 0);
    const auto whole = gop_records(film_.index);
    const auto piece = gop_records(again.index);
    ASSERT_EQ(piece.size(), 5u);
    for (size_t i = 0; i < piece.size(); ++i) {
      EXPECT_EQ(piece[i].pts, whole[i + 2].pts);
      EXPECT_EQ(piece[i].iframe_size, whole[i + 2].iframe_size);
      EXPECT_EQ(piece[i].time_code - piece[0].time_code,
                whole[i + 2].time_code - whole[2].time_code);
    }
  }
}

TEST_F(PlexaPvrExportTest, APlayerDecodesEveryFrame) {
  exported({"--from", "960ms", "--to", "3.36"});
  const Ended played = run({"sh", "-c",
                            "timeout 60 gst-launch-1.0 -q filesrc location=\"" + out_ +
                                "\" ! tsdemux ! h264parse ! avdec_h264 ! videoconvert "
                                "! video/x-raw,format=GRAY8 ! filesink location=\"" +
                                dir_.file("frames.raw") + "\""});
  EXPECT_EQ(played.exit_code, 0) << played.err;
  EXPECT_EQ(size_of(dir_.file("frames.raw")), 60 * 320 * 240);
}

TEST_F(PlexaPvrExportTest, TheTextSaysWhatWasWritten) {
  const Ended run = pvr({"export", film_.index, out_, "--from", "1", "--to", "3"});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_THAT(run.out, HasSubstr(out_ + ": 00:00:00.960 to 00:00:03.360, 5 GOPs, "));
}

TEST_F(PlexaPvrExportTest, ALegacyRecordingIsExportedAlike) {
  exported({"--from", "1", "--to", "3"});
  const auto current = read_file(out_);
  ASSERT_EQ(pvr({"index", film_.stream, "--legacy"}).exit_code, 0);
  exported({"--from", "1", "--to", "3"});
  EXPECT_EQ(read_file(out_), current);
}

TEST_F(PlexaPvrExportTest, TablesBehindTheIFrameServeWhenThereAreNoneBeforeIt) {
  // The PAT and the PMT in front of the first I-frame become null packets.
  const auto first = static_cast<int64_t>(gop_records(film_.index)[0].packet_count);
  ASSERT_GT(first, 0);
  for (int64_t i = 0; i < first; ++i) poke(film_.stream, i * 188 + 1, {0x1f, 0xff});
  exported({"--to", "1"});
  const auto out = read_file(out_);
  EXPECT_EQ(Packet{out.data()}.pid(), 0);
  EXPECT_EQ(pvr({"record", out_, dir_.file("again.kvf")}).exit_code, 0);
}

TEST_F(PlexaPvrExportTest, AStreamWithoutTablesIsRefused) {
  auto bytes = read_file(film_.stream);
  const int pmt = Packet{bytes.data()}.first_pmt_pid();
  for (size_t at = 0; at < bytes.size(); at += 188) {
    const int pid = Packet{bytes.data() + at}.pid();
    if (pid == 0 || pid == pmt) bytes[at + 1] = 0x1f, bytes[at + 2] = 0xff;
  }
  write_file(film_.stream, bytes);
  expect_refused({film_.stream, out_, "--from", "1"}, "no programme tables");
  EXPECT_EQ(files_in_folder(), 2u);
}

TEST_F(PlexaPvrExportTest, AnExistingFileIsReplacedOnlyWhenAsked) {
  write_file(out_, {1, 2, 3});
  ::chmod(out_.c_str(), 0640);
  expect_refused({film_.stream, out_}, "out.ts: exists already");
  EXPECT_THAT(read_file(out_), ElementsAre(1, 2, 3));
  exported({});
  EXPECT_GT(size_of(out_), 100000);
  struct stat status {};
  ASSERT_EQ(::stat(out_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777u, 0640u);
  EXPECT_EQ(files_in_folder(), 3u);
}

TEST_F(PlexaPvrExportTest, ANewFileHasOrdinaryPermissions) {
  const Ended made = run({"sh", "-c", "umask 022; exec \"$0\" export \"$1\" \"$2\"",
                          PLEXA_PVR_PROGRAM, film_.stream, out_});
  EXPECT_EQ(made.exit_code, 0) << made.err;
  struct stat status {};
  ASSERT_EQ(::stat(out_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777u, 0644u);
}

TEST_F(PlexaPvrExportTest, TheRecordingItselfIsNeverReplaced) {
  const auto stream = read_file(film_.stream);
  const auto index = read_file(film_.index);
  std::filesystem::create_hard_link(film_.stream, dir_.file("same.ts"));
  expect_refused({film_.stream, film_.stream, "--overwrite"}, "a file of the recording itself");
  expect_refused({film_.stream, film_.index, "--overwrite"}, "a file of the recording itself");
  expect_refused({film_.stream, dir_.file("same.ts"), "--overwrite"},
                 "a file of the recording itself");
  EXPECT_EQ(read_file(film_.stream), stream);
  EXPECT_EQ(read_file(film_.index), index);
}

TEST_F(PlexaPvrExportTest, OutputsThatCannotBe) {
  expect_refused({film_.stream, dir_.file("nowhere/out.ts")}, "No such file or directory");
  expect_refused({film_.stream, dir_.path(), "--overwrite"}, "Is a directory");
  expect_refused({film_.stream, dir_.file("new/")}, "new/: ");
  expect_refused({film_.stream, "/dev/full", "--overwrite"}, "/dev/full: is no regular file");
  std::filesystem::create_directory(dir_.file("locked"));
  ::chmod(dir_.file("locked").c_str(), 0555);
  expect_refused({film_.stream, dir_.file("locked/out.ts")}, "Permission denied",
                 {.obey_permissions = true});
}

TEST_F(PlexaPvrExportTest, AFullDiskLeavesNothingBehind) {
  expect_refused({film_.stream, out_}, "out.ts: File too large", {.file_limit = 100000});
  EXPECT_EQ(files_in_folder(), 2u);
  write_file(out_, {1, 2, 3});
  expect_refused({film_.stream, out_, "--overwrite"}, "File too large", {.file_limit = 100000});
  EXPECT_THAT(read_file(out_), ElementsAre(1, 2, 3));
}

TEST_F(PlexaPvrExportTest, ABeginningBehindTheEndIsRefused) {
  expect_refused({film_.stream, out_, "--from", "6"}, "behind the end");
  EXPECT_EQ(files_in_folder(), 2u);
}

TEST_F(PlexaPvrExportTest, WhatATruncatedStreamStillHoldsCanBeExported) {
  truncate_to(film_.stream, static_cast<int64_t>(gop_records(film_.index)[8].packet_count) * 188);
  EXPECT_EQ(exported({"--from", "1", "--to", "3"}).number("gops"), 5);
  std::filesystem::remove(out_);
  expect_refused({film_.stream, out_, "--from", "1"}, "index longer than the stream");
  expect_refused({film_.stream, out_, "--from", "1", "--to", "5"}, "nothing usable");
  EXPECT_EQ(files_in_folder(), 2u);
}

}  // namespace
}  // namespace plexa_test
