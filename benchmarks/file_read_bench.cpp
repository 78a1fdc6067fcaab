// file_read_bench.cpp - reading through the handle against the same system calls.
#include <fcntl.h>
#include <gst-plexa/gst_pvr_file.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "fixture.h"
#include "ratio.h"

namespace {

using plexa_bench::compare;
using plexa_bench::ScratchFile;

class OpenPvrFile {
 public:
  OpenPvrFile(const std::string &path, guint32 io) {
    gst_pvr_file_init(&file_);
    ok_ = gst_pvr_file_open(&file_, path.c_str(), GST_PVR_FILE_READ, io, GST_PVR_FILE_NORMAL,
                            GST_PVR_FILE_STREAM, 0, 0) > 0;
  }
  ~OpenPvrFile() {
    gst_pvr_file_close(&file_);
    gst_pvr_file_deinit(&file_);
  }
  bool ok() const { return ok_; }
  GstPvrFile *get() { return &file_; }

 private:
  GstPvrFile file_{};
  bool ok_ = false;
};

void buffered_read(benchmark::State &state, double limit) {
  const auto block = static_cast<size_t>(state.range(0));
  const uint64_t size = uint64_t{192512} * 64;
  const ScratchFile scratch("bench-read.kvf", size);
  std::vector<char> buffer(block);
  const int fd = open(scratch.path().c_str(), O_RDONLY | O_CLOEXEC);
  OpenPvrFile file(scratch.path(), GST_PVR_FILE_BUFFER_IO);
  if (fd < 0 || !file.ok()) return state.SkipWithError("cannot open");
  compare(
      state, limit,
      [&] {
        lseek64(fd, 0, SEEK_SET);
        while (read(fd, buffer.data(), block) > 0) benchmark::ClobberMemory();
      },
      [&] {
        gst_pvr_file_seek(file.get(), 0, SEEK_SET);
        while (gst_pvr_file_read(file.get(), buffer.data(), static_cast<gint64>(block)) > 0) {
          benchmark::ClobberMemory();
        }
      });
  close(fd);
}

void read_large_blocks(benchmark::State &state) { buffered_read(state, 1.03); }
void read_small_blocks(benchmark::State &state) { buffered_read(state, 1.25); }
BENCHMARK(read_large_blocks)->Arg(192512)->UseManualTime()->Iterations(400);
BENCHMARK(read_small_blocks)->Arg(4096)->UseManualTime()->Iterations(200);

// 385024 bytes a call at positions that are multiples of 188 and no multiples of a block.
void read_direct_at_packets(benchmark::State &state) {
  constexpr int64_t kSize = 385024;
  constexpr int64_t kBlock = 4096;
  constexpr int kCalls = 32;
  const ScratchFile scratch("bench-direct.kvf", uint64_t{kSize} * (kCalls + 2));
  std::vector<char> buffer(kSize);
  const int fd = open(scratch.path().c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC);
  OpenPvrFile file(scratch.path(), GST_PVR_FILE_DIRECT_IO);
  if (fd < 0 || !file.ok()) return state.SkipWithError("cannot open");
  fsync(fd);
  // Memory of the floor's own could lie in fewer pieces, or in more, and the disk would take a
  // third less time for it, or more.
  char *const bounce = static_cast<char *>(file.get()->tpbuf);
  const auto position = [](int call) { return call * kSize + int64_t{188} * (call * 7 + 1); };
  compare(
      state, 1.15,
      [&] {
        for (int call = 0; call < kCalls; ++call) {
          const int64_t at = position(call);
          const int64_t start = at / kBlock * kBlock;
          const int64_t end = (at + kSize + kBlock - 1) / kBlock * kBlock;
          if (pread64(fd, bounce, static_cast<size_t>(end - start), start) < 0) std::abort();
          std::memcpy(buffer.data(), bounce + (at - start), kSize);
          benchmark::ClobberMemory();
        }
      },
      [&] {
        for (int call = 0; call < kCalls; ++call) {
          gst_pvr_file_seek(file.get(), position(call), SEEK_SET);
          if (gst_pvr_file_read(file.get(), buffer.data(), kSize) != kSize) std::abort();
          benchmark::ClobberMemory();
        }
      });
  close(fd);
}
BENCHMARK(read_direct_at_packets)->UseManualTime()->Iterations(40);

}  // namespace

BENCHMARK_MAIN();
