/* gst_socket_file.h - the back-end of every file while the companion box is in use.
 *
 * The operations that gst_pvr_file_open() puts into the handle's table; callers use gst_pvr_file.h.
 * Each takes an initialised handle, is one exchange with the box (gst_file_socket_io.h) and blocks
 * for as long as the box does. All are called under the handle's lock, except set_last_wrote_time,
 * which takes it, and rename and cut_file, which do not need it. Unless stated otherwise, -1 is a
 * failure; when a system call failed, its errno is in the handle's error number.
 */
#ifndef GST_SOCKET_FILE_H
#define GST_SOCKET_FILE_H

#include "gst_pvr_file.h"

G_BEGIN_DECLS

/**
 * Connect to the box and open the file there. Time-shift or normal, index or stream: as the
 * handle's file type and record type say.
 *
 * @param file         Handle that holds no connection; gst_pvr_file_open() has dropped one that it
 *                     held. Whatever stands in its state is overwritten.
 * @param path         Sent cut to 255 characters; not copied, must live until close, also after a
 *                     failed open.
 * @param read_mode    1 reader, 0 writer; for the box.
 * @param direct_mode  1 direct, 0 buffered; for the box.
 * @param append_mode  Not used.
 * @param atsc3        For the box.
 * @return 1 or -1. Close a handle whose open has failed, too: it may hold a descriptor.
 */
GST_PLEXA_API gint64 gst_socket_file_open(GstPvrFile *file, const gchar *path, guint8 read_mode,
                                          guint8 direct_mode, guint32 append_mode, guint8 atsc3);

/** Close the file on the box and disconnect, whatever the box answered. @return 1 or -1. */
GST_PLEXA_API gint64 gst_socket_file_close(GstPvrFile *file);

/**
 * @param size  Bytes, at most 4 GiB - 1; more is refused. 0 and less: nothing is read, and the next
 *              operation takes the answer to this one for its own.
 * @return Bytes read, 0 at the end of the file, or -1.
 */
GST_PLEXA_API gint64 gst_socket_file_read(GstPvrFile *file, void *buffer, gint64 size);

/**
 * @param size  Bytes, at most 4 GiB - 1; more is refused. 0 and less: nothing is sent, -1.
 * @return Bytes written, or -1.
 */
GST_PLEXA_API gint64 gst_socket_file_write(GstPvrFile *file, const void *buffer, gint64 size);

/** @return The new position, or -1. */
GST_PLEXA_API gint64 gst_socket_file_seek(GstPvrFile *file, gint64 offset, gint32 whence);

/** @return The position, or -1. */
GST_PLEXA_API gint64 gst_socket_file_tell(GstPvrFile *file);

/** @return 1 or -1. */
GST_PLEXA_API gint64 gst_socket_file_fsync(GstPvrFile *file);

/** @return The file's size, or -1. */
GST_PLEXA_API gint64 gst_socket_file_size(GstPvrFile *file);

/** Only @p cut_time goes to the box. @return The box's result, or -1. */
GST_PLEXA_API gint64 gst_socket_file_set_max_time(GstPvrFile *file, guint32 cut_buf_start_time,
                                                  guint32 cut_time);

/** @return The fixed duration of the shared cut info, which answers to writes keep current. */
GST_PLEXA_API gint64 gst_socket_file_get_max_time(GstPvrFile *file);

/**
 * Sent for a time-shift recording that is being written directly, else nothing is. Takes the
 * handle's lock: it is an exchange on the connection that the other operations use.
 *
 * @return 1, always.
 */
GST_PLEXA_API gint64 gst_socket_file_set_last_wrote_time(GstPvrFile *file, guint32 time);

/**
 * Rename a file on the box. Uses a connection of its own and leaves the handle's file as it was.
 *
 * @return 1 or -1.
 */
GST_PLEXA_API gint64 gst_socket_file_rename(GstPvrFile *file, const gchar *old_path,
                                            const gchar *new_path);

/**
 * Have a range cut out of a recording on the box. Uses a connection of its own and leaves the
 * handle's file as it was.
 *
 * @param request  Borrowed for the call.
 * @return 1, or 0 on failure.
 */
GST_PLEXA_API gint64 gst_socket_file_cut_file(GstPvrFile *file, const pvr_cut_request_s *request);

G_END_DECLS

#endif
