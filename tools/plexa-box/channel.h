// channel.h - a client's connection: requests come in packet by packet, answers go out whole.
//
// A client may be silent before a packet, where none has to come. From the first byte of a packet
// on it has to be quick: what has not come, or has not been taken, when the patience is over ends
// the connection, as does everything that the socket reports. One thread at a time; any other may
// shut the socket down.
#pragma once

#include <sys/uio.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>

#include "gst_socket_protocol.h"

namespace plexa::box {

class Channel {
 public:
  // Owns the socket from here on.
  Channel(int socket, std::chrono::seconds patience);
  ~Channel();
  Channel(const Channel &) = delete;
  Channel &operator=(const Channel &) = delete;

  // The next packet's header, whose size is sound: 28 bytes at least, and no more than a packet may
  // have. False: the connection is over, or what came is no packet.
  bool next(header_data_s &header) { return next(header, false); }
  // The same, where one has to come: the request is not complete without it, or the client has no
  // other business here.
  bool next_of_request(header_data_s &header) { return next(header, true); }
  // The next bytes of the packet. `ahead`: bytes behind them that are sure to follow, the beginning
  // of the next packet; they may be taken in the same system call.
  bool take(void *bytes, std::size_t size, std::size_t ahead = 0);
  bool skip(std::size_t size);
  bool send(const void *bytes, std::size_t size);
  // True: what came last was no packet; nothing after it can be understood.
  bool out_of_step() const { return out_of_step_; }
  int socket() const { return socket_; }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr std::size_t kInput = 1024;  // every request but a write's data fits

  bool next(header_data_s &header, bool has_to_come);
  bool fill(std::size_t least, bool has_to_come);
  bool receive(std::span<iovec> parts, std::size_t size);
  bool is_late() const { return Clock::now() >= deadline_; }
  std::size_t waiting() const { return end_ - begin_; }

  const int socket_;
  const std::chrono::seconds patience_;
  Clock::time_point deadline_;
  bool out_of_step_ = false;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  uint8_t input_[kInput];
};

}  // namespace plexa::box
