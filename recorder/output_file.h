// output_file.h - a file of a recording that is written through the library's file handle.
//
// Short writes are completed, interrupted ones repeated; a write that fails says how far it got.
// One object serves one thread.
#ifndef PLEXA_RECORDER_OUTPUT_FILE_H_
#define PLEXA_RECORDER_OUTPUT_FILE_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "gst-plexa/gst_pvr_file.h"

namespace plexa::rec {

class OutputFile {
 public:
  enum class Kind { kStream, kIndex };

  // Whether there is such a file, wherever files lie.
  static bool exists(const std::string &path);

  OutputFile();
  ~OutputFile();
  OutputFile(const OutputFile &) = delete;
  OutputFile &operator=(const OutputFile &) = delete;

  // Opens for writing, never shortening what is there: a stream file at its end, an index file at
  // its beginning. `direct`: past the page cache; every write must then begin at an address and
  // have a size that are multiples of 4096. False: error().
  bool open(const std::string &path, Kind kind, bool direct);
  // Bytes written; fewer than `size`: error() says why.
  size_t write(const uint8_t *data, size_t size);
  bool seek(int64_t offset);
  bool sync();
  bool close();

  bool is_open() const { return open_; }
  int error() const { return error_; }  // errno of what failed last
  const std::string &path() const { return path_; }

 private:
  bool fail();

  GstPvrFile file_;
  std::string path_;
  bool open_ = false;
  bool direct_ = false;
  int error_ = 0;
};

}  // namespace plexa::rec

#endif  // PLEXA_RECORDER_OUTPUT_FILE_H_
