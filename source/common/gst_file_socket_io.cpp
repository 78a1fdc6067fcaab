// gst_file_socket_io.cpp - the operations on a file of the companion box, one exchange each.
//
// Strictly one request, then its answer, on the caller's thread. Refused is an operation on a state
// that is not connected. A failed exchange sets the state's error mark and leaves the connection
// up: the operations after it still try theirs, but close no longer does. Takes no lock: one caller
// at a time for each state.
#include "gst-plexa/gst_file_socket_io.h"

#include <cerrno>

#include "gst-plexa/gst_file_shared_info.h"
#include "gst_file_socket_io_internal.h"

#define PLEXA_LOG_AREA "EXT_FMG"
#include "plexa_log.h"

using plexa::path_of;
using plexa::RequestArguments;

// In the operation itself, so that the log line carries the operation's name. The texts differ by
// operation, in their tags and blanks too; whoever searches the logs knows them so.
#define SENT_OR_FAILED(sent, socket_io, message) \
  do {                                           \
    if (!(sent)) {                               \
      PLX_ERROR(message, path_of(socket_io));    \
      return failed(socket_io);                  \
    }                                            \
  } while (0)
#define ANSWERED_OR_FAILED(socket_io, message)                                \
  do {                                                                        \
    if (!answered(socket_io)) {                                               \
      PLX_ERROR(message, path_of(socket_io), socket_io->header_data.command); \
      return failed(socket_io);                                               \
    }                                                                         \
  } while (0)
#define SEND_FAILED "[PLG_ERR] [ZEB::Client] Send failed !, filePath=[%s]"
#define RECEIVE_FAILED "[PLG_ERR] [ZEB::Client] Receive packet error !filePath=[%s], command=[%d]"

namespace {

// The largest answer that CLOSE may have when there is no packet buffer.
constexpr guint32 kSmallBufferSize = 1024;

gint64 failed(GstFileSocketIo *socket_io) {
  socket_io->t_bSockErrOccurred = 1;
  return -1;
}

// Begins an operation: its request, made in the packet buffer. False without a connection.
bool prepare(GstFileSocketIo *socket_io, plexa::CommandType command,
             const RequestArguments &arguments = {}) {
  errno = 0;  // a failure without a system call's has none
  return plexa::gst_file_socket_io_make_command(socket_io, socket_io->t_pbuf, command, arguments) ==
         1;
}

bool send_request(GstFileSocketIo *socket_io, const guint8 *request) {
  const gint32 size = plexa::record_at<header_data_s>(request).packet_size;
  return plexa::gst_file_socket_io_send_all(socket_io, request, size) == size;
}
bool send_request(GstFileSocketIo *socket_io) { return send_request(socket_io, socket_io->t_pbuf); }

gint32 receive(GstFileSocketIo *socket_io) {
  return plexa::gst_file_socket_io_receive_packet(socket_io, socket_io->t_pbuf,
                                                  plexa::kPacketBufferSize);
}

bool answered(GstFileSocketIo *socket_io) {
  return receive(socket_io) >= 0 && socket_io->header_data.command >= 0;
}

// A time-shift recording that is being written here is cut there: the box tells how far.
void take_over_cut_info(const GstFileSocketIo *socket_io) {
  const GstSocketOpenFlags &flags = socket_io->flags;
  if (flags.direct_mode == 0 || flags.read_mode != 0 || flags.is_ts == 0) return;
  GstSharedCutInfo *const info = gst_shared_cut_info_get();
  gst_shared_cut_info_set_accumulated_time(info, socket_io->header_data.accumulated_time);
  gst_shared_cut_info_set_fixed_duration(info, socket_io->header_data.fixed_duration);
}

// Nothing is left of an open that the box did not answer as it should, but the mark.
gint64 failed_open(GstFileSocketIo *socket_io) {
  plexa::release(socket_io);
  return failed(socket_io);
}

enum class Leave { kTaken, kNotSent, kNotAnswered };

// Also when connect or the allocation of the packet buffer failed; its few bytes need none.
Leave take_leave(GstFileSocketIo *socket_io) {
  guint8 small[kSmallBufferSize];
  guint8 *const buffer = socket_io->t_pbuf != nullptr ? socket_io->t_pbuf : small;
  const guint32 capacity = buffer == small ? kSmallBufferSize : plexa::kPacketBufferSize;
  plexa::gst_file_socket_io_make_command(socket_io, buffer, plexa::COMMAND_TYPE_CLOSE, {});
  if (!send_request(socket_io, buffer)) return Leave::kNotSent;
  const gint32 result = plexa::gst_file_socket_io_receive_packet(socket_io, buffer, capacity);
  const bool is_good = result >= 0 && socket_io->header_data.command >= 0;
  return is_good ? Leave::kTaken : Leave::kNotAnswered;
}

// A connection for one exchange: gone at the end of the call, however that ends.
class OneShot {
 public:
  explicit OneShot(GstFileSocketIo *socket_io) noexcept : socket_io_(socket_io) { errno = 0; }
  ~OneShot() { plexa::release(socket_io_); }
  OneShot(const OneShot &) = delete;
  OneShot &operator=(const OneShot &) = delete;

