// recording_work.cpp - see recording_work.h.
#include "recording_work.h"

#include <cstdio>

#include "failure.h"
#include "json.h"
#include "recording.h"
#include "text.h"

namespace plexa::pvr {
namespace {

void print_count(const char *name, uint64_t count) {
  if (count > 0) std::printf("%-12s%llu\n", name, static_cast<unsigned long long>(count));
}

void print_text(const std::string &stream_path, const rec::Summary &summary) {
  std::printf("Recording:  %s\n", display(stream_path).c_str());
  std::printf("Duration:   %s (%u ms)\n", clock_text(summary.duration_ms).c_str(),
              summary.duration_ms);
  std::printf("Size:       %s (%llu bytes, %llu packets)\n", bytes_text(summary.bytes).c_str(),
              static_cast<unsigned long long>(summary.bytes),
              static_cast<unsigned long long>(summary.packets));
  std::printf("GOPs:       %llu\n", static_cast<unsigned long long>(summary.gops));
  std::printf("Channels:   %u\n", summary.channels);
  print_count("Sync lost:", summary.resyncs);
  print_count("Packet gaps:", summary.continuity_errors);
  print_count("Time jumps:", summary.discontinuities);
  if (!summary.note.empty()) std::printf("Note:       %s\n", summary.note.c_str());
}

void print_json(const std::string &stream_path, const rec::Summary &summary) {
  Json json;
  json.object()
      .add("recording", display(stream_path))
      .add("duration_ms", summary.duration_ms)
      .add("size", summary.bytes)
      .add("packets", summary.packets)
      .add("gops", summary.gops)
      .add("channels", summary.channels)
      .add("resyncs", summary.resyncs)
      .add("continuity_errors", summary.continuity_errors)
      .add("discontinuities", summary.discontinuities)
      .add("disk_full", summary.disk_full);
  if (!summary.note.empty()) json.add("note", display(summary.note));
  std::fputs(json.end().text().c_str(), stdout);
}

}  // namespace

RecorderProgress::RecorderProgress(const char *label, rec::Options &options) : bar_(label) {
  options.progress = [this](const rec::Progress &progress) {
    bar_.update(progress.bytes_in, progress.bytes_total,
                format("%s, %s, %llu GOPs", bytes_text(progress.bytes_in).c_str(),
                       clock_text(progress.recorded_ms).c_str(),
                       static_cast<unsigned long long>(progress.gops)));
  };
}

void finish_work(const std::string &stream_path, const rec::Outcome &outcome, bool json) {
  if (!outcome.ok) throw Failure(display(outcome.error));
  const RecordingPaths paths = find_recording(stream_path);
  if (json) {
    print_json(paths.stream, outcome.summary);
  } else {
    print_text(paths.stream, outcome.summary);
  }
  if (outcome.summary.disk_full) {
    throw path_failure(paths.stream, "the recording was cut short: " + outcome.summary.note);
  }
}

}  // namespace plexa::pvr
