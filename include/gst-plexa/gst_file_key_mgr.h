/* gst_file_key_mgr.h - which of the registry's four slots a recording has.
 *
 * A recording is named by its path without the extension, so its stream file and its index file
 * have one slot. The slot's number 0..3 is the recording's key.
 *
 * For the registry, gst_file_shared_info.h, which calls with its lock held: no function locks, and
 * no table may be null. A key above 3 is refused with a message. Failures are logged, nothing sets
 * errno.
 */
#ifndef GST_FILE_KEY_MGR_H
#define GST_FILE_KEY_MGR_H

#include "gst_plexa_defs.h"

G_BEGIN_DECLS

#define GST_KEY_MGR_SLOTS 4
#define GST_KEY_MGR_PATH_SIZE 256

/* One slot: a recording's path without its extension. */
typedef struct _GstKeyInfo {
  guint8 used;                       /* 1 taken, 0 free */
  gchar path[GST_KEY_MGR_PATH_SIZE]; /* NUL-terminated; longer paths are cut at 255 characters */
} GstKeyInfo;

/* The registry table, whose first member is the slot table; see gst_file_shared_info.h. */
typedef struct _GstSharedInfo GstSharedInfo;

/** Make all four slots free. */
GST_PLEXA_API void gst_key_mgr_init_all_key_info(GstSharedInfo *table);

/** Make one slot free. */
GST_PLEXA_API void gst_key_mgr_init_key_info(GstSharedInfo *table, guint32 key);

/** The same as gst_key_mgr_init_key_info(). @return TRUE, also for a refused key. */
GST_PLEXA_API gboolean gst_key_mgr_free_key(GstSharedInfo *table, guint32 key);

/**
 * Find the key that a recording has or would get; nothing changes.
 *
 * @param path  Path of any file of the recording; borrowed.
 * @return The slot with this path, else the first free slot, else -1; -1 also for a path without a
 *         ".". A path beyond 255 characters never finds its own slot again, since the slot holds it
 *         cut.
 */
GST_PLEXA_API gint32 gst_key_mgr_pre_allocate_key(GstSharedInfo *table, const gchar *path);

/**
 * Find the key in the same way and mark its slot as taken by the recording.
 *
 * @return As gst_key_mgr_pre_allocate_key().
 */
GST_PLEXA_API gint32 gst_key_mgr_allocate_key(GstSharedInfo *table, const gchar *path);

G_END_DECLS

#endif
