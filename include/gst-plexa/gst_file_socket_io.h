/* gst_file_socket_io.h - one file on the companion box, reached over one TCP connection.
 *
 * Each operation is one exchange: a request, then its answer, on the caller's thread. The box
 * listens on port 38999 at the address that the library was built for. There is no timeout and no
 * retry: a box that says nothing blocks the caller until the kernel gives up, a connection that
 * breaks is a failure. Nothing raises a signal.
 *
 * A state belongs to one file and takes no lock: its calls must not overlap. Different states are
 * independent of each other. Unless stated otherwise, -1 is failure; errno is then that of the
 * system call that failed, or 0 when none did (the box refused, closed the connection, or sent what
 * it must not). A failed exchange sets the state's error mark; the connection stays up, but close
 * then no longer takes leave of the box.
 */
#ifndef GST_FILE_SOCKET_IO_H
#define GST_FILE_SOCKET_IO_H

#include "gst_plexa_defs.h"

G_BEGIN_DECLS

/* Every packet in both directions begins with this. Little-endian, 28 bytes on every machine. */
typedef struct __attribute__((packed)) _header_data_s {
  gint32 packet_size;      /*  0  bytes of the whole packet, this header included; 28 at least */
  gint32 command;          /*  4  request: the command; answer: the status, negative is failure */
  gint32 accumulated_time; /*  8  answer to a write: ms cut off the time-shift recording's start */
  gint32 fixed_duration;   /* 12  answer to a write: ms that the time-shift buffer holds at most */
  gint32 is_job_stopped;   /* 16  answer to a read: not 0 when it reached past the file's end */
  gint64 lld_return;       /* 20  answer: the result (position, size, bytes written) */
} header_data_s;

/* What the box is to cut out of a recording. Little-endian, 532 bytes on every machine. */
typedef struct __attribute__((packed)) _pvr_cut_request_s {
  gchar kvf_file_name[256];     /*   0  the stream file, zero-filled */
  gint64 start_offset;          /* 256  bytes, first of the range */
  gint64 end_offset;            /* 264  bytes, end of the range */
  gchar second_file_name[256];  /* 272  zero-filled; all zero when not given */
  guint32 has_second_file_name; /* 528  1 when given, else 0 */
} pvr_cut_request_s;

/* How a file was opened; sent along with its path. */
typedef struct _GstSocketOpenFlags {
  guint8 read_mode;   /* open flag 1: 1 reader, 0 writer */
  guint8 direct_mode; /* open flag 2: 1 direct, 0 buffered */
  guint8 is_ts;       /* 1 time-shift recording, 0 normal */
  guint8 is_index;    /* 1 index file, 0 stream */
} GstSocketOpenFlags;

/* The client's state. Not connected: clnt_sock -1 and t_pbuf null. */
typedef struct _GstFileSocketIo {
  const gchar *file_path; /* the caller's string, not copied; null prints as an empty one */
  GstSocketOpenFlags flags;
  guint8 open_mode;          /* last argument of open */
  guint8 t_bSockErrOccurred; /* 1 after a failed exchange, until the next open */
  gint32 clnt_sock;          /* descriptor, -1 when not connected */
  header_data_s header_data; /* the last header received */
  guint8 *t_pbuf;            /* 1,966,080 bytes, page-aligned: requests and answers */
} GstFileSocketIo;

/** Make a state one that is not connected. Releases nothing: not for a state that is connected. */
GST_PLEXA_API void gst_file_socket_io_init(GstFileSocketIo *socket_io);

/**
 * Connect to the box and open a file there.
 *
 * @param socket_io  Initialised state that is not connected.
 * @param path       The file's path; its first 255 characters are sent. Not copied: the string must
 *                   live until close, also after a failed open.
 * @param flags      How the file is opened; copied.
 * @param open_mode  Passed on to the box.
 * @return 1 or -1. When the connection or the packet buffer could not be had, close releases what
 *         is left.
 */
GST_PLEXA_API gint64 gst_file_socket_io_open(GstFileSocketIo *socket_io, const gchar *path,
                                             const GstSocketOpenFlags *flags, guint8 open_mode);

/**
 * Take leave of the box, unless an exchange has failed before, and disconnect in any case.
 *
 * @return 1, also when there was no connection; -1 when the box did not answer as it should.
 */
GST_PLEXA_API gint64 gst_file_socket_io_close(GstFileSocketIo *socket_io);

/**
 * Read at the box's position.
 *
 * @param buffer  Room for @p size bytes; partly written when the read fails.
 * @param size    Bytes wanted. 0: the request is sent and 0 returned without waiting for the
 *                answer, which the next operation then takes for its own.
 * @return Bytes read, fewer than wanted when the file ends; -1.
 */
GST_PLEXA_API gint64 gst_file_socket_io_read(GstFileSocketIo *socket_io, void *buffer,
                                             guint32 size);

/**
 * Write at the box's position. For a time-shift recording that is being written directly, the
 * process's shared cut info takes over the accumulated time and the duration that the box answers.
 *
 * @param size  Bytes to write. 0: nothing is sent, and that is a failure.
 * @return Bytes written, as the box says; -1.
 */
GST_PLEXA_API gint64 gst_file_socket_io_write(GstFileSocketIo *socket_io, const void *buffer,
                                              guint32 size);

/**
 * @param offset  Bytes.
 * @param whence  0 from the start, 1 from the position, 2 from the end.
 * @return The new position, or -1.
 */
GST_PLEXA_API gint64 gst_file_socket_io_seek(GstFileSocketIo *socket_io, gint64 offset,
                                             gint32 whence);

/** @return The position, or -1. */
GST_PLEXA_API gint64 gst_file_socket_io_tell(GstFileSocketIo *socket_io);

/** @return The file's size, or -1. */
GST_PLEXA_API gint64 gst_file_socket_io_size(GstFileSocketIo *socket_io);

/** @return 1 or -1. */
GST_PLEXA_API gint64 gst_file_socket_io_fsync(GstFileSocketIo *socket_io);

/** @param time  Milliseconds that a time-shift recording keeps. @return The box's result, or -1. */
GST_PLEXA_API gint64 gst_file_socket_io_set_max_time(GstFileSocketIo *socket_io, gint32 time);

/** @return Milliseconds, from the shared cut info; asks nobody. */
GST_PLEXA_API gint64 gst_file_socket_io_get_max_time(GstFileSocketIo *socket_io);

/** @param time  Milliseconds recorded so far. @return The box's result, or -1. */
GST_PLEXA_API gint64 gst_file_socket_io_set_last_wrote_time(GstFileSocketIo *socket_io,
                                                            guint32 time);

/**
 * Rename a file on the box, on a connection that lasts for this call.
 *
 * @param socket_io  Initialised state that is not connected; it is not connected afterwards.
 * @param old_path   The first 255 characters are sent, as of @p new_path.
 * @return 1 or -1.
 */
GST_PLEXA_API gint64 gst_file_socket_io_rename(GstFileSocketIo *socket_io, const gchar *old_path,
                                               const gchar *new_path);

/**
 * Have a range cut out of a recording on the box, on a connection that lasts for this call.
 *
 * @param socket_io  Initialised state that is not connected; it is not connected afterwards.
 * @param request    Sent as it is.
 * @return 1, or 0 on failure.
 */
GST_PLEXA_API gint64 gst_file_socket_io_cut_file(GstFileSocketIo *socket_io,
                                                 const pvr_cut_request_s *request);

G_END_DECLS

#endif
