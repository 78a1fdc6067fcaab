// gst_index_parser.cpp - an index parser's life, the base table, and the figures of the whole file.
//
// Refuses: a base table of another version, a second start. A file that is too short for what is
// read from it gives zeros. One parser serves one caller at a time; no locks.
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "gst_index_parser_internal.h"

#define PLEXA_LOG_AREA "EXT_PAR"
#include "plexa_log.h"

static_assert(sizeof(pvr_base_table_s) == GST_INDEX_BASE_TABLE_SIZE);
static_assert(offsetof(pvr_base_table_s, mdb_version) == 4);
static_assert(offsetof(pvr_base_table_s, start_time_code) == 12);
static_assert(offsetof(pvr_base_table_s, end_time_code) == 16);
static_assert(offsetof(pvr_base_table_s, start_packet_count) == 20);
static_assert(offsetof(pvr_base_table_s, total_size) == 28);
static_assert(offsetof(pvr_base_table_s, channel_info_size) == 36);
static_assert(offsetof(pvr_base_table_s, gop_start_offset) == 48);

namespace {

constexpr gint32 kFailed = -1;

enum MdbFileType : gint32 { kWrongFile = -1, kPelkoFile = 0, kNolvaFile = 1 };

// A handle for one look at a file, released on every way out.
class TemporaryFile {
 public:
  TemporaryFile() : init_result_(gst_pvr_file_init(&file_)) {}
  ~TemporaryFile() {
    if (is_open_) gst_pvr_file_close(&file_);
    gst_pvr_file_deinit(&file_);
  }
  TemporaryFile(const TemporaryFile &) = delete;
  TemporaryFile &operator=(const TemporaryFile &) = delete;

  bool is_ready() const { return init_result_ == 0; }
  gint64 open_index(const gchar *path) {
    const gint64 result = gst_pvr_file_open(&file_, path, GST_PVR_FILE_READ, GST_PVR_FILE_BUFFER_IO,
                                            GST_PVR_FILE_NORMAL, GST_PVR_FILE_INDEX, 0, 0);
    is_open_ = result >= 0;
    return result;
  }
  gint64 read(void *buffer, gint64 size) { return gst_pvr_file_read(&file_, buffer, size); }

