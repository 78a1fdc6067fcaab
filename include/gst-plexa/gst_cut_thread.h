/* gst_cut_thread.h - cuts the front off a time-shift recording that others have open.
 *
 * A GStreamer task: it waits until no operation runs on the recording, closes every handle on it,
 * removes the front of the file, opens every handle again (direct I/O, a writer's in append mode)
 * and puts each back on its byte. Operations wait meanwhile.
 */
#ifndef GST_CUT_THREAD_H
#define GST_CUT_THREAD_H

#include <gst/gst.h>

#include "gst_plexa_defs.h"

G_BEGIN_DECLS

typedef struct _GstCutBufferMgr GstCutBufferMgr;

/* What the cut thread works on; one record a manager, filled anew for each cut. */
typedef struct _GstCutParam {
  guint32 key;                     /* the recording's slot in the registry */
  const gchar *file_path;          /* the stream file; borrowed from the manager */
  gint32 retry_count;              /* passes spent waiting for running operations */
  gint32 cutbuf_starttime;         /* ms, the manager's value at the cut */
  gint32 max_time;                 /* ms, the manager's value at the cut */
  gint64 cut_offset;               /* bytes of the file, as it now stands, that may go */
  gint64 removed_bytes;            /* bytes that really went, 0 until then */
  GstTask *task;                   /* made by the first cut; the record holds a reference */
  GRecMutex task_lock;             /* the task's lock */
  GstCutBufferMgr *cut_buffer_mgr; /* null once the manager is gone */
  /*< private >*/
  GMutex link_lock;      /* guards cut_buffer_mgr against a manager that goes while a cut waits */
  gint is_busy;          /* above 0 from a cut's start until its task has stopped, -1 no thread */
  gint is_owned_by_task; /* 1: freed with the task, which a manager's destroy does not wait for */
  guint32 tenancy;       /* the slot's when the cut was claimed; 0: there is no claim to lose */
} GstCutParam;

/**
 * Start a cut: make the task when there is none, and start it. Returns at once.
 *
 * @param cut_param  Filled in; must live until the task has ended. Zero beyond the described fields
 *                   when it is not a manager's.
 *
 * A task that could not be made is made by the next call; one that got no thread is given up, and
 * is_busy is then -1. Not to be called by two threads at once for one record.
 */
GST_PLEXA_API void gst_cut_thread_create_task(GstCutParam *cut_param);

G_END_DECLS

#endif
