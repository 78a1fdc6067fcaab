// fixture.h - files to measure on, made in the current folder and removed at the end.
#pragma once

#include <cstdint>
#include <string>

namespace plexa_bench {

// A file of counting bytes, written and read once, so that it lies in the page cache.
class ScratchFile {
 public:
  ScratchFile(const std::string &name, uint64_t size);
  explicit ScratchFile(const std::string &name);  // only the name; removed at the end all the same
  ~ScratchFile();
  ScratchFile(const ScratchFile &) = delete;
  ScratchFile &operator=(const ScratchFile &) = delete;
  const std::string &path() const { return path_; }

 private:
  std::string path_;
};

// An index of equal GOPs: 500 ms, 1000 packets, I-frames of iframe_packets.
void write_index(const std::string &path, uint32_t gops, uint32_t iframe_packets);

}  // namespace plexa_bench
