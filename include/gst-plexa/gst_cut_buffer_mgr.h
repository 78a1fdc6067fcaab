/* gst_cut_buffer_mgr.h - decides when the front of a time-shift recording is cut off, and where.
 *
 * Each writer of a time-shift recording owns one manager; readers have none. The writer reports the
 * recorded time before every write. The manager publishes where the kept span begins, and starts
 * the cut thread when the recorded time reaches the cut point:
 *
 *   0 ......... cutbuf_starttime ........... max_time            recorded time
 *               |<-- one cut period -------->| cut here: everything before the I-frame at
 *                                              max_time - fixed_duration goes
 *
 * A cut period begins where the last one ended. Any failure sets max_time to 0: no more cuts.
 *
 * Times are milliseconds from the recording's start, offsets logical bytes (as if nothing had ever
 * been cut off) unless said otherwise. The functions are not thread-safe by themselves: the
 * writer's cut file calls them while it is counted as running, the cut thread while no operation
 * runs. Only gst_cut_mgr_error_process() may be called at any time. Failures are logged.
 */
#ifndef GST_CUT_BUFFER_MGR_H
#define GST_CUT_BUFFER_MGR_H

#include "gst_cut_thread.h"
#include "gst_index_parser.h"

G_BEGIN_DECLS

struct _GstCutBufferMgr {
  guint32 key;             /* the recording's slot in the registry */
  const gchar *file_path;  /* the stream file; borrowed, must outlive the manager */
  gchar *mdb_file;         /* the index file; null until the index is first opened */
  gint32 fixed_duration;   /* ms that the buffer keeps */
  gint32 cutbuf_starttime; /* recorded time at which this cut period began */
  gint32 max_time;         /* recorded time of the next cut, 0: never */
  gint32 current_time;     /* recorded time last reported */
  gint32 next_update_time; /* recorded time from which the span's start is published, 0: never */
  guint32 is_atsc3;        /* 1: ATSC 3.0; never cut, and the index is never opened */
  GstIndexParser *index_parser; /* over the index file; null until it is needed */
  GstCutParam *cut_param;       /* what the cut thread works on; made with the manager */
};

/**
 * Make a manager of zeros for a recording. Undone by gst_cut_mgr_destroy().
 *
 * @param mgr        The caller's storage; need not be zeroed.
 * @param file_path  Path of the stream file; borrowed until destroy.
 * @param key        The recording's key.
 * @param is_atsc3   Non-zero: an ATSC 3.0 recording.
 * @return TRUE; FALSE without memory for the cut parameter record.
 */
GST_PLEXA_API gboolean gst_cut_mgr_create(GstCutBufferMgr *mgr, const gchar *file_path, guint32 key,
                                          guint32 is_atsc3);

/**
 * Release what the manager holds, and remove the shared cut info. A cut thread that still waits for
 * its turn finds that the manager is gone and ends without touching the file; it is not waited for.
 * The storage stays the caller's.
 */
GST_PLEXA_API void gst_cut_mgr_destroy(GstCutBufferMgr *mgr);

/* Values of gst_cut_mgr_set_max_time()'s mode. */
#define GST_CUT_MGR_FIRST_SETTING 0
#define GST_CUT_MGR_AFTER_CUT 1
#define GST_CUT_MGR_CHANGE_SPAN 2

/**
 * Set the span.
 *
 * @param cutbuf_starttime  At least 1. First setting: the length to keep, which is also when the
 *                          first period begins. After a cut: when the new period begins. Change of
 *                          the span: the new length to keep; a longer one moves the next cut later
 *                          by the growth and withdraws the published start, a shorter one counts
 *                          from the next cut on.
 * @param max_time          At least 1: recorded time of the next cut.
 * @return TRUE, and the length to keep is published in the shared cut info; also for an unknown
 *         mode, which changes nothing. FALSE when an argument is too small: nothing happened.
 */
GST_PLEXA_API gboolean gst_cut_mgr_set_max_time(GstCutBufferMgr *mgr, gint32 cutbuf_starttime,
                                                gint32 max_time, gint32 mode);

/** @return TRUE when a cut point is set. */
GST_PLEXA_API gboolean gst_cut_mgr_get_max_time(GstCutBufferMgr *mgr);

/** @return TRUE when the reported time has reached the cut point. */
GST_PLEXA_API gboolean gst_cut_mgr_is_max_time(GstCutBufferMgr *mgr);

/**
 * Take the recorded time. Once a span length has been recorded, each call publishes the span's new
 * start, time and offset, in the shared cut info; when the index does not know it, cutting is
 * switched off.
 */
GST_PLEXA_API void gst_cut_mgr_update_time(GstCutBufferMgr *mgr, gint32 recorded_time);

/**
 * Start the cut thread for the present span.
 *
 * @return TRUE; FALSE when the index does not know the span's start, or the thread cannot be
 *         started: cutting is switched off. While the manager's last cut is still under way no
 *         second one begins.
 */
GST_PLEXA_API gboolean gst_cut_mgr_do_cut(GstCutBufferMgr *mgr);

/** Switch cutting off for good, and take back the mark that a cut is in progress. Any thread. */
GST_PLEXA_API void gst_cut_mgr_error_process(GstCutBufferMgr *mgr);

/**
 * The time of the I-frame that an offset belongs to.
 *
 * @param time  Out; left alone on failure, and for an ATSC 3.0 recording.
 * @return TRUE; FALSE when the index cannot be opened or does not know the offset.
 */
GST_PLEXA_API gboolean gst_cut_mgr_get_time_by_offset(GstCutBufferMgr *mgr, gint64 offset,
                                                      gint32 *time);

G_END_DECLS

#endif
