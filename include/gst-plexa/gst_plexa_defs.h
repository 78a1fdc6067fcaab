/* gst_plexa_defs.h - what every public header needs: the types and the export mark. */
#ifndef GST_PLEXA_DEFS_H
#define GST_PLEXA_DEFS_H

#include <glib.h>

#if defined(GST_PLEXA_COMPILATION)
#define GST_PLEXA_API __attribute__((visibility("default")))
#else
#define GST_PLEXA_API
#endif

/* The index file and the wire are little-endian and are read straight into records. */
#if G_BYTE_ORDER != G_LITTLE_ENDIAN
#error "gst-plexa supports little-endian machines only"
#endif

#endif
