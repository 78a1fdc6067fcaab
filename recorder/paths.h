// paths.h - where a recording's two files lie, and who else is at them.
//
// Pure but for what the file system answers; safe from any thread.
#ifndef PLEXA_RECORDER_PATHS_H_
#define PLEXA_RECORDER_PATHS_H_

#include <string>

namespace plexa::rec {

struct RecordingPaths {
  std::string stream;  // absolute, through no symbolic link but perhaps the last part
  std::string index;
};

// Whether the recordings of this process lie on a companion box. There a path is the box's, from
// the root of what it serves, and files are reached through the library's handle alone: not locked,
// not removed, not shortened.
bool is_box_in_use();

// Sets `paths`; else the result is one line that says what is wrong with the name.
std::string resolve_recording(const std::string &stream_path, RecordingPaths &paths);

std::string error_text(int error);  // "No space left on device"
bool is_disk_full(int error);       // also of a quota, or of the longest file that is allowed

// Holds a recording for one writer at a time, in whatever process, until it goes out of scope. The
// lock dies with the process.
class RecordingLock {
 public:
  RecordingLock() = default;
  ~RecordingLock();
  RecordingLock(const RecordingLock &) = delete;
  RecordingLock &operator=(const RecordingLock &) = delete;

  // False: another one is writing. A file system that knows no locks holds nobody off.
  bool acquire(const std::string &stream);
  int descriptor() const { return descriptor_; }  // of the stream file, for reading; -1: none

 private:
  int descriptor_ = -1;
};

// Makes the names in the file's folder durable: a new file, or a rename, is safe only with them.
void sync_folder(const std::string &path);

// Creates an empty file that was not there before. Returns 0 or errno.
int create_new_file(const std::string &path);

// A name beside `path` that is free, with the extension of an index. Created empty; empty result:
// errno says why not.
std::string create_temporary_index(const std::string &index_path);

}  // namespace plexa::rec

#endif  // PLEXA_RECORDER_PATHS_H_
