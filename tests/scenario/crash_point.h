// crash_point.h - plexa-pvr killed at a chosen moment of its work.
//
//   for (int call = 1; crash_before(call, {"cut", film, "--to", "3"}); ++call) { ... }
//
// The program is watched by ptrace and ends by SIGKILL right before one of its system calls that
// change files: creating, writing, flushing, renaming, removing, taking out. Between two such calls
// nothing that a crash could leave behind changes.
#pragma once

#include <string>
#include <vector>

namespace plexa_test {

// True: killed before that call (from 1 on). False: it ended by itself before there was one.
bool crash_before(int call, const std::vector<std::string> &arguments);

}  // namespace plexa_test
