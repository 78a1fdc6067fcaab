// timeshift_writer.cpp - see timeshift_writer.h. Not thread-safe but for set_time().
#include "timeshift_writer.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "paths.h"

namespace plexa::rec {
namespace {

constexpr uint32_t kShortestSpan = 60000;
constexpr uint32_t kLongestStep = 30000;
constexpr uint64_t kWorthACut = 2 * uint64_t{TimeshiftWriter::kUnit};

}  // namespace

bool TimeshiftWriter::fail(int error) {
  failed_ = true;
  error_ = error;
  return false;
}

std::string TimeshiftWriter::problem() const {
  if (reserve_touched_) {
    return "the disk is full: less than " + std::to_string(options_.reserve >> 20) +
           " MiB of it would stay free";
  }
  return "the stream file takes no more: " + error_text(error_);
}

bool TimeshiftWriter::create(const std::string &path) {
  unit_.reset(static_cast<uint8_t *>(std::aligned_alloc(TimeshiftFile::kBlock, kUnit)));
  if (!unit_) return fail(ENOMEM);
  return (file_.open(path) && file_.set_max_time(options_.max_time_ms)) || fail(file_.error());
}

bool TimeshiftWriter::write(const uint8_t *data, size_t size) {
  while (size > 0 && !failed_) {
    const size_t part = std::min(size, kUnit - unit_size_);
    std::memcpy(unit_.get() + unit_size_, data, part);
    unit_size_ += part;
    data += part;
    size -= part;
    if (unit_size_ == kUnit && store_unit()) unit_size_ = 0;
  }
  return !failed_;
}

// The index may come on by minutes at once when this thread has run ahead. A time that passes two
// cuts in one step would have the second one find nothing to remove, which switches cutting off.
void TimeshiftWriter::take_time() {
  const uint32_t known = time_.load(std::memory_order_acquire);
  const uint64_t units = stored_ / kUnit;
  const auto usual = static_cast<uint32_t>(units > 0 ? known / units : 0);
  reported_ += std::min(known - reported_, std::max(kLongestStep, 2 * usual));
}

bool TimeshiftWriter::store_unit() {
  take_time();
  if (!has_room()) {
    reserve_touched_ = true;
    return fail(ENOSPC);
  }
  const bool written = write_unit();
  removed_ = static_cast<uint64_t>(file_.removed());
  if (options_.observer != nullptr) options_.observer->stored(stored_);
  return written;
}

// A disk may be full for this writer alone (a quota); a cut before its time helps there, too.
bool TimeshiftWriter::write_unit() {
  size_t done = 0;
  for (;;) {
    const size_t wrote = file_.write(unit_.get() + done, kUnit - done, reported_);
    done += wrote;
    stored_ += wrote;
    if (done == kUnit) return true;
    const bool can_go_on = is_disk_full(file_.error()) && done % TimeshiftFile::kBlock == 0;
    if (!can_go_on || cut_early() == Relief::kNone) return fail(file_.error());
  }
}

// --- the disk's last part

bool TimeshiftWriter::has_room() {
  for (;;) {
    const uint64_t space = free_space();
    // The write that starts a cut should not touch the reserve itself, hence the second unit. It
    // may when others have filled up the disk: the cut gives back more.
    if (space >= options_.reserve + 2 * kUnit) return true;
    switch (cut_early()) {
      case Relief::kAsked:
        return true;
      case Relief::kCame:
        break;
      case Relief::kNone:
        return space >= options_.reserve + kUnit;
    }
  }
}

// The cut is asked for first; the next write starts it; then its end is waited for.
TimeshiftWriter::Relief TimeshiftWriter::cut_early() {
  if (asked_) {
    file_.wait_for_cut();
    asked_ = false;
    if (file_.removed() > removed_when_asked_) return Relief::kCame;
    hopeless_ = true;
  }
  removed_when_asked_ = file_.removed();
  asked_ = !hopeless_ && shorten();
  return asked_ ? Relief::kAsked : Relief::kNone;
}

bool TimeshiftWriter::shorten() {
  const uint32_t held =
      reported_ - std::min(reported_, static_cast<uint32_t>(file_.removed_time()));
  const uint32_t span = held / 4 * 3;
  const uint64_t gain = (stored_ - static_cast<uint64_t>(removed_when_asked_)) / 4;
  if (span < kShortestSpan || gain < kWorthACut) return false;
  if (!file_.shorten(static_cast<int32_t>(span), reported_)) return false;
  span_ = span;
  return true;
}

// Where the file system does not tell, there is room.
uint64_t TimeshiftWriter::free_space() const {
  struct statvfs64 status = {};
  if (is_box_in_use() || statvfs64(file_.path().c_str(), &status) != 0) return UINT64_MAX;
  return uint64_t{status.f_bavail} * status.f_frsize;
}

// --- the end

// A write that broke off may have left a part of a packet. What is cut off at the front is whole
// units, so that the packets still lie at multiples of their size.
bool TimeshiftWriter::cut_to_packets() {
  if (stored_ % kPacketSize == 0) return true;
  stored_ = packets() * kPacketSize;
  if (is_box_in_use()) return true;  // readers know whole packets only
  struct stat64 status = {};
  if (stat64(file_.path().c_str(), &status) != 0) return fail(errno);
  const off64_t whole = status.st_size - status.st_size % static_cast<off64_t>(kPacketSize);
  return truncate64(file_.path().c_str(), whole) == 0 || fail(errno);
}

// Closing makes the file durable; there is no other way for a file that may be cut at any moment.
bool TimeshiftWriter::finish() {
  const int error = error_;
  const bool written = !failed_;
  if (file_.is_open()) {
    file_.wait_for_cut();
    removed_ = static_cast<uint64_t>(file_.removed());
  }
  const bool closed = file_.close() || fail(file_.error());
  const bool whole = cut_to_packets();
  if (!written) error_ = error;  // the first thing that went wrong says most
  return written && closed && whole;
}

}  // namespace plexa::rec
