// progress.h - a progress bar on a terminal, for work that takes longer than a second.
//
// Writes to standard error, and nothing at all when that is no terminal. The line is cleared when
// the object goes. One thread at a time.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace plexa::pvr {

class ProgressBar {
 public:
  explicit ProgressBar(std::string label);
  ~ProgressBar();
  ProgressBar(const ProgressBar &) = delete;
  ProgressBar &operator=(const ProgressBar &) = delete;

  // May be called as often as wanted; draws at most ten times a second. A total of 0 is unknown: no
  // bar then, only the detail.
  void update(uint64_t done, uint64_t total, const std::string &detail = "");

 private:
  using Clock = std::chrono::steady_clock;
  void draw(uint64_t done, uint64_t total, const std::string &detail);

  const std::string label_;
  const bool is_terminal_;
  bool drawn_ = false;
  Clock::time_point next_;
};

}  // namespace plexa::pvr
