// gst_index_parser_internal.h - what the source files of the index parser share, and what its unit
// tests reach.
//
//   gst_index_parser.cpp   lifecycle, base table, figures of the whole file
//   gst_index_cache.cpp    the window of GOP records: loading it, and where a target lies to it
//   gst_index_search.cpp   moving the window to a time, PTS or offset, and the current slot in it
//   gst_index_lookup.cpp   the questions that callers ask
//   gst_index_legacy.cpp   records of the legacy layout
//
// Everything that stands in the file is hostile: differences of its numbers wrap, no count or
// position from it is used before it is bounded, and a slot is only read inside the window.
// No locks; one parser serves one caller at a time.
#pragma once

#include <optional>

#include "gst-plexa/gst_index_parser.h"

namespace plexa {

inline constexpr gint64 kPacketBytes = 188;
inline constexpr gint64 kCacheRecords = GST_INDEX_CACHE_GOPS;
inline constexpr gint64 kCacheBytes = kCacheRecords * gint64{sizeof(pvr_gop_info_s)};
inline constexpr gint64 kPelkoReadBytes = kCacheRecords * gint64{sizeof(pvr_pelko_gop_info_s)};

// A load puts its target this many slots into the window, which leaves room to step back.
inline constexpr gint64 kSlotsBeforeTarget = 16;

// A search that has gone this deep goes no deeper. A range of 2^31 GOPs needs 27 levels.
inline constexpr gint32 kMaxSearchLevels = 63;

// Arithmetic on numbers from the file: wraps where the machine wraps, never undefined.
inline gint64 wrapping_sub(gint64 a, gint64 b) {
  return static_cast<gint64>(static_cast<guint64>(a) - static_cast<guint64>(b));
}
inline gint64 wrapping_mul(gint64 a, gint64 b) {
  return static_cast<gint64>(static_cast<guint64>(a) * static_cast<guint64>(b));
}

// Whole GOP records in an index of this size; 0 when it does not reach the first one or the parser
// does not know its layout yet.
inline gint32 whole_gops(const GstIndexParser &parser, gint64 file_size) {
  if (parser.gop_info_size == 0 || file_size < gint64{parser.gop_start_offset}) return 0;
  const gint64 count = (file_size - gint64{parser.gop_start_offset}) / parser.gop_info_size;
  return count > G_MAXINT32 ? G_MAXINT32 : static_cast<gint32>(count);
}

inline bool has_cache(const GstIndexParser *parser) {
  return parser != nullptr && parser->gop_cache != nullptr;
}
// A load near the end of a growing file can leave the current slot behind the last valid one.
inline bool current_slot_is_valid(const GstIndexParser &parser) {
  return parser.cached_start_index <= parser.cached_current_index &&
         parser.cached_current_index <= parser.cached_end_index;
}
inline const pvr_gop_info_s &first_gop(const GstIndexParser &parser) {
  return parser.gop_cache[parser.cached_start_index];
}
inline const pvr_gop_info_s &last_gop(const GstIndexParser &parser) {
  return parser.gop_cache[parser.cached_end_index];
}
inline gint32 time_of(const pvr_gop_info_s &gop) { return static_cast<gint32>(gop.time_code); }
inline gint64 offset_of(const pvr_gop_info_s &gop) {
  return wrapping_mul(static_cast<gint64>(gop.packet_count), kPacketBytes);
}

// The size of the index file for one call of a caller: asked when it is first wanted, and not at
// all by a call that neither loads nor searches.
class IndexSize {
 public:
  explicit IndexSize(const GstIndexParser *parser) : parser_(parser) {}
  gint64 get() { return size_ ? *size_ : size_.emplace(gst_pvr_file_size(parser_->index_file)); }

 private:
  const GstIndexParser *parser_;
  std::optional<gint64> size_;
};

// The loads for a caller that makes several. A lookup loads up to 18 windows and asks the size,
// which costs as much as a load, once.
gint32 _read_gop(GstIndexParser *parser, gint32 target, IndexSize &file_size);
gint32 _read_next_gop_table(GstIndexParser *parser, IndexSize &file_size);
gint32 _read_previous_gop_table(GstIndexParser *parser, IndexSize &file_size);

}  // namespace plexa
