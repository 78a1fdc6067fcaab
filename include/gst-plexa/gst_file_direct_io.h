/* gst_file_direct_io.h - access to a local file past the page cache, in 4096-byte blocks.
 *
 * Reads take any range: they go through the handle's page-aligned bounce buffer. Writes start at a
 * block boundary; an odd length is padded. Seek, tell, size and fsync are those of gst_file_io.h,
 * as are the arguments, failures and threads of these functions.
 */
#ifndef GST_FILE_DIRECT_IO_H
#define GST_FILE_DIRECT_IO_H

#include "gst_pvr_file.h"

G_BEGIN_DECLS

#define GST_FILE_DIRECT_IO_BLOCK 4096
#define GST_FILE_DIRECT_IO_BOUNCE_SIZE 0x1E0000

/**
 * gst_file_io_open(), and for reading the bounce buffer.
 *
 * @param file         Its tpbuf receives the bounce buffer, or null: for writing, and on failure.
 * @param direct_mode  Non-zero, or the file is opened buffered.
 * @return 1 or -1 (also: no path, no memory).
 */
GST_PLEXA_API gint64 gst_file_direct_io_open(GstPvrFile *file, gint32 *descriptor,
                                             const gchar *path, guint8 read_mode,
                                             guint8 direct_mode, guint8 append_mode);

/** gst_file_io_close(); frees the bounce buffer whatever that returned. @return 1 or -1. */
GST_PLEXA_API gint64 gst_file_direct_io_close(GstPvrFile *file, gint32 *descriptor);

/**
 * Read any range at the position and move the position behind what was read.
 *
 * @param buffer  Room for @p count bytes; needs no alignment.
 * @param count   Bytes; negative is refused. A range larger than the bounce buffer is read in
 *                pieces.
 * @return Bytes delivered: fewer than asked for at the end of the file, after a short read, or when
 *         a later piece failed; 0 at or behind the end of the file; -1 when nothing could be read,
 *         or for a file opened for writing. After a failure the position is undefined; when only
 *         the last seek fails, the bytes are delivered all the same.
 */
GST_PLEXA_API gint64 gst_file_direct_io_read(GstPvrFile *file, gint32 *descriptor, void *buffer,
                                             gint64 count);

/**
 * Write at the position, which must be a multiple of 4096.
 *
 * @param buffer  @p size bytes; page-aligned when the size is a multiple of 4096.
 * @param size    Bytes; negative is refused. A size that is not a multiple of 4096 is padded with
 *                0x47 to the next one. Whole blocks: the low 32 bits count.
 * @return Bytes written including the padding, possibly fewer; or -1 (also: no memory).
 */
GST_PLEXA_API gint64 gst_file_direct_io_write(GstPvrFile *file, gint32 *descriptor,
                                              const void *buffer, gint64 size);

G_END_DECLS

#endif
