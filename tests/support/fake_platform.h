// fake_platform.h - the platform's services as a test wants them, and what was asked of them.
//
// fake_platform() is the one record; reset() puts it back. Not for use from several threads.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace plexa_test {

struct FakePlatform {
  // system information
  std::optional<std::string> tv_year;  // none: no string is handed over
  int system_info_result = 0;
  int system_info_calls = 0;
  int system_info_key = -1;

  // PVR control
  std::function<int(int fd, int64_t start, int64_t end, const std::string &name)> truncate_range;

  // tuner and demultiplexer: what the calls answer
  int tuner_result = 0;
  std::optional<int> antenna_status;  // none: the call writes nothing
  std::optional<int> signal_status;
  int demux_result = 0;
  uint32_t pwm_value = 0;
  uint64_t stc_value = 0;
  int tv_system_result = 0;

  // every tuner, demultiplexer and TV system call in order, as "name(arguments)"
  std::vector<std::string> calls;

  void reset() { *this = FakePlatform{}; }
};

FakePlatform &fake_platform();

}  // namespace plexa_test
