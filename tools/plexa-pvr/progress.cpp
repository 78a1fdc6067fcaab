// progress.cpp - see progress.h.
#include "progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "text.h"

namespace plexa::pvr {
namespace {

constexpr std::chrono::milliseconds kFirst{1000};
constexpr std::chrono::milliseconds kEvery{100};

size_t terminal_width() {
  winsize size{};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return 80;
  return size.ws_col;
}

std::string bar(uint64_t done, uint64_t total, size_t width) {
  const double share = std::clamp(static_cast<double>(done) / static_cast<double>(total), 0.0, 1.0);
  const auto filled = static_cast<size_t>(share * static_cast<double>(width));
  return format(" [%s%s] %3d%%", std::string(filled, '#').c_str(),
                std::string(width - filled, '.').c_str(), static_cast<int>(share * 100));
}

}  // namespace

ProgressBar::ProgressBar(std::string label)
    : label_(std::move(label)),
      is_terminal_(isatty(STDERR_FILENO) == 1),
      next_(Clock::now() + kFirst) {}

ProgressBar::~ProgressBar() {
  if (!drawn_) return;
  std::fputs("\r\033[K", stderr);
  std::fflush(stderr);
}

void ProgressBar::update(uint64_t done, uint64_t total, const std::string &detail) {
  if (!is_terminal_) return;
  const Clock::time_point now = Clock::now();
  if (now < next_) return;
  next_ = now + kEvery;
  draw(done, total, detail);
}

void ProgressBar::draw(uint64_t done, uint64_t total, const std::string &detail) {
  constexpr size_t kWidest = 40;
  const size_t width = terminal_width();
  std::string line = label_;
  const size_t rest = line.size() + detail.size() + 11;
  if (total > 0 && rest + 5 < width) line += bar(done, total, std::min(kWidest, width - rest));
  if (!detail.empty()) line += " " + detail;
  line.resize(std::min(line.size(), width - 1));
  std::fprintf(stderr, "\r%s\033[K", line.c_str());
  std::fflush(stderr);
  drawn_ = true;
}

}  // namespace plexa::pvr
