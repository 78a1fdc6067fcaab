// socket_bench.cpp - a companion box against bare sockets that carry the same bytes.
//
// plexa-box runs as a process of its own on the box's port, which must be free, and serves a folder
// below the current one; a second process is the bare other end of each floor. A floor asks, too:
// its sender waits for a request before it sends, since a television cannot have an answer sooner.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gst-plexa/gst_pvr_file.h>
#include <gst-plexa/gst_zeb.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "ratio.h"

namespace {

using plexa_bench::compare;

constexpr size_t kCall = 192512;
constexpr size_t kReadPacket = 49152;   // data of one packet that the box sends
constexpr size_t kWritePacket = 32736;  // and of one that the library sends
constexpr size_t kHeader = 28;
constexpr size_t kDataAt = 32;
constexpr int kCallsOfAFile = 256;

int g_transfers = 0;  // system calls that move bytes, of this process

using Send = ssize_t (*)(int, const void *, size_t, int);
using Recv = ssize_t (*)(int, void *, size_t, int);

}  // namespace

// The library's calls come through here, as the floor's do.
extern "C" __attribute__((visibility("default"))) ssize_t send(int socket, const void *bytes,
                                                               size_t size, int flags) {
  static const auto next = reinterpret_cast<Send>(dlsym(RTLD_NEXT, "send"));
  ++g_transfers;
  return next(socket, bytes, size, flags);
}

extern "C" __attribute__((visibility("default"))) ssize_t recv(int socket, void *bytes, size_t size,
                                                               int flags) {
  static const auto next = reinterpret_cast<Recv>(dlsym(RTLD_NEXT, "recv"));
  ++g_transfers;
  return next(socket, bytes, size, flags);
}

__attribute__((visibility("default"))) gint32 gst_zeb_is_connected(void) { return 1; }

