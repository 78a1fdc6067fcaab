// gst_file_socket_io_internal.h - the parts of the box's client: connection, requests, transfer.
//
// What gst_file_socket_io.cpp puts together to operations. As there: a state belongs to one file,
// and its calls must not overlap.
#pragma once

#include "gst_socket_protocol.h"

namespace plexa {

// What goes into a request beside the command; each command takes what it needs.
struct RequestArguments {
  guint32 size = 0;                 // READ, WRITE: bytes
  gint64 offset = 0;                // SEEK
  gint32 whence = 0;                // SEEK
  gint32 max_time = 0;              // SET_MAX_TIME: ms
  guint32 wrote_time = 0;           // SET_WROTE_TIME: ms
  const gchar *old_path = nullptr;  // RENAME
  const gchar *new_path = nullptr;  // RENAME
};

// The state's path as the log shows it; none is an empty text.
const gchar *path_of(const GstFileSocketIo *socket_io) noexcept;

// ---- Connection ----

// 1, or -1. A socket that could not be connected stays in the state until it is disconnected.
gint32 gst_file_socket_io_connect(GstFileSocketIo *socket_io);

// 1, always. Leaves errno alone.
gint32 gst_file_socket_io_disconnect(GstFileSocketIo *socket_io);

// kPacketBufferSize bytes on a page of their own, or null. They go with a disconnect and free.
guint8 *allocate_packet_buffer();

// Disconnects and frees the packet buffer: the state is not connected afterwards. Leaves errno
// alone.
void release(GstFileSocketIo *socket_io);

// ---- Requests ----

// Builds a command's request at buffer, all that it does not state zero. 1, or -1 without a buffer
// and for a command that has no such request (CUT_FILE among them).
gint32 gst_file_socket_io_make_command(const GstFileSocketIo *socket_io, guint8 *buffer,
                                       gint32 command, const RequestArguments &arguments);

// The same for CUT_FILE, and for nothing else.
bool gst_file_socket_io_make_command_ex(guint8 *buffer, gint32 command,
                                        const pvr_cut_request_s *cut_request);

// ---- Transfer ----

// Sends length bytes. length, or -1.
gint32 gst_file_socket_io_send_all(GstFileSocketIo *socket_io, const guint8 *bytes, gint32 length);

// Sends the data of one write call in packets; the packet buffer holds its WRITE request. size, 0
// when there is nothing to send, or -1.
gint64 gst_file_socket_io_send_all_for_write(GstFileSocketIo *socket_io, const void *data,
                                             guint32 size);

// Receives one packet into buffer and its header into the state. Its size, or -1 when the
// connection ends or the packet is larger than capacity (header_data_s fits at least). A packet
// that says that it is smaller than its own header ends the program.
gint32 gst_file_socket_io_receive_packet(GstFileSocketIo *socket_io, guint8 *buffer,
                                         guint32 capacity);

// Receives the answer to a READ of size bytes through the packet buffer. Bytes copied to data,
// which has room for size, or -1.
gint64 gst_file_socket_io_receive_all(GstFileSocketIo *socket_io, void *data, guint32 size);

}  // namespace plexa
