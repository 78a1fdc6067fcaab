// gst_file_shared_info.cpp - the process-wide registry of open recordings, and the record of what
// has been cut off the front of the time-shift recording.
//
// Refused: a key above 3, a fifth recording, the 101st reader and the fourth writer of one
// recording, and a table that is not the living one (null, or removed). Every function may be
// called from any thread; the pointer of gst_shared_info_get_item() is the caller's to use with
// care, see the header.
#include "gst-plexa/gst_file_shared_info.h"

#include <time.h>

#include <array>
#include <cstdlib>

#include "gst-plexa/gst_vector.h"
#include "gst_file_shared_info_internal.h"

#define PLEXA_LOG_AREA "EXT_FMG"
#include "plexa_log.h"

#if defined(__i386__)
static_assert(sizeof(GstFileInfo) == 20 && sizeof(GstSharedCutInfo) == 28);
#endif
static_assert(sizeof(GstKeyInfo) == 257);

// Lock order: there is none, since no function takes both mutexes.
plexa::LibSharedInfo g_lib_shared_info = {nullptr, PTHREAD_MUTEX_INITIALIZER, nullptr,
                                          PTHREAD_MUTEX_INITIALIZER};

namespace {

// What a slot knows beyond its item; guarded by the registry mutex. The operations and the cut at
// work outlive a release of the slot, the rest goes with it.
struct SlotGuard {
  gint32 inside = 0;            // operations that are really running
  bool is_cut_at_work = false;  // handles are being closed and opened again
  const void *claim = nullptr;  // who cuts, or is about to
  guint32 tenancy = 1;          // which of the recordings that had the slot, one after another
  gint64 bytes_cut_off = 0;
};

std::array<SlotGuard, GST_KEY_MGR_SLOTS> g_guards;
pthread_cond_t g_cut_ended = PTHREAD_COND_INITIALIZER;
pthread_cond_t g_operation_left = PTHREAD_COND_INITIALIZER;

constexpr int kLongestWaitMs = 2000;  // an operation waits no longer for a cut

void _end_tenancy(SlotGuard &guard) {
  guard.claim = nullptr;
  guard.bytes_cut_off = 0;
  if (++guard.tenancy == 0) guard.tenancy = 1;
}

bool _is_over(const SlotGuard &guard, guint32 tenancy) {
  return tenancy != 0 && tenancy != guard.tenancy;
}

}  // namespace

namespace plexa {

void _release_slot(GstSharedInfo *table, guint32 key) noexcept {
  gst_key_mgr_free_key(table, key);
  if (key >= GST_KEY_MGR_SLOTS) {
    PLX_ERROR("[PLG_ERR] wrong key[%d]", static_cast<gint32>(key));
    return;
  }
  GstFileInfo &item = table->items[key];
  if (item.handle_list != nullptr) gst_vector_free(item.handle_list);
  item = {};
  _end_tenancy(g_guards[key]);
  pthread_cond_broadcast(&g_cut_ended);  // the mark is gone
}

}  // namespace plexa

