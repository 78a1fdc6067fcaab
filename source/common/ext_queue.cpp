// ext_queue.cpp - a byte ring queue of fixed capacity between threads, with a second lock that the
// caller may take around several calls.
//
// Refused: a null or destroyed record, sizes below 0, a capacity below 1, a push that does not fit
// as a whole. Every function may be called from any thread once ext_queue_create() has returned;
// ext_queue_destroy() when no other thread uses the queue any more.
#include "gst-plexa/ext_queue.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#define PLEXA_LOG_AREA "TOOLS"
#include "plexa_log.h"

// A macro, so that the line and the function are those of the refusing call.
#define REFUSE()                                           \
  do {                                                     \
    PLX_ERROR("[PLG_ERR] ext_queue, line=[%d]", __LINE__); \
    return 0;                                              \
  } while (0)

namespace {

// How long to wait for the data lock before sleeping on it, about 50 us in all. A call holds the
// lock for the copy of its bytes and no longer, so a sleep in the kernel costs far more than the
// wait; and a thread that looks only now and then leaves the other one a run of pieces, in which
// the record's cache lines stay where they are.
constexpr int kLooks = 64;
constexpr int kPausesBetweenLooks = 32;

void _pause() {
#if defined(__i386__) || defined(__x86_64__)
  __builtin_ia32_pause();
#else
  __asm__ volatile("" ::: "memory");
#endif
}

void _lock(pthread_mutex_t &mutex) {
  for (int look = 0; look < kLooks; ++look) {
    if (pthread_mutex_trylock(&mutex) == 0) return;
    for (int i = 0; i < kPausesBetweenLooks; ++i) _pause();
  }
  pthread_mutex_lock(&mutex);
}

class DataHold {
 public:
  explicit DataHold(ExtQueue &queue) : mutex_(queue.data_lock) { _lock(mutex_); }
  ~DataHold() { pthread_mutex_unlock(&mutex_); }
  DataHold(const DataHold &) = delete;
  DataHold &operator=(const DataHold &) = delete;

 private:
  pthread_mutex_t &mutex_;
};

// There is no buffer of less than one byte.
guint8 *_allocate(gint32 size) {
  return size < 1 ? nullptr : static_cast<guint8 *>(malloc(static_cast<size_t>(size)));
}

bool _usable(const ExtQueue *queue) { return queue != nullptr && queue->initialized != 0; }

// The functions below are called with the data lock held.
//
// An index is 0..capacity: a copy that ends at the buffer's end leaves it at capacity, which stands
// for position 0. One byte always stays free, so that equal indices mean empty.

gint32 _bytes_held(const ExtQueue &queue) {
  const gint32 ahead = queue.write_index - queue.read_index;
  return ahead < 0 ? queue.capacity + ahead : ahead;
}

gint32 _bytes_free(const ExtQueue &queue) {
  return std::max(queue.capacity - _bytes_held(queue) - 1, 0);
}

void _write(ExtQueue &queue, const guint8 *data, gint32 size) {
  if (queue.read_index > queue.write_index) {
    memcpy(queue.buffer + queue.write_index, data, static_cast<size_t>(size));
    queue.write_index += size;
    return;
  }
  const gint32 first = std::min(queue.capacity - queue.write_index, size);
  memcpy(queue.buffer + queue.write_index, data, static_cast<size_t>(first));
  queue.write_index += first;
  if (size == first) return;
  memcpy(queue.buffer, data + first, static_cast<size_t>(size - first));
  queue.write_index = size - first;
}

void _read(ExtQueue &queue, guint8 *out, gint32 size) {
  if (queue.write_index >= queue.read_index) {
    memcpy(out, queue.buffer + queue.read_index, static_cast<size_t>(size));
    queue.read_index += size;
    return;
  }
  const gint32 first = std::min(queue.capacity - queue.read_index, size);
  memcpy(out, queue.buffer + queue.read_index, static_cast<size_t>(first));
  queue.read_index += first;
  if (size == first) return;
  memcpy(out + first, queue.buffer, static_cast<size_t>(size - first));
  queue.read_index = size - first;
}

void _destroy_locks(ExtQueue &queue) {
  pthread_mutex_destroy(&queue.data_lock);
  pthread_mutex_destroy(&queue.global_lock);
}

}  // namespace

gint32 ext_queue_create(ExtQueue *queue, gint32 size) {
  if (queue == nullptr) REFUSE();
  pthread_mutex_init(&queue->data_lock, nullptr);
  pthread_mutex_init(&queue->global_lock, nullptr);
  {
    const DataHold hold(*queue);
    queue->read_index = 0;
    queue->write_index = 0;
    queue->capacity = size;
    queue->buffer = _allocate(size);
    queue->initialized = queue->buffer != nullptr ? 1 : 0;
    if (queue->initialized != 0) return 1;
    PLX_ERROR("[PLG_ERR] malloc failed, buffer_size=[%d]", size);
  }
  _destroy_locks(*queue);
  return 0;
}

gint32 ext_queue_destroy(ExtQueue *queue) {
  if (!_usable(queue)) REFUSE();
  {
    const DataHold hold(*queue);
    free(queue->buffer);
    queue->buffer = nullptr;
    queue->initialized = 0;
  }
  _destroy_locks(*queue);
  return 1;
}

gint32 ext_queue_clear(ExtQueue *queue) {
  if (!_usable(queue)) REFUSE();
  const DataHold hold(*queue);
  queue->read_index = 0;
  queue->write_index = 0;
  return 1;
}

gint32 ext_queue_push(ExtQueue *queue, const void *data, gint32 size) {
  if (!_usable(queue) || size < 0 || (data == nullptr && size > 0)) REFUSE();
  if (size == 0) return 1;
  const DataHold hold(*queue);
  const gint32 free_bytes = _bytes_free(*queue);
  if (free_bytes < size) {
    PLX_ERROR("[PLG_ERR] overflow, push size[%d] is bigger than free[%d]", size, free_bytes);
    return 0;
  }
  _write(*queue, static_cast<const guint8 *>(data), size);
  return 1;
}

gint32 ext_queue_pop(ExtQueue *queue, void *out, gint32 size) {
  if (!_usable(queue) || size < 0 || (out == nullptr && size > 0)) REFUSE();
  const DataHold hold(*queue);
  const gint32 held = _bytes_held(*queue);
  if (held == 0) {
    PLX_ERROR("[PLG_ERR] underflow, requeted size[%d] is bigger than buffer[%d]", size, held);
    return 0;
  }
  const gint32 count = std::min(held, size);
  if (count > 0) _read(*queue, static_cast<guint8 *>(out), count);
  return count;
}

gint32 ext_queue_get_buffer_size(ExtQueue *queue) {
  if (!_usable(queue)) REFUSE();
  const DataHold hold(*queue);
  return _bytes_held(*queue);
}

gint32 ext_queue_get_free_size(ExtQueue *queue) {
  if (!_usable(queue)) REFUSE();
  const DataHold hold(*queue);
  return _bytes_free(*queue);
}

gint32 ext_global_lock(ExtQueue *queue) {
  if (!_usable(queue)) REFUSE();
  pthread_mutex_lock(&queue->global_lock);
  return 1;
}

gint32 ext_global_unlock(ExtQueue *queue) {
  if (!_usable(queue)) REFUSE();
  pthread_mutex_unlock(&queue->global_lock);
  return 1;
}
