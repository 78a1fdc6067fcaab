// output_file.h - a file that comes into being whole or not at all.
//
// Written under a temporary name in the folder where it belongs and renamed when complete; an
// object that goes without commit() leaves nothing behind. Refuses to replace an existing file
// unless told to, and to replace anything but a regular file at all. One thread at a time.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <string>

#include "recording.h"

namespace plexa::pvr {

class OutputFile {
 public:
  OutputFile(const std::string &path, bool overwrite);
  ~OutputFile();
  OutputFile(const OutputFile &) = delete;
  OutputFile &operator=(const OutputFile &) = delete;

  void write(const void *data, size_t size);
  // Everything is on the disk and the file has its name.
  void commit();

  const std::string &path() const { return path_; }

 private:
  void give_permissions(bool exists, const struct stat64 &old);
  void rename_to_path();

  const std::string path_;
  const bool overwrite_;
  std::string temporary_;  // empty: there is none (any more)
  int descriptor_ = -1;
};

// An output that would replace the recording that it is made of throws.
void refuse_own_files(const Recording &recording, const std::string &output);

}  // namespace plexa::pvr
