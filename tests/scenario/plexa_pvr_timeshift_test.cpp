// plexa-pvr timeshift: a buffer of bounded length, played by checking readers while it is recorded.
#include <gmock/gmock.h>

#include <filesystem>
#include <thread>

#include "plexa_pvr_support.h"
#include "temp_dir.h"

namespace plexa_test {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr int64_t kUnit = 192512;

std::string as_text(const std::vector<uint8_t> &bytes) { return {bytes.begin(), bytes.end()}; }

class PlexaPvrTimeshiftTest : public ::testing::Test {
 protected:
  std::string buffer() const { return dir_.file("buffer.kvf"); }

  std::vector<std::string> arguments(const std::vector<std::string> &more = {}) const {
    std::vector<std::string> all{"timeshift", ten_minutes_stream(), buffer(), "--max-time", "6"};
    all.insert(all.end(), more.begin(), more.end());
    return all;
  }

  void expect_usage_error(const std::vector<std::string> &arguments, const std::string &words) {
    const Ended run = pvr(arguments);
    EXPECT_EQ(run.exit_code, 2) << words;
    EXPECT_THAT(run.err, HasSubstr(words));
    EXPECT_FALSE(exists(buffer()));
  }

  TempDir dir_;
};

TEST_F(PlexaPvrTimeshiftTest, CutsWhileReadersReadAndNoneFindsAFault) {
  const Ended run = pvr(arguments({"--readers", "6", "--json"}));
  ASSERT_EQ(run.exit_code, 0) << run.err << run.out;
  EXPECT_THAT(run.err, IsEmpty());
  const JsonText summary(run.out);
  const int64_t bytes = summary.number("bytes");
  const int64_t removed = summary.number("bytes_removed");
  EXPECT_EQ(summary.number("recorded_ms"), 600000);
  EXPECT_EQ(summary.number("cuts"), 4);
  EXPECT_EQ(summary.number("faults"), 0);
  EXPECT_EQ(summary.number("readers"), 6);
  EXPECT_GT(summary.number("reads"), 6);
  EXPECT_GT(summary.number("bytes_verified"), 0);
  EXPECT_GT(summary.number("longest_wait_us"), 0);
  EXPECT_FALSE(summary.flag("disk_full"));
  EXPECT_EQ(bytes % kUnit, 0);
  EXPECT_EQ(removed % kUnit, 0);
  EXPECT_EQ(summary.number("size"), bytes - removed);
  EXPECT_EQ(size_of(buffer()), bytes - removed);
  EXPECT_GE(summary.number("largest_size"), bytes - removed);
  EXPECT_LT(summary.number("largest_size"), bytes * 3 / 4);
  EXPECT_LT(summary.number("span_ms"), 380000);
}

TEST_F(PlexaPvrTimeshiftTest, WhatIsKeptIsTheEndOfTheInput) {
  const Ended run = pvr(arguments({"--readers", "0", "--json"}));
  ASSERT_EQ(run.exit_code, 0) << run.err;
  const JsonText summary(run.out);
  const auto input = read_file(ten_minutes_stream());
  const auto kept = read_file(buffer());
  const auto removed = static_cast<size_t>(summary.number("bytes_removed"));
  ASSERT_GE(removed + kept.size(), input.size());
  EXPECT_TRUE(
      std::equal(input.begin() + static_cast<std::ptrdiff_t>(removed), input.end(), kept.begin()));
  // The index still counts from the recording's start.
  const auto gops = gop_records(dir_.file("buffer.mdb"));
  ASSERT_FALSE(gops.empty());
  EXPECT_LT(gops.front().packet_count * 188, removed);
  EXPECT_GT(gops.back().packet_count * 188, removed);
  EXPECT_EQ(summary.number("gops"), static_cast<int64_t>(gops.size()));
}

TEST_F(PlexaPvrTimeshiftTest, PrintsASummary) {
  const Ended run = pvr(arguments({"--readers", "2"}));
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_THAT(run.out, HasSubstr("Recording:      " + buffer() + "\n"));
  EXPECT_THAT(run.out, HasSubstr("Recorded:       00:10:00.000, "));
  EXPECT_THAT(run.out, HasSubstr("Cuts:           4, "));
  EXPECT_THAT(run.out, HasSubstr("Largest size:   "));
  EXPECT_THAT(run.out, HasSubstr("Readers:        2, "));
  EXPECT_THAT(run.out, HasSubstr("Longest wait:   "));
  EXPECT_THAT(run.out, HasSubstr("Faults:         0\n"));
}

TEST_F(PlexaPvrTimeshiftTest, TakesStandardInput) {
  const Ended run = pvr({"timeshift", "-", buffer(), "--max-time", "7", "--json"},
                        {.input = as_text(read_file(ten_minutes_stream()))});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  const JsonText summary(run.out);
  EXPECT_EQ(summary.number("recorded_ms"), 600000);
  EXPECT_EQ(summary.number("cuts"), 3);
  EXPECT_EQ(summary.number("readers"), 4);
  EXPECT_EQ(summary.number("faults"), 0);
}

TEST_F(PlexaPvrTimeshiftTest, AReaderThatIsGivenOtherBytesFindsThem) {
  const auto input = read_file(ten_minutes_stream());
  RunningPvr recorder({"timeshift", "-", buffer(), "--max-time", "6", "--readers", "3", "--json"});
  recorder.feed(input, 0, input.size() / 4);
  while (!exists(buffer()) || size_of(buffer()) < 4 * kUnit) std::this_thread::yield();
  for (int64_t at = 0; at < size_of(buffer()); at += 10 * 188) poke(buffer(), at + 100, {0xa5});
  recorder.feed(input, input.size() / 4, input.size() / 2);
  recorder.errors(400);  // time for the readers to come by; the live one may be past it
  const Ended run = recorder.finish();
  EXPECT_EQ(run.exit_code, 1) << run.out;
  EXPECT_TRUE(complains_once(run, "another packet than was written")) << run.err;
  EXPECT_GT(JsonText(run.out).number("faults"), 0);
}

TEST_F(PlexaPvrTimeshiftTest, ASpeedHoldsTheRecordingBack) {
  const auto start = std::chrono::steady_clock::now();
  const Ended run = pvr({"timeshift", h264_stream(), buffer(), "--max-time", "6", "--speed", "20",
                         "--readers", "2", "--json"});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(250));
  EXPECT_EQ(JsonText(run.out).number("recorded_ms"), 6000);
}

