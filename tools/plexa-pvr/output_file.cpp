// output_file.cpp - see output_file.h.
#include "output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "failure.h"
#include "files.h"

namespace plexa::pvr {
namespace {

mode_t creation_mask() {
  const mode_t mask = ::umask(0);
  ::umask(mask);
  return mask;
}

// Both paths lead to one file.
bool same_file(const std::string &one, const std::string &other) {
  struct stat64 a {};
  struct stat64 b {};
  return ::stat64(one.c_str(), &a) == 0 && ::stat64(other.c_str(), &b) == 0 &&
         a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

Failure exists_already(const std::string &path) {
  return path_failure(path, "exists already; --overwrite replaces it");
}

}  // namespace

OutputFile::OutputFile(const std::string &path, bool overwrite)
    : path_(path), overwrite_(overwrite) {
  struct stat64 old {};
  const bool exists = ::lstat64(path_.c_str(), &old) == 0;
  if (exists && S_ISDIR(old.st_mode)) throw path_failure(path_, EISDIR);
  if (exists && !S_ISREG(old.st_mode)) throw path_failure(path_, "is no regular file");
  if (exists && !overwrite_) throw exists_already(path_);
  if (path_.empty() || path_.back() == '/') throw path_failure(path_, "is not the name of a file");

  std::string name = folder_of(path_) + ".plexa-pvr-XXXXXX";
  descriptor_ = ::mkostemp(name.data(), O_CLOEXEC);
  if (descriptor_ < 0) throw path_failure(path_, errno);
  temporary_ = name;
  give_permissions(exists, old);
}

OutputFile::~OutputFile() {
  if (descriptor_ >= 0) ::close(descriptor_);
  if (!temporary_.empty()) ::unlink(temporary_.c_str());
}

// A temporary file is the owner's alone; the finished one is like any other new file, or like the
// one that it replaces.
void OutputFile::give_permissions(bool exists, const struct stat64 &old) {
  const mode_t mode = exists ? old.st_mode & 0777u : 0666u & ~creation_mask();
  // A file system without permissions is no reason to give up.
  if (::fchmod(descriptor_, mode) != 0 && errno == EIO) throw path_failure(path_, errno);
}

void OutputFile::write(const void *data, size_t size) {
  const char *from = static_cast<const char *>(data);
  while (size > 0) {
    const ssize_t written = ::write(descriptor_, from, size);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) throw path_failure(path_, written < 0 ? errno : EIO);
    from += written;
    size -= static_cast<size_t>(written);
  }
}

void OutputFile::commit() {
  if (::fsync(descriptor_) != 0 && errno != EINVAL) throw path_failure(path_, errno);
  const int result = ::close(descriptor_);
  descriptor_ = -1;
  if (result != 0) throw path_failure(path_, errno);
  rename_to_path();
  temporary_.clear();
}

void OutputFile::rename_to_path() {
  if (overwrite_) {
    if (::rename(temporary_.c_str(), path_.c_str()) != 0) throw path_failure(path_, errno);
    return;
  }
  // A file of that name may have come since the look at the start.
  if (::renameat2(AT_FDCWD, temporary_.c_str(), AT_FDCWD, path_.c_str(), RENAME_NOREPLACE) == 0) {
    return;
  }
  if (errno == EEXIST) throw exists_already(path_);
  if (errno != EINVAL && errno != ENOSYS) throw path_failure(path_, errno);
  // The file system has no such rename: a link never replaces.
  if (::link(temporary_.c_str(), path_.c_str()) != 0) throw path_failure(path_, errno);
  ::unlink(temporary_.c_str());
}

void refuse_own_files(const Recording &recording, const std::string &output) {
  const std::string stem = recording.stream_path().substr(0, recording.stream_path().rfind('.'));
  for (const std::string &own :
       {recording.stream_path(), recording.index_path(), stem + ".thm", stem + ".tm"}) {
    if (same_file(output, own)) throw path_failure(output, "is a file of the recording itself");
  }
}

}  // namespace plexa::pvr
