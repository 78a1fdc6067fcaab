// gst_thumbnail_files.h - the files of a recording as the thumbnail modules open them; closed and
// released by scope. One object serves one thread at a time.
#pragma once

#include "gst-plexa/gst_index_parser.h"
#include "gst-plexa/gst_pvr_file.h"

namespace plexa {

// A PVR file handle. The path given to open must outlive the object.
class ScopedPvrFile {
 public:
  ScopedPvrFile() = default;
  ~ScopedPvrFile();
  ScopedPvrFile(const ScopedPvrFile &) = delete;
  ScopedPvrFile &operator=(const ScopedPvrFile &) = delete;

  gint32 init();                          // as gst_pvr_file_init; a result other than 0 is logged
  gint64 open_stream(const gchar *path);  // to read, past the page cache
  gint64 open_index(const gchar *path);   // to read
  gint64 create(const gchar *path);       // to write, from empty

  GstPvrFile *get() { return &file_; }

 private:
  gint64 _open(const gchar *path, guint32 permission, guint32 io, guint32 ext);

  GstPvrFile file_{};
};

// An index parser on an open index file.
class ScopedIndexParser {
 public:
  ScopedIndexParser(GstPvrFile *index_file, const gchar *index_path);  // and sets its layout
  ~ScopedIndexParser();
  ScopedIndexParser(const ScopedIndexParser &) = delete;
  ScopedIndexParser &operator=(const ScopedIndexParser &) = delete;

  gint32 start() { return gst_index_parser_start(&parser_); }
  GstIndexParser *get() { return &parser_; }

 private:
  GstIndexParser parser_{};  // zeroed, so that an index that cannot be read answers nothing
};

}  // namespace plexa
