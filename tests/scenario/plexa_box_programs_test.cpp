// Every command of plexa-pvr on recordings of a companion box gives what it gives on local ones.
#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>

#include "box_support.h"
#include "plexa_pvr_support.h"
#include "temp_dir.h"

namespace plexa_test {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;

class PlexaBoxProgramsTest : public ::testing::Test {
 protected:
  std::string file(const std::string &name) const { return dir_.file(name); }
  std::string on_box(const std::string &name) const { return box_disk_.path() + file(name); }

  Ended local(const std::vector<std::string> &arguments) const { return pvr(arguments); }
  // Meanwhile there are no local files of these names, which the program could take for the box's.
  Ended boxed(const std::vector<std::string> &arguments) const {
    const std::string aside = dir_.path() + ".aside";
    std::filesystem::rename(dir_.path(), aside);
    const Ended run = pvr(arguments, {.environment = box_.environment()});
    EXPECT_FALSE(exists(dir_.path())) << ::testing::PrintToString(arguments);
    std::filesystem::remove_all(dir_.path());
    std::filesystem::rename(aside, dir_.path());
    return run;
  }

  // The same command, the same names: the same words, and the same exit code.
  void expect_same(const std::vector<std::string> &arguments, int exit_code = 0) const {
    const Ended here = local(arguments);
    const Ended there = boxed(arguments);
    const std::string command = ::testing::PrintToString(arguments);
    EXPECT_EQ(here.exit_code, exit_code) << command << here.err;
    EXPECT_EQ(there.exit_code, exit_code) << command << there.err;
    EXPECT_EQ(here.out, there.out) << command;
    EXPECT_EQ(here.err, there.err) << command;
  }
  void expect_same_file(const std::string &name) const {
    EXPECT_TRUE(read_file(file(name)) == read_file(on_box(name))) << name;
  }
  // A local file that both runs make.
  void expect_same_output(const std::vector<std::string> &arguments, const std::string &output) {
    const Ended here = local(arguments);
    ASSERT_EQ(here.exit_code, 0) << here.err;
    const auto made_here = read_file(output);
    std::filesystem::remove(output);
    const Ended there = boxed(arguments);
    ASSERT_EQ(there.exit_code, 0) << there.err;
    EXPECT_EQ(here.out, there.out);
    EXPECT_TRUE(made_here == read_file(output)) << output;
  }
  void record_both() { expect_same({"record", h264_stream(), film_}); }

