// stream_writer.cpp - see stream_writer.h. Not thread-safe.
#include "stream_writer.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "media.h"
#include "paths.h"

namespace plexa::rec {
namespace {

constexpr size_t kBlock = 4096;
constexpr size_t kGathered = size_t{1} << 20;

}  // namespace

bool StreamWriter::fail(int error) {
  failed_ = true;
  error_ = error;
  return false;
}

bool StreamWriter::create(const std::string &path, bool direct) {
  direct_ = direct;
  if (direct) {
    gathered_.reset(static_cast<uint8_t *>(std::aligned_alloc(kBlock, kGathered)));
    if (!gathered_) return fail(ENOMEM);
  }
  return file_.open(path, OutputFile::Kind::kStream, direct) || fail(file_.error());
}

uint64_t StreamWriter::packets() const { return stored_ / kPacketSize; }

std::string StreamWriter::problem() const {
  return "the stream file takes no more: " + error_text(error_);
}

bool StreamWriter::write(const uint8_t *data, size_t size) {
  if (failed_) return false;
  return direct_ ? gather(data, size) : store(data, size);
}

bool StreamWriter::store(const uint8_t *data, size_t size) {
  const size_t wrote = file_.write(data, size);
  stored_ += wrote;
  return wrote == size || fail(file_.error());
}

bool StreamWriter::gather(const uint8_t *data, size_t size) {
  while (size > 0) {
    const size_t part = std::min(size, kGathered - gathered_size_);
    std::memcpy(gathered_.get() + gathered_size_, data, part);
    gathered_size_ += part;
    data += part;
    size -= part;
    if (gathered_size_ < kGathered) continue;
    if (!store(gathered_.get(), kGathered)) return false;
    gathered_size_ = 0;
  }
  return true;
}

bool StreamWriter::flush_gathered() {
  if (failed_ || gathered_size_ == 0) return !failed_;
  const size_t blocks = gathered_size_ / kBlock * kBlock;
  if (blocks > 0 && !store(gathered_.get(), blocks)) return false;
  const std::string path = file_.path();
  if (!file_.close() || !file_.open(path, OutputFile::Kind::kStream, false)) {
    return fail(file_.error());
  }
  return store(gathered_.get() + blocks, gathered_size_ - blocks);
}

bool StreamWriter::cut_to_packets() {
  if (stored_ % kPacketSize == 0) return true;
  stored_ = packets() * kPacketSize;
  if (is_box_in_use()) return true;  // readers know whole packets only
  return truncate(file_.path().c_str(), static_cast<off_t>(stored_)) == 0 || fail(errno);
}

bool StreamWriter::finish() {
  const bool written = direct_ ? flush_gathered() : !failed_;
  const int error = error_;
  const bool durable = !file_.is_open() || file_.sync() || fail(file_.error());
  const bool closed = file_.close() || fail(file_.error());
  const bool whole = cut_to_packets();
  if (!written) error_ = error;  // the first thing that went wrong says most
  return written && durable && closed && whole;
}

void StreamWriter::abandon() { file_.close(); }

}  // namespace plexa::rec
