// channel.cpp - see channel.h.
//
// The socket's own timeouts are short, so that a thread comes back now and then to look at the
// clock; a byte that dribbles in does not move the deadline.
#include "channel.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace plexa::box {
namespace {

constexpr std::size_t kHeader = sizeof(header_data_s);

void set(int socket, int level, int name, int value) {
  setsockopt(socket, level, name, &value, sizeof value);
}

// A client that has vanished without a word is noticed after two minutes of silence.
void prepare(int socket, std::chrono::seconds patience) {
  const timeval tick{std::min<time_t>(patience.count(), 5), 0};
  setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &tick, sizeof tick);
  setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &tick, sizeof tick);
  set(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
  set(socket, IPPROTO_TCP, TCP_KEEPIDLE, 60);
  set(socket, IPPROTO_TCP, TCP_KEEPINTVL, 15);
  set(socket, IPPROTO_TCP, TCP_KEEPCNT, 4);
  set(socket, IPPROTO_TCP, TCP_NODELAY, 1);
}

bool is_tick(ssize_t result) {
  return result < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR);
}

}  // namespace

Channel::Channel(int socket, std::chrono::seconds patience) : socket_(socket), patience_(patience) {
  prepare(socket_, patience_);
}

Channel::~Channel() { ::close(socket_); }

// The bytes that belong to nobody yet come first in the buffer; so there is room behind them.
bool Channel::fill(std::size_t least, bool has_to_come) {
  std::copy(input_ + begin_, input_ + end_, input_);
  end_ = waiting();
  begin_ = 0;
  while (end_ < least) {
    const ssize_t got = ::recv(socket_, input_ + end_, kInput - end_, 0);
    if (got == 0 || (got < 0 && !is_tick(got))) return false;
    if (got > 0) {
      if (end_ == 0 && !has_to_come) deadline_ = Clock::now() + patience_;
      end_ += static_cast<std::size_t>(got);
    }
    if ((end_ > 0 || has_to_come) && end_ < least && is_late()) return false;
  }
  return true;
}

bool Channel::next(header_data_s &header, bool has_to_come) {
  if (waiting() > 0 || has_to_come) deadline_ = Clock::now() + patience_;
  if (waiting() < kHeader && !fill(kHeader, has_to_come)) return false;
  std::memcpy(&header, input_ + begin_, kHeader);
  begin_ += kHeader;
  out_of_step_ = header.packet_size < static_cast<gint32>(kHeader) ||
                 header.packet_size > static_cast<gint32>(kPacketBufferSize);
  return !out_of_step_;
}

bool Channel::take(void *bytes, std::size_t size, std::size_t ahead) {
  const std::size_t held = std::min(size, waiting());
  if (held > 0) std::memcpy(bytes, input_ + begin_, held);
  begin_ += held;
  if (held == size) return true;
  begin_ = end_ = 0;  // all that was held is taken
  std::array parts{iovec{static_cast<uint8_t *>(bytes) + held, size - held},
                   iovec{input_, std::min(ahead, kInput)}};
  return receive(parts, size - held);
}

// Both parts if possible, the first one, of this size, in any case.
bool Channel::receive(std::span<iovec> parts, std::size_t size) {
  for (;;) {
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts[1].iov_len > 0 ? 2 : 1;
    const ssize_t result = ::recvmsg(socket_, &message, MSG_WAITALL);
    if (result == 0 || (result < 0 && !is_tick(result))) return false;
    const auto got = static_cast<std::size_t>(std::max<ssize_t>(result, 0));
    if (got >= size) {
      end_ = got - size;
      return true;
    }
    size -= got;
    parts[0].iov_base = static_cast<uint8_t *>(parts[0].iov_base) + got;
    parts[0].iov_len -= got;
    if (is_late()) return false;
  }
}

bool Channel::skip(std::size_t size) {
  uint8_t unwanted[4096];
  while (size > 0) {
    const std::size_t part = std::min(size, sizeof unwanted);
    if (!take(unwanted, part)) return false;
    size -= part;
  }
  return true;
}

bool Channel::send(const void *bytes, std::size_t size) {
  const auto *at = static_cast<const uint8_t *>(bytes);
  Clock::time_point deadline;  // the clock is asked only when the first try was not enough
  for (bool first = true; size > 0; first = false) {
    if (first) {
    } else if (deadline == Clock::time_point{}) {
      deadline = Clock::now() + patience_;
    } else if (Clock::now() >= deadline) {
      return false;
    }
    const ssize_t sent = ::send(socket_, at, size, MSG_NOSIGNAL);
    if (sent == 0 || (sent < 0 && !is_tick(sent))) return false;
    if (sent < 0) continue;
    at += sent;
    size -= static_cast<std::size_t>(sent);
  }
  return true;
}

}  // namespace plexa::box
