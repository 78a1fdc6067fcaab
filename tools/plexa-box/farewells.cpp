// farewells.cpp - see farewells.h.
#include "farewells.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "gst_socket_protocol.h"

namespace plexa::box {
namespace {

constexpr std::chrono::seconds kTime{1};
constexpr std::size_t kMostHeard = 65536;  // no refused client has more to say

}  // namespace

Farewells::~Farewells() {
  while (end_oldest()) {
  }
}

void Farewells::say(int socket) {
  if (count_ == kMost) end_oldest();
  header_data_s answer{};
  answer.packet_size = sizeof answer;
  answer.command = COMMAND_TYPE_IO_NG;
  ::send(socket, &answer, sizeof answer, MSG_NOSIGNAL | MSG_DONTWAIT);
  ::shutdown(socket, SHUT_WR);
  farewells_[count_++] = {socket, Clock::now() + kTime, 0};
}

std::size_t Farewells::watch(std::span<pollfd> waiting) const {
  for (std::size_t i = 0; i < count_; ++i) waiting[i] = {farewells_[i].socket, POLLIN, 0};
  return count_;
}

// All have the same time, so the oldest's ends first. Rounded up: a moment too late is late enough.
int Farewells::time_left() const {
  if (count_ == 0) return -1;
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(farewells_[0].until - Clock::now());
  return static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
}

bool Farewells::is_over(Farewell &farewell) {
  std::array<char, 4096> unwanted;
  const ssize_t got = ::recv(farewell.socket, unwanted.data(), unwanted.size(), MSG_DONTWAIT);
  if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) return true;
  farewell.heard += static_cast<std::size_t>(std::max<ssize_t>(got, 0));
  return farewell.heard >= kMostHeard || Clock::now() >= farewell.until;
}

void Farewells::look_after() {
  for (std::size_t i = count_; i-- > 0;) {
    if (is_over(farewells_[i])) end(i);
  }
}

bool Farewells::end_oldest() {
  if (count_ == 0) return false;
  is_over(farewells_[0]);  // a request that is here by now is read
  end(0);
  return true;
}

void Farewells::end(std::size_t at) {
  ::close(farewells_[at].socket);
  std::move(farewells_.begin() + at + 1, farewells_.begin() + count_, farewells_.begin() + at);
  --count_;
}

}  // namespace plexa::box
