#include "temp_dir.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace plexa_test {

// Below the current folder, which is the build tree: a disk file system, where direct I/O works.
// The path is resolved, since the library refuses paths that lead through symbolic links.
TempDir::TempDir() {
  std::string name = (std::filesystem::current_path() / "plexa-test-XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("mkdtemp failed: " + name);
  path_ = std::filesystem::canonical(name).string();
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

void write_file(const std::string &path, const std::vector<uint8_t> &bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char *>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
  if (!out.flush()) throw std::runtime_error("cannot write " + path);
}

std::vector<uint8_t> read_file(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  return {std::istreambuf_iterator<char>(in), {}};
}

bool exists(const std::string &path) { return std::filesystem::exists(path); }

std::vector<uint8_t> counting_bytes(size_t size, size_t first) {
  std::vector<uint8_t> bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>((first + i) % 251);
  return bytes;
}

}  // namespace plexa_test
