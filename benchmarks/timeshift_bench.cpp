// timeshift_bench.cpp - what a cut costs those who read meanwhile, and what reading a time-shift
// recording costs while nothing is cut.
//
//   PLEXA_BENCH_SMALL=1 timeshift_bench    to see it work: files of a sixteenth, figures worthless
//
// The recordings of 8 GB and 1 GB are allocated to the last block, and only their latest units are
// really written: a cut moves extents about and reads none of them, and unwritten extents are moved
// as written ones are. A minute is 23 MB, and each cut removes one. The floor works on a twin of
// the same size in the same way.
#include <fcntl.h>
#include <gst-plexa/gst_file_shared_info.h>
#include <gst-plexa/gst_pvr_file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "fixture.h"
#include "ppi_pvr_control.h"
#include "ratio.h"

namespace {

using plexa_bench::compare;
using plexa_bench::median;
using plexa_bench::report;
using plexa_bench::ScratchFile;
using plexa_bench::seconds_of;
using Clock = std::chrono::steady_clock;

constexpr int64_t kUnit = 192512;
constexpr int64_t kGopBytes = 188000;  // of 500 ms, as write_index() has them
constexpr int64_t kMinuteUnits = 118;  // a bit more than a minute of the index's stream
constexpr int kCuts = 15;
// The registry admits 100 readers of a recording, and the manager's look at the index is one.
constexpr int kReaders = 99;
constexpr std::chrono::milliseconds kUntilAllWait{20};

int64_t scaled(int64_t size) {
  return std::getenv("PLEXA_BENCH_SMALL") != nullptr ? size / 16 : size;
}

void require(bool condition, const char *what) {
  if (!condition) throw std::runtime_error(what);
}

uint32_t time_of(int64_t bytes) { return static_cast<uint32_t>(bytes / (kGopBytes / 500)); }

int64_t size_of(const std::string &path) {
  struct stat64 status {};
  require(stat64(path.c_str(), &status) == 0, "stat");
  return status.st_size;
}

// Adds allocated, unwritten bytes at the end.
void extend(const std::string &path, int64_t bytes) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  const bool done = fd >= 0 && fallocate64(fd, 0, size_of(path), bytes) == 0 && fsync(fd) == 0;
  close(fd);
  require(done, "cannot allocate the file: is the disk full?");
}

struct FreeMemory {
  void operator()(void *memory) const { std::free(memory); }
};
using Unit = std::unique_ptr<char, FreeMemory>;

Unit new_unit() {
  Unit unit(static_cast<char *>(std::aligned_alloc(4096, kUnit)));
  std::memset(unit.get(), 0x47, kUnit);
  return unit;
}

class OpenFile {
 public:
  OpenFile(const std::string &path, guint32 permission, guint32 io, guint32 type) : path_(path) {
    gst_pvr_file_init(&file_);
    ok_ = gst_pvr_file_open(&file_, path_.c_str(), permission, io, type, GST_PVR_FILE_STREAM, 0,
                            0) == 1;
  }
  ~OpenFile() {
    if (ok_) gst_pvr_file_close(&file_);
    gst_pvr_file_deinit(&file_);
  }
  OpenFile(const OpenFile &) = delete;
  OpenFile &operator=(const OpenFile &) = delete;
  bool ok() const { return ok_; }
  GstPvrFile *get() { return &file_; }

 private:
  std::string path_;
  GstPvrFile file_{};
  bool ok_ = false;
};

// Bytes that this process has caused to be written, by the kernel's account.
int64_t bytes_written() {
  const std::unique_ptr<FILE, decltype(&std::fclose)> io(std::fopen("/proc/self/io", "re"),
                                                         &std::fclose);
  char line[100];
  long long bytes = 0;
  while (io != nullptr && std::fgets(line, sizeof line, io.get()) != nullptr) {
    if (std::sscanf(line, "write_bytes: %lld", &bytes) == 1) return bytes;
  }
  throw std::runtime_error("no /proc/self/io");
}

// ---- A cut of a large recording ----

// Readers that sleep until they are told to ask something of their handle.
class Audience {
 public:
  explicit Audience(const std::string &path) : done_at_(kReaders) {
    for (int i = 0; i < kReaders; ++i) {
      handles_.push_back(std::make_unique<OpenFile>(path, GST_PVR_FILE_READ, GST_PVR_FILE_DIRECT_IO,
                                                    GST_PVR_FILE_TIMESHIFT));
      require(handles_.back()->ok(), "a reader is refused");
      threads_.emplace_back([this, i] { listen(static_cast<size_t>(i)); });
    }
  }
  ~Audience() {
    is_over_ = true;
    call();
    for (std::thread &thread : threads_) thread.join();
  }
  Audience(const Audience &) = delete;
  Audience &operator=(const Audience &) = delete;

