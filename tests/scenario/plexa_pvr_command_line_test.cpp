// The program around its commands: help, version, usage errors, exit codes, what goes to which
// stream, the library's log, times.
#include <gmock/gmock.h>

#include "plexa_pvr_support.h"
#include "temp_dir.h"

namespace plexa_test {
namespace {

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

const std::vector<std::string> kCommands = {"record", "index",     "info",   "frames", "seek",
                                            "check",  "thumbnail", "report", "export"};

class PlexaPvrCommandLineTest : public ::testing::Test {
 protected:
  RecordingFiles recorded() { return record(h264_stream(), dir_.file("film.kvf")); }

  void expect_usage_error(const std::vector<std::string> &arguments, const std::string &words) {
    const Ended run = pvr(arguments);
    EXPECT_EQ(run.exit_code, 2) << run.out << run.err;
    EXPECT_THAT(run.out, IsEmpty());
    EXPECT_THAT(run.err, StartsWith("plexa-pvr: "));
    EXPECT_THAT(run.err, HasSubstr(words));
    EXPECT_THAT(run.err, HasSubstr("Try 'plexa-pvr "));
  }

  TempDir dir_;
};

TEST_F(PlexaPvrCommandLineTest, HelpNamesEveryCommandAndGivesExamples) {
  const Ended run = pvr({"--help"});
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_THAT(run.err, IsEmpty());
  EXPECT_THAT(run.out, HasSubstr("Examples:"));
  for (const std::string &command : kCommands) EXPECT_THAT(run.out, HasSubstr("\n  " + command));
}

TEST_F(PlexaPvrCommandLineTest, EveryCommandHasHelpWithExamples) {
  for (const std::string &command : kCommands) {
    const Ended run = pvr({command, "--help"});
    EXPECT_EQ(run.exit_code, 0) << command;
    EXPECT_THAT(run.err, IsEmpty()) << command;
    EXPECT_THAT(run.out, HasSubstr("Usage:\n  plexa-pvr " + command + " [OPTION")) << command;
    EXPECT_THAT(run.out, ContainsRegex("Examples?:\n  plexa-pvr ")) << command;
    EXPECT_THAT(run.out, HasSubstr("--log=LEVEL")) << command;
  }
}

TEST_F(PlexaPvrCommandLineTest, VersionIsOneLine) {
  for (const std::vector<std::string> &arguments :
       {std::vector<std::string>{"--version"}, {"info", "--version"}}) {
    const Ended run = pvr(arguments);
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_EQ(run.out, "plexa-pvr " PLEXA_PVR_VERSION "\n");
    EXPECT_THAT(run.err, IsEmpty());
  }
}

TEST_F(PlexaPvrCommandLineTest, WrongUsageIsExitCode2) {
  expect_usage_error({}, "no command");
  expect_usage_error({"play"}, "no such command: 'play'");
  expect_usage_error({"--colour"}, "--colour");
  expect_usage_error({"info", "--colour", "x.kvf"}, "--colour");
  expect_usage_error({"info"}, "missing");
  expect_usage_error({"info", "a.kvf", "b.kvf"}, "'b.kvf'");
  expect_usage_error({"--log", "loud", "info", "a.kvf"}, "'loud'");
  expect_usage_error({"info", "--log", "loud", "a.kvf"}, "'loud'");
  expect_usage_error({"record", "a.ts"}, "missing");
  expect_usage_error({"record", "a.ts", "film.ts"}, ".kvf");
  expect_usage_error({"record", "a.ts", "film.kvf", "--program", "0"}, "--program");
  expect_usage_error({"record", "a.ts", "film.kvf", "--program", "two"}, "--program");
  expect_usage_error({"index", "film.kvf", "--program", "65536"}, "--program");
  expect_usage_error({"seek", "film.kvf"}, "--time and --offset");
  expect_usage_error({"seek", "film.kvf", "--time", "1", "--offset", "1"}, "--time and --offset");
  expect_usage_error({"seek", "film.kvf", "--offset", "-1"}, "--offset");
  expect_usage_error({"seek", "film.kvf", "--offset", "12x"}, "--offset");
  expect_usage_error({"seek", "film.kvf", "--time", "1", "--interval", "one"}, "--interval");
  expect_usage_error({"frames", "film.kvf", "--from", "2", "--to", "2"}, "before --to");
  expect_usage_error({"export", "film.kvf"}, "missing");
  expect_usage_error({"export", "film.kvf", "o.ts", "--from", "2", "--to", "1"}, "before --to");
}

TEST_F(PlexaPvrCommandLineTest, WhatIsNoTimeIsRefused) {
  for (const char *text : {"",
                           "x",
                           "-1",
                           "1.2.3",
                           "1:60",
                           "1:2:3:4",
                           "60:00:00:00",
                           "1:",
                           ":30",
                           "1:.5",
                           "ms",
                           "1.5ms",
                           "-5ms",
                           "12s",
                           "1e3",
                           "2147484",
                           "2147483648ms",
                           "99999999999999999999",
                           "1:70:00",
                           " 1",
                           "0x10",
                           "1,5"}) {
    const Ended run = pvr({"seek", "film.kvf", "--time", text});
    EXPECT_EQ(run.exit_code, 2) << text;
    EXPECT_THAT(run.err, HasSubstr("--time: not a time")) << text;
  }
}

TEST_F(PlexaPvrCommandLineTest, TimesCanBeWrittenInSeveralWays) {
  const RecordingFiles film = recorded();
  for (const char *text :
       {"1500ms", "1.5", "1.500", "01.5", "0:1.5", "00:01.500", "0:00:01.5009"}) {
    const Ended run = pvr({"seek", film.stream, "--time", text, "--json"});
    ASSERT_EQ(run.exit_code, 0) << text << run.err;
    EXPECT_EQ(JsonText(run.out).number("asked.time_ms"), 1500) << text;
  }
  const Ended hours = pvr({"seek", film.stream, "--time", "2:03:04.056", "--json"});
  EXPECT_EQ(JsonText(hours.out).number("asked.time_ms"), 7384056);
  const Ended minutes = pvr({"seek", film.stream, "--time", "90:00", "--json"});
  EXPECT_EQ(JsonText(minutes.out).number("asked.time_ms"), 5400000);
}

TEST_F(PlexaPvrCommandLineTest, TheLibrarysLogIsOffUnlessAskedFor) {
  const RecordingFiles film = recorded();
  EXPECT_THAT(pvr({"info", film.stream}).err, IsEmpty());
  EXPECT_THAT(pvr({"info", film.stream}, {.environment = {"PLEXA_HOST_LOG=debug"}}).err, IsEmpty());
  EXPECT_THAT(pvr({"info", film.stream, "--log", "off"}).err, IsEmpty());
  const Ended error = pvr({"info", film.stream, "--log", "error"});
  EXPECT_EQ(error.exit_code, 0);
  EXPECT_THAT(error.err, HasSubstr("[EXT_FMG] [PLG_ERR] create normal file."));
  EXPECT_THAT(error.err, Not(HasSubstr("IndexParser BaseTable Load Complete")));
  const Ended debug = pvr({"--log=debug", "info", film.stream});
  EXPECT_THAT(debug.err, HasSubstr("IndexParser BaseTable Load Complete"));
  EXPECT_EQ(debug.out, pvr({"info", film.stream}).out);
}

TEST_F(PlexaPvrCommandLineTest, AnOperandMayBeginWithADash) {
  record(h264_stream(), dir_.file("-odd.kvf"));
  const Ended run = pvr({"info", "--json", "--", "-odd.kvf"}, {.folder = dir_.path()});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(JsonText(run.out).text("recording"), dir_.file("-odd.kvf"));
}

TEST_F(PlexaPvrCommandLineTest, DataThatCannotBePrintedIsAFailure) {
  const RecordingFiles film = recorded();
  for (const char *command : {"info", "frames", "check"}) {
    const Ended run = pvr({command, film.stream}, {.output = "/dev/full"});
    EXPECT_EQ(run.exit_code, 1) << command;
    EXPECT_TRUE(complains_once(run, "standard output: No space left on device")) << run.err;
  }
}

TEST_F(PlexaPvrCommandLineTest, AFileNameCannotForgeASecondLine) {
  const Ended run = pvr({"info", dir_.file("a\nb\033[31m.kvf")});
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_TRUE(complains_once(run, "a?b?[31m.kvf: No such file or directory")) << run.err;
}

TEST_F(PlexaPvrCommandLineTest, JsonHoldsFileNamesThatAreNoUtf8) {
  const RecordingFiles film = record(h264_stream(), dir_.file("f\xfflm.kvf"));
  const Ended run = pvr({"info", film.stream, "--json"});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(JsonText(run.out).text("recording"), dir_.file("f\xef\xbf\xbdlm.kvf"));
}

}  // namespace
}  // namespace plexa_test
