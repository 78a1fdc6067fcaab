// cmd_record.cpp - plexa-pvr record: a recording of a transport stream.
#include "command_line.h"
#include "cut_journal.h"
#include "failure.h"
#include "input_file.h"
#include "interrupt.h"
#include "recorder.h"
#include "recording_work.h"
#include "text.h"

namespace plexa::pvr {

extern const Command kRecord;

namespace {

int run(int argc, char **argv) {
  rec::Options options;
  OptionText program;
  gboolean legacy = FALSE;
  gboolean direct = FALSE;
  gboolean overwrite = FALSE;
  gboolean follow = FALSE;
  CommandLine line(kRecord);
  line.add({"program", 0, 0, G_OPTION_ARG_STRING, &program.value,
            "Number of the programme; the first one with video otherwise", "N"});
  line.add({"legacy", 0, 0, G_OPTION_ARG_NONE, &legacy, "Write the legacy index layout", nullptr});
  line.add({"direct", 0, 0, G_OPTION_ARG_NONE, &direct, "Write the stream file past the page cache",
            nullptr});
  line.add(
      {"overwrite", 0, 0, G_OPTION_ARG_NONE, &overwrite, "Replace an existing recording", nullptr});
  line.add({"follow", 0, 0, G_OPTION_ARG_NONE, &follow,
            "At the end of a file, wait for more until Ctrl-C", nullptr});
  line.add_json();
  if (!line.parse(argc, argv, 2, 2)) return kExitOk;
  if (program) {
    options.program = static_cast<int>(parse_number("--program", program.text(), 1, 65535));
  }
  options.layout = legacy ? rec::Layout::kLegacy : rec::Layout::kCurrent;
  options.direct = direct != FALSE;
  options.overwrite = overwrite != FALSE;
  options.follow = follow != FALSE;
  stream_name(line.operand(1));
  if (options.overwrite) settle_before_overwriting(line.operand(1));

  const InputFile input(line.operand(0));
  options.stop = &catch_interrupts();
  rec::Outcome outcome;
  {
    const RecorderProgress progress("recording", options);
    outcome = rec::record(input.descriptor(), line.operand(1), options);
  }
  finish_work(line.operand(1), outcome, line.json());
  return kExitOk;
}

}  // namespace

const Command kRecord{
    "record", "INPUT OUTPUT.kvf", "Make a recording of a transport stream",
    "INPUT is a file, a pipe or - (standard input) with MPEG transport packets of\n"
    "188, 192 or 204 bytes. OUTPUT.kvf becomes the stream file, and OUTPUT.mdb beside\n"
    "it the index. Ctrl-C ends the recording cleanly, as the end of the input does;\n"
    "whatever ends it, the recording is usable up to its last whole GOP.\n"
    "\n"
    "Examples:\n"
    "  plexa-pvr record capture.ts film.kvf\n"
    "  receive-tv | plexa-pvr record - film.kvf --program 2\n"
    "  plexa-pvr record growing.ts film.kvf --follow\n",
    run};

}  // namespace plexa::pvr
