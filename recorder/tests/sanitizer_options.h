// sanitizer_options.h - what the leak check must know; included by exactly one file of a program.
//
// GStreamer registers so many names that GLib's table of them, which the loader set up, is replaced
// while it may still be read; GLib leaves the old one behind on purpose. Only stacks that begin in
// the loader are passed over, for which they have to be unwound in full.
#pragma once

#if defined(__SANITIZE_ADDRESS__)
#define PLEXA_LEAK_CHECK 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define PLEXA_LEAK_CHECK 1
#endif
#endif

#if defined(PLEXA_LEAK_CHECK)
extern "C" __attribute__((visibility("default"))) const char *__asan_default_options();
extern "C" const char *__asan_default_options() { return "fast_unwind_on_malloc=0"; }

extern "C" __attribute__((visibility("default"))) const char *__lsan_default_suppressions();
extern "C" const char *__lsan_default_suppressions() { return "leak:ld-linux"; }

extern "C" __attribute__((visibility("default"))) const char *__lsan_default_options();
extern "C" const char *__lsan_default_options() { return "print_suppressions=0"; }
#endif
