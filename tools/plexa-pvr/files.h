// files.h - whole files and folders, for work that must outlast a crash.
//
// Everything throws a Failure that names the file. Functions without state; any thread may call
// them.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace plexa::pvr {

using FileBytes = std::vector<uint8_t>;

// A descriptor that is closed at the end; -1: none.
class Descriptor {
 public:
  explicit Descriptor(int number = -1) noexcept : number_(number) {}
  Descriptor(const Descriptor &) = delete;
  Descriptor &operator=(const Descriptor &) = delete;
  ~Descriptor();
  int get() const noexcept { return number_; }
  // The result of close(2).
  int close() noexcept;

 private:
  int number_;
};

bool file_exists(const std::string &path);
std::string folder_of(const std::string &path);

FileBytes read_whole(const std::string &path);
// Fewer bytes than asked for only at the end of the file.
FileBytes read_piece(int descriptor, const std::string &path, int64_t offset, int64_t size);
void write_piece(int descriptor, const std::string &path, int64_t offset,
                 std::span<const uint8_t> bytes);
void sync_data(int descriptor, const std::string &path);

// Creates or replaces the file; its bytes are on the disk when this returns. With `like`, it has
// the permissions (and, where possible, the owner) of that file.
void write_durably(const std::string &path, std::span<const uint8_t> bytes,
                   const struct stat64 *like = nullptr);

// The names in the file's folder are on the disk.
void sync_folder_of(const std::string &path);

// A name that must be gone afterwards; it need not exist.
void remove_file(const std::string &path);
void rename_file(const std::string &from, const std::string &to);

// SHA-256, 64 hexadecimal digits.
std::string checksum(std::span<const uint8_t> bytes);

// The recording's stream file, open for reading and writing, and locked against recorders and
// everyone else who changes recordings. Refused when one of them is at work.
class LockedStream {
 public:
  explicit LockedStream(const std::string &path);
  int get() const { return descriptor_.get(); }
  int64_t size() const;

 private:
  const std::string path_;
  const Descriptor descriptor_;
};

}  // namespace plexa::pvr
