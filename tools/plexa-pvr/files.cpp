// files.cpp - see files.h.
#include "files.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "failure.h"

namespace plexa::pvr {
namespace {

constexpr int64_t kMostAtOnce = 1 << 30;

struct stat64 status_of(int descriptor, const std::string &path) {
  struct stat64 status {};
  if (::fstat64(descriptor, &status) != 0) throw path_failure(path, errno);
  return status;
}

int open_locked(const std::string &path) {
  const int descriptor = ::open64(path.c_str(), O_RDWR | O_CLOEXEC);
  if (descriptor < 0) throw path_failure(path, errno);
  if (::flock(descriptor, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK) return descriptor;
  ::close(descriptor);
  throw path_failure(path, "is being recorded or changed by another program");
}

}  // namespace

Descriptor::~Descriptor() {
  const int saved = errno;
  if (number_ >= 0) ::close(number_);
  errno = saved;
}

int Descriptor::close() noexcept {
  const int number = number_;
  number_ = -1;  // released even when the kernel reports a failure
  return ::close(number);
}

bool file_exists(const std::string &path) {
  struct stat64 status {};
  return ::lstat64(path.c_str(), &status) == 0;
}

std::string folder_of(const std::string &path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "./" : path.substr(0, slash + 1);
}

FileBytes read_whole(const std::string &path) {
  const Descriptor file(::open64(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (file.get() < 0) throw path_failure(path, errno);
  return read_piece(file.get(), path, 0, status_of(file.get(), path).st_size);
}

FileBytes read_piece(int descriptor, const std::string &path, int64_t offset, int64_t size) {
  FileBytes bytes(static_cast<size_t>(size));
  int64_t done = 0;
  while (done < size) {
    const auto want = static_cast<size_t>(std::min(size - done, kMostAtOnce));
    const ssize_t got = ::pread64(descriptor, bytes.data() + done, want, offset + done);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw path_failure(path, errno);
    if (got == 0) break;
    done += got;
  }
  bytes.resize(static_cast<size_t>(done));
  return bytes;
}

void write_piece(int descriptor, const std::string &path, int64_t offset,
                 std::span<const uint8_t> bytes) {
  while (!bytes.empty()) {
    const size_t want = std::min(bytes.size(), size_t{kMostAtOnce});
    const ssize_t written = ::pwrite64(descriptor, bytes.data(), want, offset);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) throw path_failure(path, written < 0 ? errno : EIO);
    bytes = bytes.subspan(static_cast<size_t>(written));
    offset += written;
  }
}

void sync_data(int descriptor, const std::string &path) {
  if (::fdatasync(descriptor) != 0 && errno != EINVAL) throw path_failure(path, errno);
}

void write_durably(const std::string &path, std::span<const uint8_t> bytes,
                   const struct stat64 *like) {
  Descriptor file(::open64(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC,
                           like != nullptr ? 0600 : 0644));
  if (file.get() < 0) throw path_failure(path, errno);
  if (like != nullptr) {
    // The owner first: giving a file away may clear permissions. A file system without either, or a
    // user who may not give files away, is no reason to give up.
    const bool broken = (::fchown(file.get(), like->st_uid, like->st_gid) != 0 && errno == EIO) ||
                        (::fchmod(file.get(), like->st_mode & 07777u) != 0 && errno == EIO);
    if (broken) throw path_failure(path, EIO);
  }
  write_piece(file.get(), path, 0, bytes);
  sync_data(file.get(), path);
  if (file.close() != 0) throw path_failure(path, errno);
}

void sync_folder_of(const std::string &path) {
  const std::string folder = folder_of(path);
  const Descriptor open(::open64(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (open.get() < 0 || (::fsync(open.get()) != 0 && errno != EINVAL)) {
    throw path_failure(folder, errno);
  }
}

void remove_file(const std::string &path) {
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) throw path_failure(path, errno);
}

void rename_file(const std::string &from, const std::string &to) {
  if (std::rename(from.c_str(), to.c_str()) != 0) throw path_failure(to, errno);
}

std::string checksum(std::span<const uint8_t> bytes) {
  gchar *const text = g_compute_checksum_for_data(G_CHECKSUM_SHA256, bytes.data(), bytes.size());
  std::string copy(text);
  g_free(text);
  return copy;
}

LockedStream::LockedStream(const std::string &path) : path_(path), descriptor_(open_locked(path)) {}

int64_t LockedStream::size() const { return status_of(descriptor_.get(), path_).st_size; }

}  // namespace plexa::pvr
