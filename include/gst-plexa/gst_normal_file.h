/* gst_normal_file.h - the back-end of every local file that is not a live time-shift stream.
 *
 * The operations that gst_pvr_file_open() puts into the handle's table; callers use gst_pvr_file.h.
 * Each takes an initialised handle and is called under its lock. -1 is a failure, its errno is in
 * the handle's error number. Whether a file is read and written directly or buffered is the
 * handle's direct_io flag. All but the three time operations block on storage.
 */
#ifndef GST_NORMAL_FILE_H
#define GST_NORMAL_FILE_H

#include "gst_pvr_file.h"

G_BEGIN_DECLS

/**
 * Enter the file in the shared file-info registry and open it.
 *
 * @param path         Absolute path with an extension; not copied, must live until close.
 * @param read_mode    1 reader, 0 writer; also what the registry counts it as.
 * @param direct_mode  As the handle's direct_io flag.
 * @param append_mode  0: a file opened for writing is emptied. Non-zero: it is kept.
 * @param atsc3        Not used.
 * @return 1; -1 when the registry has no room, or the file cannot be opened. Nothing is registered
 *         or open after a failure.
 */
GST_PLEXA_API gint64 gst_normal_file_open(GstPvrFile *file, const gchar *path, guint8 read_mode,
                                          guint8 direct_mode, guint32 append_mode, guint8 atsc3);

/** Close the file and take it out of the registry, whatever the close returned. @return 1 or -1. */
GST_PLEXA_API gint64 gst_normal_file_close(GstPvrFile *file);

/**
 * @param size  Bytes; negative is refused. Buffered: the low 32 bits count.
 * @return Bytes read, 0 at the end of the file, or -1.
 */
GST_PLEXA_API gint64 gst_normal_file_read(GstPvrFile *file, void *buffer, gint64 size);

/**
 * @param size  Bytes; negative is refused. The low 32 bits count.
 * @return Bytes written, with direct I/O including padding; or -1.
 */
GST_PLEXA_API gint64 gst_normal_file_write(GstPvrFile *file, const void *buffer, gint64 size);

/** Moves the descriptor's position, also with direct I/O. @return The new position, or -1. */
GST_PLEXA_API gint64 gst_normal_file_seek(GstPvrFile *file, gint64 offset, gint32 whence);

/** @return The position, or -1. */
GST_PLEXA_API gint64 gst_normal_file_tell(GstPvrFile *file);

/** @return 0 or -1. */
GST_PLEXA_API gint64 gst_normal_file_fsync(GstPvrFile *file);

/** @return The size of the file under the path given to open, or -1. */
GST_PLEXA_API gint64 gst_normal_file_size(GstPvrFile *file);

/* A normal file has no maximum time: the three do nothing and return -1. */
GST_PLEXA_API gint64 gst_normal_file_set_max_time(GstPvrFile *file, guint32 cut_buf_start_time,
                                                  guint32 cut_time);
GST_PLEXA_API gint64 gst_normal_file_get_max_time(GstPvrFile *file);
GST_PLEXA_API gint64 gst_normal_file_set_last_wrote_time(GstPvrFile *file, guint32 time);

G_END_DECLS

#endif
