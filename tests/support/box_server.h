// box_server.h - a companion box that says what the test's script says.
//
//   BoxServer box;                                   // connects to the box's port arrive here
//   box.will_answer(ok(1000));                       // the answer to the next request
//   box.will_answer({.bytes = ..., .dribble = true});
//   box.will_answer({.bytes = ..., .hang_up_after = 10});
//   ...
//   box.requests()                                   // every packet that came, in order
//
// It listens on a free port of 127.0.0.1, takes connections until it goes out of scope and serves
// each on a thread of its own. A request without a scripted answer is answered with a plain
// success. OPEN has an answer of its own (will_answer_open), so that scripts begin behind it. The
// packets of one write call are answered once, after the last.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "gst_socket_protocol.h"

namespace plexa_test {

using BoxBytes = std::vector<uint8_t>;

struct BoxAnswer {
  BoxBytes bytes;
  bool dribble = false;                      // one byte a send
  std::optional<size_t> hang_up_after = {};  // this many bytes, then the connection is closed
};

// A bare header; its size may be announced wrongly.
header_data_s answer_header(gint32 status, gint64 result = 0, gint32 packet_size = 28);
BoxBytes bytes_of(const header_data_s &header);
BoxAnswer ok(gint64 result = 0);        // success
BoxAnswer refused(gint32 status = -1);  // failure
BoxAnswer timeshift_ok(gint64 result, gint32 accumulated_time, gint32 fixed_duration);
// A packet of a read's answer: `total` announced, `data` in it.
BoxBytes data_packet(guint32 total, const BoxBytes &data, gint32 is_job_stopped = 0);
BoxBytes joined(const std::vector<BoxBytes> &parts);

// A packet spelled out, little-endian, so that a test need not trust the records.
class Wire {
 public:
  Wire &u8(int value) {
    bytes_.push_back(static_cast<uint8_t>(value));
    return *this;
  }
  Wire &u32(uint64_t value) { return integer(value, 4); }
  Wire &u64(uint64_t value) { return integer(value, 8); }
  Wire &path(const std::string &text) {
    BoxBytes field(text.begin(), text.begin() + std::min<std::ptrdiff_t>(std::ssize(text), 255));
    field.resize(256);
    bytes_.insert(bytes_.end(), field.begin(), field.end());
    return *this;
  }
  Wire &header(uint32_t size, uint32_t command) {
    return u32(size).u32(command).u32(0).u32(0).u32(0).u64(0);
  }
  const BoxBytes &bytes() const { return bytes_; }

 private:
  Wire &integer(uint64_t value, int width) {
    for (int i = 0; i < width; ++i) u8(static_cast<int>(value >> 8 * i & 0xff));
    return *this;
  }
  BoxBytes bytes_;
};

class BoxServer {
 public:
  BoxServer();
  ~BoxServer();
  BoxServer(const BoxServer &) = delete;
  BoxServer &operator=(const BoxServer &) = delete;

  void will_answer_open(BoxAnswer answer);
  void will_answer(BoxAnswer answer);

  uint16_t port() const;
  std::vector<BoxBytes> requests() const;
  std::vector<gint32> commands() const;  // of the requests
  BoxBytes last_request() const;
  int connections() const;  // taken so far
  void forget_requests();
  // Block until so many packets have come; until the client has left every connection.
  void wait_for_requests(size_t count) const;
  void wait_until_disconnected() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace plexa_test
