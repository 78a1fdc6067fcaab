/* gst_thumbnail_common.h - coded still pictures of a recording, and its ".thm" file.
 *
 * A recording is named by the path of its stream file; its index file (".mdb") is found by changing
 * the extension. The functions keep no state and open files of their own: any thread may call them,
 * also for one recording, except that two calls which write the same ".thm" file must be kept apart
 * by the caller. All of them block on storage. The ".thm" file is described in
 * docs/thumbnail-file.md. */
#ifndef GST_THUMBNAIL_COMMON_H
#define GST_THUMBNAIL_COMMON_H

#include "gst_plexa_defs.h"

G_BEGIN_DECLS

/** Pictures in a ".thm" file. */
#define GST_THUMBNAIL_PICTURES 5

/**
 * One coded picture (an I-frame) of a recording.
 *
 * Takes the I-frame of the last GOP that starts at or before @p time. When that I-frame is empty or
 * at least twice the average size, the following GOP's is taken instead, up to three times. The
 * picture is the payload of its transport packets (ISO/IEC 13818-1 clause 2.4.3) without the PES
 * headers: one PES packet of an H.264 frame, two of an H.264 field pair (ITU-T H.264 clause 7.4.3,
 * field_pic_flag) or of any other codec.
 *
 * @param path    Stream file; borrowed.
 * @param time    Milliseconds from the recording's start.
 * @param buffer  Receives a new heap block with the picture; give it back with
 *                gst_thumbnail_release_buffer(). Untouched on failure.
 * @param size    Receives the picture's size in bytes. Untouched on failure.
 * @param code    Receives the codec: -1 unknown, 0 MPEG-2, 1 H.264, 2 JPEG, 3 AVS, 4 H.265.
 *                Untouched on failure.
 * @param average The recording's average I-frame size in bytes, from
 *                gst_thumbnail_get_iframe_average_size(). Below 1: not known; then only empty
 *                I-frames are passed over.
 * @return 1, or anything else on failure: a null argument, a file that cannot be opened or read, no
 *         I-frame at @p time, no channel record, no video packets, no memory. The log tells which.
 */
GST_PLEXA_API gint32 gst_thumbnail_get_recorded_frame(const gchar *path, gint32 time,
                                                      guint8 **buffer, guint32 *size, gint32 *code,
                                                      gint32 average);

/**
 * Free a picture of gst_thumbnail_get_recorded_frame().
 *
 * @param buffer  Where the caller keeps the picture's address, which is left as it is: set it to
 *                null afterwards. Null, or the address of a null pointer, frees nothing.
 */
GST_PLEXA_API void gst_thumbnail_release_buffer(guint8 **buffer);

/**
 * Average I-frame size of a recording.
 *
 * The mean over the index's I-frame lengths. Of a recording with more than 4096 GOPs, a sample of
 * 4096, spread from the first GOP to the last.
 *
 * @param path    Stream file; borrowed.
 * @param average Receives the size in bytes, never below 1. On failure it receives G_MAXINT32, with
 *                which gst_thumbnail_get_recorded_frame() finds no I-frame too large.
 * @return 1, or 0: a null argument (then nothing is written), or an index that cannot be read or
 *         holds no GOP.
 */
GST_PLEXA_API gint32 gst_thumbnail_get_iframe_average_size(const gchar *path, gint32 *average);

/**
 * Total time of a recording, also while it is still growing.
 *
 * @param path  Stream file; borrowed.
 * @param time  Receives milliseconds, 0 or more. Untouched on failure.
 * @return 1, or anything else on failure: a null argument, an index that cannot be read, or one
 *         whose end lies before its start.
 */
GST_PLEXA_API gint32 gst_thumbnail_get_total_recorded_time(const gchar *path, gint32 *time);

/**
 * Write a recording's ".thm" file: five pictures, one at every fifth of the total time, each time
 * rounded down to a whole second.
 *
 * An old ".tm" name is removed first and made anew (a hard link to the ".thm" file) after the fifth
 * picture: while it exists, the ".thm" file is complete. A failed run can leave a ".thm" file with
 * fewer pictures. Ends with sync(), so that file and link are on the disk.
 *
 * @param path   Stream file; borrowed.
 * @param sizes  Receives the five pictures' sizes in bytes, in the order of the file; null: not
 *               wanted. Untouched on failure.
 * @param codes  Receives the five codec identifiers; null: not wanted. Untouched on failure.
 * @return 1, or 0 on failure.
 */
GST_PLEXA_API gint32 gst_thumbnail_make_recorded_frame_file(const gchar *path, guint32 *sizes,
                                                            gint32 *codes);

G_END_DECLS

#endif
