// tsan_gmutex.cpp - tells ThreadSanitizer about GLib's mutex, which is a futex inside a library
// that is not instrumented: without this, everything that a GMutex guards looks like a race. The
// functions are exported, so that GStreamer's libraries call them, too. Empty in other builds.
#if defined(__SANITIZE_THREAD__)

#include <dlfcn.h>
#include <glib.h>
#include <sanitizer/tsan_interface.h>

#define EXPORTED __attribute__((visibility("default")))

namespace {

template <class Function>
Function glibs_own(const char *name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// GLib's slices pass from thread to thread by its own locks, too, and those cannot be shown.
// Reports from within the allocator are not about anybody's use of what it hands out.
extern "C" EXPORTED const char *__tsan_default_suppressions() { return "race:g_slice_alloc\n"; }

EXPORTED void g_mutex_lock(GMutex *mutex) {
  static const auto lock = glibs_own<void (*)(GMutex *)>("g_mutex_lock");
  lock(mutex);
  __tsan_acquire(mutex);
}

EXPORTED gboolean g_mutex_trylock(GMutex *mutex) {
  static const auto trylock = glibs_own<gboolean (*)(GMutex *)>("g_mutex_trylock");
  if (!trylock(mutex)) return FALSE;
  __tsan_acquire(mutex);
  return TRUE;
}

EXPORTED void g_mutex_unlock(GMutex *mutex) {
  static const auto unlock = glibs_own<void (*)(GMutex *)>("g_mutex_unlock");
  __tsan_release(mutex);
  unlock(mutex);
}

// Whoever clears a mutex has seen what its last holders did; a reference count, which the thread
// sanitizer does not see either, has told him that they were the last. Weak: a test that counts the
// locks brings its own.
EXPORTED __attribute__((weak)) void g_mutex_clear(GMutex *mutex) {
  static const auto clear = glibs_own<void (*)(GMutex *)>("g_mutex_clear");
  __tsan_acquire(mutex);
  clear(mutex);
}

#endif
