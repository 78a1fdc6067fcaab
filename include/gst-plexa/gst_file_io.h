/* gst_file_io.h - buffered access to a local file: one system call an operation.
 *
 * Every function takes the handle, which receives the errno of a failed call, and (where there is
 * one) the place where the back-end keeps its descriptor, -1 when closed. Neither may be null. -1
 * is a failure; one that is not otherwise described is the system call's own. Nothing is retried.
 *
 * All block on storage. They keep no state: safe from any thread for different handles; calls for
 * one handle are serialised by the caller.
 */
#ifndef GST_FILE_IO_H
#define GST_FILE_IO_H

#include "gst_pvr_file.h"

G_BEGIN_DECLS

/**
 * Open a file; a missing one is created with mode 0644 when it is opened for writing.
 *
 * @param descriptor   Receives the close-on-exec descriptor; untouched on failure.
 * @param path         Absolute path; borrowed. A file that exists under a real path that does not
 *                     begin with it is refused with error number 56; null with EFAULT.
 * @param read_mode    Non-zero: read only. 0: write only, without touching the access time, which
 *                     only the file's owner may ask for (EPERM).
 * @param direct_mode  Non-zero: past the page cache; see gst_file_direct_io.h.
 * @param append_mode  For writing. 0: the file is emptied. Non-zero: it is kept; a stream is
 *                     written at its end whatever the position, an index (".mdb") at the position.
 * @return 1 or -1.
 */
GST_PLEXA_API gint64 gst_file_io_open(GstPvrFile *file, gint32 *descriptor, const gchar *path,
                                      guint8 read_mode, guint8 direct_mode, guint8 append_mode);

/**
 * Flush and close. A descriptor of 0 or less is not open: EBADF.
 *
 * @param descriptor  Becomes -1 on success; stays on failure.
 * @return 1 or -1.
 */
GST_PLEXA_API gint64 gst_file_io_close(GstPvrFile *file, gint32 *descriptor);

/**
 * @param buffer  Room for @p count bytes.
 * @return Bytes read, possibly fewer than @p count; 0 at the end of the file; or -1.
 */
GST_PLEXA_API gint64 gst_file_io_read(GstPvrFile *file, gint32 *descriptor, void *buffer,
                                      guint32 count);

/** @return Bytes written, possibly fewer than @p count; or -1. */
GST_PLEXA_API gint64 gst_file_io_write(GstPvrFile *file, gint32 *descriptor, const void *buffer,
                                       guint32 count);

/**
 * @param offset  Bytes.
 * @param whence  0 from the start, 1 from the position, 2 from the end.
 * @return The new position from the start, or -1.
 */
GST_PLEXA_API gint64 gst_file_io_seek(GstPvrFile *file, gint32 *descriptor, gint64 offset,
                                      gint32 whence);

/** @return The position from the start, or -1. */
GST_PLEXA_API gint64 gst_file_io_tell(GstPvrFile *file, gint32 *descriptor);

/**
 * @param path  Path; null fails with EFAULT.
 * @return The size in bytes of the file under this path, or -1.
 */
GST_PLEXA_API gint64 gst_file_io_size(GstPvrFile *file, const gchar *path);

/** Wait until what was written is on storage. @return 0 or -1. */
GST_PLEXA_API gint64 gst_file_io_fsync(GstPvrFile *file, gint32 *descriptor);

G_END_DECLS

#endif