  bool connect() { return plexa::gst_file_socket_io_connect(socket_io_) == 1; }
  bool allocate() {
    socket_io_->t_pbuf = plexa::allocate_packet_buffer();
    return socket_io_->t_pbuf != nullptr;
  }

 private:
  GstFileSocketIo *socket_io_;
};

}  // namespace

void gst_file_socket_io_init(GstFileSocketIo *socket_io) {
  *socket_io = {};
  socket_io->clnt_sock = -1;
}

gint64 gst_file_socket_io_open(GstFileSocketIo *socket_io, const gchar *path,
                               const GstSocketOpenFlags *flags, guint8 open_mode) {
  PLX_INFO("[ZEB::Client] gst_file_socket_io_open ! filePath=[%s]", path != nullptr ? path : "");
  plexa::release(socket_io);  // what an open without a close has left
  errno = 0;
  socket_io->file_path = path;
  socket_io->flags = *flags;
  socket_io->open_mode = open_mode;
  if (plexa::gst_file_socket_io_connect(socket_io) != 1) return -1;
  socket_io->t_pbuf = plexa::allocate_packet_buffer();
  if (socket_io->t_pbuf == nullptr) return -1;  // the errno tells
  socket_io->t_bSockErrOccurred = 0;
  prepare(socket_io, plexa::COMMAND_TYPE_OPEN);
  if (!send_request(socket_io)) {
    PLX_ERROR(SEND_FAILED, path_of(socket_io));
    return failed_open(socket_io);
  }
  const gint32 result = receive(socket_io);
  if (result >= 0 && socket_io->header_data.command >= 0) return 1;
  PLX_ERROR("[PLG_ERR] receive packet error ! filePath=[%s], ret=[%d], command=[%d]",
            path_of(socket_io), result, socket_io->header_data.command);
  return failed_open(socket_io);
}

gint64 gst_file_socket_io_close(GstFileSocketIo *socket_io) {
  PLX_INFO("[ZEB::Client] gst_file_socket_io_close ! filePath=[%s]", path_of(socket_io));
  errno = 0;
  gint64 result = 1;
  if (socket_io->clnt_sock == -1) {
    PLX_INFO("[ZEB::Client] clnt_sock == -1.");
  } else if (socket_io->t_bSockErrOccurred != 0) {
    PLX_INFO("[ZEB::Client] t_bSockErrOccurred == true.");
  } else if (const Leave leave = take_leave(socket_io); leave == Leave::kNotSent) {
    PLX_ERROR(SEND_FAILED, path_of(socket_io));
    result = failed(socket_io);
  } else if (leave == Leave::kNotAnswered) {
    PLX_ERROR("[PLG_ERR] [ZEB::Client] Receive packet error ! filePath=[%s], command=[%d]",
              path_of(socket_io), socket_io->header_data.command);
    result = failed(socket_io);
  }
  plexa::release(socket_io);
  socket_io->file_path = nullptr;  // from here on the caller's string may go
  return result;
}

