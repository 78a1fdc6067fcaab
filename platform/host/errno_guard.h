// errno_guard.h - keeps errno over a block whose own calls may change it.
#pragma once

#include <cerrno>

namespace plexa_host {

class ErrnoGuard {
 public:
  ErrnoGuard() noexcept : saved_(errno) {}
  ~ErrnoGuard() { errno = saved_; }
  ErrnoGuard(const ErrnoGuard &) = delete;
  ErrnoGuard &operator=(const ErrnoGuard &) = delete;

  // The value at entry, which is put back at the end.
  int saved() const noexcept { return saved_; }

 private:
  const int saved_;
};

}  // namespace plexa_host
