// write_behind.cpp - see write_behind.h.
//
// One lock, held for bookkeeping only, never while the stream file is written.
#include "write_behind.h"

#include <system_error>
#include <utility>

namespace plexa::rec {
namespace {

constexpr size_t kBlocks = 4;

}  // namespace

WriteBehind::WriteBehind(PacketStore &store, size_t block_size) : store_(store) {
  for (size_t i = 0; i < kBlocks; ++i) {
    blocks_.push_back(std::make_unique<uint8_t[]>(block_size));
    free_.push_back(i);
  }
}

WriteBehind::~WriteBehind() { stop(); }

void WriteBehind::start() {
  stored_packets_ = store_.packets();
  try {
    thread_ = std::thread([this] { run(); });
  } catch (const std::system_error &) {
    // hand_over() stores on the caller's thread then
  }
}

uint8_t *WriteBehind::block() {
  std::unique_lock hold(lock_);
  if (!holds_block_) {
    done_.wait(hold, [this] { return !free_.empty(); });
    current_ = free_.back();
    free_.pop_back();
    holds_block_ = true;
  }
  return blocks_[current_].get();
}

void WriteBehind::hand_over(const uint8_t *data, size_t size) {
  holds_block_ = false;
  const Job job{current_, data, size};
  if (!thread_.joinable()) {
    const bool stored = store(job);
    failed_ = failed_ || !stored;
    free_.push_back(job.block);
    return;
  }
  {
    const std::lock_guard hold(lock_);
    jobs_.push_back(job);
  }
  work_.notify_one();
}

bool WriteBehind::store(const Job &job) {
  const bool stored = store_.write(job.data, job.size);
  const uint64_t packets = store_.packets();
  const std::lock_guard hold(lock_);
  stored_packets_ = packets;
  return stored;
}

void WriteBehind::run() {
  std::unique_lock hold(lock_);
  for (;;) {
    work_.wait(hold, [this] { return ending_ || !jobs_.empty(); });
    if (jobs_.empty()) return;
    const Job job = jobs_.front();
    jobs_.pop_front();
    busy_ = true;
    const bool skip = failed_;  // nothing may follow what is missing
    hold.unlock();
    const bool stored = skip || store(job);
    hold.lock();
    busy_ = false;
    failed_ = failed_ || !stored;
    free_.push_back(job.block);
    done_.notify_all();
  }
}

void WriteBehind::drain() {
  std::unique_lock hold(lock_);
  done_.wait(hold, [this] { return jobs_.empty() && !busy_; });
}

void WriteBehind::stop() {
  if (!thread_.joinable()) return;
  {
    const std::lock_guard hold(lock_);
    ending_ = true;
  }
  work_.notify_one();
  thread_.join();
}

uint64_t WriteBehind::stored_packets() const {
  const std::lock_guard hold(lock_);
  return stored_packets_;
}

bool WriteBehind::failed() const {
  const std::lock_guard hold(lock_);
  return failed_;
}

}  // namespace plexa::rec
