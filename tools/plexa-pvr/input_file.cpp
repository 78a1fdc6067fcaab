// input_file.cpp - see input_file.h.
#include "input_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "failure.h"
#include "text.h"

namespace plexa::pvr {
namespace {

constexpr char kExtension[] = ".kvf";

}  // namespace

InputFile::InputFile(const std::string &path) {
  if (path == "-") {
    descriptor_ = STDIN_FILENO;
  } else {
    descriptor_ = ::open64(path.c_str(), O_RDONLY | O_CLOEXEC);
  }
  struct stat64 status {};
  if (descriptor_ < 0 || ::fstat64(descriptor_, &status) != 0) throw path_failure(path, errno);
  if (S_ISDIR(status.st_mode)) throw path_failure(path, EISDIR);
}

InputFile::~InputFile() {
  if (descriptor_ > STDIN_FILENO) ::close(descriptor_);
}

const std::string &stream_name(const std::string &operand) {
  const size_t extension = operand.size() - sizeof kExtension + 1;
  if (operand.ends_with(kExtension) && extension > 0 && operand[extension - 1] != '/') {
    return operand;
  }
  throw UsageError(
      format("the recording's name must end in %s: '%s'", kExtension, display(operand).c_str()));
}

}  // namespace plexa::pvr
