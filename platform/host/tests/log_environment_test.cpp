// log_environment_test.cpp - what a fresh program's log does with its environment.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using testing::HasSubstr;

constexpr char kError[] = "E/PROBE: an error, 6\n";
constexpr char kBoth[] = "E/PROBE: an error, 6\nD/PROBE: a detail, 3\n";

class LogEnvironmentTest : public testing::Test {
 protected:
  LogEnvironmentTest() {
    std::string pattern = testing::TempDir() + "plexa-host-log-XXXXXX";
    folder_ = mkdtemp(pattern.data());
  }
  ~LogEnvironmentTest() override { std::filesystem::remove_all(folder_); }

  std::string path(const std::string &name) const { return folder_ / name; }

  static std::string contents(const std::string &file) {
    std::ifstream stream(file, std::ios::binary);
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
  }

  // Runs the probe with these variables and nothing else of the kind; keeps its output.
  void run(std::vector<std::string> variables, std::string argument = "") {
    for (char **each = environ; *each != nullptr; ++each) {
      if (std::string(*each).rfind("PLEXA_HOST_", 0) != 0) variables.emplace_back(*each);
    }
    std::vector<char *> environment;
    for (std::string &each : variables) environment.push_back(each.data());
    environment.push_back(nullptr);
    std::string program = PLEXA_HOST_LOG_PROBE;
    char *arguments[] = {program.data(), argument.data(), nullptr};

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC;
    posix_spawn_file_actions_addopen(&actions, 1, path("stdout").c_str(), kFlags, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, path("stderr").c_str(), kFlags, 0600);
    pid_t child = -1;
    ASSERT_EQ(
        posix_spawn(&child, program.c_str(), &actions, nullptr, arguments, environment.data()), 0);
    posix_spawn_file_actions_destroy(&actions);
    int status = -1;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    EXPECT_EQ(status, 0);
    output_ = contents(path("stdout"));
    errors_ = contents(path("stderr"));
  }

  std::filesystem::path folder_;
  std::string output_;
  std::string errors_;
};

TEST_F(LogEnvironmentTest, WithoutVariablesErrorsGoToStandardError) {
  run({});
  EXPECT_EQ(errors_, kError);
  EXPECT_EQ(output_, "1\n");
}

TEST_F(LogEnvironmentTest, ErrorKeepsErrors) {
  run({"PLEXA_HOST_LOG=error"});
  EXPECT_EQ(errors_, kError);
  EXPECT_EQ(output_, "1\n");
}

TEST_F(LogEnvironmentTest, DebugKeepsEverything) {
  run({"PLEXA_HOST_LOG=debug"});
  EXPECT_EQ(errors_, kBoth);
  EXPECT_EQ(output_, "2\n");
}

TEST_F(LogEnvironmentTest, OffKeepsNothing) {
  run({"PLEXA_HOST_LOG=off"});
  EXPECT_EQ(errors_, "");
  EXPECT_EQ(output_, "0\n");
}

TEST_F(LogEnvironmentTest, AnUnknownLevelIsSaidAndCountsAsError) {
  run({"PLEXA_HOST_LOG=loud"});
  EXPECT_EQ(errors_, std::string("E/PLEXA_HOST: PLEXA_HOST_LOG: \"loud\" is none of off, error and "
                                 "debug; taking error\n") +
                         kError);
  EXPECT_EQ(output_, "1\n");
}

TEST_F(LogEnvironmentTest, ErrnoStaysWhenThatCannotBeSaid) {
  run({"PLEXA_HOST_LOG=loud"}, "mute");  // the probe's exit status tells
  EXPECT_EQ(errors_, "");
}

TEST_F(LogEnvironmentTest, AProgramsOwnLevelComesBeforeTheVariable) {
  run({"PLEXA_HOST_LOG=off"}, "debug");
  EXPECT_EQ(errors_, kBoth);
  run({"PLEXA_HOST_LOG=debug"}, "off");
  EXPECT_EQ(errors_, "");
}

TEST_F(LogEnvironmentTest, TheFileIsCreatedAndThenAppendedTo) {
  run({"PLEXA_HOST_LOG_FILE=" + path("log")});
  EXPECT_EQ(contents(path("log")), kError);
  run({"PLEXA_HOST_LOG_FILE=" + path("log"), "PLEXA_HOST_LOG=debug"});
  EXPECT_EQ(contents(path("log")), std::string(kError) + kBoth);
  EXPECT_EQ(errors_, "");
}

TEST_F(LogEnvironmentTest, ASilentLogMakesNoFile) {
  run({"PLEXA_HOST_LOG_FILE=" + path("log"), "PLEXA_HOST_LOG=off"});
  EXPECT_FALSE(std::filesystem::exists(path("log")));
}

TEST_F(LogEnvironmentTest, AFileThatCannotBeOpenedIsSaidAndTheLogGoesToStandardError) {
  run({"PLEXA_HOST_LOG_FILE=" + path("missing/log")});
  EXPECT_EQ(errors_, "E/PLEXA_HOST: PLEXA_HOST_LOG_FILE: cannot open \"" + path("missing/log") +
                         "\": No such file or directory; logging to standard error\n" + kError);
}

TEST_F(LogEnvironmentTest, AnEmptyFileNameMeansStandardError) {
  run({"PLEXA_HOST_LOG_FILE="});
  EXPECT_EQ(errors_, kError);
}

TEST_F(LogEnvironmentTest, TheLogNeverTakesTheNumberOfAStandardDescriptor) {
  run({"PLEXA_HOST_LOG_FILE=" + path("log")}, "closed");
  EXPECT_EQ(contents(path("log")), kError);
}

}  // namespace
