// cmd_record.cpp - plexa-pvr record: a recording of a transport stream.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "command_line.h"
#include "failure.h"
#include "interrupt.h"
#include "recorder.h"
#include "recording_work.h"
#include "text.h"

namespace plexa::pvr {

extern const Command kRecord;

namespace {

constexpr char kExtension[] = ".kvf";

// The input's descriptor, closed at the end unless it is standard input.
class Input {
 public:
  explicit Input(const std::string &path) {
    if (path == "-") {
      descriptor_ = STDIN_FILENO;
    } else {
      descriptor_ = ::open64(path.c_str(), O_RDONLY | O_CLOEXEC);
    }
    struct stat64 status {};
    if (descriptor_ < 0 || ::fstat64(descriptor_, &status) != 0) throw path_failure(path, errno);
    if (S_ISDIR(status.st_mode)) throw path_failure(path, EISDIR);
  }
  ~Input() {
    if (descriptor_ > STDIN_FILENO) ::close(descriptor_);
  }
  Input(const Input &) = delete;
  Input &operator=(const Input &) = delete;

  int descriptor() const { return descriptor_; }

 private:
  int descriptor_ = -1;
};

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
  if (!line.operand(1).ends_with(kExtension)) {
    throw UsageError(format("the recording's name must end in %s: '%s'", kExtension,
                            display(line.operand(1)).c_str()));
  }

  const Input input(line.operand(0));
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
