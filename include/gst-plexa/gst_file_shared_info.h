/* gst_file_shared_info.h - what the readers and the writers of one recording share.
 *
 * Two things, each one for the whole process and each with a lock of its own: the registry of open
 * recordings, and the record of what has been cut off the front of the time-shift recording. Every
 * function is safe from any thread and holds its lock only for itself, never across I/O. Failures
 * are logged, nothing sets errno.
 */
#ifndef GST_FILE_SHARED_INFO_H
#define GST_FILE_SHARED_INFO_H

#include "gst_file_key_mgr.h"
#include "gst_pvr_file.h"

G_BEGIN_DECLS

#define GST_SHARED_INFO_MAX_READERS 100
#define GST_SHARED_INFO_MAX_WRITERS 3

/* One open recording. */
typedef struct _GstFileInfo {
  GPtrArray *handle_list; /* cut-file handles in opening order; null until the first is listed */
  gint32 write_count;     /* 0..3 */
  gint32 read_count;      /* 0..100 */
  guint8 cut_mode;        /* 1 while a cut is in progress; alone in its 32-bit word */
  guint32 actioncount;    /* cut-file operations running at this moment */
} GstFileInfo;

/* The registry table. A slot's index is its key, 0..3. */
struct _GstSharedInfo {
  GstKeyInfo slots[GST_KEY_MGR_SLOTS];
  GstFileInfo items[GST_KEY_MGR_SLOTS];
};

/* How much has been cut off the front of the time-shift recording; one record a process. */
typedef struct _GstSharedCutInfo {
  gint32 accumulated_time;   /* ms from the recording's start to the oldest moment kept */
  gint64 accumulated_offset; /* logical byte offset of that moment */
  gint32 total_cuttime;      /* ms up to which the file has been cut */
  gint64 total_cutoffset;    /* bytes removed; logical offset = physical offset + this */
  gint32 fixed_duration;     /* ms that the time-shift buffer keeps */
} GstSharedCutInfo;

/*
 * The registry. A table is the living one or it does nothing: null, and a table that was removed,
 * give the result that a bad key gives. A key above 3 is refused with a message.
 */

/** @return The table, made empty by the first call; it belongs to the registry. Null: no memory. */
GST_PLEXA_API GstSharedInfo *gst_shared_info_get(void);

/**
 * Forget every recording and free the table; the next gst_shared_info_get() makes a new one. No
 * pointer of gst_shared_info_get_item() may be used any more.
 */
GST_PLEXA_API void gst_shared_info_remove(GstSharedInfo *table);

/**
 * Find the key that a recording has or would get; nothing changes.
 *
 * @param path  Path of any file of the recording; borrowed. It must have an extension.
 * @return The key, or -1 when four other recordings are open, or the path has no extension.
 */
GST_PLEXA_API gint32 gst_shared_info_pre_add_item(GstSharedInfo *table, const gchar *path);

/**
 * Count a file of a recording as open.
 *
 * @param path    Path of any file of the recording; copied, at most 255 characters of it.
 * @param reader  Non-zero: a reader, of which a recording has at most 100; 0: a writer, at most 3.
 * @param list    Non-zero: put the handle into the recording's list of handles.
 * @param handle  The handle; only its address is kept.
 * @return The key, or -1. A file that is refused for its recording's limit is deleted again as by
 *         gst_shared_info_delete_item(), which lowers the count by one although this call did not
 *         raise it.
 */
GST_PLEXA_API gint32 gst_shared_info_add_item(GstSharedInfo *table, const gchar *path,
                                              guint8 reader, guint8 list, GstPvrFile *handle);

/**
 * Count a file as closed. With the last one the recording's slot becomes free, and its list of
 * handles is freed.
 *
 * @param reader  As the file was added; a count of 0 stays 0.
 * @param list    Non-zero: take the handle's first entry out of the list of handles.
 * @return TRUE; FALSE for a bad key.
 */
GST_PLEXA_API gboolean gst_shared_info_delete_item(GstSharedInfo *table, guint32 key, guint8 reader,
                                                   guint8 list, GstPvrFile *handle);

/**
 * @return The recording's item inside the table; null for a bad key. It is read without the lock,
 *         so only while nobody can open or close a file of the recording.
 */
GST_PLEXA_API GstFileInfo *gst_shared_info_get_item(GstSharedInfo *table, guint32 key);

/* The number of cut-file operations that run on the recording; it never falls below 0. */
GST_PLEXA_API void gst_shared_info_increase_actioncount(GstSharedInfo *table, guint32 key);
GST_PLEXA_API void gst_shared_info_decrease_actioncount(GstSharedInfo *table, guint32 key);
/** @return The number, -1 for a bad key. */
GST_PLEXA_API gint32 gst_shared_info_get_actioncount(GstSharedInfo *table, guint32 key);

/* The mark that a cut is in progress. */
GST_PLEXA_API void gst_shared_info_update_cut_mode(GstSharedInfo *table, guint32 key,
                                                   gboolean mode);
/** @return The mark, FALSE for a bad key. */
GST_PLEXA_API gboolean gst_shared_info_is_progressing_cut(GstSharedInfo *table, guint32 key);

/** @return The library's record, made of zeros when there is none; null without memory for it. */
GST_PLEXA_API GstSharedCutInfo *gst_shared_cut_info_get(void);

/** Free the record: everything reads 0 again. */
GST_PLEXA_API void gst_shared_cut_info_remove(void);

/*
 * One field each; times in milliseconds, offsets in bytes. There is only one record, so the
 * argument is not looked at: a getter or setter that is given a removed record, or null, works on
 * the one that lives, made of zeros when there is none. Without memory for one, getters give 0 and
 * setters do nothing. Do not read the fields through the pointer: another thread may remove the
 * record.
 */
GST_PLEXA_API gint32 gst_shared_cut_info_get_accumulated_time(GstSharedCutInfo *info);
GST_PLEXA_API void gst_shared_cut_info_set_accumulated_time(GstSharedCutInfo *info, gint32 time);
GST_PLEXA_API gint64 gst_shared_cut_info_get_accumulated_offset(GstSharedCutInfo *info);
GST_PLEXA_API void gst_shared_cut_info_set_accumulated_offset(GstSharedCutInfo *info,
                                                              gint64 offset);
GST_PLEXA_API gint32 gst_shared_cut_info_get_total_cuttime(GstSharedCutInfo *info);
GST_PLEXA_API void gst_shared_cut_info_set_total_cuttime(GstSharedCutInfo *info, gint32 time);
GST_PLEXA_API gint64 gst_shared_cut_info_get_total_cutoffset(GstSharedCutInfo *info);
GST_PLEXA_API void gst_shared_cut_info_set_total_cutoffset(GstSharedCutInfo *info, gint64 offset);
GST_PLEXA_API gint32 gst_shared_cut_info_get_fixed_duration(GstSharedCutInfo *info);
GST_PLEXA_API void gst_shared_cut_info_set_fixed_duration(GstSharedCutInfo *info, gint32 duration);

G_END_DECLS

#endif
