// box_redirect.cpp - sends connects to the companion box's port to the box that a test has started.
//
// Part of test programs, and by itself a library for LD_PRELOAD. PLEXA_TEST_BOX_PORT is the port,
// PLEXA_TEST_BOX_ADDRESS the IPv4 address, when that is another one, too.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdlib>
#include <cstring>

namespace {

constexpr uint16_t kBoxPort = 38999;

}  // namespace

extern "C" __attribute__((visibility("default"))) int connect(int socket, const sockaddr *address,
                                                              socklen_t size) {
  using Connect = int (*)(int, const sockaddr *, socklen_t);
  static const auto next = reinterpret_cast<Connect>(dlsym(RTLD_NEXT, "connect"));
  const char *const port = std::getenv("PLEXA_TEST_BOX_PORT");
  if (port == nullptr || address->sa_family != AF_INET || size < sizeof(sockaddr_in)) {
    return next(socket, address, size);
  }
  sockaddr_in elsewhere{};
  std::memcpy(&elsewhere, address, sizeof elsewhere);
  if (ntohs(elsewhere.sin_port) == kBoxPort) {
    elsewhere.sin_port = htons(static_cast<uint16_t>(std::atoi(port)));
    const char *const other = std::getenv("PLEXA_TEST_BOX_ADDRESS");
    if (other != nullptr) inet_pton(AF_INET, other, &elsewhere.sin_addr);
  }
  return next(socket, reinterpret_cast<const sockaddr *>(&elsewhere), sizeof elsewhere);
}
