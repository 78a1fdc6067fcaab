// timeshift_reader.cpp - see timeshift_reader.h. A reader serves one thread.
#include "timeshift_reader.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>

#include "gst-plexa/gst_file_shared_info.h"
#include "text.h"

namespace plexa::pvr {
namespace {

using std::chrono::milliseconds;

constexpr int64_t kPacket = PacketLedger::kPacket;
constexpr int64_t kUnit = 1024 * kPacket;  // the library cuts in these
constexpr int64_t kCutHangs = -3;          // nothing has happened, try again
constexpr int kMostTries = 15;
constexpr uint64_t kUsualRead = 700;    // packets
constexpr uint64_t kLargeRead = 12000;  // more than the library reads past the cache at once
constexpr int kFromStart = 0;
constexpr int kFromEnd = 2;

int64_t cut_off() { return gst_shared_cut_info_get_total_cutoffset(gst_shared_cut_info_get()); }

// What is older may go with the next cut.
int64_t span_start() {
  return gst_shared_cut_info_get_accumulated_offset(gst_shared_cut_info_get());
}

int64_t round_up(int64_t value, int64_t step) { return (value + step - 1) / step * step; }

}  // namespace

void ReaderFindings::waited(int64_t microseconds) {
  int64_t longest = longest_wait_us.load();
  while (microseconds > longest && !longest_wait_us.compare_exchange_weak(longest, microseconds)) {
  }
}

void ReaderFindings::fault(const std::string &text) {
  const std::lock_guard hold(lock_);
  if (faults++ == 0) first_fault_ = text;
}

std::string ReaderFindings::first_fault() const {
  const std::lock_guard hold(lock_);
  return first_fault_;
}

TimeshiftReader::TimeshiftReader(unsigned number, const TimeshiftBuffer &buffer,
                                 ReaderFindings &findings)
    : number_(number),
      buffer_(buffer),
      findings_(findings),
      handle_(new Handle),
      random_(number + 1) {
  handle_->path = buffer.path;
  gst_pvr_file_init(&handle_->file);
}

TimeshiftReader::~TimeshiftReader() {
  if (handle_ == nullptr) return;
  gst_pvr_file_deinit(&handle_->file);
  delete handle_;
}

uint64_t TimeshiftReader::random(uint64_t most) {
  return std::uniform_int_distribution<uint64_t>(0, most)(random_);
}

void TimeshiftReader::pause(unsigned most_ms) {
  std::this_thread::sleep_for(milliseconds(random(most_ms)));
}

void TimeshiftReader::fault(int64_t offset, const std::string &text) {
  findings_.fault(
      format("reader %u at byte %lld: %s", number_, static_cast<long long>(offset), text.c_str()));
}

// The longest call counts, with all its tries.
template <class Operation>
int64_t TimeshiftReader::timed(Operation operation) {
  const int64_t start = g_get_monotonic_time();
  int64_t result = kCutHangs;
  for (int tries = 0; result == kCutHangs && tries < kMostTries; ++tries) result = operation();
  findings_.waited(g_get_monotonic_time() - start);
  return result;
}

// Half of the readers go through the page cache, until the first cut.
bool TimeshiftReader::open() {
  const guint32 io = number_ % 2 == 0 ? GST_PVR_FILE_DIRECT_IO : GST_PVR_FILE_BUFFER_IO;
  const int64_t opened = timed([&] {
    return gst_pvr_file_open(&handle_->file, handle_->path.c_str(), GST_PVR_FILE_READ, io,
                             GST_PVR_FILE_TIMESHIFT, GST_PVR_FILE_STREAM, 0, 0);
  });
  if (opened < 0) fault(0, "the buffer cannot be opened");
  return opened >= 0;
}

void TimeshiftReader::run() {
  if (!open()) return;
  if (number_ == 0) {
    follow();
  } else {
    while (!buffer_.ended) jump();
  }
  close();
}

void TimeshiftReader::close() {
  const int64_t closed = timed([this] { return gst_pvr_file_close(&handle_->file); });
  if (closed < 0) fault(0, "the buffer cannot be closed");
  if (closed == kCutHangs) handle_ = nullptr;
}

void TimeshiftReader::follow() {
  int64_t at = 0;
  while (!buffer_.ended) {
    const auto stored = static_cast<int64_t>(buffer_.stored);
    if (at >= stored) {
      pause(buffer_.hurried ? 1 : 20);
      continue;
    }
    const auto most = static_cast<int64_t>(1 + random(kUsualRead)) * kPacket;
    at = read_on(at, static_cast<size_t>(std::min(most, stored - at)));
    if (at >= 0) continue;
    at = stored;  // lost its place: live is where it belongs
    if (timed([&] { return gst_pvr_file_seek(&handle_->file, at, kFromStart); }) != at) {
      fault(at, "seek failed");
    }
  }
}

// A packet in what is kept, with so many behind it that are stored; the newest when there are
// fewer.
uint64_t TimeshiftReader::random_place(uint64_t from, uint64_t packets) {
  const uint64_t end = buffer_.stored / kPacket;
  if (end <= from + packets) return from;
  return from + random(end - packets - from);
}

void TimeshiftReader::jump() {
  const auto from =
      static_cast<uint64_t>(round_up(std::max(span_start(), cut_off()), kPacket) / kPacket);
  const uint64_t stored = buffer_.stored / kPacket;
  if (stored <= from) return pause(2);
  const uint64_t wanted = random(63) == 0 ? kLargeRead : 1 + random(kUsualRead);
  const uint64_t place = random_place(from, wanted);
  const auto size = static_cast<size_t>(std::min(wanted, stored - place) * kPacket);
  int64_t at = static_cast<int64_t>(place) * kPacket;
  if (timed([&] { return gst_pvr_file_seek(&handle_->file, at, kFromStart); }) != at) {
    if (at >= cut_off()) return fault(at, "seek failed");
    ++findings_.overtaken;
    return;
  }
  for (uint64_t reads = 1 + random(4); reads > 0 && at >= 0; --reads) {
    if (static_cast<uint64_t>(at) + size > buffer_.stored || buffer_.ended) break;
    at = read_on(at, size);
    if (random(7) == 0) pause(buffer_.hurried ? 3 : 200);
  }
  if (random(3) == 0) check_between_packets(static_cast<int64_t>(place) * kPacket, size);
  if (random(3) == 0) check_size();
  if (random(7) == 0) check_end();
  pause(buffer_.hurried ? 1 : 20);
}

// Reads where the handle stands, which is to be `offset`; whole packets. The result is where it
// stands then, -1 when that cannot be told.
int64_t TimeshiftReader::read_on(int64_t offset, size_t size) {
  bytes_.resize(size);
  const int64_t got = timed(
      [&] { return gst_pvr_file_read(&handle_->file, bytes_.data(), static_cast<gint64>(size)); });
  const int64_t position = timed([this] { return gst_pvr_file_tell(&handle_->file); });
  ++findings_.reads;
  if (got <= 0 || position < 0) {
    fault(offset, format("read gave %lld and tell %lld", static_cast<long long>(got),
                         static_cast<long long>(position)));
    return -1;
  }
  // Asked behind the calls: a cut that came between them is seen here.
  const int64_t cut = cut_off();
  if (offset < cut) return check_overtaken(offset, got, position, cut);
  return check(offset, got, position);
}

int64_t TimeshiftReader::check(int64_t offset, int64_t got, int64_t position) {
  if (position != offset + got) {
    fault(offset, format("tell gave %lld behind a read of %lld bytes",
                         static_cast<long long>(position), static_cast<long long>(got)));
    return -1;
  }
  size_t wrong = 0;
  const auto packets = static_cast<size_t>(got / kPacket);
  const auto first = static_cast<uint64_t>(offset / kPacket);
  switch (buffer_.ledger.compare(first, bytes_.data(), packets, &wrong)) {
    case PacketLedger::Answer::kSame:
      findings_.bytes_verified += packets * kPacket;
      break;
    case PacketLedger::Answer::kUnknown:
      if (cut_off() <= offset) fault(offset, "bytes that were never written");
      break;
    case PacketLedger::Answer::kDifferent:
      fault(offset + static_cast<int64_t>(wrong) * kPacket,
            bytes_[wrong * kPacket] == 0x47 ? "another packet than was written"
                                            : "no sync byte where a packet begins");
      break;
  }
  return got % kPacket == 0 ? position : -1;
}

// The place was cut off before it was read, or while it was: the bytes are its own still, or those
// of the oldest place kept after one of the cuts.
int64_t TimeshiftReader::check_overtaken(int64_t offset, int64_t got, int64_t position,
                                         int64_t cut) {
  ++findings_.overtaken;
  const auto packets = static_cast<size_t>(got / kPacket);
  bool forgotten = false;
  for (int64_t at = offset; at <= cut; at = round_up(at + 1, kUnit)) {
    const auto first = static_cast<uint64_t>(at / kPacket);
    const auto answer = buffer_.ledger.compare(first, bytes_.data(), packets);
    forgotten = forgotten || answer == PacketLedger::Answer::kUnknown;
    if (answer != PacketLedger::Answer::kSame) continue;
    findings_.bytes_verified += packets * kPacket;
    const bool moved_on = position % kUnit == 0 && position <= cut;  // by a cut behind the read
    if (position != at + got && !moved_on) fault(at, "tell is elsewhere behind a cut");
    return position % kPacket == 0 ? position : -1;
  }
  if (!forgotten) fault(offset, "behind a cut, bytes of nowhere");
  return -1;
}

// From the middle of a packet the same bytes must come.
void TimeshiftReader::check_between_packets(int64_t offset, size_t size) {
  bytes_.resize(size);
  again_.resize(size);
  const auto skipped = static_cast<int64_t>(1 + random(kPacket - 2));
  const auto read_at = [this](int64_t at, std::vector<uint8_t> &to, size_t count) {
    if (timed([&] { return gst_pvr_file_seek(&handle_->file, at, kFromStart); }) != at)
      return int64_t{-1};
    return timed(
        [&] { return gst_pvr_file_read(&handle_->file, to.data(), static_cast<gint64>(count)); });
  };
  const int64_t whole = read_at(offset, bytes_, size);
  const int64_t part = read_at(offset + skipped, again_, size - static_cast<size_t>(skipped));
  findings_.reads += 2;
  if (cut_off() > offset) return;
  if (whole <= 0 || part <= 0) return fault(offset, "seek or read failed");
  const auto common = static_cast<size_t>(std::min(whole - skipped, part));
  if (std::memcmp(bytes_.data() + skipped, again_.data(), common) != 0) {
    fault(offset + skipped, "other bytes when read from the middle of a packet");
  }
}

void TimeshiftReader::check_size() {
  const auto before = static_cast<int64_t>(buffer_.stored);
  const int64_t size = timed([this] { return gst_pvr_file_size(&handle_->file); });
  const auto most = static_cast<int64_t>(buffer_.ledger.end()) * kPacket;
  if (size < before || size > most) {
    fault(before, format("a size of %lld", static_cast<long long>(size)));
  }
}

void TimeshiftReader::check_end() {
  const auto before = static_cast<int64_t>(buffer_.stored);
  const int64_t end = timed([this] { return gst_pvr_file_seek(&handle_->file, 0, kFromEnd); });
  const auto most = static_cast<int64_t>(buffer_.ledger.end()) * kPacket;
  if (end < before || end > most)
    fault(before, format("an end at %lld", static_cast<long long>(end)));
}

}  // namespace plexa::pvr