gint64 gst_file_socket_io_read(GstFileSocketIo *socket_io, void *buffer, guint32 size) {
  if (!prepare(socket_io, plexa::COMMAND_TYPE_READ, {.size = size})) return -1;
  SENT_OR_FAILED(send_request(socket_io), socket_io, SEND_FAILED);
  const gint64 result = plexa::gst_file_socket_io_receive_all(socket_io, buffer, size);
  if (result >= 0) return result;
  PLX_ERROR("[PLG_ERR] [ZEB::Client] Receive all error !filePath=[%s]", path_of(socket_io));
  return failed(socket_io);
}

gint64 gst_file_socket_io_write(GstFileSocketIo *socket_io, const void *buffer, guint32 size) {
  if (!prepare(socket_io, plexa::COMMAND_TYPE_WRITE, {.size = size})) return -1;
  SENT_OR_FAILED(plexa::gst_file_socket_io_send_all_for_write(socket_io, buffer, size) > 0,
                 socket_io, "[PLG_ERR] [ZEB::Client] Send all error ! filePath=[%s]");
  ANSWERED_OR_FAILED(socket_io, RECEIVE_FAILED);
  take_over_cut_info(socket_io);
  return socket_io->header_data.lld_return;
}

gint64 gst_file_socket_io_seek(GstFileSocketIo *socket_io, gint64 offset, gint32 whence) {
  if (!prepare(socket_io, plexa::COMMAND_TYPE_SEEK, {.offset = offset, .whence = whence})) {
    return -1;
  }
  SENT_OR_FAILED(send_request(socket_io), socket_io, SEND_FAILED);
  ANSWERED_OR_FAILED(socket_io, RECEIVE_FAILED);
  return socket_io->header_data.lld_return;
}

gint64 gst_file_socket_io_tell(GstFileSocketIo *socket_io) {
  if (!prepare(socket_io, plexa::COMMAND_TYPE_TELL)) {
    PLX_ERROR("[PLG_ERR] [ZEB::Client] gst_file_socket_io_make_command() failed");
    return -1;
  }
  SENT_OR_FAILED(send_request(socket_io), socket_io, SEND_FAILED);
  const gint32 result = receive(socket_io);
  if (result >= 0 && socket_io->header_data.command >= 0) return socket_io->header_data.lld_return;
  PLX_ERROR("[PLG_ERR] gst_file_socket_io_receive_packet() ret[%d]", result);
  PLX_ERROR("[PLG_ERR] Receive packet error !filePath=[%s], command=[%d]", path_of(socket_io),
            socket_io->header_data.command);
  return failed(socket_io);
}

gint64 gst_file_socket_io_size(GstFileSocketIo *socket_io) {
  if (!prepare(socket_io, plexa::COMMAND_TYPE_SIZE)) return -1;
  SENT_OR_FAILED(send_request(socket_io), socket_io,
                 "[PLG_ERR] [ZEB::Client] Send failed!, filePath = [%s]");
  ANSWERED_OR_FAILED(socket_io, RECEIVE_FAILED);
  return socket_io->header_data.lld_return;
}

gint64 gst_file_socket_io_fsync(GstFileSocketIo *socket_io) {
  if (!prepare(socket_io, plexa::COMMAND_TYPE_FSYNC)) return -1;
  SENT_OR_FAILED(send_request(socket_io), socket_io, SEND_FAILED);
  ANSWERED_OR_FAILED(socket_io, "[PLG_ERR] Receive packet error !filePath=[%s], command=[%d]");
  return 1;
}

