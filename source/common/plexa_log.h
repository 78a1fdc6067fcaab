// plexa_log.h - the one place where a log line is put together.
//
//   gst_file_io.cpp: _gst_file_io_error(61) > [1.0.0][1700000000.12][EXT_FMG] [PLG_ERR] ...
//   file             function           line  version stamp         area      message
//
// A module states its area once, before including this header:
//
//   #define PLEXA_LOG_AREA "EXT_FMG"
//   #include "plexa_log.h"
//
// Every line is one __dlog_print call: the prefix is a literal joined to the message at compile
// time, the stamp is kept for each thread and only rewritten when the millisecond changes, and
// nothing is allocated. A log call leaves errno as it found it, so that a "%m" in the message and
// the caller's own use of errno both see the failed call's value. Safe from any thread.
#pragma once

#include <cerrno>

#include "dlog.h"
#include "plexa_config.h"

namespace plexa {

inline constexpr int kLogBuffer = 2;  // the platform's "system" buffer
inline constexpr char kLogTag[] = "PVR_SYS_PLG";

enum LogPriority : int {
  kLogInfo = 3,   // progress
  kLogError = 6,  // failures, and the routine lines that carry [PLG_ERR]
};

// Wall clock as "seconds.milliseconds", the milliseconds without leading zeros. The text belongs to
// the calling thread and is good until its next call.
const char *log_stamp() noexcept;

// Restores errno at the end of the log statement.
class KeepErrno {
 public:
  KeepErrno() noexcept : saved_(errno) {}
  ~KeepErrno() { errno = saved_; }
  KeepErrno(const KeepErrno &) = delete;
  KeepErrno &operator=(const KeepErrno &) = delete;

 private:
  int saved_;
};

}  // namespace plexa

#define PLX_LOG_AREA_LINE(priority, area, format, ...)                                         \
  do {                                                                                         \
    const ::plexa::KeepErrno keep_errno_;                                                      \
    __dlog_print(::plexa::kLogBuffer, (priority), ::plexa::kLogTag,                            \
                 "%s: %s(%d) > [%s][%s][" area "] " format, __FILE_NAME__, __func__, __LINE__, \
                 PLEXA_VERSION, ::plexa::log_stamp() __VA_OPT__(, ) __VA_ARGS__);              \
  } while (0)

#define PLX_INFO(format, ...) \
  PLX_LOG_AREA_LINE(::plexa::kLogInfo, PLEXA_LOG_AREA, format __VA_OPT__(, ) __VA_ARGS__)
#define PLX_ERROR(format, ...) \
  PLX_LOG_AREA_LINE(::plexa::kLogError, PLEXA_LOG_AREA, format __VA_OPT__(, ) __VA_ARGS__)
