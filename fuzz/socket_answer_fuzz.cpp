// socket_answer_fuzz.cpp - any bytes as the answers of the companion box.
//
// The first four bytes choose the operations, the rest is all that the box ever sends; then it
// hangs up. A packet that claims to be smaller than its own header ends a program on purpose, so
// such sizes are made good first. A read must not give more than was asked for, nor write behind
// its block.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "gst-plexa/gst_file_socket_io.h"
#include "gst_file_socket_io_internal.h"

namespace {

constexpr size_t kOperations = 4;
constexpr guint32 kReadSizes[] = {0, 1, 10, 1000, 70000};

// The client finds packets by their sizes, one behind the other; so does this.
void make_sizes_good(std::vector<guint8> &answers) {
  for (size_t at = 0; answers.size() - at >= sizeof(header_data_s);) {
    gint32 size;
    std::memcpy(&size, answers.data() + at, sizeof size);
    size = std::max<gint32>(size, sizeof(header_data_s));
    std::memcpy(answers.data() + at, &size, sizeof size);
    const bool refused = static_cast<guint32>(size) > plexa::kPacketBufferSize;
    const size_t step = refused ? sizeof(header_data_s) : static_cast<size_t>(size);
    at += std::min(step, answers.size() - at);
  }
}

// A state that is connected to a box that has said all that it will.
class Connection {
 public:
  explicit Connection(const std::vector<guint8> &answers) {
    static guint8 *const packet_buffer = plexa::allocate_packet_buffer();
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) std::abort();
    gst_file_socket_io_init(&state_);
    state_.clnt_sock = ends[0];
    state_.t_pbuf = packet_buffer;
    state_.file_path = "/fuzz.kvf";
    state_.flags = {0, 1, 1, 0};
    box_ = ends[1];
    for (size_t done = 0; done < answers.size();) {
      const ssize_t count = send(box_, answers.data() + done, answers.size() - done, MSG_DONTWAIT);
      if (count <= 0) break;  // more than the connection holds
      done += static_cast<size_t>(count);
    }
    shutdown(box_, SHUT_WR);
  }
  ~Connection() {
    plexa::gst_file_socket_io_disconnect(&state_);
    close(box_);
  }
  Connection(const Connection &) = delete;
  Connection &operator=(const Connection &) = delete;
  GstFileSocketIo *state() { return &state_; }

 private:
  GstFileSocketIo state_;
  int box_;
};

void read_some(GstFileSocketIo *state, guint32 size) {
  const std::unique_ptr<guint8[]> block(new guint8[size]);
  const gint64 result = gst_file_socket_io_read(state, block.get(), size);
  if (result < -1 || result > gint64{size}) std::abort();
  if (result < 0 && state->t_bSockErrOccurred == 0) std::abort();
}

void operate(GstFileSocketIo *state, guint8 choice) {
  if (choice < 128) return read_some(state, kReadSizes[choice % std::size(kReadSizes)]);
  switch (choice % 7) {
    case 0:
      gst_file_socket_io_write(state, "abc", 3);
      return;
    case 1:
      gst_file_socket_io_seek(state, 1, 0);
      return;
    case 2:
      gst_file_socket_io_tell(state);
      return;
    case 3:
      gst_file_socket_io_size(state);
      return;
    case 4:
      if (const gint64 result = gst_file_socket_io_fsync(state); result != 1 && result != -1) {
        std::abort();
      }
      return;
    case 5:
      gst_file_socket_io_set_max_time(state, 360000);
      return;
    default:
      gst_file_socket_io_set_last_wrote_time(state, 1);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < kOperations) return 0;
  std::vector<guint8> answers(data + kOperations, data + size);
  make_sizes_good(answers);
  Connection connection(answers);
  for (size_t i = 0; i < kOperations; ++i) operate(connection.state(), data[i]);
  return 0;
}
