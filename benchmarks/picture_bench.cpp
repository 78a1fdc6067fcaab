// picture_bench.cpp - from transport packets to coded pictures.
//
// Linked with the library's objects, to reach the inner steps and to take the place of two system
// calls. sync() is left out on both sides: how long the whole machine takes to write everything it
// holds says nothing about this library. fsync() can leave out descriptors opened for reading, see
// thumbnail_file_of_an_hour.
#include <fcntl.h>
#include <gst-plexa/gst_index_parser.h>
#include <gst-plexa/gst_thumbnail_common.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "fixture.h"
#include "gst_thumbnail_internal.h"
#include "ratio.h"

namespace {

bool flush_readers = true;

bool is_reader(int fd) { return (fcntl(fd, F_GETFL) & O_ACCMODE) == O_RDONLY; }

}  // namespace

extern "C" void sync() noexcept {}

extern "C" int fsync(int fd) {
  if (!flush_readers && is_reader(fd)) return 0;
  return static_cast<int>(syscall(SYS_fsync, fd));
}

namespace {

using plexa_bench::compare;
using plexa_bench::ScratchFile;
using Bytes = std::vector<guint8>;

constexpr guint16 kVideoPid = 0x100;
constexpr size_t kPacket = 188;

// An I-frame as a multiplex carries it: one packet in eight is another stream's.
Bytes iframe_packets(size_t packets) {
  Bytes stretch(packets * kPacket, 0xa5);
  for (size_t i = 0; i < packets; ++i) {
    guint8 *const packet = stretch.data() + i * kPacket;
    const guint16 pid = i % 8 == 7 ? 0x101 : kVideoPid;
    packet[0] = 0x47;
    packet[1] = static_cast<guint8>((i == 0 ? 0x40 : 0) | pid >> 8);
    packet[2] = static_cast<guint8>(pid);
    packet[3] = 0x10;
  }
  const guint8 pes_header[] = {0, 0, 1, 0xe0, 0, 0, 0x80, 0x80, 5, 0x21, 0, 1, 0, 1};
  std::memcpy(stretch.data() + 4, pes_header, sizeof pes_header);
  return stretch;
}

void packets_to_picture(benchmark::State &state) {
  const Bytes stretch = iframe_packets(static_cast<size_t>(state.range(0)));
  Bytes copy(stretch.size());
  compare(
      state, 2.5,
      [&] {
        for (int i = 0; i < 100; ++i) {
          std::memcpy(copy.data(), stretch.data(), stretch.size());
          benchmark::ClobberMemory();
        }
      },
      [&] {
        for (int i = 0; i < 100; ++i) {
          plexa::VideoPackets video;
          guint8 *picture = nullptr;
          guint32 size = 0;
          plexa::_gst_thumbnail_filter_video_packets(
              stretch.data(), static_cast<gint32>(stretch.size()), kVideoPid, video);
          if (plexa::_gst_thumbnail_get_iframe_es(video, 0, &picture, &size) != 1) std::abort();
          benchmark::DoNotOptimize(picture);
          std::free(picture);
        }
      });
}
BENCHMARK(packets_to_picture)->Arg(64)->Arg(400)->Arg(2000)->UseManualTime()->Iterations(200);

// A picture as broadcast: access unit delimiter, SPS, PPS, SEI, and then the slice.
Bytes h264_field_picture() {
  Bytes picture = {0, 0, 0, 1, 0x09, 0xf0,                                            // AUD
                   0, 0, 0, 1, 0x67, 77,   0,    30,   0xda, 0x02, 0xd0, 0x48, 0x40,  // SPS
                   0, 0, 0, 1, 0x68, 0xce, 0x3c, 0x80,                                // PPS
                   0, 0, 0, 1, 0x06, 0x06, 0x01, 0xc4, 0x80};                         // SEI
  const Bytes slice = {0, 0, 0, 1, 0x65, 0x88, 0x84, 0x00, 0x33};
  picture.insert(picture.end(), slice.begin(), slice.end());
  picture.resize(60000, 0x5a);
  return picture;
}

void h264_field_check(benchmark::State &state) {
  const Bytes picture = h264_field_picture();
  constexpr double kMost = 3e-6;
  std::vector<double> times;
  for (auto _ : state) {
    const double seconds = plexa_bench::seconds_of([&] {
      for (int i = 0; i < 1000; ++i) {
        benchmark::DoNotOptimize(plexa::h264_parser_field_encoding(
            picture.data(), static_cast<guint32>(picture.size())));
      }
    });
    times.push_back(seconds / 1000);
    state.SetIterationTime(times.back());
  }
  const double ours = plexa_bench::median(times);
  state.counters["ours_us"] = ours * 1e6;
  state.counters["at_most_us"] = kMost * 1e6;
  state.SetLabel(ours < kMost ? "within" : "OVER");
}
BENCHMARK(h264_field_check)->UseManualTime()->Iterations(200);

// A recording of an hour at 3 Mbit/s: 7200 GOPs of 1000 packets, of which the I-frames are there
// and the rest are holes.
class HourOfVideo {
 public:
  static constexpr size_t kIframePackets = 400;

