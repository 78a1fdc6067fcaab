// cmd_info.cpp - plexa-pvr info: what a recording is.
#include <algorithm>
#include <cstdio>
#include <map>
#include <vector>

#include "channel_text.h"
#include "command_line.h"
#include "failure.h"
#include "json.h"
#include "recording.h"
#include "text.h"

namespace plexa::pvr {

extern const Command kInfo;

namespace {

// The bit rate is looked up for this many GOPs at most, evenly spread.
constexpr gint64 kBitRateLookups = 1000;

struct ChannelUse {
  gint64 gops = 0;
  guint32 first_time = 0;
};

struct Figures {
  gint32 duration = 0;
  guint64 indexed_packets = 0;  // from the first I-frame to the end of the last GOP
  guint64 iframe_bytes = 0;
  guint32 shortest_gop = G_MAXUINT32;  // ms
  guint32 longest_gop = 0;
  std::map<guint16, ChannelUse> channels;  // by slot
  double mean_bit_rate = 0;
  std::vector<gint32> lookup_times;
  std::vector<gint32> bit_rates;  // rising
};

void count_gops(Recording &recording, Figures &figures) {
  guint64 first = 0;
  const gint64 step = (recording.gops() - 1) / kBitRateLookups + 1;
  recording.for_each_gop(0, [&](gint64 number, const pvr_gop_info_s &gop) {
    if (number % step == 0) {
      figures.lookup_times.push_back(static_cast<gint32>(gop.time_code));
    }
    const guint32 length = gop.next_gop_first_time - gop.time_code;
    if (number == 0) first = gop.packet_count;
    figures.indexed_packets = gop.next_gop_first_packet_count - first;
    figures.iframe_bytes += guint64{gop.iframe_size} * guint64{kPacketSize};
    figures.shortest_gop = std::min(figures.shortest_gop, length);
    figures.longest_gop = std::max(figures.longest_gop, length);
    ChannelUse &use = figures.channels[gop.index_of_channel];
    if (use.gops++ == 0) use.first_time = gop.time_code;
    return true;
  });
}

void look_up_bit_rates(Recording &recording, Figures &figures) {
  for (const gint32 time : figures.lookup_times) {
    const gint32 rate = gst_index_parser_get_estimated_bitrate(recording.parser(), time);
    if (rate >= 0) figures.bit_rates.push_back(rate);
  }
  std::sort(figures.bit_rates.begin(), figures.bit_rates.end());
}

Figures figures_of(Recording &recording) {
  Figures figures;
  figures.duration = std::max(recording.duration(), 0);
  count_gops(recording, figures);
  look_up_bit_rates(recording, figures);
  if (figures.duration > 0) {
    figures.mean_bit_rate = static_cast<double>(figures.indexed_packets) *
                            static_cast<double>(kPacketSize) * 8000.0 / figures.duration;
  }
  return figures;
}

const char *state_of(const Recording &recording) {
  if (recording.complete()) return "complete";
  return recording.running() ? "running" : "cut short";
}

void print_channels(Recording &recording, const Figures &figures) {
  std::printf("Channel records:\n");
  for (const auto &[slot, use] : figures.channels) {
    const auto channel = recording.channel(slot);
    std::printf("  slot %d, from %s, %lld GOPs: %s\n", int{slot},
                clock_text(use.first_time).c_str(), static_cast<long long>(use.gops),
                channel ? channel_text(*channel).c_str() : "no such record");
  }
}

void print_bit_rate(const Figures &figures) {
  std::printf("Bit rate:   %s on average",
              bit_rate_text(static_cast<int64_t>(figures.mean_bit_rate)).c_str());
  if (!figures.bit_rates.empty()) {
    std::printf("; by GOP: %s lowest, %s median, %s highest",
                bit_rate_text(figures.bit_rates.front()).c_str(),
                bit_rate_text(figures.bit_rates[figures.bit_rates.size() / 2]).c_str(),
                bit_rate_text(figures.bit_rates.back()).c_str());
  }
  std::printf("\n");
}

void print_text(Recording &recording, const Figures &figures) {
  const auto gops = static_cast<guint64>(recording.gops());
  const auto first = recording.channel(figures.channels.begin()->first);
  std::printf("Recording:  %s\n", display(recording.stream_path()).c_str());
  std::printf("Layout:     %s\n", recording.layout());
  std::printf("State:      %s\n", state_of(recording));
  std::printf("Duration:   %s (%d ms)\n", clock_text(figures.duration).c_str(), figures.duration);
  std::printf("Size:       %s (%lld bytes, %lld packets)\n",
              bytes_text(static_cast<guint64>(recording.stream_size())).c_str(),
              static_cast<long long>(recording.stream_size()),
              static_cast<long long>(recording.stream_packets()));
  std::printf("GOPs:       %llu, %u to %u ms; I-frames of %s on average\n",
              static_cast<unsigned long long>(gops), figures.shortest_gop, figures.longest_gop,
              bytes_text(figures.iframe_bytes / gops).c_str());
  print_bit_rate(figures);
  std::printf("Codec:      %s\n", codec_name(first ? first->video_encode_type : -1));
  if (first) {
    std::printf("PIDs:       video %d, audio %u, PCR %d\n", int{first->video_pid}, first->audio_pid,
                int{first->pcr_pid});
  }
  print_channels(recording, figures);
}

void add_bit_rate(Json &json, const Figures &figures) {
  json.object("bit_rate").add("mean", static_cast<int64_t>(figures.mean_bit_rate));
  if (!figures.bit_rates.empty()) {
    json.add("lowest", figures.bit_rates.front())
        .add("median", figures.bit_rates[figures.bit_rates.size() / 2])
        .add("highest", figures.bit_rates.back());
  }
  json.end();
}

void add_channels(Json &json, Recording &recording, const Figures &figures) {
  json.array("channels");
  for (const auto &[slot, use] : figures.channels) {
    const auto channel = recording.channel(slot);
    json.object();
    if (channel) {
      add_channel(json, slot, *channel);
    } else {
      json.add("slot", int{slot});
    }
    json.add("gops", use.gops).add("first_time_ms", use.first_time).end();
  }
  json.end();
}

void print_json(Recording &recording, const Figures &figures, const std::string &mismatch) {
  const auto gops = static_cast<guint64>(recording.gops());
  Json json;
  json.object()
      .add("recording", display(recording.stream_path()))
      .add("index", display(recording.index_path()))
      .add("layout", recording.layout())
      .add("state", state_of(recording))
      .add("complete", recording.complete())
      .add("duration_ms", figures.duration)
      .add("size", recording.stream_size())
      .add("packets", recording.stream_packets())
      .add("index_size", recording.index_size())
      .add("stored_size", gst_index_parser_get_total_size(recording.parser()))
      .add("gops", recording.gops())
      .add("shortest_gop_ms", figures.shortest_gop)
      .add("longest_gop_ms", figures.longest_gop)
      .add("mean_iframe_length", figures.iframe_bytes / gops);
  add_bit_rate(json, figures);
  add_channels(json, recording, figures);
  if (!mismatch.empty()) json.add("mismatch", mismatch);
  std::fputs(json.end().text().c_str(), stdout);
}

int run(int argc, char **argv) {
  CommandLine line(kInfo);
  line.add_json();
  if (!line.parse(argc, argv, 1, 1)) return kExitOk;

  Recording recording(line.operand(0));
  const Figures figures = figures_of(recording);
  const std::string mismatch = recording.mismatch();
  if (line.json()) {
    print_json(recording, figures, mismatch);
  } else {
    print_text(recording, figures);
  }
  if (!mismatch.empty()) throw Failure(mismatch);
  return kExitOk;
}

}  // namespace

const Command kInfo{
    "info", "REC", "Tell what a recording is",
    "Prints the layout of the index, whether the recording is complete, its duration\n"
    "and size, its GOPs, bit rate, codec, PIDs and channel records.\n"
    "\n"
    "Examples:\n"
    "  plexa-pvr info film.kvf\n"
    "  plexa-pvr info film.mdb --json\n",
    run};

}  // namespace plexa::pvr
