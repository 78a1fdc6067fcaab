// gst_vector.cpp - a list of untyped pointers over GPtrArray.
//
// Takes no lock: a vector has one user at a time, or the users' own lock.
#include "gst-plexa/gst_vector.h"

#define PLEXA_LOG_AREA "EXT_TOOL"
#include "plexa_log.h"

GPtrArray *gst_vector_new(void) { return g_ptr_array_new(); }

void gst_vector_free(GPtrArray *vector) { g_ptr_array_free(vector, TRUE); }

void gst_vector_push_back(GPtrArray *vector, gpointer element) { g_ptr_array_add(vector, element); }

gboolean gst_vector_erase(GPtrArray *vector, gpointer element) {
  return g_ptr_array_remove(vector, element);
}

gpointer gst_vector_erase_index(GPtrArray *vector, gint32 index) {
  if (index < 0 || index >= gst_vector_size(vector)) return nullptr;
  return g_ptr_array_remove_index(vector, static_cast<guint>(index));
}

// A recording without listed handles has no vector at all, hence the null.
gint32 gst_vector_size(GPtrArray *vector) {
  return vector == nullptr ? 0 : static_cast<gint32>(vector->len);
}

gpointer gst_vector_index(GPtrArray *vector, gint32 index) {
  return g_ptr_array_index(vector, index);
}

gpointer gst_vector_front(GPtrArray *vector) { return gst_vector_index(vector, 0); }

gpointer gst_vector_back(GPtrArray *vector) {
  return gst_vector_index(vector, gst_vector_size(vector) - 1);
}

// Every erase moves the later entries up under the rising index, so every second entry stays. The
// plug-ins know it so.
void gst_vector_clear(GPtrArray *vector) {
  if (vector == nullptr) {
    PLX_ERROR("[PLG_ERR] vector == NULL");
    return;
  }
  const gint32 size = gst_vector_size(vector);
  for (gint32 index = 0; index < size; ++index) gst_vector_erase_index(vector, index);
}