  HourOfVideo() : iframe_(iframe_packets(kIframePackets)) {
    plexa_bench::write_index(index_.path(), 7200, kIframePackets);
    // The benchmark's channel record says H.264; without an SPS a picture is a frame.
    const int fd = open(stream_.path().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    for (int64_t gop = 0; fd >= 0 && gop < 7200; ++gop) {
      if (pwrite64(fd, iframe_.data(), iframe_.size(), gop * 188000) < 0) std::abort();
    }
    if (fd < 0 || ftruncate64(fd, int64_t{7200} * 188000) != 0 || fsync(fd) != 0) std::abort();
    close(fd);
  }

  const std::string &stream() const { return stream_.path(); }
  const std::string &thm() const { return thm_.path(); }
  size_t iframe_size() const { return iframe_.size(); }

 private:
  ScratchFile stream_{"bench-hour.kvf"};
  ScratchFile index_{"bench-hour.mdb"};
  ScratchFile thm_{"bench-hour.thm"};
  ScratchFile tm_{"bench-hour.tm"};
  Bytes iframe_;
};

// The file is on the disk at the end in both: closing a file of a recording means an fsync.
// The floor has no other, as nothing was written to what it reads.
void five_reads_and_a_write(const HourOfVideo &hour, guint8 *aligned, const Bytes &pictures) {
  const int in = open(hour.stream().c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC);
  for (int64_t i = 0; i < 5; ++i) {
    const int64_t at = i * 1440 * 188000;
    const int64_t start = at / 4096 * 4096;
    const int64_t end = (at + static_cast<int64_t>(hour.iframe_size()) + 4095) / 4096 * 4096;
    if (pread64(in, aligned, static_cast<size_t>(end - start), start) < 0) std::abort();
  }
  close(in);
  const int out = open(hour.thm().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (write(out, pictures.data(), pictures.size()) < 0) std::abort();
  fsync(out);
  close(out);
}

// Closing any file of a recording flushes it first, also one that was opened for reading only:
// about twenty flushes a thumbnail file, of which one has anything to write. The others still ask
// the disk, and wait for what somebody else is writing to it. They are kept: a close means the same
// for every handle, and a recording that is being written gets flushed by those who look at it. Two
// rows: all_flushes is the library as it is; writers_flush leaves the flush of descriptors opened
// for reading out on both sides, and so shows what finding, reading and extracting the pictures
// costs.
void thumbnail_file_of_an_hour(benchmark::State &state, bool readers_flush) {
  const HourOfVideo hour;
  guint32 sizes[5] = {};
  gint32 codes[5] = {};
  if (gst_thumbnail_make_recorded_frame_file(hour.stream().c_str(), sizes, codes) != 1) {
    return state.SkipWithError("no thumbnails");
  }
  const Bytes pictures(sizes[0] + sizes[1] + sizes[2] + sizes[3] + sizes[4]);
  const std::unique_ptr<void, decltype(&std::free)> aligned(std::aligned_alloc(4096, 1 << 20),
                                                            &std::free);
  flush_readers = readers_flush;
  compare(
      state, 2.0,
      [&] { five_reads_and_a_write(hour, static_cast<guint8 *>(aligned.get()), pictures); },
      [&] {
        if (gst_thumbnail_make_recorded_frame_file(hour.stream().c_str(), sizes, codes) != 1) {
          std::abort();
        }
      });
  flush_readers = true;
}
BENCHMARK_CAPTURE(thumbnail_file_of_an_hour, all_flushes, true)->UseManualTime()->Iterations(60);
BENCHMARK_CAPTURE(thumbnail_file_of_an_hour, writers_flush, false)->UseManualTime()->Iterations(60);

}  // namespace

BENCHMARK_MAIN();
