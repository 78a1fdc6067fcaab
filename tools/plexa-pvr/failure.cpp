// failure.cpp - see failure.h.
#include "failure.h"

#include <glib.h>

#include <cerrno>

#include "text.h"

namespace plexa::pvr {

Failure path_failure(const std::string &path, int error) {
  // A companion box that hangs up leaves no error number.
  return path_failure(path, std::string(g_strerror(error != 0 ? error : EIO)));
}

Failure path_failure(const std::string &path, const std::string &reason) {
  return Failure(display(path) + ": " + reason);
}

}  // namespace plexa::pvr
