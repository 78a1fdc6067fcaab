// log_capture.h - every line that the library writes to the platform log, for a test to look at.
//
// The test program defines __dlog_print itself, so nothing reaches a real log. Lines are collected
// from all threads from the start of the program; LogCapture::clear() begins afresh.
#pragma once

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace plexa_test {

struct LogLine {
  int buffer;
  int priority;
  std::string tag;
  std::string text;      // the whole line
  std::string file;      // "gst_file_io.cpp"
  std::string function;  // "_gst_file_io_error"
  std::string message;   // from the area tag on: "[EXT_FMG] [PLG_ERR] ..."
};

inline constexpr int kInfo = 3;
inline constexpr int kError = 6;

class LogCapture {
 public:
  static void clear();
  static std::vector<LogLine> lines();
  static std::vector<std::string> messages();              // in order
  static std::vector<std::string> messages(int priority);  // of one priority
  static int count(int priority, const std::string &message);
  static std::string dump();  // for failure texts
  // The hook runs inside __dlog_print, before the line is kept (to disturb errno, for example).
  static void set_hook(void (*hook)());
};

// The line stands in the log with exactly this priority and this message.
::testing::AssertionResult logged(int priority, const std::string &message);
// These messages stand in the log in this order, other lines between them allowed.
::testing::AssertionResult logged_in_order(const std::vector<std::string> &messages);

}  // namespace plexa_test

#define EXPECT_LOGGED(priority, message) EXPECT_TRUE(::plexa_test::logged((priority), (message)))
#define EXPECT_NOT_LOGGED(priority, message) \
  EXPECT_EQ(::plexa_test::LogCapture::count((priority), (message)), 0) << (message)
