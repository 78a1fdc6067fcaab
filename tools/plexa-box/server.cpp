// server.cpp - see server.h. One lock, held for the book of connections only.
#include "server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <system_error>
#include <thread>

namespace plexa::box {
namespace {

constexpr int kBacklog = 128;
constexpr std::chrono::milliseconds kRest{100};  // for sessions to give back what is missing

[[noreturn]] void fail(const std::string &what) {
  throw std::system_error(errno, std::generic_category(), what);
}

sockaddr_in address_of(const ServerSettings &settings) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(settings.port);
  inet_pton(AF_INET, settings.address.c_str(), &address.sin_addr);
  return address;
}

std::string text_of(const sockaddr_in &address) {
  std::array<char, INET_ADDRSTRLEN> text{};
  inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size());
  return std::string(text.data()) + ":" + std::to_string(ntohs(address.sin_port));
}

int spare_descriptor() { return ::open("/", O_PATH | O_CLOEXEC); }

}  // namespace

Server::Server(const Root &root, const ServerSettings &settings)
    : root_(root), settings_(settings), spare_(spare_descriptor()) {
  const sockaddr_in address = address_of(settings);
  const int on = 1;
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (listener_ < 0) fail("socket");
  setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  const bool bound =
      ::bind(listener_, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
      ::listen(listener_, kBacklog) == 0;
  if (bound) return;
  const int saved = errno;
  ::close(listener_);
  ::close(spare_);
  errno = saved;
  fail(text_of(address));
}

Server::~Server() {
  end_sessions();
  ::close(listener_);
  ::close(spare_);
}

std::string Server::address() const {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &size);
  return text_of(address);
}

// A listener that is not looked at has the number -1, which poll() passes over.
void Server::run(int stop) {
  std::array<pollfd, 2 + Farewells::kMost> waiting{};
  for (;;) {
    const bool rests = Clock::now() < rests_until_;
    waiting[0] = {stop, POLLIN, 0};
    waiting[1] = {rests ? -1 : listener_, POLLIN, 0};
    const std::size_t count = 2 + farewells_.watch(std::span(waiting).subspan(2));
    if (wait(std::span(waiting).first(count)) < 0) {
      if (errno == EINTR) continue;
      fail("poll");
    }
    if (waiting[0].revents != 0) break;
    farewells_.look_after();
    if (spare_ < 0) spare_ = spare_descriptor();
    if (waiting[1].revents != 0) take_client();
  }
  end_sessions();
}

int Server::wait(std::span<pollfd> waiting) const {
  int timeout = farewells_.time_left();
  if (waiting[1].fd < 0) {
    const auto rest = std::chrono::ceil<std::chrono::milliseconds>(rests_until_ - Clock::now());
    const int left = static_cast<int>(std::max<std::chrono::milliseconds::rep>(rest.count(), 0));
    timeout = timeout < 0 ? left : std::min(timeout, left);
  }
  return ::poll(waiting.data(), waiting.size(), timeout);
}

void Server::take_client() {
  sockaddr_in from{};
  socklen_t size = sizeof from;
  const int socket = ::accept4(listener_, reinterpret_cast<sockaddr *>(&from), &size, SOCK_CLOEXEC);
  if (socket >= 0) {
    start_session(socket, from);
  } else if (errno == EMFILE || errno == ENFILE) {
    make_room();
  } else {
    rest_unless_passing(errno);
  }
}

// A client that cannot be taken must not stay in the queue, where it would wake this thread again
// and again. The descriptor is that of a client refused before, or the spare one; a session may be
// quicker to take it.
void Server::make_room() {
  if (!farewells_.end_oldest()) {
    ::close(spare_);
    spare_ = -1;
  }
  const int socket = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  if (socket >= 0) {
    refuse(socket);
  } else {
    rest_unless_passing(errno);
  }
}

// What concerns one client has gone with him; anything else would come again at once.
void Server::rest_unless_passing(int error_number) {
  if (error_number == EAGAIN || error_number == EINTR || error_number == ECONNABORTED) return;
  rests_until_ = Clock::now() + kRest;
}

bool Server::enter(int socket) {
  const std::lock_guard hold(lock_);
  if (sockets_.size() >= settings_.most_clients) return false;
  sockets_.insert(socket);
  return true;
}

void Server::leave(int socket) {
  const std::lock_guard hold(lock_);
  sockets_.erase(socket);
}

void Server::start_session(int socket, const sockaddr_in &from) {
  bool is_entered = false;
  try {
    is_entered = enter(socket);
    if (is_entered) {
      const std::string client = text_of(from);
      if (settings_.verbose) std::fprintf(stderr, "%s connected\n", client.c_str());
      std::thread([this, socket, client] { serve(socket, client); }).detach();
      return;
    }
  } catch (const std::exception &) {  // no thread, or no memory
    if (is_entered) leave(socket);
  }
  refuse(socket);
}

// The session's socket is in the book until it is closed, so that a stop reaches it; the number is
// not given away by then, because it is closed under the book's lock.
void Server::serve(int socket, const std::string &client) {
  std::unique_ptr<Session> session;
  try {
    session = std::make_unique<Session>(socket, root_, settings_, client);
    session->run();
  } catch (const std::exception &error) {  // out of memory: this client goes, the others stay
    std::fprintf(stderr, "plexa-box: %s: %s\n", client.c_str(), error.what());
  }
  if (session != nullptr) session->release();
  if (settings_.verbose) std::fprintf(stderr, "%s left\n", client.c_str());
  const std::lock_guard hold(lock_);
  if (session == nullptr) ::close(socket);
  session.reset();
  sockets_.erase(socket);
  left_.notify_all();
}

void Server::refuse(int socket) {
  if (settings_.verbose) std::fprintf(stderr, "a client is refused: too many\n");
  farewells_.say(socket);
}

void Server::end_sessions() {
  std::unique_lock hold(lock_);
  for (const int socket : sockets_) ::shutdown(socket, SHUT_RDWR);
  left_.wait(hold, [this] { return sockets_.empty(); });
}

}  // namespace plexa::box
