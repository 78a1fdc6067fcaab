/* gst_edit_unit.h - take a byte range out of a recorded stream, in place.
 *
 * The platform's PVR control removes the range without copying the rest of the file. While a
 * companion box is in use the request goes to the box instead. Only the stream file changes: its
 * index must be mended by whoever asked for the removal.
 *
 * Failures are reported with the codes below, most of which are positive numbers: compare with
 * them, or with what was asked for, before using a result as a length.
 */
#ifndef GST_EDIT_UNIT_H
#define GST_EDIT_UNIT_H

#include "gst_plexa_defs.h"

G_BEGIN_DECLS

/* What a partial delete removes is whole units: 1024 packets of 188 bytes, 47 blocks of 4096. */
#define GST_EDIT_UNIT_SIZE 192512

/* Result codes: the file could not be opened or the removal failed; nothing to remove, or too long
 * a path. */
#define GST_EDIT_UNIT_FAILED 80000000
#define GST_EDIT_UNIT_NOT_NEEDED 80000003

/**
 * Remove a range of whole units from a stream file. Both ends are moved down to the next multiple
 * of GST_EDIT_UNIT_SIZE.
 *
 * @param path          Stream file; borrowed. At most 255 characters. Created when it is missing.
 * @param start_offset  First byte to remove, 0 or more.
 * @param end_offset    First byte behind the range; must not be beyond the file's end.
 * @return Bytes removed, a positive multiple of GST_EDIT_UNIT_SIZE. GST_EDIT_UNIT_NOT_NEEDED when
 *         the moved range is empty or reversed or an offset is negative; nothing was touched then.
 *         GST_EDIT_UNIT_FAILED when gst_edit_unit_erase_record() failed, whatever its result; the
 *         range may be gone all the same (see there). -1 for a null path.
 *
 * Nobody may have the file open for writing, and a reader must expect its position to shift. Blocks
 * on storage. Safe from any thread, one at a time for a file.
 */
GST_PLEXA_API gint64 gst_edit_unit_do_partial_delete(const gchar *path, gint64 start_offset,
                                                     gint64 end_offset);

/**
 * Remove a byte range from a stream file as it is given, flush the file and rename it.
 *
 * @param path          Stream file; borrowed. At most 255 characters. Created when it is missing.
 * @param start_offset  First byte to remove.
 * @param end_offset    First byte behind the range.
 * @param new_name      Path to rename the file to, on the same file system; or null. Borrowed.
 * @return 0 on success. GST_EDIT_UNIT_FAILED when the file cannot be opened, or the box refused.
 *         GST_EDIT_UNIT_NOT_NEEDED when the path is too long (the file was opened, and created when
 *         it was missing). -1 for a null path, and when the removal, the flush, the close or the
 *         rename failed: errno tells why, and after any of the last three the range is gone.
 *
 * As for gst_edit_unit_do_partial_delete() nobody may write. Blocks on storage (or on the box's
 * answer). Safe from any thread, one at a time for a file.
 */
GST_PLEXA_API gint64 gst_edit_unit_erase_record(const gchar *path, gint64 start_offset,
                                                gint64 end_offset, const gchar *new_name);

G_END_DECLS

#endif