 private:
  GstPvrFile file_{};
  bool is_open_ = false;
  gint32 init_result_;
};

gint32 _mdb_file_type_of(const pvr_base_table_s &table) {
  const guint32 size = table.channel_info_size;
  PLX_INFO(
      "channel_info_size = [%d], sizeof(pvr_pelko_channel_info_s) = [%zu], "
      "sizeof(pvr_channel_info_s) = [%zu]",
      static_cast<gint32>(size), sizeof(pvr_pelko_channel_info_s), sizeof(pvr_channel_info_s));
  if (size == sizeof(pvr_pelko_channel_info_s)) {
    PLX_INFO("Pelko mdb file");
    return kPelkoFile;
  }
  if (size == sizeof(pvr_channel_info_s)) {
    PLX_INFO("Nolva mdb file");
    return kNolvaFile;
  }
  PLX_INFO("Wrong mdb file");
  return kWrongFile;
}

// The lower half is the recorder's own count of revisions and says nothing about the layout.
bool _is_known_version(guint32 version) { return (version >> 16) == (MDB_VERSION >> 16); }

void _set_record_sizes(GstIndexParser *parser) {
  parser->base_table_size = GST_INDEX_BASE_TABLE_SIZE;
  if (parser->is_pelko_mdb) {
    PLX_INFO("Pelko mdb file");
    parser->channel_info_size = sizeof(pvr_pelko_channel_info_s);
    parser->gop_info_size = sizeof(pvr_pelko_gop_info_s);
  } else {
    parser->channel_info_size = sizeof(pvr_channel_info_s);
    parser->gop_info_size = sizeof(pvr_gop_info_s);
  }
  PLX_INFO("base table size = [%d], channel info size = [%d], gop info size = [%d]",
           static_cast<gint32>(parser->base_table_size),
           static_cast<gint32>(parser->channel_info_size),
           static_cast<gint32>(parser->gop_info_size));
}

void _set_gop_start_offset(GstIndexParser *parser) {
  parser->gop_start_offset = parser->base_table.gop_start_offset;
  if (parser->gop_start_offset != 0) return;
  parser->gop_start_offset =
      parser->base_table_size + GST_INDEX_CHANNEL_SLOTS * parser->channel_info_size;
  PLX_INFO("index_parser->gop_start_offset = [%d]", static_cast<gint32>(parser->gop_start_offset));
}

// The record at the handle's position, made current; negative when the read fails.
gint64 _read_one_gop(GstIndexParser *parser, pvr_gop_info_s *gop) {
  if (!parser->is_pelko_mdb) return gst_pvr_file_read(parser->index_file, gop, sizeof *gop);
  pvr_pelko_gop_info_s pelko{};
  const gint64 result = gst_pvr_file_read(parser->index_file, &pelko, sizeof pelko);
  if (result >= 0) gst_index_parser_convert_pelko_gop_info_to_nolva(&pelko, gop);
  return result;
}

// A file that can hold a record and yet holds none behind its channel-info area: what stands at its
// end is something else.
bool _holds_no_gop(const GstIndexParser &parser, gint64 file_size) {
  return file_size >= gint64{parser.gop_info_size} && plexa::whole_gops(parser, file_size) == 0;
}

// While the recorder writes, the base table has no end time yet: the last record knows it.
gint32 _get_growing_total_time(GstIndexParser *parser) {
  const gint64 file_size = gst_pvr_file_size(parser->index_file);
  if (_holds_no_gop(*parser, file_size)) return 0;
  const gint64 position =
      gst_pvr_file_seek(parser->index_file, file_size - gint64{parser->gop_info_size}, SEEK_SET);
  if (position < 0) {
    PLX_ERROR("[PLG_ERR] m_IndexFile->Seek Failed\n");
    return static_cast<gint32>(position);
  }
  pvr_gop_info_s gop{};
  const gint64 result = _read_one_gop(parser, &gop);
  if (result < 0) {
    PLX_ERROR("[PLG_ERR] m_IndexFile->Read Failed\n");
    return static_cast<gint32>(result);
  }
  return static_cast<gint32>(gop.last_frame_time - parser->base_table.start_time_code);
}

}  // namespace

void gst_index_parser_init(GstIndexParser *parser, GstPvrFile *index_file) {
  if (parser == nullptr) return;
  parser->cached_current_index = 0;
  parser->cached_start_index = 0;
  parser->cached_end_index = 0;
  parser->cached_start_abs_index = 0;
  parser->cached_end_abs_index = 0;
  parser->gop_cache = nullptr;
  parser->index_file = index_file;
  // Unknown until start: with these at 0, whatever is asked too early finds an empty index.
  parser->base_table_size = 0;
  parser->channel_info_size = 0;
  parser->gop_info_size = 0;
  parser->gop_start_offset = 0;
  parser->is_started = FALSE;
  parser->is_pelko_mdb = FALSE;
}

gint32 gst_index_parser_get_mdb_file_type(const gchar *path) {
  TemporaryFile file;
  if (!file.is_ready()) {
    PLX_ERROR("[PLG_ERR] g mutex new lock fail!");
    return kFailed;
  }
  const gint64 opened = file.open_index(path);
  if (opened < 0) {
    PLX_ERROR("[PLG_ERR] open mdb file failed, ret = [%lld]", static_cast<long long>(opened));
    return kFailed;
  }
  pvr_base_table_s table{};
  const gint64 result = file.read(&table, sizeof table);
  if (result < 0) {
    PLX_ERROR("[PLG_ERR] read mdb file failed, ret = [%lld]", static_cast<long long>(result));
    return kFailed;
  }
  return _mdb_file_type_of(table);
}

