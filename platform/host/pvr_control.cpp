// pvr_control.cpp - removes a byte range from a file in place.
//
// A range that reaches the end is a truncation. Otherwise the file system is asked to collapse the
// range, which copies nothing; where it refuses (file system, alignment), the rest of the file is
// moved down front to back and the file truncated.
//
// Nothing that was to stay is ever lost by a failure. The range still to be removed is a gap that
// travels towards the end of the file: all before it is final, all behind it is where it always
// was, and a write never leaves the gap, so that even a write of which only an unknown part arrived
// has destroyed nothing. A failure leaves the gap where it has got to and names its offsets in the
// log; removing just those bytes finishes the work. A power failure is another matter: the kernel
// writes pages to the disk in any order.
//
// Refuses (EINVAL) a null request, a negative start, an end not behind the start, a start at or
// behind the end of the file, anything but a regular file, a descriptor opened with O_APPEND (its
// writes ignore offsets) or O_DIRECT (its transfers need alignment); (EBADF) a descriptor that is
// not open for both reading and writing. These checks come first and do not depend on the file
// system. Any thread may call, one at a time for a file.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

#include "dlog.h"
#include "errno_guard.h"
#include "ppi_pvr_control.h"

namespace {

using plexa_host::ErrnoGuard;

constexpr int kLogBuffer = 2;
constexpr int kDebug = 3;
constexpr int kError = 6;
constexpr char kTag[] = "PLEXA_HOST";

constexpr std::int64_t kMoveBufferSize = 1 << 20;

enum class Collapse { done, refused, broken };

// The errors that come before a file system has changed anything.
bool is_refusal(int error) {
  switch (error) {
    case EINVAL:      // alignment
    case EOPNOTSUPP:  // file system, or this kind of file on it
    case ENOSYS:      // kernel, or a filter on system calls
    case EPERM:
    case EACCES:
    case ENODEV:
    case ETXTBSY:
      return true;
    default:
      return false;
  }
}

class Removal {
 public:
  Removal(int fd, const pvr_truncate_range_s &request, std::int64_t file_size) noexcept
      : fd_(fd),
        request_(request),
        start_(request.start_offset),
        end_(std::min(request.end_offset, file_size)),
        file_size_(file_size) {}

  // False with errno set.
  bool run() noexcept;

 private:
  std::int64_t length() const noexcept { return end_ - start_; }

  Collapse collapse() noexcept;
  Collapse collapse_gap() noexcept;
  bool move_down(std::int64_t new_end) noexcept;
  bool read_behind_gap(char *to, std::int64_t size) noexcept;
  bool write_into_gap(const char *from, std::int64_t size) noexcept;
  bool truncate() noexcept;

  bool fail(const char *step) const noexcept;
  bool succeed(const char *how) const noexcept;

