// gst_index_cache.cpp - the window of at most 32 consecutive GOP records that a parser holds.
//
// The window is one block in the current layout, relative to the recording's start. A load is one
// seek and one read, replaces the whole window, and accepts whole records only; one that fails
// leaves the window's indices as they were. One parser serves one caller at a time; no locks.
#include <algorithm>
#include <cstdlib>

#include "gst_index_parser_internal.h"

#define PLEXA_LOG_AREA "EXT_PAR"
#include "plexa_log.h"

namespace {

using plexa::has_cache;
using plexa::kCacheBytes;
using plexa::kCacheRecords;
using plexa::kPelkoReadBytes;

constexpr gint32 kFailed = -1;

// Returns the bytes read, negative on failure.
gint64 _read_nolva_gops(GstIndexParser *parser) {
  const gint64 bytes = gst_pvr_file_read(parser->index_file, parser->gop_cache, kCacheBytes);
  if (bytes < 0) {
    PLX_ERROR("[PLG_ERR] m_IndexFile->Read Failed: %lld\n", static_cast<long long>(bytes));
  }
  return bytes;
}

gint64 _read_pelko_gops(GstIndexParser *parser) {
  PLX_INFO("Pelko mdb file");
  pvr_pelko_gop_info_s pelko[kCacheRecords] = {};
  const gint64 bytes = gst_pvr_file_read(parser->index_file, pelko, kPelkoReadBytes);
  if (bytes < 0) {
    PLX_ERROR("[PLG_ERR] read Pelko gop info failed, ret = [%lld]", static_cast<long long>(bytes));
    return bytes;
  }
  const gint64 count = std::min(bytes, kPelkoReadBytes) / gint64{sizeof(pvr_pelko_gop_info_s)};
  PLX_INFO("num_gop = [%d]", static_cast<gint32>(count));
  if (count < 1) {
    PLX_ERROR("[PLG_ERR] num_gop < 1");
    return kFailed;
  }
  for (gint64 i = 0; i < count; ++i) {
    gst_index_parser_convert_pelko_gop_info_to_nolva(&pelko[i], &parser->gop_cache[i]);
  }
  return bytes;
}

gint64 _read_gops(GstIndexParser *parser) {
  return parser->is_pelko_mdb ? _read_pelko_gops(parser) : _read_nolva_gops(parser);
}

// A partly written record at the end of the file is left out, and no answer of the back-end makes
// more records than the window has slots.
gint32 _count_gops(const GstIndexParser &parser, gint64 bytes) {
  if (parser.gop_info_size == 0) return 0;
  return static_cast<gint32>(std::min(bytes / parser.gop_info_size, kCacheRecords));
}

bool _begins_at_zero(const pvr_base_table_s &base) {
  return base.start_time_code == 0 && base.start_packet_count == 0;
}

void _make_relative(const pvr_base_table_s &base, pvr_gop_info_s *gop) {
  gop->time_code -= base.start_time_code;
  gop->last_frame_time -= base.start_time_code;
  gop->next_gop_first_time -= base.start_time_code;
  gop->packet_count -= base.start_packet_count;
  gop->last_frame_packet_count -= base.start_packet_count;
  gop->next_gop_first_packet_count -= base.start_packet_count;
}

void _take_window(GstIndexParser *parser, gint64 start, gint64 target, gint32 count) {
  parser->cached_start_index = 0;
  parser->cached_start_abs_index = static_cast<guint32>(start);
  parser->cached_end_abs_index = static_cast<guint32>(start + count - 1);
  parser->cached_current_index = static_cast<guint32>(target - start);
  parser->cached_end_index = static_cast<guint32>(count - 1);
  if (_begins_at_zero(parser->base_table)) return;  // as most recordings do
  for (gint32 i = 0; i < count; ++i) _make_relative(parser->base_table, &parser->gop_cache[i]);
}

// A new cache is empty; the indices must not speak of an old one.
void _forget_window(GstIndexParser *parser) {
  parser->cached_current_index = 0;
  parser->cached_start_index = 0;
  parser->cached_end_index = 0;
  parser->cached_start_abs_index = 0;
  parser->cached_end_abs_index = 0;
}

template <typename Position>
gint32 _test_window(Position target, Position first, Position last) {
  if (first > target) return GST_INDEX_TARGET_BEFORE;
  if (last < target) return GST_INDEX_TARGET_AFTER;
  return GST_INDEX_TARGET_CACHED;
}

}  // namespace

