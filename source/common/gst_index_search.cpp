// gst_index_search.cpp - moves a parser's window to a time, a PTS or an offset, and its current
// slot to the GOP there.
//
// The file may grow, shrink or be damaged while it is searched: a search goes on only while each
// load narrows the range, and never deeper than kMaxSearchLevels. One parser serves one caller at
// a time; no locks.
#include "gst_index_parser_internal.h"

#define PLEXA_LOG_AREA "EXT_PAR"
#include "plexa_log.h"

namespace {

using plexa::first_gop;
using plexa::has_cache;
using plexa::last_gop;
using plexa::offset_of;
using plexa::time_of;

constexpr gint32 kFailed = -1;

// GOP numbers, both ends inside. 64 bits, so that neither the middle nor a window's end overflows.
struct Range {
  gint64 start;
  gint64 end;
};

struct Search {
  explicit Search(GstIndexParser *searched) : parser(searched), file_size(searched) {}

  GstIndexParser *parser;
  plexa::IndexSize file_size;
};

gint32 _load_middle(Search &search, const Range &range) {
  const gint64 middle = (range.start + range.end) / 2;
  const gint32 loaded =
      plexa::_read_gop(search.parser, static_cast<gint32>(middle), search.file_size);
  if (loaded < 0) PLX_ERROR("[PLG_ERR] ReadGOP Failed");
  return loaded;
}

// In a sound file every step moves one end of the range inwards. Where none moves, the next step
// would be this one again.
bool _may_go_deeper(const Range &from, const Range &to, gint32 level) {
  return level < plexa::kMaxSearchLevels && (to.start > from.start || to.end < from.end);
}

void _log_target_time(gint32 target, const Range &range) {
  PLX_INFO("Target Time is %d, Input start Index: %d, Input end Index: %d", target,
           static_cast<gint32>(range.start), static_cast<gint32>(range.end));
}

// What the searches by time and by PTS do not share.
struct ByTime {
  using Target = gint32;
  static gint32 test_window(GstIndexParser *parser, Target time) {
    return gst_index_parser_is_target_time_gop_cached(parser, time);
  }
  static void log_target(Target time, const Range &range) { _log_target_time(time, range); }
  static void log_hit() { PLX_INFO("Target Time is cached!"); }
  static void log_grown() { PLX_INFO("Not Error. New GOP is written while Binary Searching"); }
};

struct ByPts {
  using Target = guint64;
  static gint32 test_window(GstIndexParser *parser, Target pts) {
    return gst_index_parser_is_target_pts_gop_cached(parser, pts);
  }
  static void log_target(Target pts, const Range &range) {
    PLX_INFO("Target pts is %lld, Input start Index: %d, Input end Index: %d",
             static_cast<long long>(pts), static_cast<gint32>(range.start),
             static_cast<gint32>(range.end));
  }
  static void log_hit() { PLX_INFO("Target Time is Cached!"); }
  static void log_grown() { PLX_INFO("Not Error. New GOP is written while Binary Searching ^_^"); }
};

template <class Key>
gint32 _search(Search &search, const Range &range, typename Key::Target target, gint32 level);

template <class Key>
gint32 _search_part(Search &search, const Range &from, const Range &part,
                    typename Key::Target target, gint32 level) {
  const gint32 result =
      _may_go_deeper(from, part, level) ? _search<Key>(search, part, target, level + 1) : kFailed;
  if (result < 0) PLX_ERROR("[PLG_ERR] BinarySearchByTime Failed");
  return result;
}

template <class Key>
gint32 _search_bigger_part(Search &search, const Range &range, typename Key::Target target,
                           gint32 level) {
  PLX_INFO("Target Time is NOT cached. Look bigger part!");
  const gint64 cached_end = search.parser->cached_end_abs_index;
  if (cached_end == range.end) {
    PLX_INFO("But, already GOP is cached to the end ");
    return 2;
  }
  if (cached_end > range.end) {
    Key::log_grown();
    return 2;
  }
  return _search_part<Key>(search, range, {cached_end, range.end}, target, level);
}

template <class Key>
gint32 _search_smaller_part(Search &search, const Range &range, typename Key::Target target,
                            gint32 level) {
  PLX_INFO("Target Time is NOT Cached. Look smaller part!");
  const gint64 cached_start = search.parser->cached_start_abs_index;
  return _search_part<Key>(search, range, {range.start, cached_start}, target, level);
}

template <class Key>
gint32 _search(Search &search, const Range &range, typename Key::Target target, gint32 level) {
  if (range.start == range.end) return 1;
  if (range.start > range.end) PLX_INFO("Start Index is Bigger than End Index");
  Key::log_target(target, range);
  const gint32 loaded = _load_middle(search, range);
  if (loaded < 0) return loaded;
  const gint32 place = Key::test_window(search.parser, target);
  if (place == GST_INDEX_TARGET_AFTER) {
    return _search_bigger_part<Key>(search, range, target, level);
  }
  if (place == GST_INDEX_TARGET_BEFORE) {
    return _search_smaller_part<Key>(search, range, target, level);
  }
  Key::log_hit();
  return 1;
}

gint32 _search_by_offset(Search &search, const Range &range, gint64 offset, gint32 level);

gint32 _search_bigger_offsets(Search &search, const Range &range, gint64 offset, gint32 level) {
  PLX_INFO("Target Offset is NOT Cached. Look bigger part!");
  const Range part{search.parser->cached_end_abs_index, range.end};
  if (part.start == part.end) {
    PLX_INFO("But, already GOP is cached to the end ");
    return static_cast<gint32>(range.end);
  }
  const gint32 result = _may_go_deeper(range, part, level)
                            ? _search_by_offset(search, part, offset, level + 1)
                            : kFailed;
  if (result >= 0) return 1;
  PLX_ERROR("[PLG_ERR] Binary_search_by_offset(index_parser, Failed");
  return result;
}

gint32 _search_smaller_offsets(Search &search, const Range &range, gint64 offset, gint32 level) {
  PLX_INFO("Target Offset is NOT Cached. Look smaller part!");
  const Range part{range.start, search.parser->cached_start_abs_index};
  const gint32 result = _may_go_deeper(range, part, level)
                            ? _search_by_offset(search, part, offset, level + 1)
                            : kFailed;
  if (result >= 0) return 1;
  PLX_ERROR("[PLG_ERR] Binary_search_by_offset(index_parser, Failed)");
  return result;
}

gint32 _search_by_offset(Search &search, const Range &range, gint64 offset, gint32 level) {
  if (range.start >= range.end) return 1;
  _log_target_time(static_cast<gint32>(offset), range);
  const gint32 loaded = _load_middle(search, range);
  if (loaded < 0) return loaded;
  const gint32 place = gst_index_parser_is_target_offset_gop_cached(search.parser, offset);
  if (place == GST_INDEX_TARGET_AFTER) return _search_bigger_offsets(search, range, offset, level);
  if (place == GST_INDEX_TARGET_BEFORE) {
    return _search_smaller_offsets(search, range, offset, level);
  }
  PLX_ERROR("[PLG_ERR] Target Offset is Cached!");
  return 1;
}

// Number of the last GOP that was whole when the size was asked; -1 when there is none.
gint32 _last_gop_number(Search &search) {
  return plexa::whole_gops(*search.parser, search.file_size.get()) - 1;
}

gint32 _search_file_by_time(Search &search, gint32 time) {
  const gint32 end = _last_gop_number(search);
  PLX_INFO("TIME=%d++++++", time);
  PLX_INFO("start_abs_index=%d++++++", 0);
  PLX_INFO("end_abs_index=%d++++++", end);
  if (end < 0) {
    PLX_ERROR("[PLG_ERR] end_abs_index=%d < 0", end);
    return kFailed;
  }
  const gint32 result = _search<ByTime>(search, {0, end}, time, 1);
  if (result < 0) PLX_ERROR("[PLG_ERR] BinarySearchByTime Failed");
  return result;
}

gint32 _search_file_by_offset(Search &search, gint64 offset) {
  const gint32 result = _search_by_offset(search, {0, _last_gop_number(search)}, offset, 1);
  if (result < 0) PLX_ERROR("[PLG_ERR] Binary_search_by_offset(index_parser, Failed");
  return result;
}

gint32 _read_next(Search &search) {
  const gint32 loaded = plexa::_read_next_gop_table(search.parser, search.file_size);
  if (loaded < 0) PLX_ERROR("[PLG_ERR] ReadNextGOPTable Failed");
  return loaded;
}

gint32 _read_previous(Search &search) {
  const gint32 loaded = plexa::_read_previous_gop_table(search.parser, search.file_size);
  if (loaded < 0) PLX_ERROR("[PLG_ERR] ReadPreviousGOPTable Failed");
  return loaded;
}

// One load to the neighbouring window: all it takes when a reader walks through the recording.
gint32 _move_towards_time(Search &search, gint32 time) {
  if (time_of(last_gop(*search.parser)) < time) {
    PLX_INFO("ReadNextGOPTable");
    return _read_next(search);
  }
  if (time_of(first_gop(*search.parser)) > time) {
    PLX_INFO("ReadPreviousGOPTable");
    return _read_previous(search);
  }
  return 0;
}

gint32 _move_towards_offset(Search &search, gint64 offset) {
  if (offset_of(last_gop(*search.parser)) < offset) return _read_next(search);
  if (offset_of(first_gop(*search.parser)) > offset) return _read_previous(search);
  return 0;
}

// The last GOP that starts at or before the time becomes the current one; time codes are compared
// unsigned here.
void _scan_for_time(GstIndexParser *parser, gint32 time) {
  const guint32 wanted = static_cast<guint32>(time);
  guint32 slot = 0;
  while (slot <= parser->cached_end_index && parser->gop_cache[slot].time_code < wanted) ++slot;
  if (slot > parser->cached_end_index) return;
  const guint32 time_code = parser->gop_cache[slot].time_code;
  if (time_code > wanted && slot > 0) {
    parser->cached_current_index = slot - 1;
    return;
  }
  parser->cached_current_index = slot;
  if (time_code == wanted) return;
  PLX_ERROR("[PLG_ERR] Target Time code(%d) is not in the index file. Most close time value is %d",
            time, static_cast<gint32>(time_code));
}

gint32 _answer_current_time(const GstIndexParser *parser) {
  const gint32 time = time_of(parser->gop_cache[parser->cached_current_index]);
  PLX_INFO("BinGo!Time: %d\n", time);
  return time;
}

gint32 _answer_current_slot(const GstIndexParser *parser) {
  PLX_INFO("locateCurrentInxToOffset: index_parser->cached_current_index : %d\n",
           static_cast<gint32>(parser->cached_current_index));
  return 1;
}

gint32 _walk_back_to_offset(GstIndexParser *parser, gint64 offset) {
  while (parser->cached_current_index > parser->cached_start_index) {
    --parser->cached_current_index;
    if (offset_of(parser->gop_cache[parser->cached_current_index]) <= offset) {
      return _answer_current_time(parser);
    }
  }
  return _answer_current_slot(parser);  // the target lies before the first GOP
}

gint32 _walk_on_to_offset(GstIndexParser *parser, gint64 offset) {
  PLX_INFO("Offset is bigger than current mdb index's offset");
  PLX_INFO("End index: %d\n", static_cast<gint32>(parser->cached_end_index));
  while (parser->cached_current_index < parser->cached_end_index) {
    const gint64 next = offset_of(parser->gop_cache[parser->cached_current_index + 1]);
    if (next > offset) return _answer_current_time(parser);
    ++parser->cached_current_index;
    if (next == offset) return _answer_current_time(parser);
  }
  return _answer_current_slot(parser);
}

}  // namespace

