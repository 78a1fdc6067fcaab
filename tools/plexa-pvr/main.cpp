// main.cpp - plexa-pvr: makes recordings, looks into them and takes pieces out of them.
//
// Finds the command, lets it work, and turns what went wrong into one line on standard error and an
// exit code: 0 done, 1 failure, 2 usage.
#include <glib.h>

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <exception>
#include <iterator>
#include <string_view>

#include "command_line.h"
#include "commands.h"
#include "failure.h"
#include "paths.h"
#include "plexa_platform_host.h"
#include "text.h"

namespace plexa::pvr {
namespace {

// Their work takes locks, temporary files and more of a disk than the library's handle gives.
constexpr std::string_view kLocalCommands[] = {"index", "cut", "keep"};

void require_possible(const std::string &command) {
  const bool local = std::find(std::begin(kLocalCommands), std::end(kLocalCommands), command) !=
                     std::end(kLocalCommands);
  if (local && rec::is_box_in_use()) {
    throw Failure("not possible with recordings on a companion box");
  }
}

bool asks_for_help(int argc, char **argv) {
  return std::any_of(argv, argv + argc, [](const char *argument) {
    const std::string_view text(argument);
    return text == "--help" || text == "-h" || text == "--version";
  });
}

std::string command_list() {
  std::string list = "Commands:\n";
  for (const Command *const command : commands()) {
    list += format("  %-10s %s\n", command->name, command->summary);
  }
  return list;
}

constexpr char kExamples[] =
    "\n"
    "A recording is a stream file (.kvf) with its index (.mdb) beside it. REC is the\n"
    "path of either. 'plexa-pvr COMMAND --help' tells more about a command.\n"
    "\n"
    "Exit status: 0 done, 1 failure, 2 wrong usage.\n"
    "\n"
    "Examples:\n"
    "  plexa-pvr record capture.ts film.kvf\n"
    "  plexa-pvr info film.kvf\n"
    "  plexa-pvr seek film.kvf --time 12:30\n"
    "  plexa-pvr export film.kvf scene.ts --from 12:30 --to 13:00\n";

// The options before the command, and the answer when there is no command.
class Program {
 public:
  int run(int argc, char **argv) {
    const std::string behind_options = command_list() + kExamples;
    const Command self{"plexa-pvr", "COMMAND [ARGUMENT...]",
                       "Makes recordings of transport streams, looks into them and takes pieces "
                       "out of them.",
                       behind_options.c_str(), nullptr};
    const int first = first_operand(argc, argv);
    CommandLine line(self);
    int own_argc = first;
    if (!line.parse(own_argc, argv, 0, 0)) return kExitOk;
    if (first == argc) throw UsageError("no command is given");
    const Command *const command = find_command(argv[first]);
    if (command == nullptr) {
      throw UsageError(format("no such command: '%s'", display(argv[first]).c_str()));
    }
    command_ = command->name;
    const std::string name = std::string("plexa-pvr ") + command_;
    g_set_prgname(name.c_str());
    if (!asks_for_help(argc - first, argv + first)) require_possible(command_);
    return command->run(argc - first, argv + first);
  }

  // For the pointer to --help.
  const char *command() const { return command_; }

 private:
  // The command's place in argv; everything before it is the program's own.
  static int first_operand(int argc, char **argv) {
    int at = 1;
    while (at < argc && argv[at][0] == '-') at += std::string(argv[at]) == "--log" ? 2 : 1;
    return at < argc ? at : argc;
  }

  const char *command_ = nullptr;
};

void complain(const char *text) { std::fprintf(stderr, "plexa-pvr: %s\n", text); }

int run_reporting(int argc, char **argv) {
  Program program;
  try {
    return program.run(argc, argv);
  } catch (const UsageError &error) {
    complain(error.what());
    std::fprintf(stderr, "Try 'plexa-pvr %s%s--help'.\n",
                 program.command() != nullptr ? program.command() : "",
                 program.command() != nullptr ? " " : "");
    return kExitUsage;
  } catch (const std::bad_alloc &) {
    complain("out of memory");
  } catch (const std::exception &error) {
    complain(error.what());
  }
  return kExitFailure;
}

// Data that did not arrive is a failure, also when only the last block was lost.
int flushed(int result) {
  const bool failed = std::ferror(stdout) != 0;
  errno = 0;
  if (std::fflush(stdout) == 0 && !failed) return result;
  complain(format("standard output: %s", g_strerror(errno != 0 ? errno : EIO)).c_str());
  return kExitFailure;
}

}  // namespace
}  // namespace plexa::pvr

int main(int argc, char **argv) {
  using namespace plexa::pvr;
  // Only the letters are the user's: numbers keep their points in every language.
  std::setlocale(LC_CTYPE, "");
  std::setlocale(LC_MESSAGES, "");
  // A file that may not grow further is reported like a full disk.
  std::signal(SIGXFSZ, SIG_IGN);
  g_set_prgname("plexa-pvr");
  plexa_host_set_log_level(PLEXA_HOST_LOG_LEVEL_OFF);
  return flushed(run_reporting(argc, argv));
}
