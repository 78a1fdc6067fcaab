// paths.cpp - see paths.h. Thread-safe.
#include "paths.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <system_error>

#include "gst-plexa/gst_pvr_tools.h"
#include "gst-plexa/gst_zeb.h"

namespace plexa::rec {
namespace {

constexpr mode_t kCreatedMode = 0644;  // as the library creates them
constexpr const char *kIndexExtension = ".mdb";

struct FreeText {
  void operator()(char *text) const { std::free(text); }
};
using Text = std::unique_ptr<char, FreeText>;

bool has_extension(const std::string &name) {
  const size_t dot = name.rfind('.');
  return dot != std::string::npos && dot > 0 && dot + 1 < name.size();
}

bool ends_with(const std::string &text, const std::string &end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

std::string folder_of(const std::string &path) { return path.substr(0, path.rfind('/') + 1); }

}  // namespace

bool is_box_in_use() { return gst_zeb_is_need_socket() == 1; }

bool is_disk_full(int error) { return error == ENOSPC || error == EDQUOT || error == EFBIG; }

std::string error_text(int error) { return std::generic_category().message(error); }

std::string resolve_recording(const std::string &stream_path, RecordingPaths &paths) {
  const size_t slash = stream_path.rfind('/');
  const std::string name = slash == std::string::npos ? stream_path : stream_path.substr(slash + 1);
  if (name.empty()) return "'" + stream_path + "' is not the name of a file";
  // The two files of a recording differ in the extension alone.
  if (!has_extension(name)) {
    return "'" + stream_path + "' has no extension; call it " + name + ".kvf, for example";
  }
  if (ends_with(name, kIndexExtension)) {
    return "'" + stream_path + "' is the name of an index; name the stream file";
  }
  std::string folder = slash == std::string::npos ? "." : stream_path.substr(0, slash + 1);
  if (is_box_in_use()) {
    paths.stream = (stream_path[0] == '/' ? "" : "/") + stream_path;
  } else {
    const Text real(realpath(folder.c_str(), nullptr));
    if (!real) return "folder '" + folder + "': " + error_text(errno);
    folder = real.get();
    paths.stream = (folder == "/" ? "" : folder) + "/" + name;
  }
  const Text index(gst_pvr_tool_change_extension(paths.stream.c_str(), kIndexExtension));
  if (!index) return "out of memory";
  paths.index = index.get();
  return "";
}

RecordingLock::~RecordingLock() {
  if (descriptor_ >= 0) close(descriptor_);
}

bool RecordingLock::acquire(const std::string &stream) {
  if (is_box_in_use()) return true;
  if (descriptor_ < 0) descriptor_ = open(stream.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor_ < 0) return true;  // what is wrong with it shows when it is used
  return flock(descriptor_, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

void sync_folder(const std::string &path) {
  if (is_box_in_use()) return;
  const int folder = open(folder_of(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder < 0) return;
  fsync(folder);
  close(folder);
}

int create_new_file(const std::string &path) {
  const int descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kCreatedMode);
  if (descriptor < 0) return errno;
  close(descriptor);
  return 0;
}

std::string create_temporary_index(const std::string &index_path) {
  const std::string stem = index_path.substr(0, index_path.rfind('.')) + ".new-";
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::string path =
        stem + std::to_string(getpid()) + "-" + std::to_string(attempt) + kIndexExtension;
    const int error = create_new_file(path);
    if (error == 0) return path;
    errno = error;
    if (error != EEXIST) break;
  }
  return "";
}

}  // namespace plexa::rec