gint64 gst_file_socket_io_set_max_time(GstFileSocketIo *socket_io, gint32 time) {
  if (!prepare(socket_io, plexa::COMMAND_TYPE_SET_MAX_TIME, {.max_time = time})) return -1;
  SENT_OR_FAILED(send_request(socket_io), socket_io, SEND_FAILED);
  ANSWERED_OR_FAILED(socket_io, "[PLG_ERR] Receive packet error !filePath=[%s], command=[%d]");
  return socket_io->header_data.lld_return;
}

// The box tells the duration with every answer to a write; there is nothing to ask.
gint64 gst_file_socket_io_get_max_time(GstFileSocketIo *) {
  return gst_shared_cut_info_get_fixed_duration(gst_shared_cut_info_get());
}

gint64 gst_file_socket_io_set_last_wrote_time(GstFileSocketIo *socket_io, guint32 time) {
  if (!prepare(socket_io, plexa::COMMAND_TYPE_SET_WROTE_TIME, {.wrote_time = time})) return -1;
  SENT_OR_FAILED(send_request(socket_io), socket_io,
                 "[PLG_ERR] [ZEB::Client] gst_file_socket_io_send_all() failed !, filePath=[%s]");
  ANSWERED_OR_FAILED(socket_io, RECEIVE_FAILED);
  return socket_io->header_data.lld_return;
}

gint64 gst_file_socket_io_rename(GstFileSocketIo *socket_io, const gchar *old_path,
                                 const gchar *new_path) {
  OneShot one_shot(socket_io);
  if (!one_shot.connect()) {
    PLX_ERROR("[PLG_ERR] gst_file_socket_io_connect");
    return -1;
  }
  if (!one_shot.allocate()) {
    PLX_ERROR("[PLG_ERR] socket_io->t_pbuf == NULL, valloc failed");
    return -1;
  }
  PLX_INFO("old_path = [%s], new_path = [%s]", old_path != nullptr ? old_path : "",
           new_path != nullptr ? new_path : "");
  if (plexa::gst_file_socket_io_make_command(socket_io, socket_io->t_pbuf,
                                             plexa::COMMAND_TYPE_RENAME,
                                             {.old_path = old_path, .new_path = new_path}) != 1) {
    PLX_ERROR("[PLG_ERR] gst_file_socket_io_make_command: COMMAND_TYPE_RENAME failed");
    return -1;
  }
  SENT_OR_FAILED(send_request(socket_io), socket_io, SEND_FAILED);
  const gint32 result = receive(socket_io);
  if (result >= 0 && socket_io->header_data.command >= 0) return 1;
  PLX_ERROR("[PLG_ERR] receiv packet error! retval=[%d], socket_io->header_data.command=[%d]",
            result, socket_io->header_data.command);
  return failed(socket_io);
}

gint64 gst_file_socket_io_cut_file(GstFileSocketIo *socket_io, const pvr_cut_request_s *request) {
  OneShot one_shot(socket_io);
  if (!one_shot.connect()) {
    PLX_ERROR("[PLG_ERR] gst_file_socket_io_connect failed");
    return 0;
  }
  if (!one_shot.allocate()) {
    PLX_ERROR("[PLG_ERR] socket_io->t_pbuf == NULL");
    return 0;
  }
  if (!plexa::gst_file_socket_io_make_command_ex(socket_io->t_pbuf, plexa::COMMAND_TYPE_CUT_FILE,
                                                 request)) {
    PLX_ERROR("[PLG_ERR] gst_file_socket_io_make_command_ex:COMMAND_TYPE_CUT_FILE failed");
    return 0;
  }
  if (!send_request(socket_io)) {
    PLX_ERROR(SEND_FAILED, path_of(socket_io));
    failed(socket_io);
    return 0;
  }
  const gint32 result = receive(socket_io);
  if (result >= 0 && socket_io->header_data.command >= 0) return 1;
  PLX_ERROR("[PLG_ERR] receive packet error! retval=[%d], socket_io->header_data.command=[%d]",
            result, socket_io->header_data.command);
  failed(socket_io);
  return 0;
}
