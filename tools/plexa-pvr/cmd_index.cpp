// cmd_index.cpp - plexa-pvr index: the index of a stream file, made anew or repaired.
#include "command_line.h"
#include "failure.h"
#include "interrupt.h"
#include "recorder.h"
#include "recording.h"
#include "recording_work.h"
#include "text.h"

namespace plexa::pvr {

extern const Command kIndex;

namespace {

int run(int argc, char **argv) {
  rec::Options options;
  OptionText program;
  gboolean legacy = FALSE;
  gboolean repair = FALSE;
  CommandLine line(kIndex);
  line.add({"repair", 0, 0, G_OPTION_ARG_NONE, &repair,
            "Keep what is sound and redo only what follows it", nullptr});
  line.add({"program", 0, 0, G_OPTION_ARG_STRING, &program.value,
            "Number of the programme; the first one with video otherwise", "N"});
  line.add({"legacy", 0, 0, G_OPTION_ARG_NONE, &legacy, "Write the legacy index layout", nullptr});
  line.add_json();
  if (!line.parse(argc, argv, 1, 1)) return kExitOk;
  if (program) {
    options.program = static_cast<int>(parse_number("--program", program.text(), 1, 65535));
  }
  options.layout = legacy ? rec::Layout::kLegacy : rec::Layout::kCurrent;

  const RecordingPaths paths = find_recording(line.operand(0), false);
  options.stop = &catch_interrupts();
  rec::Outcome outcome;
  {
    const RecorderProgress progress(repair ? "repairing" : "indexing", options);
    outcome = repair ? rec::repair_index(paths.stream, options)
                     : rec::rebuild_index(paths.stream, options);
  }
  finish_work(paths.stream, outcome, line.json());
  return kExitOk;
}

}  // namespace

const Command kIndex{
    "index", "REC.kvf", "Make the index of a recording anew, or repair it",
    "Makes the index (.mdb) from the stream file: when it is lost or damaged, or was\n"
    "made for another programme. It is written to a temporary file, which replaces\n"
    "the old index only when it is complete. --repair keeps the records that agree\n"
    "with the stream and redoes only the tail that a crash left behind.\n"
    "\n"
    "Examples:\n"
    "  plexa-pvr index film.kvf\n"
    "  plexa-pvr index film.kvf --repair\n",
    run};

}  // namespace plexa::pvr