  TempDir dir_;
  TempDir outputs_;  // on the local disk with and without a box
  TempDir box_disk_;
  const RunningBox box_{box_disk_.path()};
  const std::string film_ = dir_.file("film.kvf");
};

TEST_F(PlexaBoxProgramsTest, ARecordingIsTheSameOnBothDisks) {
  for (const std::string &stream : {h264_stream(), mpeg2_stream(), h265_stream()}) {
    expect_same({"record", stream, film_, "--overwrite"});
    expect_same_file("film.kvf");
    expect_same_file("film.mdb");
  }
  expect_same({"record", h264_stream(), film_, "--overwrite", "--legacy", "--json"});
  expect_same_file("film.mdb");
  // A box has no page cache to go past from here, and writes the same.
  expect_same({"record", h264_stream(), film_, "--overwrite", "--direct"});
  expect_same_file("film.kvf");
}

TEST_F(PlexaBoxProgramsTest, AnExistingRecordingIsKept) {
  record_both();
  expect_same({"record", mpeg2_stream(), film_}, 1);
  expect_same_file("film.kvf");
}

TEST_F(PlexaBoxProgramsTest, WhatLooksIntoARecordingSaysTheSame) {
  record_both();
  expect_same({"info", film_});
  expect_same({"info", film_, "--json"});
  expect_same({"frames", film_});
  expect_same({"frames", film_, "--from", "1", "--to", "3", "--json"});
  expect_same({"seek", film_, "--time", "2.5"});
  expect_same({"seek", film_, "--offset", "300000", "--json"});
  expect_same({"check", film_});
  expect_same({"check", film_, "--json"});
}

TEST_F(PlexaBoxProgramsTest, ADamagedRecordingIsSeenToBeDamaged) {
  record_both();
  for (const std::string &index : {file("film.mdb"), on_box("film.mdb")}) {
    auto gop = gop_records(index)[3];
    gop.packet_count += 1;
    write_gop(index, 3, gop);
  }
  expect_same({"check", film_}, 1);
  truncate_to(file("film.mdb"), 1000);
  truncate_to(on_box("film.mdb"), 1000);
  expect_same({"info", film_}, 1);
}

TEST_F(PlexaBoxProgramsTest, ThumbnailsAreTheSame) {
  record_both();
  const std::vector<std::string> arguments = {"thumbnail", film_, "--sheet",
                                              outputs_.file("sheet.png")};
  expect_same_output(arguments, outputs_.file("sheet.png"));
  expect_same_file("film.thm");
  expect_same_output(
      {"thumbnail", film_, "--every", "3", "--dir", outputs_.file("strip"), "--overwrite"},
      outputs_.file("strip/00-00-03.jpg"));
}

TEST_F(PlexaBoxProgramsTest, AnExportAndAReportAreTheSame) {
  record_both();
  expect_same_output({"export", film_, outputs_.file("out.ts"), "--from", "1", "--to", "4"},
                     outputs_.file("out.ts"));
  expect_same_output({"report", film_, outputs_.file("out.html")}, outputs_.file("out.html"));
}

TEST_F(PlexaBoxProgramsTest, ARenamedRecordingIsFoundUnderItsNewName) {
  record_both();
  expect_same({"rename", film_, file("holiday.kvf")});
  for (const char *const name : {"holiday.kvf", "holiday.mdb"}) expect_same_file(name);
  EXPECT_FALSE(exists(on_box("film.kvf")));
  EXPECT_FALSE(exists(on_box("film.mdb")));
  EXPECT_FALSE(exists(film_));
  expect_same({"info", file("holiday.kvf")});
  record_both();
  expect_same({"rename", film_, file("holiday.kvf")}, 1);  // which exists
  expect_same_file("film.kvf");
}

TEST_F(PlexaBoxProgramsTest, TimeShiftIsCutOnTheBox) {
  const std::vector<std::string> arguments = {
      "timeshift", ten_minutes_stream(), film_, "--max-time", "6", "--readers", "1", "--json"};
  const Ended here = local(arguments);
  const Ended there = boxed(arguments);
  ASSERT_EQ(here.exit_code, 0) << here.err;
  ASSERT_EQ(there.exit_code, 0) << there.err;
  const JsonText one(here.out);
  const JsonText other(there.out);
  // How much a cut takes hangs on how far the index is at that moment, here as there.
  for (const char *const figure : {"recorded_ms", "bytes", "gops", "cuts", "faults"}) {
    EXPECT_EQ(one.number(figure), other.number(figure)) << figure;
  }
  EXPECT_EQ(other.number("cuts"), 4);
  EXPECT_GT(other.number("bytes_verified"), 0);
  expect_same_file("film.mdb");
  const auto input = read_file(ten_minutes_stream());
  const auto kept = read_file(on_box("film.kvf"));
  const int64_t removed = other.number("bytes_removed");
  EXPECT_EQ(std::ssize(kept), other.number("bytes") - removed);
  EXPECT_LT(std::ssize(kept), std::ssize(input) * 2 / 3);
  ASSERT_GE(removed + std::ssize(kept), std::ssize(input));
  EXPECT_TRUE(std::equal(input.begin() + removed, input.end(), kept.begin()));
}

TEST_F(PlexaBoxProgramsTest, WhatNeedsTheDiskItselfIsRefused) {
  record_both();
  for (const std::vector<std::string> &arguments : {std::vector<std::string>{"index", film_},
                                                    {"cut", film_, "--from", "1", "--to", "2"},
                                                    {"keep", film_, file("kept.kvf")}}) {
    const Ended there = boxed(arguments);
    EXPECT_EQ(there.exit_code, 1) << arguments.front();
    EXPECT_TRUE(complains_once(there, "not possible with recordings on a companion box"));
    EXPECT_EQ(boxed({arguments.front(), "--help"}).exit_code, 0);
  }
  expect_same_file("film.kvf");
}

TEST_F(PlexaBoxProgramsTest, WithoutABoxThatAnswersNothingIsFound) {
  TempDir empty;
  auto environment = RunningBox(empty.path()).environment();  // it has gone by now
  const Ended run = pvr({"info", film_}, {.environment = environment});
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_TRUE(complains_once(run, "Connection refused"));
}

}  // namespace
}  // namespace plexa_test
