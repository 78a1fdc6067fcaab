// cmd_frames.cpp - plexa-pvr frames: the I-frames of a recording.
#include <cstdio>

#include "channel_text.h"
#include "command_line.h"
#include "failure.h"
#include "json.h"
#include "recording.h"
#include "text.h"

namespace plexa::pvr {

extern const Command kFrames;

namespace {

struct Range {
  gint32 from = 0;
  gint32 to = G_MAXINT32;
};

// Calls visit(number, record) for the GOPs that begin inside the range.
template <class Visit>
void for_each_in(Recording &recording, const Range &range, Visit visit) {
  recording.for_each_gop(recording.first_gop_from(range.from),
                         [&](gint64 number, const pvr_gop_info_s &gop) {
                           if (gop.time_code >= static_cast<guint32>(range.to)) return false;
                           visit(number, gop);
                           return true;
                         });
}

void print_text(Recording &recording, const Range &range) {
  std::printf("%8s  %13s  %12s  %14s  %9s  %7s\n", "number", "time", "pts", "offset", "length",
              "channel");
  for_each_in(recording, range, [](gint64 number, const pvr_gop_info_s &gop) {
    std::printf("%8lld  %13s  %12llu  %14llu  %9llu  %7d\n", static_cast<long long>(number),
                clock_text(gop.time_code).c_str(), static_cast<unsigned long long>(gop.pts),
                static_cast<unsigned long long>(gop.packet_count * guint64{kPacketSize}),
                static_cast<unsigned long long>(gop.iframe_size * guint64{kPacketSize}),
                int{gop.index_of_channel});
  });
}

void print_json(Recording &recording, const Range &range) {
  Json head;
  head.object().add("recording", display(recording.stream_path())).end();
  JsonStream stream(head, "frames");
  for_each_in(recording, range, [&](gint64 number, const pvr_gop_info_s &gop) {
    Json frame;
    frame.object();
    add_gop(frame, number, gop);
    stream.element(frame.end());
  });
  Json tail;
  stream.finish(tail.object().add("complete", recording.complete()).end());
}

int run(int argc, char **argv) {
  OptionText from;
  OptionText to;
  CommandLine line(kFrames);
  line.add({"from", 0, 0, G_OPTION_ARG_STRING, &from.value, "I-frames at or after this time", "T"});
  line.add({"to", 0, 0, G_OPTION_ARG_STRING, &to.value, "I-frames before this time", "T"});
  line.add_json();
  if (!line.parse(argc, argv, 1, 1)) return kExitOk;
  Range range;
  if (from) range.from = parse_time("--from", from.text());
  if (to) range.to = parse_time("--to", to.text());
  if (range.from >= range.to) throw UsageError("--from must lie before --to");

  Recording recording(line.operand(0));
  const std::string mismatch = recording.mismatch();
  if (line.json()) {
    print_json(recording, range);
  } else {
    print_text(recording, range);
  }
  if (!mismatch.empty()) throw Failure(mismatch);
  return kExitOk;
}

}  // namespace

const Command kFrames{
    "frames", "REC", "List the I-frames of a recording",
    "Prints, for every I-frame: its number, its time, its presentation time stamp\n"
    "(90 kHz), its byte offset in the stream file, its length in bytes and the slot\n"
    "of its channel record.\n"
    "\n"
    "T is a time: 1500ms, 12.5 (seconds), 1:02.5 or 00:01:02.500.\n"
    "\n"
    "Examples:\n"
    "  plexa-pvr frames film.kvf\n"
    "  plexa-pvr frames film.kvf --from 10:00 --to 10:30 --json\n",
    run};

}  // namespace plexa::pvr