namespace {

void require(bool holds, const char *what) {
  if (holds) return;
  std::perror(what);
  std::exit(1);
}

// The ends of every connection have a processor each. Left to itself, the scheduler puts some pairs
// on one and others on two, and waking an idle processor costs several times what a switch does.
void use_processor(int number) {
  if (std::thread::hardware_concurrency() < 2) return;
  cpu_set_t processors;
  CPU_ZERO(&processors);
  CPU_SET(number, &processors);
  sched_setaffinity(0, sizeof processors, &processors);
}
constexpr int kClient = 0;
constexpr int kOtherEnd = 1;

void no_delay(int socket) {
  const int on = 1;
  setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

bool receive(int socket, char *bytes, size_t size) {
  return recv(socket, bytes, size, MSG_WAITALL) == static_cast<ssize_t>(size);
}

// What the bare end does again and again: take so much, then send packets of these sizes.
struct Exchange {
  std::vector<size_t> taken;
  std::vector<size_t> sent;
  int stored_in = -1;    // a file that takes what was taken
  int loaded_from = -1;  // a file that what is sent comes from
};

// A process at the other end of a loopback connection that does nothing but that.
class BareEnd {
 public:
  explicit BareEnd(const Exchange &exchange) : bytes_(kCall + kDataAt) {
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    require(bind(listener, reinterpret_cast<sockaddr *>(&address), size) == 0, "bind");
    require(listen(listener, 1) == 0, "listen");
    getsockname(listener, reinterpret_cast<sockaddr *>(&address), &size);
    child_ = fork();
    use_processor(kClient);
    if (child_ == 0) serve(accept(listener, nullptr, nullptr), exchange);
    socket_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    no_delay(socket_);
    require(connect(socket_, reinterpret_cast<sockaddr *>(&address), size) == 0, "connect");
    close(listener);
  }
  ~BareEnd() {
    close(socket_);
    waitpid(child_, nullptr, 0);
  }
  BareEnd(const BareEnd &) = delete;
  BareEnd &operator=(const BareEnd &) = delete;

  void send_bytes(size_t size) {
    require(send(socket_, bytes_.data(), size, MSG_NOSIGNAL) == static_cast<ssize_t>(size), "send");
  }
  void take_bytes(size_t size) { require(receive(socket_, bytes_.data(), size), "recv"); }

 private:
  [[noreturn]] void serve(int socket, const Exchange &exchange) {
    use_processor(kOtherEnd);
    no_delay(socket);
    for (size_t stored = 0;;) {
      for (const size_t size : exchange.taken) {
        if (!receive(socket, bytes_.data(), size)) _exit(0);
        if (exchange.stored_in < 0) continue;
        if (::write(exchange.stored_in, bytes_.data() + kDataAt, size - kDataAt) < 0) _exit(1);
      }
      stored += kCall;
      if (stored >= kCall * kCallsOfAFile) lseek(exchange.stored_in, 0, SEEK_SET), stored = 0;
      for (const size_t size : exchange.sent) {
        if (exchange.loaded_from >= 0) load(exchange.loaded_from, size - kDataAt);
        send(socket, bytes_.data(), size, MSG_NOSIGNAL);
      }
    }
  }

  // From the beginning again at the end, as our own reads do.
  void load(int file, size_t size) {
    if (::read(file, bytes_.data() + kDataAt, size) == static_cast<ssize_t>(size)) return;
    lseek(file, 0, SEEK_SET);
    if (::read(file, bytes_.data() + kDataAt, size) < 0) _exit(1);
  }

  std::vector<char> bytes_;
  pid_t child_ = -1;
  int socket_ = -1;
};

std::vector<size_t> packets_of(size_t size, size_t largest) {
  std::vector<size_t> packets;
  for (; size > 0; size -= std::min(size, largest)) {
    packets.push_back(std::min(size, largest) + kDataAt);
  }
  return packets;
}

// The box itself, and a file of it that the library has open.
class Box {
 public:
  Box() {
    const std::string root = std::filesystem::current_path() / "bench-box";
    std::filesystem::create_directory(root);
    int line[2];
    require(pipe(line) == 0, "pipe");
    child_ = fork();
    if (child_ == 0) {
      use_processor(kOtherEnd);
      dup2(line[1], STDOUT_FILENO);
      execl(PLEXA_BOX_PROGRAM, PLEXA_BOX_PROGRAM, "--root", root.c_str(), nullptr);
      _exit(127);
    }
    close(line[1]);
    char byte = 0;
    require(read(line[0], &byte, 1) == 1, "plexa-box");  // it listens
    close(line[0]);
    setenv("PLEXA_HOST_TV_YEAR", "2014", 1);
  }
  ~Box() {
    kill(child_, SIGTERM);
    waitpid(child_, nullptr, 0);
    std::filesystem::remove_all("bench-box");
  }
  Box(const Box &) = delete;
  Box &operator=(const Box &) = delete;

 private:
  pid_t child_ = -1;
};

class BoxFile {
 public:
  explicit BoxFile(guint32 permission) {
    gst_pvr_file_init(&file_);
    require(gst_pvr_file_open(&file_, "/bench.kvf", permission, GST_PVR_FILE_BUFFER_IO,
                              GST_PVR_FILE_NORMAL, GST_PVR_FILE_STREAM, 0, 0) >= 0,
            "open");
  }
  ~BoxFile() {
    gst_pvr_file_close(&file_);
    gst_pvr_file_deinit(&file_);
  }
  BoxFile(const BoxFile &) = delete;
  BoxFile &operator=(const BoxFile &) = delete;

  void seek(gint64 at) { require(gst_pvr_file_seek(&file_, at, SEEK_SET) == at, "seek"); }
  void read(char *bytes, size_t size) {
    require(
        gst_pvr_file_read(&file_, bytes, static_cast<gint64>(size)) == static_cast<gint64>(size),
        "read");
  }
  void write(const char *bytes, size_t size) {
    require(
        gst_pvr_file_write(&file_, bytes, static_cast<gint64>(size)) == static_cast<gint64>(size),
        "write");
  }

 private:
  GstPvrFile file_{};
};

void make_file() {
  BoxFile file(GST_PVR_FILE_WRITE);
  const std::vector<char> bytes(kCall, 'G');
  for (int call = 0; call < kCallsOfAFile; ++call) file.write(bytes.data(), kCall);
}

// A file of its own for a bare end that does what a box is there for, too, by plain calls. It has
// no name.
class Store {
 public:
  Store() : file_(open("bench-stored", O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)) {
    require(file_ >= 0, "bench-stored");
    unlink("bench-stored");
    const std::vector<char> bytes(kCall, 'G');
    for (int call = 0; call < kCallsOfAFile; ++call) {
      require(::write(file_, bytes.data(), kCall) > 0, "write");
    }
    lseek(file_, 0, SEEK_SET);
  }
  ~Store() { close(file_); }
  Store(const Store &) = delete;
  Store &operator=(const Store &) = delete;
  int file() const { return file_; }

 private:
  int file_;
};

void read_against(benchmark::State &state, int loaded_from) {
  const Box box;
  make_file();
  BareEnd bare({{kDataAt}, packets_of(kCall, kReadPacket), -1, loaded_from});
  BoxFile file(GST_PVR_FILE_READ);
  std::vector<char> bytes(kCall);
  int call = 0;
  compare(
      state, 1.3,
      [&] {
        bare.send_bytes(kDataAt);
        for (const size_t size : packets_of(kCall, kReadPacket)) bare.take_bytes(size);
      },
      [&] {
        if (call++ == kCallsOfAFile - 1) file.seek(call = 0);
        file.read(bytes.data(), kCall);
      });
}
void read_over_loopback(benchmark::State &state) { read_against(state, -1); }
BENCHMARK(read_over_loopback)->UseManualTime()->Iterations(4000);

void read_over_loopback_stored(benchmark::State &state) { read_against(state, Store().file()); }
BENCHMARK(read_over_loopback_stored)->UseManualTime()->Iterations(4000);

// The file is as long as it becomes before anything is measured: a new page of it costs the disk's
// part, not the connection's.
void write_against(benchmark::State &state, int stored_in) {
  const Box box;
  make_file();
  BareEnd bare({packets_of(kCall, kWritePacket), {kHeader}, stored_in, -1});
  BoxFile file(GST_PVR_FILE_WRITE);
  const std::vector<char> bytes(kCall, 'G');
  for (int call = 0; call < kCallsOfAFile; ++call) file.write(bytes.data(), kCall);
  file.seek(0);
  int call = 0;
  compare(
      state, 1.3,
      [&] {
        for (const size_t size : packets_of(kCall, kWritePacket)) bare.send_bytes(size);
        bare.take_bytes(kHeader);
      },
      [&] {
        if (call++ == kCallsOfAFile - 1) file.seek(call = 0);
        file.write(bytes.data(), kCall);
      });
}
void write_over_loopback(benchmark::State &state) { write_against(state, -1); }
BENCHMARK(write_over_loopback)->UseManualTime()->Iterations(4000);

void write_over_loopback_stored(benchmark::State &state) { write_against(state, Store().file()); }
BENCHMARK(write_over_loopback_stored)->UseManualTime()->Iterations(4000);

void seek_and_read_over_loopback(benchmark::State &state) {
  constexpr size_t kRead = 4096;
  constexpr size_t kSeekRequest = 40;
  const Box box;
  make_file();
  BareEnd seeker({{kSeekRequest}, {kHeader}});
  BareEnd reader({{kDataAt}, {kRead + kDataAt}});
  BoxFile file(GST_PVR_FILE_READ);
  std::vector<char> bytes(kRead);
  int call = 0;
  compare(
      state, 1.3,
      [&] {
        seeker.send_bytes(kSeekRequest);
        seeker.take_bytes(kHeader);
        reader.send_bytes(kDataAt);
        reader.take_bytes(kRead + kDataAt);
      },
      [&] {
        file.seek(gint64{call++ * 7919 % kCallsOfAFile} * gint64{kCall});
        file.read(bytes.data(), kRead);
      });
}
BENCHMARK(seek_and_read_over_loopback)->UseManualTime()->Iterations(10000);

// One for each packet, and one for the answer.
void system_calls_of_a_write(benchmark::State &state) {
  const Box box;
  BoxFile file(GST_PVR_FILE_WRITE);
  const std::vector<char> bytes(kCall, 'G');
  int calls = 0;
  for (auto _ : state) {
    g_transfers = 0;
    file.write(bytes.data(), kCall);
    calls = g_transfers;
    state.SetIterationTime(1e-6);
  }
  const auto most = static_cast<int>(packets_of(kCall, kWritePacket).size()) + 1;
  state.counters["calls"] = calls;
  state.counters["at_most"] = most;
  state.SetLabel(calls <= most ? "within" : "OVER");
}
BENCHMARK(system_calls_of_a_write)->UseManualTime()->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
