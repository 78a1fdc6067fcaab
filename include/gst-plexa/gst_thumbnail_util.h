/* gst_thumbnail_util.h - just enough H.264 header parsing to tell a frame from a field.
 *
 * ITU-T H.264 clause 7.3 (syntax) and clause 9.1 (Exp-Golomb codes). Both functions work on a copy
 * of at most 2048 bytes of what they are given, without its emulation prevention bytes (clause
 * 7.4.1); bits behind the copy are zeros. They keep no state, allocate nothing and never fail: what
 * is not a header is misread, not refused. Any thread may call them. */
#ifndef GST_THUMBNAIL_UTIL_H
#define GST_THUMBNAIL_UTIL_H

#include "gst_plexa_defs.h"

G_BEGIN_DECLS

/**
 * Read a sequence parameter set (clause 7.3.2.1.1) up to frame_mbs_only_flag.
 *
 * Chroma fields are read for the profiles 100, 110, 122 and 144 only. Scaling lists are not
 * skipped: a set that carries them is misread from there on.
 *
 * @param buffer               The bytes behind the NAL unit's header byte; borrowed, not changed.
 * @param length               Their number; what lies behind the first 2048 is not looked at.
 * @param frame_mbs_only_flag  Receives 0 or 1.
 * @param frame_num_width      Receives log2_max_frame_num_minus4 + 4, in bits.
 *
 * A null argument: nothing is written.
 */
GST_PLEXA_API void h264_decode_sps_ex(guint8 *buffer, guint32 length, gint32 *frame_mbs_only_flag,
                                      gint32 *frame_num_width);

/**
 * Read a slice header (clause 7.3.3) up to field_pic_flag.
 *
 * colour_plane_id is not read, even for separately coded colour planes.
 *
 * @param buffer               The bytes behind the NAL unit's header byte; borrowed, not changed.
 * @param length               Their number; what lies behind the first 2048 is not looked at.
 * @param frame_mbs_only_flag  From the slice's SPS.
 * @param frame_num_width      Width of frame_num in bits, from the slice's SPS; below 0 counts as
 * 0.
 * @return field_pic_flag, 0 or 1; -1 when @p frame_mbs_only_flag is not 0 (the flag is then not in
 *         the header) or @p buffer is null.
 */
GST_PLEXA_API gint32 h264_decode_slice_header_ex(guint8 *buffer, guint32 length,
                                                 gint32 frame_mbs_only_flag,
                                                 gint32 frame_num_width);

G_END_DECLS

#endif