  // Returns when all of them are about to ask, or have begun to.
  void ask() {
    asking_ = 0;
    answered_ = 0;
    call();
    await(asking_);
  }

  // When the last of them has its answer.
  Clock::time_point answered() {
    await(answered_);
    require(!has_failed_, "a reader has failed");
    return *std::max_element(done_at_.begin(), done_at_.end());
  }

 private:
  static void await(const std::atomic<int> &count) {
    for (int now = count; now < kReaders; now = count) count.wait(now);
  }

  void call() {
    ++call_;
    call_.notify_all();
  }

  void tell_one(std::atomic<int> &count) {
    if (++count == kReaders) count.notify_all();
  }

  void listen(size_t i) {
    for (int last = 0;;) {
      call_.wait(last);
      last = call_;
      if (is_over_) return;
      tell_one(asking_);
      if (gst_pvr_file_tell(handles_[i]->get()) < 0) has_failed_ = true;
      done_at_[i] = Clock::now();
      tell_one(answered_);
    }
  }

  std::vector<std::unique_ptr<OpenFile>> handles_;
  std::vector<Clock::time_point> done_at_;
  std::atomic<int> call_{0};
  std::atomic<int> asking_{0};
  std::atomic<int> answered_{0};
  std::atomic<bool> is_over_{false};
  std::atomic<bool> has_failed_{false};
  std::vector<std::thread> threads_;
};

class LargeRecording {
 public:
  explicit LargeRecording(int64_t size)
      : stream_("bench-timeshift.kvf"),
        index_("bench-timeshift.mdb"),
        writer_(stream_.path(), GST_PVR_FILE_WRITE, GST_PVR_FILE_DIRECT_IO, GST_PVR_FILE_TIMESHIFT),
        unit_(new_unit()) {
    require(writer_.ok(), "cannot record");
    const int64_t whole = size / kUnit * kUnit;
    const int64_t end = whole + (kCuts + 2) * kMinuteUnits * kUnit;
    plexa_bench::write_index(index_.path(), static_cast<uint32_t>(end / kGopBytes + 100), 10);
    extend(stream_.path(), whole);
    length_ = whole;
    const uint32_t span = time_of(whole);
    GstPvrFile *const file = writer_.get();
    require(file->ops.set_max_time(file, span, span + 60000) == 1, "cannot set the span");
    write_unit();  // the manager opens the index
    audience_.emplace(stream_.path());
  }

  struct Cut {
    double stall;   // seconds from the cut's beginning until the last reader goes on
    int64_t bytes;  // written by the cut alone
  };

  // An operation in flight holds the cut up until every reader waits for its end.
  Cut cut() {
    lengthen(kMinuteUnits - 1);
    const int64_t cut_off = total_cut();
    const int64_t bytes = bytes_written();
    GstSharedInfo *const registry = gst_shared_info_get();
    const auto key = static_cast<guint32>(writer_.get()->var.state.cut.key);
    gst_shared_info_increase_actioncount(registry, key);
    write_unit();
    audience_->ask();
    std::this_thread::sleep_for(kUntilAllWait);
    const Clock::time_point began = Clock::now();
    gst_shared_info_decrease_actioncount(registry, key);
    const std::chrono::duration<double> stall = audience_->answered() - began;
    const Cut result = {stall.count(), bytes_written() - bytes - kUnit};
    require(total_cut() > cut_off, "nothing was cut");
    return result;
  }

 private:
  static int64_t total_cut() {
    return gst_shared_cut_info_get_total_cutoffset(gst_shared_cut_info_get());
  }

  void lengthen(int64_t units) {
    extend(stream_.path(), units * kUnit);
    length_ += units * kUnit;
  }

  void write_unit() {
    // Up to its first cut a writer does not write at the end by itself.
    gst_pvr_file_seek(writer_.get(), 0, SEEK_END);
    gst_pvr_file_set_last_wrote_time(writer_.get(), time_of(length_));
    require(gst_pvr_file_write(writer_.get(), unit_.get(), kUnit) == kUnit, "cannot write");
    length_ += kUnit;
  }

  ScratchFile stream_;
  ScratchFile index_;
  OpenFile writer_;
  Unit unit_;
  int64_t length_ = 0;  // of the recording, with what is cut off
  std::optional<Audience> audience_;
};

