// temp_dir.h - a fresh folder for one test, removed with everything in it at the end.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace plexa_test {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir &) = delete;
  TempDir &operator=(const TempDir &) = delete;

  const std::string &path() const { return path_; }
  std::string file(const std::string &name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

void write_file(const std::string &path, const std::vector<uint8_t> &bytes);
std::vector<uint8_t> read_file(const std::string &path);
bool exists(const std::string &path);
// 0, 1, 2, ... 250, 0, 1, ...: a byte tells its position, and never in step with a block.
std::vector<uint8_t> counting_bytes(size_t size, size_t first = 0);

}  // namespace plexa_test
