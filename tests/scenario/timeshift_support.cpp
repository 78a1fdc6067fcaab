// timeshift_support.cpp - see timeshift_support.h.
#include "timeshift_support.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "dlog.h"
#include "index_builder.h"
#include "ppi_pvr_control.h"

namespace plexa_test {
namespace {

constexpr gint64 kBusy = GST_CUT_FILE_BUSY;
constexpr auto kBusyWait = std::chrono::milliseconds(1900);  // 2 seconds, less a clock's whims
constexpr int kBusyTries = 60;
constexpr uint32_t kGopStart = 8192;  // no channel records: a small header, written often

std::atomic<int> g_truncations{0};
std::atomic<int64_t> g_bytes_truncated{0};
std::function<int()> g_before_truncation;

bool is_soak() { return std::getenv("PLEXA_SOAK") != nullptr; }

// As direct I/O wants it.
class AlignedUnit {
 public:
  AlignedUnit() : data_(static_cast<uint8_t *>(std::aligned_alloc(4096, kUnit))) {}
  ~AlignedUnit() { std::free(data_); }
  AlignedUnit(const AlignedUnit &) = delete;
  AlignedUnit &operator=(const AlignedUnit &) = delete;
  uint8_t *get() const { return data_; }

 private:
  uint8_t *data_;
};

using Packet = std::array<uint8_t, kPacket>;

Packet packet_of(int64_t number) {
  Packet packet = {0x47, 0x01, 0x00, 0x10};
  for (uint64_t word = 0; word < 23; ++word) {
    const uint64_t value = static_cast<uint64_t>(number) + word * 0x9e3779b97f4a7c15u;
    std::memcpy(packet.data() + 4 + word * sizeof value, &value, sizeof value);
  }
  return packet;
}

// Calls back for each packet that the range touches: packet, first byte wanted of it, how many.
template <class Visit>
bool for_packets(int64_t offset, int64_t size, Visit visit) {
  for (int64_t done = 0; done < size;) {
    const int64_t number = (offset + done) / kPacket;
    const int64_t first = (offset + done) % kPacket;
    const int64_t count = std::min(kPacket - first, size - done);
    const Packet packet = packet_of(number);
    if (!visit(packet.data() + first, done, static_cast<size_t>(count))) return false;
    done += count;
  }
  return true;
}

}  // namespace

int count_of(int small, int full) {
  if (is_soak()) return full;
#if defined(__SANITIZE_THREAD__)
  return (small + 2) / 3;
#else
  return small;
#endif
}

// ---- The stream ----

void fill_stream(int64_t offset, uint8_t *data, int64_t size) {
  for_packets(offset, size, [&](const uint8_t *bytes, int64_t at, size_t count) {
    std::memcpy(data + at, bytes, count);
    return true;
  });
}

bool is_stream(int64_t offset, const uint8_t *data, int64_t size) {
  return for_packets(offset, size, [&](const uint8_t *bytes, int64_t at, size_t count) {
    return std::memcmp(data + at, bytes, count) == 0;
  });
}

int64_t offset_of_packet(const uint8_t *packet) {
  int64_t number = 0;
  std::memcpy(&number, packet + 4, sizeof number);
  return number * kPacket;
}

std::optional<int64_t> start_of_stream_file(const std::string &path) {
  const std::unique_ptr<FILE, decltype(&std::fclose)> file(std::fopen(path.c_str(), "rbe"),
                                                           &std::fclose);
  if (file == nullptr) return {};
  std::vector<uint8_t> block(kUnit);
  std::optional<int64_t> start;
  int64_t at = 0;
  while (const size_t got = std::fread(block.data(), 1, block.size(), file.get())) {
    const auto size = static_cast<int64_t>(got);
    if (size % kPacket != 0) return {};
    if (!start) start = offset_of_packet(block.data());
    if (!is_stream(*start + at, block.data(), size)) return {};
    at += size;
  }
  return start;
}

bool is_made_of_units(const std::string &path) {
  const std::unique_ptr<FILE, decltype(&std::fclose)> file(std::fopen(path.c_str(), "rbe"),
                                                           &std::fclose);
  if (file == nullptr) return false;
  std::vector<uint8_t> unit(kUnit);
  size_t got = 0;
  while ((got = std::fread(unit.data(), 1, unit.size(), file.get())) == unit.size()) {
    if (!is_stream(offset_of_packet(unit.data()), unit.data(), kUnit)) return false;
  }
  return got == 0;
}

int64_t bytes_cut_off() {
  return gst_shared_cut_info_get_total_cutoffset(gst_shared_cut_info_get());
}

// ---- Complaints ----

void Complaints::add(const char *format, ...) {
  std::array<char, 400> text{};
  va_list args;
  va_start(args, format);
  std::vsnprintf(text.data(), text.size(), format, args);
  va_end(args);
  const std::lock_guard guard(mutex_);
  texts_.emplace_back(text.data());
}

std::string Complaints::text() const {
  const std::lock_guard guard(mutex_);
  std::string all;
  for (size_t i = 0; i < std::min<size_t>(texts_.size(), 20); ++i) all += texts_[i] + "\n";
  if (texts_.size() > 20) all += "... " + std::to_string(texts_.size()) + " in all\n";
  return all;
}

// ---- The platform's truncate call ----

int truncations() { return g_truncations.load(); }

int64_t bytes_truncated() { return g_bytes_truncated.load(); }

void before_truncation(std::function<int()> action) { g_before_truncation = std::move(action); }

// ---- Handles ----

Handle::Handle() { gst_pvr_file_init(&file_); }

Handle::~Handle() {
  if (is_open_) close();
  gst_pvr_file_deinit(&file_);
}

gint64 Handle::opened(gint64 result) {
  is_open_ = result >= 0;
  return result;
}

gint64 Handle::open_to_write(const std::string &path, Options options) {
  path_ = path;
  return opened(gst_pvr_file_open(&file_, path_.c_str(), GST_PVR_FILE_WRITE,
                                  options.direct ? GST_PVR_FILE_DIRECT_IO : GST_PVR_FILE_BUFFER_IO,
                                  GST_PVR_FILE_TIMESHIFT, GST_PVR_FILE_STREAM,
                                  options.append ? 1 : 0, options.atsc3 ? 1 : 0));
}

gint64 Handle::open_to_read(const std::string &path) {
  path_ = path;
  return opened(gst_pvr_file_open(&file_, path_.c_str(), GST_PVR_FILE_READ, GST_PVR_FILE_DIRECT_IO,
                                  GST_PVR_FILE_TIMESHIFT, GST_PVR_FILE_STREAM, 0, 0));
}

gint64 Handle::close() {
  gint64 result = kBusy;
  for (int i = 0; i < kBusyTries && result == kBusy; ++i) result = gst_pvr_file_close(&file_);
  is_open_ = false;
  return result;
}

gint64 patiently(Complaints &complaints, const char *what, const std::function<gint64()> &call) {
  for (int i = 0; i < kBusyTries; ++i) {
    const auto began = std::chrono::steady_clock::now();
    const gint64 result = call();
    if (result != kBusy) return result;
    if (std::chrono::steady_clock::now() - began < kBusyWait) {
      complaints.add("%s gives -3 without having waited", what);
    }
  }
  complaints.add("%s: the cut never ends", what);
  return kBusy;
}

// ---- The writer's side ----

IndexWriter::~IndexWriter() { close(); }

bool IndexWriter::write(const void *data, size_t size) {
  if (descriptor_ >= 0) return ::write(descriptor_, data, size) == static_cast<ssize_t>(size);
  return gst_pvr_file_write(handle_.get(), data, static_cast<gint64>(size)) ==
         static_cast<gint64>(size);
}

bool IndexWriter::open(const std::string &path, Way way) {
  if (way == Way::kDescriptor) {
    descriptor_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (descriptor_ < 0) return false;
  } else if (gst_pvr_file_open(handle_.get(), path.c_str(), GST_PVR_FILE_WRITE,
                               GST_PVR_FILE_BUFFER_IO, GST_PVR_FILE_TIMESHIFT, GST_PVR_FILE_INDEX,
                               0, 0) != 1) {
    return false;
  }
  const std::vector<uint8_t> header = IndexBuilder().gop_start(kGopStart).bytes();
  return write(header.data(), header.size());
}

bool IndexWriter::append(const pvr_gop_info_s &gop) { return write(&gop, sizeof gop); }

void IndexWriter::close() {
  if (descriptor_ >= 0) ::close(descriptor_);
  descriptor_ = -1;
  if (handle_.get()->is_opened != 0) handle_.close();
}

Recording::Recording(const std::string &stem, Shape shape)
    : path_(stem + ".kvf"), index_path_(stem + ".mdb"), shape_(std::move(shape)) {
  if (shape_.time_of) return;
  shape_.time_of = [](int64_t packet) {
    return static_cast<uint32_t>(packet * 1000 / kUnitPackets);
  };
}

Recording::~Recording() { close(); }

bool Recording::open(Handle::Options options) {
  if (writer_.open_to_write(path_, options) != 1) return false;
  return index_.open(index_path_, shape_.index_way);
}

bool Recording::set_span(Handle &writer, uint32_t keep, uint32_t first_cut) {
  return writer.get()->ops.set_max_time(writer.get(), keep, first_cut) == 1;
}

// Only groups that are on disk in full.
bool Recording::list_gops() {
  const int64_t packets = written_.load() / kPacket;
  for (; next_gop_ + shape_.gop_packets <= packets; next_gop_ += shape_.gop_packets) {
    const int64_t end = next_gop_ + shape_.gop_packets;
    pvr_gop_info_s gop{};
    gop.time_code = shape_.time_of(next_gop_);
    gop.packet_count = static_cast<uint64_t>(next_gop_);
    gop.pts = uint64_t{90} * gop.time_code;
    gop.iframe_size = 10;
    gop.video_pid = 0x100;
    gop.exist_seq_header = 1;
    gop.next_gop_first_time = shape_.time_of(end);
    gop.next_gop_first_packet_count = static_cast<uint64_t>(end);
    gop.next_gop_pts = uint64_t{90} * gop.next_gop_first_time;
    gop.last_frame_time = gop.next_gop_first_time - 1;
    gop.last_frame_packet_count = static_cast<uint64_t>(end - 1);
    if (!index_.append(gop)) return false;
  }
  return true;
}

gint64 Recording::write_unit(Handle &writer) {
  const AlignedUnit unit;
  const int64_t at = written_.load();
  if (!list_gops()) return -1;
  fill_stream(at, unit.get(), kUnit);
  gst_pvr_file_set_last_wrote_time(writer.get(), shape_.time_of(at / kPacket));
  begun_.store(at + kUnit);
  const gint64 result = gst_pvr_file_write(writer.get(), unit.get(), kUnit);
  if (result == kUnit) {
    written_.store(at + kUnit);
  } else {
    begun_.store(at);
  }
  return result;
}

gint64 Recording::write_again(Handle &writer) {
  const AlignedUnit unit;
  const int64_t at = written_.load();
  fill_stream(std::max<int64_t>(at - kUnit, 0), unit.get(), kUnit);
  gst_pvr_file_set_last_wrote_time(writer.get(), shape_.time_of(at / kPacket));
  return gst_pvr_file_write(writer.get(), unit.get(), kUnit);
}

bool Recording::write_units(int count) {
  for (int i = 0; i < count; ++i) {
    gint64 result = kBusy;
    for (int tries = 0; tries < kBusyTries && result == kBusy; ++tries) result = write_unit();
    if (result != kUnit) return false;
  }
  return true;
}

bool Recording::skip_units(int64_t count) {
  struct stat64 status {};
  if (stat64(path_.c_str(), &status) != 0) return false;
  if (truncate64(path_.c_str(), status.st_size + count * kUnit) != 0) return false;
  // Until its first cut a writer does not write at the end by itself.
  if (gst_pvr_file_seek(writer_.get(), 0, SEEK_END) < 0) return false;
  begun_ += count * kUnit;
  written_ += count * kUnit;
  return true;
}

bool Recording::write_until_a_cut_begins(int most) {
  for (int i = 0; i < most; ++i) {
    if (!write_units(1)) return false;
    if (is_cutting()) return true;
  }
  return false;
}

gint64 Recording::close() {
  index_.close();
  return writer_.is_open() ? writer_.close() : -1;
}

bool Recording::is_cutting() {
  const gint32 key = writer_.get()->var.state.cut.key;
  return gst_shared_info_is_progressing_cut(gst_shared_info_get(), static_cast<guint32>(key)) != 0;
}

void Recording::wait_for_cut() {
  while (is_cutting()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  // A cut that failed has taken its mark back, but may still be at work: operations wait for that.
  while (gst_pvr_file_tell(writer_.get()) == kBusy) {
  }
}

// ---- The readers' side ----

Reader::Reader(const Recording &recording, Complaints &complaints, unsigned seed)
    : recording_(recording), complaints_(complaints), engine_(seed), buffer_(2 * kUnit) {}

int64_t Reader::random(int64_t below) {
  return std::uniform_int_distribution<int64_t>(0, std::max<int64_t>(below - 1, 0))(engine_);
}

gint64 Reader::call(const char *what, const std::function<gint64()> &operation) {
  return patiently(complaints_, what, operation);
}

// There, or moved to what was the oldest byte after a cut: a whole number of units.
bool Reader::stands_at(int64_t position) const {
  return position == position_ ||
         (position > position_ && position % kUnit == 0 && position <= bytes_cut_off());
}

void Reader::check_position(const char *what, gint64 position) {
  if (!stands_at(position)) {
    complaints_.add("%s gives %lld at %lld, cut off %lld", what, static_cast<long long>(position),
                    static_cast<long long>(position_), static_cast<long long>(bytes_cut_off()));
  }
  position_ = position;
}

void Reader::jump() {
  // Cuts may come before the seek, so the oldest quarter is left alone.
  const int64_t oldest = bytes_cut_off();
  const int64_t live = recording_.written();
  const int64_t span = live - oldest;
  const int64_t target = oldest + span / 4 + random(span - span / 4);
  switch (random(3)) {
    case 0:
      return jump_to(target);
    case 1:
      return step_by(std::max<int64_t>(target - position_, 0));
    default:
      return jump_back_from_end(live - target);
  }
}

void Reader::jump_to(int64_t target) {
  const gint64 result = call_seek(target, SEEK_SET);
  if (result < 0 && target < bytes_cut_off()) return;  // overtaken
  position_ = target;
  check_position("seek", result);
}

void Reader::step_by(int64_t step) {
  const gint64 result = call_seek(step, SEEK_CUR);
  check_position("seek on", result - step);
  position_ = result;
}

void Reader::jump_back_from_end(int64_t distance) {
  const int64_t written = recording_.written();
  const gint64 result = call_seek(-distance, SEEK_END);
  const int64_t begun = recording_.begun();
  if (result + distance < written || result + distance > begun) {
    complaints_.add("seek %lld from the end gives %lld, written %lld to %lld",
                    static_cast<long long>(-distance), static_cast<long long>(result),
                    static_cast<long long>(written), static_cast<long long>(begun));
  }
  position_ = result;
}

gint64 Reader::call_seek(int64_t offset, int whence) {
  return call("seek", [&] { return gst_pvr_file_seek(handle_.get(), offset, whence); });
}

void Reader::read() {
  const int64_t wanted = kPacket + random(static_cast<int64_t>(buffer_.size()) - kPacket);
  const int64_t written = recording_.written();
  const gint64 got =
      call("read", [&] { return gst_pvr_file_read(handle_.get(), buffer_.data(), wanted); });
  if (got < 0) return complaints_.add("read gives %lld", static_cast<long long>(got));
  if (got == 0) return check_end(written);
  find_place_of(got);
  if (got < wanted && position_ + got < written) {
    complaints_.add("%lld bytes at %lld of %lld", static_cast<long long>(got),
                    static_cast<long long>(position_), static_cast<long long>(written));
  }
  position_ += got;
  bytes_read_ += got;
}

// A reader that a cut had moved forward may have stepped beyond the end: reading there takes it
// back to the end.
void Reader::check_end(int64_t written) {
  const gint64 end = call("tell", [&] { return gst_pvr_file_tell(handle_.get()); });
  if (end < written || end > position_) {
    complaints_.add("nothing at %lld of %lld, then at %lld", static_cast<long long>(position_),
                    static_cast<long long>(written), static_cast<long long>(end));
  }
  position_ = end;
}

// What was read belongs where the reader stood, or where a cut has moved it.
void Reader::find_place_of(int64_t size) {
  if (is_stream(position_, buffer_.data(), size)) return;
  const int64_t oldest = bytes_cut_off();
  for (int64_t place = (position_ / kUnit + 1) * kUnit; place <= oldest; place += kUnit) {
    if (!is_stream(place, buffer_.data(), size)) continue;
    position_ = place;
    return;
  }
  complaints_.add("wrong bytes: %lld at %lld, first packet %lld, cut off %lld",
                  static_cast<long long>(size), static_cast<long long>(position_),
                  static_cast<long long>(offset_of_packet(buffer_.data())),
                  static_cast<long long>(oldest));
}

void Reader::tell() {
  check_position("tell", call("tell", [&] { return gst_pvr_file_tell(handle_.get()); }));
}

void Reader::size() {
  const int64_t written = recording_.written();
  const gint64 size = call("size", [&] { return gst_pvr_file_size(handle_.get()); });
  const int64_t begun = recording_.begun();
  if (size >= written && size <= begun) return;
  complaints_.add("size gives %lld, written %lld to %lld", static_cast<long long>(size),
                  static_cast<long long>(written), static_cast<long long>(begun));
}

void Reader::look_around(int steps) {
  for (int i = 0; i < steps; ++i) {
    switch (random(6)) {
      case 0:
        jump();
        break;
      case 1:
        tell();
        break;
      case 2:
        size();
        break;
      default:
        read();
    }
  }
}

void Reader::follow(const std::atomic<bool> &stop) {
  while (!stop) {
    const int64_t before = bytes_read_;
    read();
    if (bytes_read_ == before) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

// Bytes that were read, fewer than a packet at the live end.
int64_t Reader::read_from_unit() {
  const gint64 got = call("read", [&] {
    return gst_pvr_file_read(handle_.get(), buffer_.data(), static_cast<gint64>(buffer_.size()));
  });
  if (got < 0) complaints_.add("read gives %lld", static_cast<long long>(got));
  if (got < kPacket) {
    call_seek(-random(8) * kUnit, SEEK_END);
  } else {
    bytes_read_ += got;
  }
  return got;
}

void Reader::read_unbroken() {
  const int64_t got = read_from_unit();
  if (got < kPacket) return;
  const int64_t place = offset_of_packet(buffer_.data());
  if (is_stream(place, buffer_.data(), got)) return;
  complaints_.add("broken bytes: %lld from packet %lld on", static_cast<long long>(got),
                  static_cast<long long>(place / kPacket));
}

void Reader::read_unbroken_units() {
  const int64_t got = read_from_unit();
  for (int64_t at = 0; at + kUnit <= got; at += kUnit) {
    const int64_t place = offset_of_packet(buffer_.data() + at);
    if (is_stream(place, buffer_.data() + at, kUnit)) continue;
    complaints_.add("broken unit: packet %lld", static_cast<long long>(place / kPacket));
  }
}

// ---- Threads ----

void Threads::start(std::function<void(const std::atomic<bool> &stop)> work) {
  threads_.emplace_back([this, work = std::move(work)] { work(stop_); });
}

void Threads::run(const std::function<void()> &work) {
  start([work](const std::atomic<bool> &stop) {
    while (!stop) work();
  });
}

void Threads::stop() {
  stop_ = true;
  for (std::thread &thread : threads_) thread.join();
  threads_.clear();
}

}  // namespace plexa_test

// ---- The platform, as these programs have it ----

// Quiet, and without a lock that could hide a race.
extern "C" __attribute__((visibility("default"))) int __dlog_print(int, int priority, const char *,
                                                                   const char *format, ...) {
  static const bool is_wanted = std::getenv("PLEXA_TIMESHIFT_LOG") != nullptr;
  if (!is_wanted) return 0;
  std::array<char, 1000> text{};
  va_list args;
  va_start(args, format);
  std::vsnprintf(text.data(), text.size(), format, args);
  va_end(args);
  return std::fprintf(stderr, "%d %s\n", priority, text.data());
}

extern "C" __attribute__((visibility("default"))) int ppi_pvr_control_file_truncate_range(
    int fd, const pvr_truncate_range_s *request) {
  using Function = int (*)(int, const pvr_truncate_range_s *);
  static const auto hosts_own =
      reinterpret_cast<Function>(dlsym(RTLD_NEXT, "ppi_pvr_control_file_truncate_range"));
  if (plexa_test::g_before_truncation) {
    if (const int error = plexa_test::g_before_truncation(); error != 0) {
      errno = error;
      return -1;
    }
  }
  const int result = hosts_own(fd, request);
  if (result == 0) {
    ++plexa_test::g_truncations;
    plexa_test::g_bytes_truncated += request->end_offset - request->start_offset;
  }
  return result;
}