// The same with plain system calls: as many descriptors, the platform's own removal.
class Twin {
 public:
  explicit Twin(int64_t size) : file_("bench-twin.kvf"), unit_(new_unit()) {
    close(open(file_.path().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    extend(file_.path(), size / kUnit * kUnit);
    open_all();
  }
  ~Twin() { close_all(); }
  Twin(const Twin &) = delete;
  Twin &operator=(const Twin &) = delete;

  struct Cut {
    double all;
    int64_t bytes;  // written by the removal
  };

  Cut cut() {
    extend(file_.path(), (kMinuteUnits - 1) * kUnit);
    require(write(descriptors_[0], unit_.get(), kUnit) == kUnit, "cannot write the twin");
    Cut result{};
    result.all = seconds_of([&] {
      close_all();
      const int64_t bytes = bytes_written();
      remove_a_minute();
      result.bytes = bytes_written() - bytes;
      open_all();
    });
    return result;
  }

 private:
  void remove_a_minute() {
    const int fd = open(file_.path().c_str(), O_RDWR | O_CLOEXEC);
    pvr_truncate_range_s range{};
    range.end_offset = kMinuteUnits * kUnit;
    require(ppi_pvr_control_file_truncate_range(fd, &range) == 0, "truncate range");
    close(fd);
  }

  void open_all() {
    const char *const path = file_.path().c_str();
    descriptors_[0] = open(path, O_WRONLY | O_APPEND | O_DIRECT | O_NOATIME | O_CLOEXEC);
    for (size_t i = 1; i < descriptors_.size(); ++i) {
      descriptors_[i] = open(path, O_RDONLY | O_DIRECT | O_CLOEXEC);
    }
  }

  void close_all() {
    for (const int fd : descriptors_) {
      fsync(fd);
      close(fd);
    }
  }

  ScratchFile file_;
  Unit unit_;
  std::array<int, kReaders + 1> descriptors_{};
};

struct Figures {
  double stall = 0;
  double floor = 0;
  int64_t bytes = 0;  // the most that any cut has written
  int64_t floor_bytes = 0;
};

Figures measure_cuts(benchmark::State &state, int64_t size) {
  Twin twin(size);
  LargeRecording recording(size);
  twin.cut();
  recording.cut();
  std::vector<double> stalls;
  std::vector<double> floors;
  Figures figures;
  for (auto _ : state) {
    const Twin::Cut floor = twin.cut();
    const LargeRecording::Cut ours = recording.cut();
    floors.push_back(floor.all);
    stalls.push_back(ours.stall);
    figures.bytes = std::max(figures.bytes, ours.bytes);
    figures.floor_bytes = std::max(figures.floor_bytes, floor.bytes);
    state.SetIterationTime(ours.stall);
  }
  figures.stall = median(stalls);
  figures.floor = median(floors);
  return figures;
}

// Later benchmarks compare with what the earlier ones found.
Figures g_8_gb;
Figures g_1_gb;

void stall_of_99_readers(benchmark::State &state, int64_t size, Figures &figures) {
  try {
    figures = measure_cuts(state, scaled(size));
    report(state, figures.floor, figures.stall, 1.2);
  } catch (const std::exception &error) {
    state.SkipWithError(error.what());
  }
}

void stall_8_gb(benchmark::State &state) { stall_of_99_readers(state, 8000000000, g_8_gb); }
void stall_1_gb(benchmark::State &state) { stall_of_99_readers(state, 1000000000, g_1_gb); }
BENCHMARK(stall_8_gb)->UseManualTime()->Iterations(kCuts);
BENCHMARK(stall_1_gb)->UseManualTime()->Iterations(kCuts);

// Neither much longer nor much shorter.
void stall_1_gb_against_8_gb(benchmark::State &state) {
  for (auto _ : state) state.SetIterationTime(g_1_gb.stall);
  if (g_8_gb.stall <= 0 || g_1_gb.stall <= 0) return state.SkipWithError("not measured");
  report(state, std::min(g_8_gb.stall, g_1_gb.stall), std::max(g_8_gb.stall, g_1_gb.stall), 1.5);
}
BENCHMARK(stall_1_gb_against_8_gb)->UseManualTime()->Iterations(1);

void bytes_written_by_a_cut(benchmark::State &state) {
  for (auto _ : state) state.SetIterationTime(1e-6);
  if (g_8_gb.stall <= 0 || g_1_gb.stall <= 0) return state.SkipWithError("not measured");
  const int64_t most = std::max(g_8_gb.bytes, g_1_gb.bytes);
  state.counters["floor_bytes_8_gb"] = static_cast<double>(g_8_gb.floor_bytes);
  state.counters["bytes_8_gb"] = static_cast<double>(g_8_gb.bytes);
  state.counters["bytes_1_gb"] = static_cast<double>(g_1_gb.bytes);
  state.counters["at_most"] = 1e6;
  state.SetLabel(most < 1000000 ? "within" : "OVER");
}
BENCHMARK(bytes_written_by_a_cut)->UseManualTime()->Iterations(1);

// ---- Reading while nothing is cut ----

constexpr int kReads = 32;
constexpr int64_t kReadSize = 2 * kUnit;

void read_all(GstPvrFile *file, char *buffer) {
  for (int i = 0; i < kReads; ++i) {
    if (gst_pvr_file_seek(file, i * kReadSize + 188 * (i * 7 + 1), SEEK_SET) < 0) std::abort();
    if (gst_pvr_file_read(file, buffer, kReadSize) != kReadSize) std::abort();
    benchmark::ClobberMemory();
  }
}

void read_through_cut_file(benchmark::State &state) {
  const ScratchFile scratch("bench-cut-read.kvf", static_cast<uint64_t>((kReads + 2) * kReadSize));
  OpenFile normal(scratch.path(), GST_PVR_FILE_READ, GST_PVR_FILE_DIRECT_IO, GST_PVR_FILE_NORMAL);
  OpenFile cut(scratch.path(), GST_PVR_FILE_READ, GST_PVR_FILE_DIRECT_IO, GST_PVR_FILE_TIMESHIFT);
  if (!normal.ok() || !cut.ok()) return state.SkipWithError("cannot open");
  sync();
  std::vector<char> buffer(kReadSize);
  compare(
      state, 1.05, [&] { read_all(normal.get(), buffer.data()); },
      [&] { read_all(cut.get(), buffer.data()); });
}
BENCHMARK(read_through_cut_file)->UseManualTime()->Iterations(60);

// Readers from the page cache: opened without direct I/O, which holds until the first cut.
class Crowd {
 public:
  Crowd(const std::string &path, int64_t size, int count) : size_(size) {
    for (int i = 0; i < count; ++i) {
      handles_.push_back(std::make_unique<OpenFile>(path, GST_PVR_FILE_READ, GST_PVR_FILE_BUFFER_IO,
                                                    GST_PVR_FILE_TIMESHIFT));
      require(handles_.back()->ok(), "a reader is refused");
    }
  }

  // Seconds for so many reads in all, shared out evenly.
  double read(int reads) {
    const int each = reads / static_cast<int>(handles_.size());
    return seconds_of([&] {
      std::vector<std::thread> threads;
      unsigned seed = 0;
      for (const auto &handle : handles_) {
        threads.emplace_back([this, each, &handle, seed] { read_some(*handle, each, seed); });
        ++seed;
      }
      for (std::thread &thread : threads) thread.join();
    });
  }

 private:
  void read_some(OpenFile &file, int reads, unsigned seed) {
    std::mt19937 engine(seed);
    std::uniform_int_distribution<int64_t> packet(0, (size_ - kUnit) / 188);
    std::vector<char> buffer(kUnit);
    for (int i = 0; i < reads; ++i) {
      if (gst_pvr_file_seek(file.get(), packet(engine) * 188, SEEK_SET) < 0) std::abort();
      if (gst_pvr_file_read(file.get(), buffer.data(), kUnit) != kUnit) std::abort();
    }
  }

  int64_t size_;
  std::vector<std::unique_ptr<OpenFile>> handles_;
};

// The time of as many reads by one: at most 1 / 0.9 of it, that is at least 0.9 of its throughput.
void hundred_readers_against_one(benchmark::State &state) {
  constexpr int kReadsInAll = 20000;
  const int64_t size = scaled(400 * kUnit);
  const ScratchFile scratch("bench-crowd.kvf", static_cast<uint64_t>(size));
  try {
    // One after the other: the registry admits 100 of a recording.
    std::vector<double> one;
    std::vector<double> hundred;
    for (auto _ : state) {
      one.push_back(Crowd(scratch.path(), size, 1).read(kReadsInAll));
      hundred.push_back(Crowd(scratch.path(), size, 100).read(kReadsInAll));
      state.SetIterationTime(hundred.back());
    }
    report(state, median(one), median(hundred), 1 / 0.9);
    const double bytes = static_cast<double>(kReadsInAll) * static_cast<double>(kUnit);
    state.counters["MB_per_s_of_1"] = bytes / median(one) / 1e6;
    state.counters["MB_per_s_of_100"] = bytes / median(hundred) / 1e6;
  } catch (const std::exception &error) {
    state.SkipWithError(error.what());
  }
}
BENCHMARK(hundred_readers_against_one)->UseManualTime()->Iterations(7);

}  // namespace

BENCHMARK_MAIN();
