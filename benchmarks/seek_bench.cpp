// seek_bench.cpp - from a time to the packets of its I-frame, against libavformat's own seeking.
//
//   PLEXA_BENCH_RECORDING=rec.kvf seek_bench
//
// Both open the same file once, in the same process, and answer the same 200 random times in turn,
// in five rounds. A time's figure is the median of its rounds: the 99th percentile is to tell of
// times that are hard to find, not of what else the machine did meanwhile.
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <gst-plexa/gst_index_parser.h>
#include <gst-plexa/gst_pvr_file.h>
#include <gst-plexa/gst_pvr_tools.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "ratio.h"

namespace {

constexpr int kSeeks = 200;
constexpr int kRounds = 5;
constexpr size_t kLargestIframe = 4 << 20;  // bytes; a player keeps its buffer between two seeks

class Recording {
 public:
  explicit Recording(const std::string &path) : path_(path) {
    index_path_.reset(gst_pvr_tool_change_extension(path_.c_str(), ".mdb"));
    gst_pvr_file_init(&stream_);
    gst_pvr_file_init(&index_);
    if (gst_pvr_file_open(&stream_, path_.c_str(), 1, 0, 0, 0, 0, 0) <= 0) return;
    if (gst_pvr_file_open(&index_, index_path_.get(), 1, 0, 0, 1, 0, 0) <= 0) return;
    gst_index_parser_init(&parser_, &index_);
    gst_index_parser_set_mdb_file_type(&parser_, index_path_.get());
    ok_ = gst_index_parser_start(&parser_) > 0;
  }
  ~Recording() {
    gst_index_parser_stop(&parser_);
    gst_pvr_file_close(&index_);
    gst_pvr_file_close(&stream_);
    gst_pvr_file_deinit(&index_);
    gst_pvr_file_deinit(&stream_);
  }
  bool ok() const { return ok_; }
  gint32 duration() { return gst_index_parser_get_total_time(&parser_); }

  // The I-frame's packets in the buffer; true when they begin a PES packet of the video PID.
  bool fetch(gint32 time) {
    const frameData frame = gst_index_parser_get_iframe_by_time(&parser_, time, 0);
    if (frame.is_valid == 0 || frame.length < 188 || frame.length > packets_.size()) return false;
    if (gst_pvr_file_seek(&stream_, static_cast<gint64>(frame.stream_offset), SEEK_SET) < 0) {
      return false;
    }
    if (gst_pvr_file_read(&stream_, packets_.data(), frame.length) != frame.length) return false;
    const unsigned pid = (packets_[1] & 0x1fu) << 8 | packets_[2];
    return packets_[0] == 0x47 && (packets_[1] & 0x40) != 0 && pid == frame.video_pid;
  }

 private:
  std::string path_;
  std::unique_ptr<gchar, decltype(&std::free)> index_path_{nullptr, &std::free};
  GstPvrFile stream_{};
  GstPvrFile index_{};
  GstIndexParser parser_{};
  std::vector<guint8> packets_ = std::vector<guint8>(kLargestIframe);
  bool ok_ = false;
};

class AvFile {
 public:
  explicit AvFile(const std::string &path) {
    if (avformat_open_input(&context_, path.c_str(), nullptr, nullptr) < 0) return;
    if (avformat_find_stream_info(context_, nullptr) < 0) return;
    stream_ = av_find_best_stream(context_, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    packet_ = av_packet_alloc();
  }
  ~AvFile() {
    av_packet_free(&packet_);
    avformat_close_input(&context_);
  }
  bool ok() const { return stream_ >= 0 && packet_ != nullptr; }

  // The first video packet behind the seek; true when it is a key frame.
  bool fetch(gint32 time) {
    const AVStream *const stream = context_->streams[stream_];
    const int64_t start = stream->start_time == AV_NOPTS_VALUE ? 0 : stream->start_time;
    const int64_t at = start + av_rescale_q(time, AVRational{1, 1000}, stream->time_base);
    if (av_seek_frame(context_, stream_, at, AVSEEK_FLAG_BACKWARD) < 0) return false;
    while (av_read_frame(context_, packet_) >= 0) {
      const bool video = packet_->stream_index == stream_;
      const bool key = (packet_->flags & AV_PKT_FLAG_KEY) != 0;
      av_packet_unref(packet_);
      if (video) return key;
    }
    return false;
  }

 private:
  AVFormatContext *context_ = nullptr;
  AVPacket *packet_ = nullptr;
  int stream_ = -1;
};

// What the rounds found, time by time.
class Figures {
 public:
  template <class Fetch>
  void add(size_t which, Fetch &&fetch) {
    bool hit = false;
    seconds_[which].push_back(plexa_bench::seconds_of([&] { hit = fetch(); }));
    misses_[which] += !hit;
  }
  double percentile(double part) const {
    std::vector<double> medians;
    for (const auto &rounds : seconds_) medians.push_back(plexa_bench::median(rounds));
    std::sort(medians.begin(), medians.end());
    return medians[static_cast<size_t>(part * static_cast<double>(kSeeks - 1))];
  }
  // Times that were found in every round.
  int hits() const { return static_cast<int>(std::count(misses_.begin(), misses_.end(), 0)); }

 private:
  std::array<std::vector<double>, kSeeks> seconds_;
  std::array<int, kSeeks> misses_{};
};

void time_to_iframe_packets(benchmark::State &state) {
  const char *const path = std::getenv("PLEXA_BENCH_RECORDING");
  if (path == nullptr) return state.SkipWithError("PLEXA_BENCH_RECORDING names no recording");
  Recording recording(path);
  AvFile av(path);
  if (!recording.ok() || !av.ok()) return state.SkipWithError("cannot open");
  std::mt19937 random(200);
  std::uniform_int_distribution<gint32> time(0, recording.duration() - 1);
  std::vector<gint32> times(kSeeks);
  std::generate(times.begin(), times.end(), [&] { return time(random); });
  Figures ours;
  Figures theirs;
  for (auto _ : state) {
    for (int round = 0; round < kRounds; ++round) {
      for (size_t i = 0; i < times.size(); ++i) {
        theirs.add(i, [&] { return av.fetch(times[i]); });
        ours.add(i, [&] { return recording.fetch(times[i]); });
      }
    }
    state.SetIterationTime(1e-3);
  }
  state.counters["ours_median_us"] = ours.percentile(0.5) * 1e6;
  state.counters["ours_p99_us"] = ours.percentile(0.99) * 1e6;
  state.counters["theirs_median_us"] = theirs.percentile(0.5) * 1e6;
  state.counters["theirs_p99_us"] = theirs.percentile(0.99) * 1e6;
  const double median_gain = theirs.percentile(0.5) / ours.percentile(0.5);
  const double p99_gain = theirs.percentile(0.99) / ours.percentile(0.99);
  state.counters["faster_median"] = median_gain;
  state.counters["faster_p99"] = p99_gain;
  state.counters["at_least"] = 5;
  state.counters["our_iframes"] = ours.hits();
  state.counters["their_iframes"] = theirs.hits();
  state.SetLabel(median_gain >= 5 && p99_gain >= 5 && ours.hits() == kSeeks ? "within" : "OVER");
}
BENCHMARK(time_to_iframe_packets)->UseManualTime()->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
