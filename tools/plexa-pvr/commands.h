// commands.h - the table of commands.
//
// A command is one file, cmd_<name>.cpp, which defines one constant of type Command, and one row in
// commands.cpp. main() finds the row by name and calls run() with the command's own argv (argv[0]
// is its name). run() returns an exit code; what goes wrong is thrown (failure.h).
#pragma once

#include <span>
#include <string>

namespace plexa::pvr {

struct Command {
  const char *name;
  const char *arguments;    // of the usage line: "REC [--from T] [--to T]"
  const char *summary;      // one line
  const char *description;  // behind the options in --help: what to know, and examples
  int (*run)(int argc, char **argv);
};

std::span<const Command *const> commands();

// Null: there is no such command.
const Command *find_command(const std::string &name);

}  // namespace plexa::pvr
