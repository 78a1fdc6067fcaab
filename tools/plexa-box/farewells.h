// farewells.h - clients that have been refused, for as long as they take to hear it.
//
// A socket that is closed with a request unread takes the answer back. So the refusal is sent at
// once, what the client still says is read away, and the socket is closed when the client closes
// its side, after a second, or when its place is needed: there are few. Nothing in here blocks,
// allocates or throws; one thread at a time.
#pragma once

#include <poll.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <span>

namespace plexa::box {

class Farewells {
 public:
  static constexpr std::size_t kMost = 16;

  Farewells() = default;
  ~Farewells();
  Farewells(const Farewells &) = delete;
  Farewells &operator=(const Farewells &) = delete;

  // Owns the socket from here on.
  void say(int socket);
  // Fills in what poll() has to wait for, at most kMost entries: how many.
  std::size_t watch(std::span<pollfd> waiting) const;
  // Milliseconds until one has had its time; -1: there is none.
  int time_left() const;
  // Reads away what has come, and closes what is over.
  void look_after();
  // Gives its descriptor back. False: there is none.
  bool end_oldest();

 private:
  using Clock = std::chrono::steady_clock;
  struct Farewell {
    int socket;
    Clock::time_point until;
    std::size_t heard;  // bytes
  };

  static bool is_over(Farewell &farewell);
  void end(std::size_t at);

  std::array<Farewell, kMost> farewells_{};  // the oldest first
  std::size_t count_ = 0;
};

}  // namespace plexa::box
