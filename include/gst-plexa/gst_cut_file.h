/* gst_cut_file.h - the back-end of a live time-shift stream on the local disk.
 *
 * The front of the file may be cut off at any time (see gst_cut_thread.h); the handle hides it:
 * offsets are logical, counted from the recording's first byte, of which the first "total cut"
 * bytes are no longer on disk. The stream always goes through the direct layer of
 * gst_file_direct_io.h; direct_mode only says whether the file is opened with O_DIRECT, and after
 * the first cut every handle is. A reader that stands before the cut point is moved to the oldest
 * byte kept.
 *
 * Every operation but fsync, get_max_time and set_last_wrote_time waits while a cut is in progress,
 * 2 seconds at most, and then gives -3: nothing has happened, and the operation may be tried again.
 * For close this means: the handle is still open and known to the cut, and must not be freed before
 * a close succeeds.
 *
 * All functions are called by the handle's operation table, under the handle's lock unless they say
 * otherwise; the arguments are those of gst_pvr_file.h.
 */
#ifndef GST_CUT_FILE_H
#define GST_CUT_FILE_H

#include "gst_pvr_file.h"

G_BEGIN_DECLS

#define GST_CUT_FILE_BUSY (-3) /* a cut took longer than the operation would wait */

/**
 * Open a stream and enter it into the registry, a writer with a cut buffer manager of its own.
 *
 * @param path         Borrowed until close.
 * @param append_mode  Non-zero: a writer keeps what the file holds.
 * @param is_atsc3     Non-zero: an ATSC 3.0 stream, which is never cut.
 * @return 1; -1 when the registry or the file system refuses it; GST_CUT_FILE_BUSY.
 */
GST_PLEXA_API gint64 gst_cut_file_open(GstPvrFile *file, const gchar *path, guint8 read_mode,
                                       guint8 direct_mode, guint8 is_atsc3, guint32 append_mode);

/**
 * Close the stream. With a writer the shared cut info goes, too: offsets count from what is on
 * disk.
 *
 * @param total_cut_offset  Out, may be null: bytes cut off so far.
 * @param total_cut_time    Out, may be null: milliseconds cut off so far.
 * @return 1; -1 when the descriptor could not be closed (everything is released all the same);
 *         GST_CUT_FILE_BUSY (nothing is released).
 */
GST_PLEXA_API gint64 gst_cut_file_close(GstPvrFile *file, gint64 *total_cut_offset,
                                        gint32 *total_cut_time);

/** @return Bytes read, 0 at the end of the file, -1, or GST_CUT_FILE_BUSY. */
GST_PLEXA_API gint64 gst_cut_file_read(GstPvrFile *file, void *buffer, gint64 size);

/**
 * Write, and start a cut when the time reported last has reached the cut point.
 *
 * @return Bytes written including padding, -1, or GST_CUT_FILE_BUSY. Unlike the direct layer it
 * takes memory of any alignment, since a stream opened without O_DIRECT has it after a cut.
 */
GST_PLEXA_API gint64 gst_cut_file_write(GstPvrFile *file, const void *buffer, gint64 size);

/**
 * @param offset  From the start: a logical offset; before the oldest byte kept it fails.
 * @return The logical position, negative on failure.
 */
GST_PLEXA_API gint64 gst_cut_file_seek(GstPvrFile *file, gint64 offset, gint32 whence);
/** @return The logical position, negative on failure. */
GST_PLEXA_API gint64 gst_cut_file_tell(GstPvrFile *file);
/** @return The logical size: what is on disk and what was cut off; negative on failure. */
GST_PLEXA_API gint64 gst_cut_file_size(GstPvrFile *file);
/** @return -1, always: this file is not flushed. */
GST_PLEXA_API gint64 gst_cut_file_fsync(GstPvrFile *file);

/**
 * Set the span: keep cutbuf_starttime milliseconds, cut for the first time at max_time.
 *
 * @return 1; -1 for a reader and for an argument of 0, or of 2^31 or more; GST_CUT_FILE_BUSY.
 */
GST_PLEXA_API gint64 gst_cut_file_set_max_time(GstPvrFile *file, guint32 cutbuf_starttime,
                                               guint32 max_time);
/** @return Milliseconds that the time-shift buffer keeps, 0 when no span is set. Any thread. */
GST_PLEXA_API gint64 gst_cut_file_get_max_time(void);
/** Take the recorded time in milliseconds; used by the next write. @return 1. Any thread. */
GST_PLEXA_API gint64 gst_cut_file_set_last_wrote_time(GstPvrFile *file, guint32 time);

/* For the cut thread, while no operation runs. Positions are those of the file on disk. */
GST_PLEXA_API gint64 gst_cut_file_set_offset_backup(GstPvrFile *file); /* returns 1 */
GST_PLEXA_API gint64 gst_cut_file_get_offset_backup(GstPvrFile *file);
GST_PLEXA_API gint64 gst_cut_file_io_close(GstPvrFile *file);
/** Open again after a cut; a writer's next cut period is set. @return The open's result. */
GST_PLEXA_API gint64 gst_cut_file_io_open(GstPvrFile *file, gint32 cutbuf_starttime,
                                          gint32 max_time);
GST_PLEXA_API gint64 gst_cut_file_io_seek(GstPvrFile *file, gint64 offset, gint32 whence);

G_END_DECLS

#endif
