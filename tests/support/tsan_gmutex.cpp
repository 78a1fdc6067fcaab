// tsan_gmutex.cpp - tells ThreadSanitizer about GLib's mutex, which is a futex inside a library
// that is not instrumented: without this, everything that a GMutex guards looks like a race. Empty
// in other builds.
#if defined(__SANITIZE_THREAD__)

#include <dlfcn.h>
#include <glib.h>
#include <sanitizer/tsan_interface.h>

namespace {

template <class Function>
Function glibs_own(const char *name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

__attribute__((visibility("default"))) void g_mutex_lock(GMutex *mutex) {
  static const auto lock = glibs_own<void (*)(GMutex *)>("g_mutex_lock");
  lock(mutex);
  __tsan_acquire(mutex);
}

__attribute__((visibility("default"))) gboolean g_mutex_trylock(GMutex *mutex) {
  static const auto trylock = glibs_own<gboolean (*)(GMutex *)>("g_mutex_trylock");
  if (!trylock(mutex)) return FALSE;
  __tsan_acquire(mutex);
  return TRUE;
}

__attribute__((visibility("default"))) void g_mutex_unlock(GMutex *mutex) {
  static const auto unlock = glibs_own<void (*)(GMutex *)>("g_mutex_unlock");
  __tsan_release(mutex);
  unlock(mutex);
}

#endif
