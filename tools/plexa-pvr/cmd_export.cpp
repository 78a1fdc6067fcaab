// cmd_export.cpp - plexa-pvr export: a piece of a recording as a transport stream of its own.
#include <algorithm>
#include <cstdio>
#include <vector>

#include "command_line.h"
#include "failure.h"
#include "gstreamer.h"
#include "interrupt.h"
#include "json.h"
#include "output_file.h"
#include "program_tables.h"
#include "progress.h"
#include "recording.h"
#include "text.h"

namespace plexa::pvr {

extern const Command kExport;

namespace {

constexpr gint64 kBlockSize = 16384 * kPacketSize;  // about 3 MB

// What is exported: whole GOPs.
struct Range {
  gint64 first_gop = 0;
  gint64 end_gop = 0;  // behind the last one
  guint32 from = 0;    // ms
  guint32 to = 0;
  gint64 begin = 0;  // packets
  gint64 end = 0;
  int video_pid = 0;
};

// The end of the recording, for a range that reaches it. A recording whose index and stream do not
// end together has no end to rely on.
void end_at_recording(Recording &recording, Range &range) {
  const std::string mismatch = recording.mismatch();
  if (!mismatch.empty()) throw Failure(mismatch);
  const pvr_gop_info_s last = recording.gop(recording.gops() - 1);
  range.end = static_cast<gint64>(last.next_gop_first_packet_count);
  range.to = last.next_gop_first_time;
}

Range range_of(Recording &recording, gint32 from, gint32 to) {
  if (from >= recording.duration()) {
    throw path_failure(recording.stream_path(),
                       format("--from %s lies behind the end, %s", clock_text(from).c_str(),
                              clock_text(recording.duration()).c_str()));
  }
  Range range;
  const gint64 at_or_behind = recording.first_gop_from(from);
  const bool exact = at_or_behind < recording.gops() &&
                     recording.gop(at_or_behind).time_code == static_cast<guint32>(from);
  range.first_gop = exact ? at_or_behind : std::max<gint64>(at_or_behind - 1, 0);
  const pvr_gop_info_s first = recording.gop(range.first_gop);
  range.from = first.time_code;
  range.video_pid = first.video_pid;
  range.end_gop = recording.first_gop_from(to);
  guint64 end = 0;
  if (range.end_gop < recording.gops()) {
    const pvr_gop_info_s behind = recording.gop(range.end_gop);
    end = behind.packet_count;
    range.to = behind.time_code;
  } else {
    end_at_recording(recording, range);
    end = static_cast<guint64>(range.end);
  }
  if (first.packet_count >= end || end > static_cast<guint64>(recording.stream_packets())) {
    throw path_failure(recording.index_path(),
                       "the index says nothing usable about this range (see 'plexa-pvr check')");
  }
  range.begin = static_cast<gint64>(first.packet_count);
  range.end = static_cast<gint64>(end);
  return range;
}

void copy_range(Recording &recording, const Range &range, OutputFile &output,
                const std::atomic<bool> &interrupted) {
  ProgressBar bar("exporting");
  std::vector<guint8> block(static_cast<size_t>(kBlockSize));
  const gint64 end = range.end * kPacketSize;
  gint64 at = range.begin * kPacketSize;
  const gint64 whole = end - at;
  while (at < end) {
    if (interrupted) throw path_failure(output.path(), "interrupted; nothing is written");
    const gint64 want = std::min(kBlockSize, end - at);
    if (recording.stream().read_at(at, block.data(), want) < want) {
      throw path_failure(recording.stream_path(), "has become shorter while it was read");
    }
    output.write(block.data(), static_cast<size_t>(want));
    at += want;
    bar.update(static_cast<guint64>(whole - (end - at)), static_cast<guint64>(whole),
               bytes_text(static_cast<guint64>(whole - (end - at))));
  }
}

void print(const OutputFile &output, const Range &range, size_t table_bytes, bool as_json) {
  const auto bytes =
      static_cast<guint64>((range.end - range.begin) * kPacketSize) + guint64{table_bytes};
  if (!as_json) {
    std::printf("%s: %s to %s, %lld GOPs, %s\n", display(output.path()).c_str(),
                clock_text(range.from).c_str(), clock_text(range.to).c_str(),
                static_cast<long long>(range.end_gop - range.first_gop), bytes_text(bytes).c_str());
    return;
  }
  Json json;
  json.object()
      .add("output", display(output.path()))
      .add("from_ms", range.from)
      .add("to_ms", range.to)
      .add("first_gop", range.first_gop)
      .add("gops", range.end_gop - range.first_gop)
      .add("offset", range.begin * kPacketSize)
      .add("size", bytes)
      .end();
  std::fputs(json.text().c_str(), stdout);
}

int run(int argc, char **argv) {
  OptionText from;
  OptionText to;
  gboolean overwrite = FALSE;
  CommandLine line(kExport);
  line.add({"from", 0, 0, G_OPTION_ARG_STRING, &from.value,
            "Begin with the I-frame at or before T; the first one otherwise", "T"});
  line.add({"to", 0, 0, G_OPTION_ARG_STRING, &to.value,
            "End before the first I-frame at or after T; at the end otherwise", "T"});
  line.add({"overwrite", 0, 0, G_OPTION_ARG_NONE, &overwrite, "Replace an existing file", nullptr});
  line.add_json();
  if (!line.parse(argc, argv, 2, 2)) return kExitOk;
  const gint32 from_time = from ? parse_time("--from", from.text()) : 0;
  const gint32 to_time = to ? parse_time("--to", to.text()) : G_MAXINT32;
  if (from_time >= to_time) throw UsageError("--from must lie before --to");

  Recording recording(line.operand(0));
  refuse_own_files(recording, line.operand(1));
  const std::atomic<bool> &interrupted = catch_interrupts();
  OutputFile output(line.operand(1), overwrite != FALSE);
  const Range range = range_of(recording, from_time, to_time);
  start_gstreamer_parsers();
  const std::vector<uint8_t> tables = find_program_tables(recording, range.begin, range.video_pid);
  if (tables.empty()) {
    throw path_failure(recording.stream_path(),
                       format("no programme tables (PAT, PMT) for video PID %d", range.video_pid));
  }
  output.write(tables.data(), tables.size());
  copy_range(recording, range, output, interrupted);
  output.commit();
  print(output, range, tables.size(), line.json());
  return kExitOk;
}

}  // namespace

const Command kExport{
    "export", "REC OUT.ts", "Take a piece out of a recording as a stream of its own",
    "Copies whole GOPs, behind the programme tables (PAT, PMT) that are in force\n"
    "there, so that players accept OUT.ts as a stream of its own. The recording stays\n"
    "as it is. OUT.ts appears when it is complete; an existing file is replaced only\n"
    "with --overwrite.\n"
    "\n"
    "T is a time: 1500ms, 12.5 (seconds), 1:02.5 or 00:01:02.500.\n"
    "\n"
    "Examples:\n"
    "  plexa-pvr export film.kvf scene.ts --from 12:30 --to 13:00\n"
    "  plexa-pvr export film.kvf rest.ts --from 1:00:00\n",
    run};

}  // namespace plexa::pvr