gint32 gst_index_parser_binary_search_by_time(GstIndexParser *parser, gint32 start, gint32 end,
                                              gint32 time) {
  if (parser == nullptr) return kFailed;
  Search search(parser);
  return _search<ByTime>(search, {start, end}, time, 1);
}

gint32 gst_index_parser_binary_search_by_pts(GstIndexParser *parser, gint32 start, gint32 end,
                                             guint64 pts) {
  if (parser == nullptr) return kFailed;
  Search search(parser);
  return _search<ByPts>(search, {start, end}, pts, 1);
}

gint32 gst_index_parser_binary_search_by_offset(GstIndexParser *parser, gint32 start, gint32 end,
                                                gint64 offset) {
  if (parser == nullptr) return kFailed;
  Search search(parser);
  return _search_by_offset(search, {start, end}, offset, 1);
}

gint32 gst_index_parser_search_n_load_gop_table_by_time(GstIndexParser *parser, gint32 time) {
  if (parser == nullptr) return kFailed;
  Search search(parser);
  return _search_file_by_time(search, time);
}

gint32 gst_index_parser_search_n_load_gop_table_by_offset(GstIndexParser *parser, gint64 offset) {
  if (parser == nullptr) return kFailed;
  Search search(parser);
  return _search_file_by_offset(search, offset);
}

