// write_behind.h - stores packets on a thread of its own while the next ones are looked through.
//
// Blocks go round: the recorder fills a free one, hands it over, and gets it back when it is
// stored. At full speed reading and storing overlap; how far storing has come is known at every
// moment, and whoever cannot wait drains the queue. Used by one thread.
#ifndef PLEXA_RECORDER_WRITE_BEHIND_H_
#define PLEXA_RECORDER_WRITE_BEHIND_H_

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "packet_store.h"

namespace plexa::rec {

class WriteBehind {
 public:
  // Stores through `store`, which nobody else may touch between start() and stop(). `block_size`:
  // bytes in a block.
  WriteBehind(PacketStore &store, size_t block_size);
  ~WriteBehind();
  WriteBehind(const WriteBehind &) = delete;
  WriteBehind &operator=(const WriteBehind &) = delete;

  // Without it, or when no thread can be had, blocks are stored as they are handed over.
  void start();
  // A block to fill; waits for one to be free. It stays the caller's until it is handed over.
  uint8_t *block();
  // Hands over the block that block() gave, of which `size` bytes at `data` are to be stored.
  void hand_over(const uint8_t *data, size_t size);
  // Waits until everything handed over is stored, or storing failed.
  void drain();
  // Drains and ends the thread.
  void stop();

  uint64_t stored_packets() const;
  bool failed() const;

 private:
  struct Job {
    size_t block;
    const uint8_t *data;
    size_t size;
  };

  void run();
  bool store(const Job &job);

  PacketStore &store_;
  std::vector<std::unique_ptr<uint8_t[]>> blocks_;
  size_t current_ = 0;  // the block that the caller fills
  bool holds_block_ = false;
  std::thread thread_;

  mutable std::mutex lock_;  // guards what follows
  std::condition_variable work_;
  std::condition_variable done_;
  std::vector<size_t> free_;
  std::deque<Job> jobs_;
  bool busy_ = false;
  bool ending_ = false;
  bool failed_ = false;
  uint64_t stored_packets_ = 0;
};

}  // namespace plexa::rec

#endif  // PLEXA_RECORDER_WRITE_BEHIND_H_
