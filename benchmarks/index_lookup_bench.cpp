// index_lookup_bench.cpp - finding GOPs in an index of a million, in the page cache.
//
// Every window that the parser loads begins with one lseek64, which this program defines itself to
// learn where and how often the parser loads.
#include <fcntl.h>
#include <gst-plexa/gst_index_parser.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "fixture.h"
#include "ratio.h"

namespace {
std::vector<off64_t> *places = nullptr;
}

extern "C" __attribute__((visibility("default"))) off64_t lseek64(int fd, off64_t offset,
                                                                  int whence) noexcept {
  if (places != nullptr) places->push_back(offset);
#if defined(__i386__)
  loff_t result = 0;
  return syscall(SYS__llseek, fd, static_cast<unsigned long>(static_cast<uint64_t>(offset) >> 32),
                 static_cast<unsigned long>(offset), &result, whence) == 0
             ? result
             : -1;
#else
  return syscall(SYS_lseek, fd, offset, whence);
#endif
}

namespace {

using plexa_bench::ScratchFile;

constexpr uint32_t kGops = 1000000;
constexpr size_t kWindow = 32 * sizeof(pvr_gop_info_s);

class OpenIndex {
 public:
  explicit OpenIndex(const std::string &path) {
    gst_pvr_file_init(&file_);
    if (gst_pvr_file_open(&file_, path.c_str(), GST_PVR_FILE_READ, GST_PVR_FILE_BUFFER_IO,
                          GST_PVR_FILE_NORMAL, GST_PVR_FILE_INDEX, 0, 0) <= 0) {
      return;
    }
    gst_index_parser_init(&parser_, &file_);
    gst_index_parser_set_mdb_file_type(&parser_, path.c_str());
    ok_ = gst_index_parser_start(&parser_) > 0;
  }
  ~OpenIndex() {
    gst_index_parser_stop(&parser_);
    gst_pvr_file_close(&file_);
    gst_pvr_file_deinit(&file_);
  }
  bool ok() const { return ok_; }
  GstIndexParser *parser() { return &parser_; }

 private:
  GstPvrFile file_{};
  GstIndexParser parser_{};
  bool ok_ = false;
};

struct MillionGops {
  ScratchFile file{"bench-million.mdb"};
  MillionGops() { plexa_bench::write_index(file.path(), kGops, 100); }
};

const std::string &million() {
  static const MillionGops index;
  return index.file.path();
}

std::vector<gint32> random_times(size_t count) {
  std::mt19937 random(20110916);
  std::uniform_int_distribution<gint32> time(0, static_cast<gint32>(kGops) * 500 - 1);
  std::vector<gint32> out(count);
  for (gint32 &t : out) t = time(random);
  return out;
}

void lookup_by_random_time(benchmark::State &state) {
  OpenIndex index(million());
  const int fd = open(million().c_str(), O_RDONLY | O_CLOEXEC);
  if (!index.ok() || fd < 0) return state.SkipWithError("cannot open");
  const auto times = random_times(100);
  const auto look_up = [&] {
    for (const gint32 time : times) {
      const frameData frame = gst_index_parser_get_iframe_by_time(index.parser(), time, 0);
      if (frame.timecode != static_cast<guint32>(time / 500 * 500)) std::abort();
    }
  };
  look_up();  // the state every later pass starts from
  std::vector<off64_t> loads;
  size_t most = 0;
  for (const gint32 time : times) {
    const size_t before = loads.size();
    places = &loads;
    gst_index_parser_get_iframe_by_time(index.parser(), time, 0);
    places = nullptr;
    most = std::max(most, loads.size() - before);
  }
  char window[kWindow];
  plexa_bench::compare(
      state, 2.0,
      [&] {
        for (const off64_t at : loads) {
          benchmark::DoNotOptimize(pread64(fd, window, sizeof window, at));
        }
      },
      look_up);
  state.counters["loads_per_lookup"] = static_cast<double>(loads.size()) / 100.0;
  state.counters["most_loads"] = static_cast<double>(most);
  const double most_allowed = std::ceil(std::log2(kGops / 16.0)) + 2;
  state.counters["most_allowed"] = most_allowed;
  if (static_cast<double>(most) > most_allowed) state.SetLabel("OVER");
  close(fd);
}
BENCHMARK(lookup_by_random_time)->UseManualTime()->Iterations(200);

void walk_forward(benchmark::State &state) {
  OpenIndex index(million());
  if (!index.ok()) return state.SkipWithError("cannot open");
  constexpr int kSteps = 160000;
  std::vector<pvr_gop_info_s> from(kSteps);
  std::vector<pvr_gop_info_s> to(kSteps);
  std::vector<off64_t> loads;
  const auto walk = [&] {
    guint32 time = gst_index_parser_get_iframe_by_time(index.parser(), 0, 0).timecode;
    for (int i = 0; i < kSteps; ++i) {
      const frameData next =
          gst_index_parser_get_iframe_by_time(index.parser(), static_cast<gint32>(time), 1);
      if (next.timecode != time + 500) std::abort();
      time = next.timecode;
    }
  };
  places = &loads;
  walk();
  places = nullptr;
  plexa_bench::compare(
      state, 1e9,
      [&] {
        std::memcpy(to.data(), from.data(), from.size() * sizeof from[0]);
        benchmark::ClobberMemory();
      },
      walk);
  const double per_16 = static_cast<double>(loads.size()) / (kSteps / 16.0);
  state.counters["loads_per_16_gops"] = per_16;
  state.counters["at_most"] = 1.0;
  state.SetLabel(per_16 <= 1.001 ? "within" : "OVER");
}
BENCHMARK(walk_forward)->UseManualTime()->Iterations(5);

}  // namespace

BENCHMARK_MAIN();
