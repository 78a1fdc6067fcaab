/* gst_vector.h - a list of untyped pointers. The vector is a GPtrArray and never owns its elements.
 *
 * No vector may be null unless a function says so. No locks: one thread at a time for each vector.
 * Nothing sets errno.
 */
#ifndef GST_VECTOR_H
#define GST_VECTOR_H

#include "gst_plexa_defs.h"

G_BEGIN_DECLS

/** @return A new empty vector, given back with gst_vector_free(). */
GST_PLEXA_API GPtrArray *gst_vector_new(void);

/** Free the vector; the elements stay the caller's. */
GST_PLEXA_API void gst_vector_free(GPtrArray *vector);

/** Append; the element may be null, and may be there already. */
GST_PLEXA_API void gst_vector_push_back(GPtrArray *vector, gpointer element);

/**
 * Remove the first entry equal to @p element; the later ones move up.
 *
 * @return TRUE; FALSE when there is no such entry.
 */
GST_PLEXA_API gboolean gst_vector_erase(GPtrArray *vector, gpointer element);

/**
 * Remove one entry; the later ones move up.
 *
 * @param index  From 0.
 * @return The element that stood there; null when the index is out of range.
 */
GST_PLEXA_API gpointer gst_vector_erase_index(GPtrArray *vector, gint32 index);

/** @return The number of entries; 0 for a null vector. */
GST_PLEXA_API gint32 gst_vector_size(GPtrArray *vector);

/* The entry at an index, the first and the last. Not checked: ask the size before. */
GST_PLEXA_API gpointer gst_vector_index(GPtrArray *vector, gint32 index);
GST_PLEXA_API gpointer gst_vector_front(GPtrArray *vector);
GST_PLEXA_API gpointer gst_vector_back(GPtrArray *vector);

/**
 * Remove every second entry, beginning with the first: [a, b, c, d] becomes [b, d], [a] becomes [].
 * A null vector is refused with a message. To empty a vector, erase index 0 until the size is 0.
 */
GST_PLEXA_API void gst_vector_clear(GPtrArray *vector);

G_END_DECLS

#endif
