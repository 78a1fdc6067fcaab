// box_request_fuzz.cpp - any bytes as what a client says to the companion box.
//
// One session over a pair of sockets, on a folder of its own with two recordings in it. Whatever
// comes, the session has to end when the client has left, what it answers has to be packets, no
// file may stay open and nothing may appear beside the folder.
#include <gst/gst.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <thread>
#include <vector>

#include "gst_socket_protocol.h"
#include "plexa-box/root.h"
#include "plexa-box/session.h"
#include "temp_dir.h"

namespace {

constexpr rlim_t kLargestFile = 1 << 20;  // what a client writes far behind the end costs no time

void require(bool holds) {
  if (!holds) std::abort();
}

size_t entries_of(const std::string &folder) {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(folder),
                                           std::filesystem::directory_iterator()));
}

class Disk {
 public:
  Disk() {
    const rlimit limit{kLargestFile, kLargestFile};
    std::signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &limit);
    g_setenv("GST_REGISTRY_DISABLE", "yes", TRUE);
    gst_init(nullptr, nullptr);
    std::filesystem::create_directory(root_path());
  }
  // As it was before the last client.
  void restore() {
    for (const auto &each : std::filesystem::directory_iterator(root_path())) {
      std::filesystem::remove_all(each);
    }
    for (const char *const name : {"a.kvf", "a.mdb", "b.kvf"}) {
      plexa_test::write_file(root_path() + "/" + name, plexa_test::counting_bytes(200000));
    }
  }
  std::string root_path() const { return dir_.file("root"); }
  bool is_only_root_changed() const { return entries_of(dir_.path()) == 1; }

 private:
  plexa_test::TempDir dir_;
};

// Every answer is a packet: a header that states its size, and so much behind it.
void check_answers(int socket) {
  std::vector<uint8_t> body;
  for (;;) {
    header_data_s header{};
    const ssize_t got = recv(socket, &header, sizeof header, MSG_WAITALL);
    if (got <= 0) return;  // the session is over
    require(got == sizeof header && header.packet_size >= static_cast<gint32>(sizeof header));
    body.resize(static_cast<size_t>(header.packet_size) - sizeof header);
    if (body.empty()) continue;
    require(recv(socket, body.data(), body.size(), MSG_WAITALL) == std::ssize(body));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static Disk disk;
  disk.restore();
  const size_t open_before = entries_of("/proc/self/fd");
  int sockets[2];
  require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) == 0);
  {
    const plexa::box::Root root(disk.root_path());
    const plexa::box::Settings settings;
    std::thread box([&] { plexa::box::Session(sockets[1], root, settings, "fuzz").run(); });
    std::thread listener([&] { check_answers(sockets[0]); });
    for (size_t sent = 0; sent < size;) {
      const ssize_t count = send(sockets[0], data + sent, size - sent, MSG_NOSIGNAL);
      if (count <= 0) break;  // it has had enough
      sent += static_cast<size_t>(count);
    }
    shutdown(sockets[0], SHUT_WR);
    box.join();
    listener.join();
  }
  close(sockets[0]);
  require(entries_of("/proc/self/fd") == open_before);
  require(disk.is_only_root_changed());
  return 0;
}
