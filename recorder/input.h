// input.h - the bytes of a file, a pipe or a file that still grows.
//
// Reads never outlast the caller's wish to stop by more than a tenth of a second. The descriptor
// stays the caller's. One object serves one thread.
#ifndef PLEXA_RECORDER_INPUT_H_
#define PLEXA_RECORDER_INPUT_H_

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace plexa::rec {

class Input {
 public:
  // `follow`: the end of a file is not the end; wait there for more until `stop` becomes true.
  Input(int fd, const std::atomic<bool> *stop, bool follow);

  // Up to `size` bytes as soon as there are any. 0: the input ends here, or was stopped; -1: it
  // cannot be read, errno says why.
  int64_t read(uint8_t *buffer, size_t size);
  // Begin anew; only for files.
  bool rewind_to(int64_t offset);

  uint64_t total() const { return total_; }  // bytes from the start; 0: unknown
  uint64_t taken() const { return taken_; }
  bool stopped() const { return stop_ != nullptr && stop_->load(std::memory_order_relaxed); }

 private:
  bool wait_readable();
  void pause();

  int fd_;
  const std::atomic<bool> *stop_;
  bool is_file_ = false;
  bool follow_;
  uint64_t total_ = 0;
  uint64_t taken_ = 0;
};

}  // namespace plexa::rec

#endif  // PLEXA_RECORDER_INPUT_H_
