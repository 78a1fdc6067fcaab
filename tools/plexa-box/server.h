// server.h - takes connections and runs a session for each, until it is told to stop.
//
// At most so many clients at a time; one more is refused in the protocol's own words. Running out
// of descriptors, threads or memory refuses the new client and leaves the others alone. run()
// belongs to one thread, which no client keeps from taking the next one.
#pragma once

#include <netinet/in.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <string>

#include "farewells.h"
#include "root.h"
#include "session.h"

namespace plexa::box {

struct ServerSettings : Settings {
  std::string address = "127.0.0.1";
  uint16_t port = kPort;  // 0: any that is free
  std::size_t most_clients = 256;
};

class Server {
 public:
  // Listens; throws a std::system_error when that is not possible.
  Server(const Root &root, const ServerSettings &settings);
  ~Server();
  Server(const Server &) = delete;
  Server &operator=(const Server &) = delete;

  std::string address() const;  // "127.0.0.1:38999"
  // Serves until `stop` (a descriptor) can be read; then every file is closed.
  void run(int stop);

 private:
  using Clock = std::chrono::steady_clock;

  int wait(std::span<pollfd> waiting) const;
  void take_client();
  void start_session(int socket, const sockaddr_in &from);
  void serve(int socket, const std::string &client);
  bool enter(int socket);
  void leave(int socket);
  void refuse(int socket);
  void make_room();
  void rest_unless_passing(int error_number);
  void end_sessions();

  const Root &root_;
  const ServerSettings &settings_;
  int listener_ = -1;
  // Of run()'s thread alone:
  int spare_ = -1;  // given up for a moment when there is no descriptor to accept with
  Farewells farewells_;
  Clock::time_point rests_until_{};  // when nobody could be taken

  std::mutex lock_;
  std::condition_variable left_;
  std::set<int> sockets_;  // under lock_
};

}  // namespace plexa::box