gint32 gst_index_parser_refresh_cached_gop_by_time(GstIndexParser *parser, gint32 time) {
  if (!has_cache(parser)) return kFailed;
  Search search(parser);
  const gint32 moved = _move_towards_time(search, time);
  if (moved < 0) return moved;
  if (gst_index_parser_is_target_time_gop_cached(parser, time) == GST_INDEX_TARGET_CACHED) {
    return 1;
  }
  PLX_INFO("SearchNLoadGOPTableByTime");
  const gint32 result = _search_file_by_time(search, time);
  if (result < 0) PLX_ERROR("[PLG_ERR] SearchNLoadGOPTableByTime Failed");
  return result;
}

gint32 gst_index_parser_refresh_cached_gop_by_offset(GstIndexParser *parser, gint64 offset) {
  if (!has_cache(parser)) return kFailed;
  if (!gst_index_parser_check_gop_loaded(parser)) return kFailed;
  Search search(parser);
  const gint32 moved = _move_towards_offset(search, offset);
  if (moved < 0) return moved;
  if (gst_index_parser_is_target_offset_gop_cached(parser, offset) == GST_INDEX_TARGET_CACHED) {
    return 1;
  }
  const gint32 result = _search_file_by_offset(search, offset);
  if (result < 0) PLX_ERROR("[PLG_ERR] SearchNLoadGOPTableByOffset Failed");
  return result;
}