namespace {

class MutexHold {
 public:
  explicit MutexHold(pthread_mutex_t &mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
  ~MutexHold() { pthread_mutex_unlock(&mutex_); }
  MutexHold(const MutexHold &) = delete;
  MutexHold &operator=(const MutexHold &) = delete;

 private:
  pthread_mutex_t &mutex_;
};

// A key comes from a caller, the log names the caller's function.
#define REFUSE_BAD_KEY(key, result)                                            \
  do {                                                                         \
    if ((key) >= GST_KEY_MGR_SLOTS) {                                          \
      PLX_ERROR("[PLG_ERR] out of range. key=[%d]", static_cast<gint32>(key)); \
      return result;                                                           \
    }                                                                          \
  } while (0)

// The functions below are called with the registry mutex held.

// A table that was removed must do no harm: its address alone is looked at.
bool _is_living(const GstSharedInfo *table) {
  return table != nullptr && table == g_lib_shared_info.registry;
}

bool _change_read_count(GstFileInfo &item, gint32 change) {
  const gint32 count = item.read_count + change;
  if (count > GST_SHARED_INFO_MAX_READERS) {
    PLX_ERROR("[PLG_ERR] Read authority reach the maxity.");
    return false;
  }
  item.read_count = count < 0 ? 0 : count;
  return true;
}

bool _change_write_count(GstFileInfo &item, gint32 change) {
  const gint32 count = item.write_count + change;
  if (count > GST_SHARED_INFO_MAX_WRITERS) {
    PLX_ERROR("[PLG_ERR] Only 1 Write authority is possible");
    return false;
  }
  item.write_count = count < 0 ? 0 : count;
  return true;
}

bool _change_file_count(GstFileInfo &item, bool reader, gint32 change) {
  return reader ? _change_read_count(item, change) : _change_write_count(item, change);
}

void _delete_item(GstSharedInfo *table, guint32 key, bool reader, bool list, GstPvrFile *handle) {
  GstFileInfo &item = table->items[key];
  _change_file_count(item, reader, -1);
  if (list && item.handle_list != nullptr) gst_vector_erase(item.handle_list, handle);
  if (item.read_count == 0 && item.write_count == 0) plexa::_release_slot(table, key);
}

void _list_handle(GstFileInfo &item, GstPvrFile *handle) {
  if (item.handle_list == nullptr) item.handle_list = gst_vector_new();
  gst_vector_push_back(item.handle_list, handle);
}

gint32 _pre_add_item(GstSharedInfo *table, const gchar *path) {
  const gint32 key = gst_key_mgr_pre_allocate_key(table, path);
  if (key >= 0 && key < GST_KEY_MGR_SLOTS) return key;
  PLX_ERROR("[PLG_ERR] gst_shared_info_pre_add_item out of range:key=[%d]", key);
  return -1;
}

gint32 _add_item(GstSharedInfo *table, const gchar *path, bool reader, bool list,
                 GstPvrFile *handle) {
  const gint32 key = gst_key_mgr_allocate_key(table, path);
  if (key < 0 || key >= GST_KEY_MGR_SLOTS) {
    PLX_ERROR("[PLG_ERR] key out of range,key =[%d]", key);
    return -1;
  }
  GstFileInfo &item = table->items[key];
  if (!_change_file_count(item, reader, 1)) {
    // The ordinary delete, although nothing was counted: a refusal costs one count.
    _delete_item(table, static_cast<guint32>(key), reader, list, handle);
    return -1;
  }
  if (list) _list_handle(item, handle);
  return key;
}

void _decrease_actioncount(GstFileInfo &item) {
  if (item.actioncount > 0) --item.actioncount;
  if (item.actioncount == 0) pthread_cond_broadcast(&g_operation_left);
}

}  // namespace

GstSharedInfo *gst_shared_info_get(void) {
  const MutexHold hold(g_lib_shared_info.registry_mutex);
  if (g_lib_shared_info.registry == nullptr) {
    g_lib_shared_info.registry = static_cast<GstSharedInfo *>(calloc(1, sizeof(GstSharedInfo)));
  }
  return g_lib_shared_info.registry;
}

void gst_shared_info_remove(GstSharedInfo *table) {
  const MutexHold hold(g_lib_shared_info.registry_mutex);
  if (!_is_living(table)) return;
  gst_key_mgr_init_all_key_info(table);
  for (GstFileInfo &item : table->items) {
    if (item.handle_list != nullptr) gst_vector_free(item.handle_list);
    item = {};
  }
  for (SlotGuard &guard : g_guards) _end_tenancy(guard);
  free(table);
  g_lib_shared_info.registry = nullptr;
  pthread_cond_broadcast(&g_cut_ended);
}

gint32 gst_shared_info_pre_add_item(GstSharedInfo *table, const gchar *path) {
  const MutexHold hold(g_lib_shared_info.registry_mutex);
  return _is_living(table) ? _pre_add_item(table, path) : -1;
}

gint32 gst_shared_info_add_item(GstSharedInfo *table, const gchar *path, guint8 reader, guint8 list,
                                GstPvrFile *handle) {
  const MutexHold hold(g_lib_shared_info.registry_mutex);
  return _is_living(table) ? _add_item(table, path, reader != 0, list != 0, handle) : -1;
}

gboolean gst_shared_info_delete_item(GstSharedInfo *table, guint32 key, guint8 reader, guint8 list,
                                     GstPvrFile *handle) {
  REFUSE_BAD_KEY(key, FALSE);
  const MutexHold hold(g_lib_shared_info.registry_mutex);
  if (!_is_living(table)) return FALSE;
  _delete_item(table, key, reader != 0, list != 0, handle);
  return TRUE;
}

GstFileInfo *gst_shared_info_get_item(GstSharedInfo *table, guint32 key) {
  REFUSE_BAD_KEY(key, nullptr);
  const MutexHold hold(g_lib_shared_info.registry_mutex);
  return _is_living(table) ? &table->items[key] : nullptr;
}

void gst_shared_info_increase_actioncount(GstSharedInfo *table, guint32 key) {
  REFUSE_BAD_KEY(key, );
  const MutexHold hold(g_lib_shared_info.registry_mutex);
  if (_is_living(table)) ++table->items[key].actioncount;
}

void gst_shared_info_decrease_actioncount(GstSharedInfo *table, guint32 key) {
  REFUSE_BAD_KEY(key, );
  const MutexHold hold(g_lib_shared_info.registry_mutex);
  if (_is_living(table)) _decrease_actioncount(table->items[key]);
}

gint32 gst_shared_info_get_actioncount(GstSharedInfo *table, guint32 key) {
  REFUSE_BAD_KEY(key, -1);
  const MutexHold hold(g_lib_shared_info.registry_mutex);
  return _is_living(table) ? static_cast<gint32>(table->items[key].actioncount) : -1;
}

void gst_shared_info_update_cut_mode(GstSharedInfo *table, guint32 key, gboolean mode) {
  REFUSE_BAD_KEY(key, );
  const MutexHold hold(g_lib_shared_info.registry_mutex);
  if (!_is_living(table)) return;
  table->items[key].cut_mode = mode ? 1 : 0;
  if (!mode) pthread_cond_broadcast(&g_cut_ended);
}

gboolean gst_shared_info_is_progressing_cut(GstSharedInfo *table, guint32 key) {
  REFUSE_BAD_KEY(key, FALSE);
  const MutexHold hold(g_lib_shared_info.registry_mutex);
  return _is_living(table) && table->items[key].cut_mode != 0;
}

// ---- Operations and cuts ----

namespace {

timespec _deadline_in(int milliseconds) {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  time.tv_sec += milliseconds / 1000;
  time.tv_nsec += milliseconds % 1000 * 1000000;
  if (time.tv_nsec >= 1000000000) {
    ++time.tv_sec;
    time.tv_nsec -= 1000000000;
  }
  return time;
}

// False when the time is over.
bool _wait(pthread_cond_t &condition, const timespec &deadline) {
  return pthread_cond_clockwait(&condition, &g_lib_shared_info.registry_mutex, CLOCK_MONOTONIC,
                                &deadline) == 0;
}

bool _is_cutting(guint32 key) {
  const GstSharedInfo *const table = g_lib_shared_info.registry;
  return g_guards[key].is_cut_at_work || (table != nullptr && table->items[key].cut_mode != 0);
}

bool _is_any_running(guint32 key) {
  const GstSharedInfo *const table = g_lib_shared_info.registry;
  return g_guards[key].inside != 0 || (table != nullptr && table->items[key].actioncount != 0);
}

void _count_in(guint32 key) {
  ++g_guards[key].inside;
  if (g_lib_shared_info.registry != nullptr) ++g_lib_shared_info.registry->items[key].actioncount;
}

bool _has_listed(guint32 key, const GstPvrFile *handle) {
  const GstSharedInfo *const table = g_lib_shared_info.registry;
  GPtrArray *const list = table != nullptr ? table->items[key].handle_list : nullptr;
  for (gint32 i = 0; i < gst_vector_size(list); ++i) {
    if (gst_vector_index(list, i) == handle) return true;
  }
  return false;
}

void _count_out(guint32 key) {
  --g_guards[key].inside;
  if (g_lib_shared_info.registry != nullptr) {
    _decrease_actioncount(g_lib_shared_info.registry->items[key]);
  }
}

}  // namespace

namespace plexa {

bool _enter_operation(guint32 key) noexcept {
  REFUSE_BAD_KEY(key, true);
  const MutexHold hold(g_lib_shared_info.registry_mutex);
  if (_is_cutting(key)) {
    const timespec deadline = _deadline_in(kLongestWaitMs);
    while (_is_cutting(key) && _wait(g_cut_ended, deadline)) {
    }
    if (_is_cutting(key)) return false;
  }
  _count_in(key);
  return true;
}

void _enter_last_operation(guint32 key) noexcept {
  REFUSE_BAD_KEY(key, );
  const MutexHold hold(g_lib_shared_info.registry_mutex);
  while (g_guards[key].is_cut_at_work) {
    pthread_cond_wait(&g_cut_ended, &g_lib_shared_info.registry_mutex);
  }
  _count_in(key);
}

void _leave_operation(guint32 key) noexcept {
  REFUSE_BAD_KEY(key, );
  const MutexHold hold(g_lib_shared_info.registry_mutex);
  _count_out(key);
}

void _leave_and_delete_item(guint32 key, bool reader, GstPvrFile *handle) noexcept {
  REFUSE_BAD_KEY(key, );
  const MutexHold hold(g_lib_shared_info.registry_mutex);
  _count_out(key);
  if (_has_listed(key, handle)) _delete_item(g_lib_shared_info.registry, key, reader, true, handle);
}

Opening _open_item(const gchar *path, bool reader, GstPvrFile *handle, gint32 *key) noexcept {
  GstSharedInfo *const table = gst_shared_info_get();
  const MutexHold hold(g_lib_shared_info.registry_mutex);
  const timespec deadline = _deadline_in(kLongestWaitMs);
  for (bool in_time = true;; in_time = _wait(g_cut_ended, deadline)) {
    *key = _is_living(table) ? _pre_add_item(table, path) : -1;
    if (*key < 0) return Opening::kNoKey;
    if (!_is_cutting(static_cast<guint32>(*key))) break;
    if (!in_time) return Opening::kBusy;
  }
  const auto slot = static_cast<guint32>(*key);
  _count_in(slot);
  *key = _add_item(table, path, reader, true, handle);
  if (*key >= 0) return Opening::kOpened;
  _count_out(slot);
  return Opening::kRefused;
}

guint32 _tenancy(guint32 key) noexcept {
  REFUSE_BAD_KEY(key, 0);
  const MutexHold hold(g_lib_shared_info.registry_mutex);
  return g_guards[key].tenancy;
}

bool _claim_cut(guint32 key, const void *owner, guint32 tenancy) noexcept {
  REFUSE_BAD_KEY(key, false);
  const MutexHold hold(g_lib_shared_info.registry_mutex);
  if (g_lib_shared_info.registry == nullptr || g_guards[key].claim != nullptr) return false;
  if (_is_over(g_guards[key], tenancy)) return false;
  g_guards[key].claim = owner;
  g_lib_shared_info.registry->items[key].cut_mode = 1;
  return true;
}

void _give_back_cut(guint32 key, const void *owner) noexcept {
  REFUSE_BAD_KEY(key, );
  const MutexHold hold(g_lib_shared_info.registry_mutex);
  if (g_guards[key].claim == owner) g_guards[key].claim = nullptr;
}

void _abandon_cut(guint32 key, const void *owner) noexcept {
  REFUSE_BAD_KEY(key, );
  const MutexHold hold(g_lib_shared_info.registry_mutex);
  if (g_guards[key].claim != owner) return;
  g_guards[key].claim = nullptr;
  if (g_lib_shared_info.registry != nullptr) g_lib_shared_info.registry->items[key].cut_mode = 0;
  pthread_cond_broadcast(&g_cut_ended);
}

CutStart _begin_cut(guint32 key, guint32 tenancy) noexcept {
  REFUSE_BAD_KEY(key, CutStart::kNoRegistry);
  const MutexHold hold(g_lib_shared_info.registry_mutex);
  if (g_lib_shared_info.registry == nullptr) return CutStart::kNoRegistry;
  if (_is_over(g_guards[key], tenancy)) return CutStart::kNoRegistry;
  if (_is_any_running(key) || g_guards[key].is_cut_at_work) return CutStart::kBusy;
  g_guards[key].is_cut_at_work = true;
  return CutStart::kStarted;
}

void _unmark_cut(guint32 key) noexcept {
  REFUSE_BAD_KEY(key, );
  const MutexHold hold(g_lib_shared_info.registry_mutex);
  if (g_lib_shared_info.registry != nullptr) g_lib_shared_info.registry->items[key].cut_mode = 0;
}

void _end_cut(guint32 key, const void *owner) noexcept {
  REFUSE_BAD_KEY(key, );
  const MutexHold hold(g_lib_shared_info.registry_mutex);
  g_guards[key].is_cut_at_work = false;
  if (g_guards[key].claim == owner) g_guards[key].claim = nullptr;
  pthread_cond_broadcast(&g_cut_ended);
}

void _wait_for_operations(guint32 key, int milliseconds) noexcept {
  REFUSE_BAD_KEY(key, );
  const MutexHold hold(g_lib_shared_info.registry_mutex);
  const timespec deadline = _deadline_in(milliseconds);
  while ((_is_any_running(key) || g_guards[key].is_cut_at_work) &&
         _wait(g_operation_left, deadline)) {
  }
}

GstPvrFile *_listed_handle(guint32 key, gint32 index) noexcept {
  REFUSE_BAD_KEY(key, nullptr);
  const MutexHold hold(g_lib_shared_info.registry_mutex);
  const GstSharedInfo *const table = g_lib_shared_info.registry;
  GPtrArray *const list = table != nullptr ? table->items[key].handle_list : nullptr;
  if (index >= gst_vector_size(list)) return nullptr;
  return static_cast<GstPvrFile *>(gst_vector_index(list, index));
}

bool _is_listed(guint32 key, const GstPvrFile *handle) noexcept {
  REFUSE_BAD_KEY(key, false);
  const MutexHold hold(g_lib_shared_info.registry_mutex);
  return _has_listed(key, handle);
}

gint64 _bytes_cut_off(guint32 key) noexcept {
  REFUSE_BAD_KEY(key, 0);
  const MutexHold hold(g_lib_shared_info.registry_mutex);
  return g_guards[key].bytes_cut_off;
}

void _add_bytes_cut_off(guint32 key, gint64 bytes) noexcept {
  REFUSE_BAD_KEY(key, );
  const MutexHold hold(g_lib_shared_info.registry_mutex);
  g_guards[key].bytes_cut_off += bytes;
}

void _forget_bytes_cut_off(guint32 key) noexcept {
  REFUSE_BAD_KEY(key, );
  const MutexHold hold(g_lib_shared_info.registry_mutex);
  g_guards[key].bytes_cut_off = 0;
}

}  // namespace plexa

// ---- Shared cut info ----

namespace {

// The living record, made of zeros when there is none; null when it cannot be made. The cut-info
// mutex is held.
GstSharedCutInfo *_cut_info() {
  if (g_lib_shared_info.cut_info == nullptr) {
    g_lib_shared_info.cut_info =
        static_cast<GstSharedCutInfo *>(calloc(1, sizeof(GstSharedCutInfo)));
  }
  return g_lib_shared_info.cut_info;
}

// There is one record, and it may have been removed, or removed and made again, since the caller
// was given its address. So the fields are always those of the living record.
template <class Value>
Value _get(Value GstSharedCutInfo::*field) {
  const MutexHold hold(g_lib_shared_info.cut_info_mutex);
  const GstSharedCutInfo *const info = _cut_info();
  return info != nullptr ? info->*field : 0;
}

template <class Value>
void _set(Value GstSharedCutInfo::*field, Value value) {
  const MutexHold hold(g_lib_shared_info.cut_info_mutex);
  if (GstSharedCutInfo *const info = _cut_info()) info->*field = value;
}

}  // namespace

GstSharedCutInfo *gst_shared_cut_info_get(void) {
  const MutexHold hold(g_lib_shared_info.cut_info_mutex);
  return _cut_info();
}

void gst_shared_cut_info_remove(void) {
  const MutexHold hold(g_lib_shared_info.cut_info_mutex);
  free(g_lib_shared_info.cut_info);
  g_lib_shared_info.cut_info = nullptr;
}

gint32 gst_shared_cut_info_get_accumulated_time(GstSharedCutInfo *) {
  return _get(&GstSharedCutInfo::accumulated_time);
}

void gst_shared_cut_info_set_accumulated_time(GstSharedCutInfo *, gint32 time) {
  _set(&GstSharedCutInfo::accumulated_time, time);
}

gint64 gst_shared_cut_info_get_accumulated_offset(GstSharedCutInfo *) {
  return _get(&GstSharedCutInfo::accumulated_offset);
}

void gst_shared_cut_info_set_accumulated_offset(GstSharedCutInfo *, gint64 offset) {
  _set(&GstSharedCutInfo::accumulated_offset, offset);
}

gint32 gst_shared_cut_info_get_total_cuttime(GstSharedCutInfo *) {
  return _get(&GstSharedCutInfo::total_cuttime);
}

void gst_shared_cut_info_set_total_cuttime(GstSharedCutInfo *, gint32 time) {
  _set(&GstSharedCutInfo::total_cuttime, time);
}

gint64 gst_shared_cut_info_get_total_cutoffset(GstSharedCutInfo *) {
  return _get(&GstSharedCutInfo::total_cutoffset);
}

void gst_shared_cut_info_set_total_cutoffset(GstSharedCutInfo *, gint64 offset) {
  _set(&GstSharedCutInfo::total_cutoffset, offset);
}

gint32 gst_shared_cut_info_get_fixed_duration(GstSharedCutInfo *) {
  return _get(&GstSharedCutInfo::fixed_duration);
}

void gst_shared_cut_info_set_fixed_duration(GstSharedCutInfo *, gint32 duration) {
  PLX_INFO("fixed_duration:%d", duration);
  _set(&GstSharedCutInfo::fixed_duration, duration);
}
