#include "failure.h"

#include <glib.h>

#include "text.h"

namespace plexa::pvr {

Failure path_failure(const std::string &path, int error) {
  return path_failure(path, std::string(g_strerror(error)));
}

Failure path_failure(const std::string &path, const std::string &reason) {
  return Failure(display(path) + ": " + reason);
}

}  // namespace plexa::pvr