gint32 plexa::_read_gop(GstIndexParser *parser, gint32 target, IndexSize &file_size) {
  if (!has_cache(parser)) return kFailed;
  const gint64 start = std::max<gint64>(gint64{target} - kSlotsBeforeTarget, 0);
  const gint64 position = parser->gop_start_offset + start * parser->gop_info_size;
  PLX_INFO("IndexParser ReadGOP, startGOPIndex: %d", static_cast<gint32>(start));
  const gint64 size = file_size.get();
  PLX_INFO("IndexFile Size: %lld", static_cast<long long>(size));
  PLX_INFO("Seek to %d", static_cast<gint32>(position));
  const gint64 reached = gst_pvr_file_seek(parser->index_file, position, SEEK_SET);
  if (reached < 0) {
    PLX_ERROR("[PLG_ERR] m_IndexFile->seek Failed: %lld\n", static_cast<long long>(reached));
    return static_cast<gint32>(reached);
  }
  const gint64 bytes = _read_gops(parser);
  if (bytes < 0) return static_cast<gint32>(bytes);
  const gint32 count = _count_gops(*parser, bytes);
  if (count < 1) {
    PLX_ERROR("[PLG_ERR] loaded_num_gop: %d\n", count);
    return kFailed;
  }
  _take_window(parser, start, target, count);
  return count;
}

gint32 gst_index_parser_read_gop(GstIndexParser *parser, gint32 target) {
  plexa::IndexSize file_size(parser);
  return plexa::_read_gop(parser, target, file_size);
}

gint32 gst_index_parser_cache_initial_gop(GstIndexParser *parser, gint32 flag) {
  if (parser == nullptr) return kFailed;
  gst_index_parser_unload_gop_table(parser);  // left over by a start that failed
  parser->gop_cache =
      static_cast<pvr_gop_info_s *>(std::calloc(kCacheRecords, sizeof(pvr_gop_info_s)));
  if (parser->gop_cache == nullptr) {
    PLX_ERROR("[PLG_ERR] IndexParser GOP Table alloc Fail");
    return kFailed;
  }
  PLX_INFO("IndexParser GOP Table alloc success");
  _forget_window(parser);
  if (flag != 0) return 0;
  const gint32 loaded = gst_index_parser_read_gop(parser, 0);
  if (loaded < 0) PLX_ERROR("[PLG_ERR] ReadGOP Failed");
  return loaded;
}

gboolean gst_index_parser_check_gop_loaded(GstIndexParser *parser) {
  if (parser == nullptr) return FALSE;
  if (parser->is_started) return TRUE;
  PLX_INFO("GOPTable is not Initialzed. Try to load GOPs");
  if (gst_index_parser_read_gop(parser, 0) < 0) {
    PLX_ERROR("[PLG_ERR] ReadGOP Failed");
    return FALSE;
  }
  parser->is_started = TRUE;
  return TRUE;
}

gint32 plexa::_read_next_gop_table(GstIndexParser *parser, IndexSize &file_size) {
  const gint32 loaded =
      _read_gop(parser, static_cast<gint32>(parser->cached_end_abs_index), file_size);
  if (loaded < 0) PLX_ERROR("[PLG_ERR] ReadGOP Failed");
  return loaded;
}

gint32 gst_index_parser_read_next_gop_table(GstIndexParser *parser) {
  if (parser == nullptr) return kFailed;
  plexa::IndexSize file_size(parser);
  return plexa::_read_next_gop_table(parser, file_size);
}

gint32 plexa::_read_previous_gop_table(GstIndexParser *parser, IndexSize &file_size) {
  if (parser->cached_start_abs_index == 0) return 0;
  const gint32 loaded =
      _read_gop(parser, static_cast<gint32>(parser->cached_start_abs_index), file_size);
  if (loaded < 0) PLX_ERROR("[PLG_ERR] ReadGOP Failed");
  return loaded;
}

gint32 gst_index_parser_read_previous_gop_table(GstIndexParser *parser) {
  if (parser == nullptr) return kFailed;
  plexa::IndexSize file_size(parser);
  return plexa::_read_previous_gop_table(parser, file_size);
}

gint32 gst_index_parser_is_target_time_gop_cached(GstIndexParser *parser, gint32 time) {
  if (!has_cache(parser)) return kFailed;
  return _test_window(time, plexa::time_of(plexa::first_gop(*parser)),
                      plexa::time_of(plexa::last_gop(*parser)));
}

gint32 gst_index_parser_is_target_pts_gop_cached(GstIndexParser *parser, guint64 pts) {
  if (!has_cache(parser)) return kFailed;
  return _test_window(pts, plexa::first_gop(*parser).pts, plexa::last_gop(*parser).pts);
}

gint32 gst_index_parser_is_target_offset_gop_cached(GstIndexParser *parser, gint64 offset) {
  if (!has_cache(parser)) return kFailed;
  return _test_window(offset, plexa::offset_of(plexa::first_gop(*parser)),
                      plexa::offset_of(plexa::last_gop(*parser)));
}
