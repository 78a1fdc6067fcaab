// gst_file_socket_transfer.cpp - the connection to the companion box, and bytes through it.
//
// Blocking, without timeout or retry: what the kernel reports as an end is one. What the box says
// about sizes is checked before it is believed: a packet must fit into its buffer, an answer into
// the caller's. A packet that claims to be smaller than its own header ends the program, in every
// build. One caller at a time for each state.
#undef NDEBUG  // the assertions below are part of every build
#include <arpa/inet.h>
#include <assert.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "gst_file_socket_io_internal.h"

#define PLEXA_LOG_AREA "EXT_FMG"
#include "plexa_log.h"

// assert() with the bare name of this file.
#define ASSERTED(condition)           \
  ((condition) ? static_cast<void>(0) \
               : __assert_fail(#condition, __FILE_NAME__, __LINE__, __extension__ __func__))

// In the operation itself, so that the log line carries the operation's name.
#define RECEIVED_OR_FAILED(socket_io, buffer, size)                                         \
  do {                                                                                      \
    if (const gint32 n_data = receive_exactly((socket_io), (buffer), (size)); n_data < 1) { \
      PLX_ERROR("[PLG_ERR] [ZEB::Client] disconnected! n_data=[%d] ", n_data);              \
      return -1;                                                                            \
    }                                                                                       \
  } while (0)

namespace plexa {
namespace {

constexpr gint32 kHeaderSize = sizeof(header_data_s);

sockaddr_in box_address() {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(kPort);
  address.sin_addr.s_addr = inet_addr(PLEXA_ZEB_ADDRESS);
  return address;
}

// Blocking, and each packet on its way at once: the box waits for the last one of a write, and the
// last one must not wait for the box's acknowledgement of those before.
void prepare_socket(int descriptor) {
  const int flags = fcntl(descriptor, F_GETFL, 0);
  if (flags >= 0) fcntl(descriptor, F_SETFL, flags & ~O_NONBLOCK);
  const int on = 1;
  setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

// A failed connect has an errno of its own to report; what prepares the socket is not to leave one.
bool connect_to(int descriptor, const sockaddr_in &address) {
  prepare_socket(descriptor);
  errno = 0;
  return connect(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

// size, or what the receive gave that ended it: 0 or less.
gint32 receive_exactly(const GstFileSocketIo *socket_io, guint8 *buffer, gint32 size) {
  for (gint32 done = 0; done < size;) {
    const auto count = static_cast<gint32>(
        recv(socket_io->clnt_sock, buffer + done, static_cast<size_t>(size - done), MSG_WAITALL));
    if (count <= 0) return count;
    done += count;
  }
  return size;
}

// What the packets of one READ answer have brought so far.
class Answer {
 public:
  Answer(guint8 *data, guint32 room) noexcept : data_(data), room_(room) {}

  // Takes over the data of a packet, or refuses the packet.
  bool take(const guint8 *packet, gint32 packet_size) {
    if (packet_size < kDataAt) {
      PLX_ERROR("[PLG_ERR] [ZEB::Client] data packet too small! packet_size=[%d]", packet_size);
      return false;
    }
    if (!announced_ && !announce(record_at<ReadAnswer>(packet).total)) return false;
    const auto size = static_cast<guint32>(packet_size - kDataAt);
    if (size > expected_) {
      PLX_ERROR("[PLG_ERR] [ZEB::Client] more data than announced! expected=[%u], data=[%u]",
                expected_, size);
      return false;
    }
    std::memcpy(data_ + taken_, packet + kDataAt, size);
    taken_ += size;
    expected_ -= size;
    return true;
  }
  bool complete() const { return announced_ && expected_ == 0; }
  guint32 taken() const { return taken_; }

 private:
  static constexpr gint32 kDataAt = sizeof(ReadAnswer);

  bool announce(guint32 total) {
    if (total > room_) {
      PLX_ERROR("[PLG_ERR] [ZEB::Client] more announced than asked for! request=[%u], count=[%u]",
                room_, total);
      return false;
    }
    announced_ = true;
    expected_ = total;
    return true;
  }

  guint8 *data_;
  guint32 room_;
  guint32 taken_ = 0;
  guint32 expected_ = 0;
  bool announced_ = false;
};

}  // namespace

const gchar *path_of(const GstFileSocketIo *socket_io) noexcept {
  return socket_io->file_path != nullptr ? socket_io->file_path : "";
}

gint32 gst_file_socket_io_connect(GstFileSocketIo *socket_io) {
  PLX_INFO("[ZEB::Client] gst_file_socket_io_connect ! ");
  socket_io->clnt_sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (socket_io->clnt_sock < 0) {
    socket_io->clnt_sock = -1;
    PLX_ERROR("[PLG_ERR] [ZEB::Client] Get socket failed! filePath=[%s]", path_of(socket_io));
    return -1;
  }
  const sockaddr_in address = box_address();
  if (connect_to(socket_io->clnt_sock, address)) return 1;
  char text[INET_ADDRSTRLEN];
  const int error_number = errno;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"  // -Wpedantic: ISO C++ has no %m, the platform's log does
  PLX_ERROR("[PLG_ERR] [ZEB::Client] Connect failed! server ip=[%s], errno=[%d:%m]",
            inet_ntop(AF_INET, &address.sin_addr, text, sizeof text), error_number);
#pragma GCC diagnostic pop
  return -1;
}

gint32 gst_file_socket_io_disconnect(GstFileSocketIo *socket_io) {
  const KeepErrno keep_errno;
  if (socket_io->clnt_sock != -1) close(socket_io->clnt_sock);
  socket_io->clnt_sock = -1;
  return 1;
}

guint8 *allocate_packet_buffer() { return static_cast<guint8 *>(valloc(kPacketBufferSize)); }

void release(GstFileSocketIo *socket_io) {
  const KeepErrno keep_errno;
  gst_file_socket_io_disconnect(socket_io);
  std::free(socket_io->t_pbuf);
  socket_io->t_pbuf = nullptr;
}

gint32 gst_file_socket_io_send_all(GstFileSocketIo *socket_io, const guint8 *bytes, gint32 length) {
  for (gint32 pos = 0; pos < length;) {
    const auto count = static_cast<gint32>(
        send(socket_io->clnt_sock, bytes + pos, static_cast<size_t>(length - pos), MSG_NOSIGNAL));
    if (count <= 0) {
      PLX_ERROR(
          "[PLG_ERR] send error(server disconnected). return size=[%d], request size=[%d], "
          "pos=[%d]",
          count, length, pos);
      return -1;
    }
    pos += count;
  }
  return length;
}

// The total behind the header stays as the request has it; only the header is the packet's own.
gint64 gst_file_socket_io_send_all_for_write(GstFileSocketIo *socket_io, const void *data,
                                             guint32 size) {
  PLX_INFO("n_left = [%d]", static_cast<gint32>(size));
  const auto *const bytes = static_cast<const guint8 *>(data);
  guint8 *const packet = socket_io->t_pbuf;
  auto header = new_request<WriteRequest>(COMMAND_TYPE_WRITE).header;
  for (guint32 sent = 0; sent < size;) {
    const guint32 chunk = std::min(size - sent, kWriteDataSize);
    header.packet_size = static_cast<gint32>(chunk + sizeof(WriteRequest));
    std::memcpy(packet, &header, sizeof header);
    std::memcpy(packet + sizeof(WriteRequest), bytes + sent, chunk);
    PLX_INFO(
        "[%s]HeaderData: size = [%zu], packet_size = [%d], command = [%d:%s], "
        "accumulated_time = [%ld], fixed_duration = [%ld], is_job_stopped = [%d], "
        "lld_return = [%lld], n_data_size = [%d]",
        path_of(socket_io), sizeof header, header.packet_size, header.command,
        command_get_name(header.command), static_cast<long>(header.accumulated_time),
        static_cast<long>(header.fixed_duration), header.is_job_stopped,
        static_cast<long long>(header.lld_return), static_cast<gint32>(chunk));
    const gint32 result = gst_file_socket_io_send_all(socket_io, packet, header.packet_size);
    if (result < 0) {
      PLX_ERROR("[PLG_ERR] send error. return size=[%d]", result);
      return -1;
    }
    sent += chunk;
  }
  return size;
}

gint32 gst_file_socket_io_receive_packet(GstFileSocketIo *socket_io, guint8 *buffer,
                                         guint32 capacity) {
  socket_io->header_data = {};
  RECEIVED_OR_FAILED(socket_io, buffer, kHeaderSize);
  const gint32 i_pos = kHeaderSize;
  socket_io->header_data = record_at<header_data_s>(buffer);
  const gint32 packet_size = socket_io->header_data.packet_size;
  const gint64 n_left = gint64{packet_size} - i_pos;  // in 64 bits: nothing can overflow
  ASSERTED(n_left >= 0);
  ASSERTED(i_pos == (int)sizeof(header_data_s));
  if (static_cast<guint32>(packet_size) > capacity) {
    PLX_ERROR("[PLG_ERR] [ZEB::Client] packet too large! packet_size=[%d], buffer size=[%u]",
              packet_size, capacity);
    return -1;
  }
  if (n_left > 0) RECEIVED_OR_FAILED(socket_io, buffer + i_pos, static_cast<gint32>(n_left));
  return packet_size;
}

gint64 gst_file_socket_io_receive_all(GstFileSocketIo *socket_io, void *data, guint32 size) {
  if (size < 1) return 0;
  const header_data_s &header = socket_io->header_data;
  Answer answer(static_cast<guint8 *>(data), size);
  while (!answer.complete()) {
    const gint32 packet_size =
        gst_file_socket_io_receive_packet(socket_io, socket_io->t_pbuf, kPacketBufferSize);
    if (packet_size < 0 || header.command < 0) {
      PLX_ERROR("[PLG_ERR] [ZEB::Client] Receive packet error! filepath=[%s], command=[%d] ",
                path_of(socket_io), header.command);
      return -1;
    }
    if (header.is_job_stopped != 0) {
      PLX_ERROR(
          "[ZEB::Client] Request is big than file size, request=[%d], read=[%d], "
          "t_strFilePath=[%s]!",
          static_cast<gint32>(size), static_cast<gint32>(answer.taken()), path_of(socket_io));
      return answer.taken();
    }
    if (header.command != COMMAND_TYPE_READ) {
      PLX_ERROR("[PLG_ERR] [ZEB::Client] Not OK! filepath=[%s], recv command=[%d], clnt_sock=[%d]",
                path_of(socket_io), header.command, socket_io->clnt_sock);
      return -1;
    }
    if (!answer.take(socket_io->t_pbuf, packet_size)) return -1;
  }
  return answer.taken();
}

}  // namespace plexa
