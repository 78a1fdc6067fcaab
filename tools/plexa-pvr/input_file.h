// input_file.h - what `record` and `timeshift` record, and what a recording may be called.
#pragma once

#include <string>

namespace plexa::pvr {

// The input's descriptor, closed at the end unless it is standard input ("-").
class InputFile {
 public:
  // Throws a Failure.
  explicit InputFile(const std::string &path);
  ~InputFile();
  InputFile(const InputFile &) = delete;
  InputFile &operator=(const InputFile &) = delete;

  int descriptor() const { return descriptor_; }

 private:
  int descriptor_ = -1;
};

// The operand, which must be the name of a stream file: "NAME.kvf". Throws a UsageError.
const std::string &stream_name(const std::string &operand);

}  // namespace plexa::pvr