TEST_F(PlexaPvrTimeshiftTest, CtrlCEndsTheRecordingCleanly) {
  const auto input = read_file(ten_minutes_stream());
  RunningPvr recorder({"timeshift", "-", buffer(), "--max-time", "6", "--readers", "3", "--json"});
  recorder.feed(input, 0, input.size() / 2);
  while (!exists(buffer()) || size_of(buffer()) < 4 * kUnit) std::this_thread::yield();
  recorder.interrupt();
  const Ended run = recorder.finish(true);
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_THAT(run.err, IsEmpty());
  const JsonText summary(run.out);
  EXPECT_GE(summary.number("bytes"), 4 * kUnit);
  EXPECT_EQ(summary.number("faults"), 0);
  EXPECT_EQ(pvr({"check", buffer()}).exit_code, 0);
}

TEST_F(PlexaPvrTimeshiftTest, ShowsTheStatusOnATerminal) {
  const auto input = read_file(ten_minutes_stream());
  RunningPvr recorder({"timeshift", "-", buffer(), "--max-time", "6"}, true);
  size_t fed = 0;
  while (recorder.errors().find("cuts") == std::string::npos && fed + 18800 <= input.size()) {
    recorder.feed(input, fed, fed + 18800);
    fed += 18800;
  }
  const Ended run = recorder.finish();
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_THAT(run.err, HasSubstr("\rtimeshift 00:"));
  EXPECT_THAT(run.err, HasSubstr(", span 00:"));
  EXPECT_THAT(run.err, HasSubstr(" cuts, longest wait "));
  EXPECT_TRUE(run.err.ends_with("\r\033[K")) << run.err;
}

TEST_F(PlexaPvrTimeshiftTest, AFullDiskEndsTheRecordingButKeepsIt) {
  const Ended run = pvr(arguments({"--json", "--readers", "2"}), {.file_limit = 20 * kUnit + 8192});
  EXPECT_EQ(run.exit_code, 1) << run.out;
  EXPECT_TRUE(complains_once(run, "cut short")) << run.err;
  const JsonText summary(run.out);
  EXPECT_TRUE(summary.flag("disk_full"));
  EXPECT_EQ(summary.number("faults"), 0);
  EXPECT_LE(size_of(buffer()), 20 * kUnit + 8192);
  EXPECT_EQ(size_of(buffer()) % 188, 0);
}

TEST_F(PlexaPvrTimeshiftTest, AReserveThatTheDiskDoesNotHaveLeavesNothing) {
  const Ended run = pvr(arguments({"--reserve", "1073741824"}));
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_TRUE(complains_once(run, "the disk is full")) << run.err;
  EXPECT_TRUE(std::filesystem::is_empty(dir_.path()));
}

TEST_F(PlexaPvrTimeshiftTest, AnExistingRecordingIsReplacedOnlyWhenAsked) {
  const RecordingFiles film = record(h264_stream(), buffer());
  const auto before = read_file(film.stream);
  const Ended refused = pvr(arguments());
  EXPECT_EQ(refused.exit_code, 1);
  EXPECT_TRUE(complains_once(refused, "exists already")) << refused.err;
  EXPECT_EQ(read_file(film.stream), before);
  EXPECT_EQ(pvr(arguments({"--overwrite", "--readers", "1"})).exit_code, 0);
  EXPECT_NE(read_file(film.stream), before);
}

TEST_F(PlexaPvrTimeshiftTest, RefusesWrongUsage) {
  const std::string input = h264_stream();
  expect_usage_error({"timeshift", input, buffer()}, "--max-time is needed");
  expect_usage_error({"timeshift", input, buffer(), "--max-time", "5"}, "--max-time");
  expect_usage_error({"timeshift", input, buffer(), "--max-time", "92"}, "--max-time");
  expect_usage_error({"timeshift", input, buffer(), "--max-time", "6", "--readers", "100"},
                     "--readers");
  for (const char *const speed : {"0", "-1", "fast", "1x", "", "inf", "nan"}) {
    expect_usage_error({"timeshift", input, buffer(), "--max-time", "6", "--speed", speed},
                       "--speed");
  }
  expect_usage_error({"timeshift", input, dir_.file("buffer.ts"), "--max-time", "6"}, ".kvf");
}

TEST_F(PlexaPvrTimeshiftTest, RefusesAnInputThatIsNoStream) {
  const Ended run = pvr({"timeshift", "/dev/null", buffer(), "--max-time", "6"});
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_TRUE(complains_once(run, "empty")) << run.err;
  EXPECT_TRUE(std::filesystem::is_empty(dir_.path()));
}

}  // namespace
}  // namespace plexa_test
