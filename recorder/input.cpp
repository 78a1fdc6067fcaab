// input.cpp - see input.h. Not thread-safe.
#include "input.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace plexa::rec {
namespace {

constexpr int kPatience = 100;  // milliseconds between two looks at `stop`

}  // namespace

Input::Input(int fd, const std::atomic<bool> *stop, bool follow)
    : fd_(fd), stop_(stop), follow_(follow) {
  struct stat status = {};
  if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return;
  is_file_ = true;
  posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);  // advice: a refusal changes nothing
  const off_t at = lseek(fd, 0, SEEK_CUR);
  if (!follow && at >= 0 && status.st_size > at)
    total_ = static_cast<uint64_t>(status.st_size - at);
}

int64_t Input::read(uint8_t *buffer, size_t size) {
  for (;;) {
    if (stopped() || (!is_file_ && !wait_readable())) return 0;
    const ssize_t got = ::read(fd_, buffer, size);
    if (got > 0) {
      taken_ += static_cast<uint64_t>(got);
      return got;
    }
    if (got == 0 && !(is_file_ && follow_)) return 0;
    if (got == 0) pause();
    if (got < 0 && errno != EINTR && errno != EAGAIN) return -1;
  }
}

// False: stopped. A descriptor that cannot be waited for is left to read().
bool Input::wait_readable() {
  pollfd item = {fd_, POLLIN, 0};
  int ready = 0;
  while (ready == 0 || (ready < 0 && errno == EINTR)) {
    if (stopped()) return false;
    ready = poll(&item, 1, kPatience);
  }
  return !stopped();
}

void Input::pause() { poll(nullptr, 0, kPatience); }

bool Input::rewind_to(int64_t offset) {
  if (lseek(fd_, static_cast<off_t>(offset), SEEK_SET) < 0) return false;
  taken_ = 0;
  return true;
}

}  // namespace plexa::rec
