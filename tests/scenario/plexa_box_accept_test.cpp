// The thread that takes the box's clients: nobody keeps it from taking the next one, and where
// nobody can be taken it rests.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "box_support.h"
#include "failing_new.h"
#include "plexa-box/server.h"
#include "plexa_platform_host.h"
#include "temp_dir.h"

namespace {

struct Poll {
  bool has_listener;
  int timeout;
  int result;
};

thread_local bool takes_clients = false;  // this is the thread
std::vector<Poll> polls;                  // of that thread; to be looked at when it has ended
std::function<int()> fail_accept;         // the errno of the next one; 0: it is made

bool is_listener(int socket) {
  int listens = 0;
  socklen_t size = sizeof listens;
  return getsockopt(socket, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size) == 0 && listens != 0;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) int poll(pollfd *waiting, nfds_t count, int timeout) {
  static const auto next = reinterpret_cast<decltype(&poll)>(dlsym(RTLD_NEXT, "poll"));
  if (!takes_clients) return next(waiting, count, timeout);
  plexa_test::stop_failing_new();  // a client has been taken, and what follows is not his
  const bool has_listener = std::any_of(waiting, waiting + count,
                                        [](const pollfd &each) { return is_listener(each.fd); });
  const int result = next(waiting, count, timeout);
  polls.push_back({has_listener, timeout, result});
  return result;
}

__attribute__((visibility("default"))) int accept4(int socket, sockaddr *address, socklen_t *size,
                                                   int flags) {
  static const auto next = reinterpret_cast<decltype(&accept4)>(dlsym(RTLD_NEXT, "accept4"));
  const int error_number = fail_accept ? fail_accept() : 0;
  if (error_number == 0) return next(socket, address, size, flags);
  errno = error_number;
  return -1;
}

}  // extern "C"

namespace plexa_test {
namespace {

using plexa::box::Root;
using plexa::box::Server;
using plexa::box::ServerSettings;

class Client {
 public:
  explicit Client(const Server &server) {
    const std::string address = server.address();
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(std::stoi(address.substr(address.rfind(':') + 1))));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::connect(socket_, reinterpret_cast<const sockaddr *>(&to), sizeof to), 0);
  }
  ~Client() { ::close(socket_); }
  Client(const Client &) = delete;
  Client &operator=(const Client &) = delete;

  void send(const Bytes &bytes) {
    EXPECT_EQ(::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL), std::ssize(bytes));
  }
  std::optional<int32_t> status() {
    header_data_s header{};
    if (::recv(socket_, &header, sizeof header, MSG_WAITALL) != sizeof header) return {};
    return int32_t{header.command};
  }

 private:
  int socket_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

class PlexaBoxAcceptTest : public ::testing::Test {
 protected:
  PlexaBoxAcceptTest() {
    plexa_host_set_log_level(PLEXA_HOST_LOG_LEVEL_OFF);
    polls.clear();
  }
  ~PlexaBoxAcceptTest() override {
    stop();
    ::close(stop_);
    fail_accept = nullptr;
  }

  void start() {
    thread_ = std::thread([this] {
      takes_clients = true;
      server_.run(stop_);
      stop_failing_new();
    });
  }
  void stop() {
    if (!thread_.joinable()) return;
    eventfd_write(stop_, 1);
    thread_.join();
  }
  // The box has given this client a place: its requests are carried out.
  static void expect_served(Client &client) {
    client.send(open_request("/film.kvf", kToWrite));
    EXPECT_EQ(client.status(), plexa::COMMAND_TYPE_IO_OK);
  }
  static int rests() {
    return static_cast<int>(std::count_if(polls.begin(), polls.end(), [](const Poll &each) {
      return !each.has_listener && each.timeout > 0;
    }));
  }
  // Attempt after attempt fails with these.
  static void given_failures(std::vector<int> errors) {
    fail_accept = [errors = std::move(errors), at = size_t{0}]() mutable {
      return at < errors.size() ? errors[at++] : 0;
    };
  }