  const int fd_;
  const pvr_truncate_range_s &request_;
  std::int64_t start_;  // the gap
  std::int64_t end_;
  const std::int64_t file_size_;
  std::unique_ptr<char[]> buffer_;
};

bool Removal::run() noexcept {
  if (end_ == file_size_) return truncate() && succeed("truncating");
  switch (collapse()) {
    case Collapse::done:
      return succeed("collapsing");
    case Collapse::broken:
      return false;
    case Collapse::refused:
      break;
  }
  return move_down(file_size_) && truncate() && succeed("moving the rest");
}

// A file system collapses whole blocks only. A gap of whole blocks that begins inside one is moved
// to the next boundary first, by less than a block.
Collapse Removal::collapse() noexcept {
  struct statfs64 file_system = {};
  if (fstatfs64(fd_, &file_system) != 0) return Collapse::refused;
  const auto block = static_cast<std::int64_t>(file_system.f_bsize);
  if (block <= 0 || length() % block != 0) return Collapse::refused;
  const std::int64_t distance = (block - start_ % block) % block;
  if (distance >= file_size_ - end_) return Collapse::refused;  // truncation does it
  if (!move_down(end_ + distance)) return Collapse::broken;
  return collapse_gap();
}

Collapse Removal::collapse_gap() noexcept {
  if (fallocate64(fd_, FALLOC_FL_COLLAPSE_RANGE, start_, length()) == 0) return Collapse::done;
  if (is_refusal(errno)) return Collapse::refused;
  const ErrnoGuard keep;
  __dlog_print(kLogBuffer, kError, kTag,
               "%.*s: removing bytes %lld to %lld: the file system broke off collapsing bytes %lld "
               "to %lld, errno=[%d:%s]; how much it removed is unknown, check the file",
               static_cast<int>(sizeof request_.file_name), request_.file_name,
               static_cast<long long>(request_.start_offset),
               static_cast<long long>(request_.end_offset), static_cast<long long>(start_),
               static_cast<long long>(end_), keep.saved(), strerror(keep.saved()));
  return Collapse::broken;
}

// Moves the gap up until it ends at `new_end`, by copying what lies between down in front of it.
bool Removal::move_down(std::int64_t new_end) noexcept {
  if (end_ >= new_end) return true;
  const std::int64_t buffer_size = std::min(kMoveBufferSize, file_size_ - end_);
  if (!buffer_) buffer_.reset(new (std::nothrow) char[static_cast<std::size_t>(buffer_size)]);
  if (!buffer_) {
    errno = ENOMEM;
    return fail("memory");
  }
  while (end_ < new_end) {
    const std::int64_t size = std::min(buffer_size, new_end - end_);
    if (!read_behind_gap(buffer_.get(), size)) return fail("read");
    if (!write_into_gap(buffer_.get(), size)) return fail("write");
  }
  return true;
}

bool Removal::read_behind_gap(char *to, std::int64_t size) noexcept {
  std::int64_t done = 0;
  while (done < size) {
    const ssize_t now = pread64(fd_, to + done, static_cast<std::size_t>(size - done), end_ + done);
    if (now < 0 && errno == EINTR) continue;
    if (now == 0) errno = EIO;  // somebody made the file shorter
    if (now <= 0) return false;
    done += now;
  }
  return true;
}

bool Removal::write_into_gap(const char *from, std::int64_t size) noexcept {
  std::int64_t done = 0;
  while (done < size) {
    const auto piece = static_cast<std::size_t>(std::min(size - done, length()));
    const ssize_t now = pwrite64(fd_, from + done, piece, start_);
    if (now < 0 && errno == EINTR) continue;
    if (now == 0) errno = EIO;
    if (now <= 0) return false;
    done += now;
    start_ += now;
    end_ += now;
  }
  return true;
}

bool Removal::truncate() noexcept {
  int result;
  do result = ftruncate64(fd_, start_);
  while (result != 0 && errno == EINTR);
  return result == 0 || fail("truncate");
}

bool Removal::fail(const char *step) const noexcept {
  const ErrnoGuard keep;
  __dlog_print(kLogBuffer, kError, kTag,
               "%.*s: removing bytes %lld to %lld: %s failed, errno=[%d:%s]; nothing that stays is "
               "lost, bytes %lld to %lld remain to be removed",
               static_cast<int>(sizeof request_.file_name), request_.file_name,
               static_cast<long long>(request_.start_offset),
               static_cast<long long>(request_.end_offset), step, keep.saved(),
               strerror(keep.saved()), static_cast<long long>(start_),
               static_cast<long long>(end_));
  return false;
}

bool Removal::succeed(const char *how) const noexcept {
  const ErrnoGuard keep;
  __dlog_print(kLogBuffer, kDebug, kTag, "%.*s: removed bytes %lld to %lld by %s",
               static_cast<int>(sizeof request_.file_name), request_.file_name,
               static_cast<long long>(request_.start_offset),
               static_cast<long long>(request_.end_offset), how);
  return true;
}

// 0, or the errno of the refusal.
int check_descriptor(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  if (flags < 0) return errno;
  if ((flags & O_ACCMODE) != O_RDWR) return EBADF;
  return (flags & (O_APPEND | O_DIRECT)) != 0 ? EINVAL : 0;
}

// 0 with the file's size, or the errno of the refusal.
int check_arguments(int fd, const pvr_truncate_range_s *request, std::int64_t *file_size) {
  if (request == nullptr) return EINVAL;
  if (request->start_offset < 0 || request->end_offset <= request->start_offset) return EINVAL;
  if (const int error = check_descriptor(fd); error != 0) return error;
  struct stat64 status = {};
  if (fstat64(fd, &status) != 0) return errno;
  if (!S_ISREG(status.st_mode) || request->start_offset >= status.st_size) return EINVAL;
  *file_size = status.st_size;
  return 0;
}

}  // namespace

int ppi_pvr_control_file_truncate_range(int fd, const pvr_truncate_range_s *request) {
  std::int64_t file_size = 0;
  if (const int error = check_arguments(fd, request, &file_size); error != 0) {
    errno = error;
    return -1;
  }
  return Removal(fd, *request, file_size).run() ? 0 : -1;
}
