// gst_thumbnail_files.cpp - opens and closes a recording's files for the thumbnail modules.
#include "gst_thumbnail_files.h"

#define PLEXA_LOG_AREA "EXT_THM"
#include "plexa_log.h"

namespace plexa {

ScopedPvrFile::~ScopedPvrFile() {
  if (file_.is_opened != 0) gst_pvr_file_close(&file_);
  gst_pvr_file_deinit(&file_);
}

gint32 ScopedPvrFile::init() {
  const gint32 result = gst_pvr_file_init(&file_);
  if (result != 0) PLX_ERROR("[PLG_ERR] g mutex new lock fail!");
  return result;
}

gint64 ScopedPvrFile::open_stream(const gchar *path) {
  return _open(path, GST_PVR_FILE_READ, GST_PVR_FILE_DIRECT_IO, GST_PVR_FILE_STREAM);
}

gint64 ScopedPvrFile::open_index(const gchar *path) {
  return _open(path, GST_PVR_FILE_READ, GST_PVR_FILE_BUFFER_IO, GST_PVR_FILE_INDEX);
}

gint64 ScopedPvrFile::create(const gchar *path) {
  return _open(path, GST_PVR_FILE_WRITE, GST_PVR_FILE_BUFFER_IO, GST_PVR_FILE_STREAM);
}

gint64 ScopedPvrFile::_open(const gchar *path, guint32 permission, guint32 io, guint32 ext) {
  return gst_pvr_file_open(&file_, path, permission, io, GST_PVR_FILE_NORMAL, ext, 0, 0);
}

ScopedIndexParser::ScopedIndexParser(GstPvrFile *index_file, const gchar *index_path) {
  gst_index_parser_init(&parser_, index_file);
  gst_index_parser_set_mdb_file_type(&parser_, index_path);
}

ScopedIndexParser::~ScopedIndexParser() { gst_index_parser_stop(&parser_); }

}  // namespace plexa