  static ServerSettings one_client_on_any_port() {
    ServerSettings settings;
    settings.port = 0;
    settings.most_clients = 1;
    return settings;
  }

  TempDir dir_;
  const Root root_{dir_.path()};
  const ServerSettings settings_ = one_client_on_any_port();
  const int stop_ = ::eventfd(0, EFD_CLOEXEC);
  Server server_{root_, settings_};
  std::thread thread_;
};

TEST_F(PlexaBoxAcceptTest, ARefusedClientThatSaysNothingIsNotWaitedFor) {
  start();
  Client served(server_);
  expect_served(served);
  std::vector<std::unique_ptr<Client>> refused;
  for (int i = 0; i < 40; ++i) refused.push_back(std::make_unique<Client>(server_));
  for (const auto &each : refused) EXPECT_EQ(each->status(), plexa::COMMAND_TYPE_IO_NG);
  stop();
  EXPECT_FALSE(polls.empty());
  for (const Poll &each : polls) EXPECT_TRUE(each.has_listener || each.timeout == 0);
}

TEST_F(PlexaBoxAcceptTest, ARefusedClientHearsItAlsoWhenItsRequestIsOnItsWay) {
  start();
  Client served(server_);
  expect_served(served);
  for (int i = 0; i < 100; ++i) {
    Client refused(server_);
    refused.send(open_request("/film.kvf", kToRead));
    EXPECT_EQ(refused.status(), plexa::COMMAND_TYPE_IO_NG);
    EXPECT_FALSE(refused.status());
  }
}

TEST_F(PlexaBoxAcceptTest, WhereNobodyCanBeTakenTheBoxRests) {
  given_failures({ENOMEM, ENOBUFS, ENOMEM});
  start();
  Client client(server_);
  expect_served(client);
  stop();
  EXPECT_EQ(rests(), 3);
}

// Each time the spare descriptor is given up, and somebody else was quicker.
TEST_F(PlexaBoxAcceptTest, ItRestsWhereItCannotMakeRoom) {
  given_failures({EMFILE, EMFILE, ENFILE, ENFILE});
  start();
  Client client(server_);
  expect_served(client);
  stop();
  EXPECT_EQ(rests(), 2);
}

TEST_F(PlexaBoxAcceptTest, WhereThereIsRoomToRefuseItDoesNotRest) {
  given_failures({EMFILE});
  start();
  Client refused(server_);
  EXPECT_EQ(refused.status(), plexa::COMMAND_TYPE_IO_NG);
  Client client(server_);
  expect_served(client);
  stop();
  EXPECT_EQ(rests(), 0);
}

TEST_F(PlexaBoxAcceptTest, AClientThatHasGoneIsNoReasonToRest) {
  given_failures({ECONNABORTED, EAGAIN, EINTR});
  start();
  Client client(server_);
  expect_served(client);
  stop();
  EXPECT_EQ(rests(), 0);
}

TEST_F(PlexaBoxAcceptTest, AClientThatThereIsNoMemoryForIsRefused) {
  std::atomic<int> successes{0};
  fail_accept = [&] {
    fail_new_after(successes);
    return 0;
  };
  start();
  while (true) {
    Client client(server_);
    client.send(bare_request(plexa::COMMAND_TYPE_CLOSE));
    client.send(open_request("/film.kvf", kToWrite));
    EXPECT_EQ(client.status(), plexa::COMMAND_TYPE_IO_NG);  // refused, or nothing was open
    const std::optional<int32_t> second = client.status();
    if (second == plexa::COMMAND_TYPE_IO_OK) break;
    EXPECT_FALSE(second);
    ++successes;
    ASSERT_LT(successes, 100);
  }
  EXPECT_GT(successes, 1);
}

}  // namespace
}  // namespace plexa_test
