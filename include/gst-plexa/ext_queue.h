/* ext_queue.h - a byte ring queue between threads.
 *
 * A queue created with a size holds at most size - 1 bytes. Every function refuses a null or
 * destroyed record with a line in the log and 0. Safe from any thread between ext_queue_create()
 * and ext_queue_destroy(), which are called by one thread while no other uses the queue. A call may
 * wait for another call's copy, never for data or for room. errno says nothing.
 */
#ifndef EXT_QUEUE_H
#define EXT_QUEUE_H

#include <pthread.h>

#include "gst_plexa_defs.h"

G_BEGIN_DECLS

/* The record lives in the caller's storage; its fields belong to the queue. */
typedef struct _ExtQueue {
  pthread_mutex_t data_lock;   /* guards the fields from buffer on */
  pthread_mutex_t global_lock; /* for ext_global_lock() and ext_global_unlock() alone */
  guint8 *buffer;              /* owned, capacity bytes; null when destroyed */
  guint32 initialized;         /* 1 created, 0 destroyed */
  gint32 read_index;           /* next byte to pop, 0..capacity; capacity stands for 0 */
  gint32 write_index;          /* next byte to push, likewise */
  gint32 capacity;             /* bytes */
} ExtQueue;

/**
 * Make a queue of the record, whatever it held before.
 *
 * @param size  Capacity in bytes, 1 or more.
 * @return 1; 0 when the size is below 1 or memory runs out: then the record counts as destroyed.
 */
GST_PLEXA_API gint32 ext_queue_create(ExtQueue *queue, gint32 size);

/** Free the buffer and the locks; the record stays the caller's. @return 1. */
GST_PLEXA_API gint32 ext_queue_destroy(ExtQueue *queue);

/** Drop the contents. @return 1. */
GST_PLEXA_API gint32 ext_queue_clear(ExtQueue *queue);

/**
 * Append bytes, all or none.
 *
 * @param data  Bytes to copy; null only with a size of 0.
 * @param size  Number of bytes; 0 always succeeds, a negative one is refused.
 * @return 1; 0 when they do not fit, or the arguments are refused.
 */
GST_PLEXA_API gint32 ext_queue_push(ExtQueue *queue, const void *data, gint32 size);

/**
 * Take the oldest bytes.
 *
 * @param out   Room for @p size bytes; null only with a size of 0.
 * @param size  Number of bytes wanted; a negative one is refused.
 * @return Number of bytes copied, fewer than wanted when the queue holds fewer, 0 when it is empty.
 */
GST_PLEXA_API gint32 ext_queue_pop(ExtQueue *queue, void *out, gint32 size);

/** @return Bytes held. */
GST_PLEXA_API gint32 ext_queue_get_buffer_size(ExtQueue *queue);

/** @return Bytes that can still be pushed. */
GST_PLEXA_API gint32 ext_queue_get_free_size(ExtQueue *queue);

/*
 * A second lock, which no other call takes, for callers that want several calls to be one step.
 * ext_global_lock() blocks until it has it; it is not recursive. The thread that locked it unlocks
 * it. Both return 1.
 */
GST_PLEXA_API gint32 ext_global_lock(ExtQueue *queue);
GST_PLEXA_API gint32 ext_global_unlock(ExtQueue *queue);

G_END_DECLS

#endif