gint32 gst_index_parser_locate_current_idx_to_time(GstIndexParser *parser, gint32 time) {
  if (!has_cache(parser)) return kFailed;
  if (gst_index_parser_is_target_time_gop_cached(parser, time) != GST_INDEX_TARGET_CACHED) {
    PLX_INFO("gst_index_parser_is_target_time_gop_cached != CACHED");
    const gint32 result = gst_index_parser_refresh_cached_gop_by_time(parser, time);
    if (result < 0) {
      PLX_ERROR("[PLG_ERR] RefreshCachedGOPByTime Failed");
      return result;
    }
  }
  if (time_of(last_gop(*parser)) < time) {  // behind what is written so far
    parser->cached_current_index = parser->cached_end_index;
    return 1;
  }
  if (plexa::current_slot_is_valid(*parser) &&
      time_of(parser->gop_cache[parser->cached_current_index]) == time) {
    return 1;
  }
  _scan_for_time(parser, time);
  return 1;
}

gint32 gst_index_parser_locate_current_idx_to_offset(GstIndexParser *parser, gint64 offset) {
  if (!has_cache(parser)) return kFailed;
  if (gst_index_parser_is_target_offset_gop_cached(parser, offset) != GST_INDEX_TARGET_CACHED) {
    PLX_INFO("Refresh GOP Tables in cache");
    const gint32 result = gst_index_parser_refresh_cached_gop_by_offset(parser, offset);
    if (result < 0) {
      PLX_ERROR("[PLG_ERR] RefreshCachedGOPByOffset Failed");
      return result;
    }
  }
  if (!plexa::current_slot_is_valid(*parser)) {
    parser->cached_current_index = parser->cached_end_index;
  }
  const pvr_gop_info_s &current = parser->gop_cache[parser->cached_current_index];
  const gint64 current_offset = offset_of(current);
  if (offset == current_offset) return time_of(current);
  return offset < current_offset ? _walk_back_to_offset(parser, offset)
                                 : _walk_on_to_offset(parser, offset);
}
