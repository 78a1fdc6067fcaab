// failure.h - how a command ends other than well: one line for the user, and an exit code.
//
// A command throws; main() prints "plexa-pvr: <line>" on standard error and returns the code. Any
// thread may make these, only the main thread lets them reach main().
#pragma once

#include <stdexcept>
#include <string>

namespace plexa::pvr {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;

// The work could not be done, or found something wrong: exit code 1.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The command line makes no sense: exit code 2, with a pointer to --help.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// "PATH: reason" from an errno.
Failure path_failure(const std::string &path, int error);
// "PATH: reason" from words.
Failure path_failure(const std::string &path, const std::string &reason);

}  // namespace plexa::pvr
