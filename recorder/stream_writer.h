// stream_writer.h - writes the stream file of a recording: whole packets, in order.
//
// In direct mode the packets are gathered into blocks first, so that no write but the last is of an
// odd size; the last one goes through the page cache, or the file would end in padding. One object
// serves one thread.
#ifndef PLEXA_RECORDER_STREAM_WRITER_H_
#define PLEXA_RECORDER_STREAM_WRITER_H_

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "output_file.h"
#include "packet_store.h"

namespace plexa::rec {

class StreamWriter : public PacketStore {
 public:
  // Begins in the empty file `path`. False: error().
  bool create(const std::string &path, bool direct);
  bool write(const uint8_t *data, size_t size) override;
  // A packet that is not whole is cut off.
  bool finish() override;
  void abandon() override;

  uint64_t stored() const { return stored_; }  // bytes in the file
  uint64_t packets() const override;
  int error() const override { return error_; }
  std::string problem() const override;

 private:
  struct Free {
    void operator()(uint8_t *block) const { std::free(block); }
  };

  bool store(const uint8_t *data, size_t size);
  bool gather(const uint8_t *data, size_t size);
  bool flush_gathered();
  bool cut_to_packets();
  bool fail(int error);

  OutputFile file_;
  bool direct_ = false;
  bool failed_ = false;
  int error_ = 0;
  uint64_t stored_ = 0;
  std::unique_ptr<uint8_t[], Free> gathered_;
  size_t gathered_size_ = 0;
};

}  // namespace plexa::rec

#endif  // PLEXA_RECORDER_STREAM_WRITER_H_