void gst_index_parser_set_mdb_file_type(GstIndexParser *parser, const gchar *path) {
  if (parser == nullptr || path == nullptr) return;
  const gint32 type = gst_index_parser_get_mdb_file_type(path);
  if (type == kPelkoFile) PLX_ERROR("Pelko mdb file");
  parser->is_pelko_mdb = type == kPelkoFile;
}

gint32 gst_index_parser_start(GstIndexParser *parser) {
  if (parser == nullptr) return kFailed;
  _set_record_sizes(parser);
  if (parser->is_started) {
    PLX_ERROR("[PLG_ERR] IndexParser is already started");
    return kFailed;
  }
  if (!gst_index_parser_read_base_table(parser)) {
    PLX_ERROR("[PLG_ERR] ReadBaseTable Failed");
    parser->is_started = FALSE;
    return kFailed;
  }
  const gint32 loaded = gst_index_parser_cache_initial_gop(parser, 0);
  if (loaded < 0) {
    PLX_ERROR("[PLG_ERR] CacheInitialGOP Failed");
    parser->is_started = FALSE;
    return loaded;
  }
  parser->is_started = TRUE;
  return 1;
}

gboolean gst_index_parser_read_base_table(GstIndexParser *parser) {
  if (parser == nullptr) return FALSE;
  if (gst_pvr_file_seek(parser->index_file, 0, SEEK_SET) < 0) {
    PLX_ERROR("[PLG_ERR] Seek failed");
    return FALSE;
  }
  pvr_base_table_s table{};
  const gint64 size = MIN(gint64{parser->base_table_size}, gint64{sizeof table});
  // A plain -1 and a short read go on: what did not arrive is zero, and a zero version is refused.
  if (gst_pvr_file_read(parser->index_file, &table, size) < -1) {
    PLX_ERROR("[PLG_ERR] read failed");
    return FALSE;
  }
  if (!_is_known_version(table.mdb_version)) {
    PLX_ERROR("[PLG_ERR] MDB Version is different. Current: 0x%x, Recorded: 0x%x", MDB_VERSION,
              table.mdb_version);
    return FALSE;
  }
  PLX_INFO("IndexParser BaseTable Load Complete");
  parser->base_table = table;
  _set_gop_start_offset(parser);
  return TRUE;
}

gint32 gst_index_parser_stop(GstIndexParser *parser) {
  if (parser == nullptr) return kFailed;
  gst_index_parser_unload_base_table(parser);
  gst_index_parser_unload_gop_table(parser);
  return 1;
}

void gst_index_parser_unload_base_table(GstIndexParser *parser) {
  if (parser == nullptr) return;
  std::memset(&parser->base_table, 0, sizeof parser->base_table);
}

void gst_index_parser_unload_gop_table(GstIndexParser *parser) {
  if (parser == nullptr) return;
  std::free(parser->gop_cache);
  parser->gop_cache = nullptr;
}

gint32 gst_index_parser_get_total_time(GstIndexParser *parser) {
  if (parser == nullptr) return kFailed;
  const pvr_base_table_s &table = parser->base_table;
  if (table.end_time_code != 0) {
    return static_cast<gint32>(table.end_time_code - table.start_time_code);
  }
  return _get_growing_total_time(parser);
}

gint64 gst_index_parser_get_total_size(GstIndexParser *parser) {
  if (parser == nullptr) return kFailed;
  return static_cast<gint64>(parser->base_table.total_size);
}

gint64 gst_index_parser_get_file_size(GstIndexParser *parser) {
  if (parser == nullptr) return kFailed;
  return gst_pvr_file_size(parser->index_file);
}

gint32 gst_index_parser_get_max_gop_index(GstIndexParser *parser) {
  if (parser == nullptr) return kFailed;
  return plexa::whole_gops(*parser, gst_pvr_file_size(parser->index_file));
}
