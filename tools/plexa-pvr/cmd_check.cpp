// cmd_check.cpp - plexa-pvr check: every fault of a recording, with its place.
#include <cstdio>

#include "check.h"
#include "command_line.h"
#include "failure.h"
#include "gstreamer.h"
#include "json.h"
#include "progress.h"
#include "recording.h"
#include "text.h"

namespace plexa::pvr {

extern const Command kCheck;

namespace {

// "GOP 12, index byte 955608, stream byte 123456"
std::string place_text(const Fault &fault) {
  std::string place;
  const auto add = [&](const char *name, const std::optional<gint64> &value) {
    if (!value) return;
    place += format("%s%s %lld", place.empty() ? "" : ", ", name, static_cast<long long>(*value));
  };
  add("GOP", fault.gop);
  add("index byte", fault.index_at);
  add("stream byte", fault.stream_at);
  return place;
}

gint64 check_as_text(Recording &recording, const CheckProgress &progress) {
  gint64 faults = 0;
  check_recording(
      recording,
      [&](const Fault &fault) {
        ++faults;
        std::printf("%s: %s: %s\n", place_text(fault).c_str(), fault.kind, fault.text.c_str());
      },
      progress);
  std::printf(
      "%s: %lld GOPs, %lld packets, %s\n", display(recording.stream_path()).c_str(),
      static_cast<long long>(recording.gops()), static_cast<long long>(recording.stream_packets()),
      faults == 0 ? "sound" : format("%lld faults", static_cast<long long>(faults)).c_str());
  return faults;
}

Json fault_json(const Fault &fault) {
  Json json;
  json.object().add("kind", fault.kind).add("text", fault.text);
  if (fault.gop) json.add("gop", *fault.gop);
  if (fault.index_at) json.add("index_offset", *fault.index_at);
  if (fault.stream_at) json.add("stream_offset", *fault.stream_at);
  json.end();
  return json;
}

gint64 check_as_json(Recording &recording, const CheckProgress &progress) {
  Json head;
  head.object().add("recording", display(recording.stream_path())).end();
  JsonStream stream(head, "faults");
  gint64 faults = 0;
  check_recording(
      recording,
      [&](const Fault &fault) {
        ++faults;
        stream.element(fault_json(fault));
      },
      progress);
  Json tail;
  tail.object()
      .add("complete", recording.complete())
      .add("gops", recording.gops())
      .add("packets", recording.stream_packets())
      .add("fault_count", faults)
      .add("sound", faults == 0)
      .end();
  stream.finish(tail);
  return faults;
}

int run(int argc, char **argv) {
  CommandLine line(kCheck);
  line.add_json();
  if (!line.parse(argc, argv, 1, 1)) return kExitOk;

  Recording recording(line.operand(0));
  start_gstreamer_parsers();
  ProgressBar bar("checking");
  const CheckProgress progress = [&](double share) {
    constexpr double kWhole = 1000;
    bar.update(static_cast<guint64>(share * kWhole), static_cast<guint64>(kWhole));
  };
  const gint64 faults =
      line.json() ? check_as_json(recording, progress) : check_as_text(recording, progress);
  return faults == 0 ? kExitOk : kExitFailure;
}

}  // namespace

const Command kCheck{
    "check", "REC", "Hold the index of a recording against its stream",
    "Looks at every packet and every GOP record: sync bytes, the I-frame at its\n"
    "place, times and packets that rise, lengths, the links from GOP to GOP, channel\n"
    "records, and that both files end together. Prints every fault with its place;\n"
    "the exit status is 1 when there is one. 'plexa-pvr index --repair' mends the\n"
    "index from the first unsound record on.\n"
    "\n"
    "Examples:\n"
    "  plexa-pvr check film.kvf\n"
    "  plexa-pvr check film.kvf --json\n",
    run};

}  // namespace plexa::pvr
