// gst_index_lookup.cpp - the questions asked of a recording's index: the I-frame at a time or an
// offset, the time of an offset, the bit rate around a time, the channel description in force.
//
// Answers are relative to the recording's start. A question that has no answer gives frame data
// that is not valid, -1 or false; nothing here allocates. One parser serves one caller at a time;
// no locks.
#include "gst_index_parser_internal.h"

#define PLEXA_LOG_AREA "EXT_PAR"
#include "plexa_log.h"

namespace {

constexpr gint32 kFailed = -1;

void _invalidate(frameData *frame) {
  frame->stream_offset = G_MAXUINT64;
  frame->mdb_offset = G_MAXUINT32;
  frame->length = G_MAXUINT32;
  frame->timecode = G_MAXUINT32;
  frame->channel_index = G_MAXUINT16;
  frame->has_seq_header = 0;
  frame->is_valid = 0;
}

frameData _invalid_frame() {
  frameData frame{};
  _invalidate(&frame);
  return frame;
}

// A GOP outside the window: false when the file does not hold it.
bool _load_gop(GstIndexParser *parser, gint64 gop) {
  if (gop < 0) return false;
  plexa::IndexSize file_size(parser);
  if (gop >= plexa::whole_gops(*parser, file_size.get())) return false;
  if (plexa::_read_gop(parser, static_cast<gint32>(gop), file_size) < 0) {
    PLX_ERROR("[PLG_ERR] ReadGOP Failed");
    return false;
  }
  return plexa::current_slot_is_valid(*parser);
}

// Moves the current slot by whole GOPs, in the window or by loading another one.
bool _step(GstIndexParser *parser, gint32 interval) {
  const gint64 slot = gint64{parser->cached_current_index} + interval;
  if (gint64{parser->cached_start_index} <= slot && slot <= gint64{parser->cached_end_index}) {
    parser->cached_current_index = static_cast<guint32>(slot);
    return true;
  }
  return _load_gop(parser, parser->cached_start_abs_index + slot);
}

guint32 _current_gop(const GstIndexParser &parser) {
  return parser.cached_start_abs_index + parser.cached_current_index;
}

frameData _current_frame(const GstIndexParser &parser) {
  const pvr_gop_info_s &gop = parser.gop_cache[parser.cached_current_index];
  frameData frame{};
  frame.stream_offset = gop.packet_count * plexa::kPacketBytes;
  frame.next_gop_frame_offset = gop.next_gop_first_packet_count * plexa::kPacketBytes;
  frame.pts = gop.pts;
  frame.next_gop_pts = gop.next_gop_pts;
  // The current layout's record size for either layout: callers have always been given this.
  frame.mdb_offset =
      parser.gop_start_offset + _current_gop(parser) * static_cast<guint32>(sizeof(pvr_gop_info_s));
  frame.length = gop.iframe_size * static_cast<guint32>(plexa::kPacketBytes);
  frame.timecode = gop.time_code;
  frame.next_gop_timecode = gop.next_gop_first_time;
  frame.last_frame_timecode = gop.last_frame_time;
  frame.channel_index = gop.index_of_channel;
  frame.video_pid = gop.video_pid;
  frame.video_format = gop.video_format;
  frame.has_seq_header = gop.exist_seq_header;
  frame.is_valid = 1;
  frame.cached_index = parser.cached_current_index;
  return frame;
}

void _log_current_frame(const GstIndexParser &parser, const frameData &frame) {
  const pvr_gop_info_s &gop = parser.gop_cache[parser.cached_current_index];
  PLX_INFO(
      "cached_current_index=%d, iframe_size=%d, packet_count=%lld, stream_offset=%lld, gop_idx=%d",
      static_cast<gint32>(parser.cached_current_index), static_cast<gint32>(gop.iframe_size),
      static_cast<long long>(gop.packet_count), static_cast<long long>(frame.stream_offset),
      static_cast<gint32>(_current_gop(parser)));
}

// Position inside the GOP in whole percent. The caller has seen start <= offset < end; a span that
// passes 2^63 all the same comes from a damaged record, and any answer will do.
gint64 _percent_of_gop(gint64 offset, gint64 start, gint64 end) {
  const gint64 span = plexa::wrapping_sub(end, start);
  if (span <= 0) return 0;
  return plexa::wrapping_mul(plexa::wrapping_sub(offset, start), 100) / span;
}

gint32 _time_at_percent(const frameData &frame, gint64 percent) {
  const guint32 scaled = (frame.next_gop_timecode - frame.timecode) * static_cast<guint32>(percent);
  return static_cast<gint32>(frame.timecode +
                             static_cast<guint32>(static_cast<gint32>(scaled) / 100));
}

// The whole channel record of the file's layout, made current.
bool _read_channel(GstIndexParser *parser, pvr_channel_info_s *out) {
  pvr_pelko_channel_info_s pelko{};
  void *const record = parser->is_pelko_mdb ? static_cast<void *>(&pelko) : out;
  const gint64 size = parser->is_pelko_mdb ? gint64{sizeof pelko} : gint64{sizeof *out};
  const gint64 result = gst_pvr_file_read(parser->index_file, record, size);
  if (result != size) {
    PLX_ERROR("[PLG_ERR] read mdb file failed, ret = [%lld]", static_cast<long long>(result));
    return false;
  }
  if (parser->is_pelko_mdb) gst_index_parser_convert_pelko_channel_info_to_nolva(&pelko, out);
  return true;
}

}  // namespace

frameData gst_index_parser_get_iframe_by_time(GstIndexParser *parser, gint32 time,
                                              gint32 interval) {
  if (parser == nullptr) return _invalid_frame();
  if (time < 0) {
    PLX_ERROR("[PLG_ERR] Input time is less then zero: %d\n", time);
    return _invalid_frame();
  }
  if (!gst_index_parser_check_gop_loaded(parser)) {
    PLX_ERROR("[PLG_ERR] GOP is not loaded");
    return _invalid_frame();
  }
  if (time == 0 && interval < 0) {
    PLX_ERROR("[PLG_ERR] Time is zero, interval is minus");
    return _invalid_frame();
  }
  if (gst_index_parser_locate_current_idx_to_time(parser, time) < 0) {
    PLX_ERROR("[PLG_ERR] locateCurrentInxToTime Failed");
    return _invalid_frame();
  }
  if (!_step(parser, interval)) return _invalid_frame();
  const frameData frame = _current_frame(*parser);
  _log_current_frame(*parser, frame);
  return frame;
}

frameData gst_index_parser_get_iframe_by_offset(GstIndexParser *parser, gint64 offset,
                                                gint32 interval) {
  if (parser == nullptr || !gst_index_parser_check_gop_loaded(parser)) return _invalid_frame();
  if (gst_index_parser_locate_current_idx_to_offset(parser, offset) < 0) {
    PLX_ERROR("[PLG_ERR] gst_index_parser_locate_current_idx_to_offset() Failed");
    return _invalid_frame();
  }
  return _step(parser, interval) ? _current_frame(*parser) : _invalid_frame();
}

gint32 gst_index_parser_get_time_by_offset(GstIndexParser *parser, gint64 offset) {
  if (parser == nullptr) return kFailed;
  const frameData frame = gst_index_parser_get_iframe_by_offset(parser, offset, 0);
  if (!frame.is_valid) {
    PLX_ERROR("[PLG_ERR] Fail to get GOP Info at fileoffset %lld\n",
              static_cast<long long>(offset));
    return kFailed;
  }
  const gint64 start = static_cast<gint64>(frame.stream_offset);
  const gint64 end = static_cast<gint64>(frame.next_gop_frame_offset);
  if (offset >= end) {
    PLX_INFO("Given Offset(%lld) is not in IndexFile.\n", static_cast<long long>(offset));
    return kFailed;
  }
  if (offset < start) return static_cast<gint32>(frame.timecode);
  return _time_at_percent(frame, _percent_of_gop(offset, start, end));
}

gint32 gst_index_parser_get_estimated_bitrate(GstIndexParser *parser, gint32 time) {
  if (parser == nullptr) return kFailed;
  const frameData frame = gst_index_parser_get_iframe_by_time(parser, time, 0);
  if (!frame.is_valid) {
    PLX_ERROR("[PLG_ERR] Can not Find GOP for %d", time);
    return kFailed;
  }
  const gint32 divide = static_cast<gint32>(frame.next_gop_timecode - frame.timecode);
  if (divide < 1) {
    PLX_ERROR("[PLG_ERR] divide[%d] = frameData.NextGOPTimecode[%d] - frameData.timecode[%d]",
              divide, static_cast<gint32>(frame.next_gop_timecode),
              static_cast<gint32>(frame.timecode));
    return kFailed;
  }
  const gint64 bytes = plexa::wrapping_sub(static_cast<gint64>(frame.next_gop_frame_offset),
                                           static_cast<gint64>(frame.stream_offset));
  const gint64 bitrate = plexa::wrapping_mul(bytes, 8000) / divide;
  PLX_INFO("Bitrate at %d is %lld bps\n", time, static_cast<long long>(bitrate));
  return static_cast<gint32>(bitrate);
}

gboolean gst_index_parser_get_channel_info_by_time(GstIndexParser *parser, gint32 time,
                                                   pvr_channel_info_s *out) {
  if (parser == nullptr) return FALSE;
  PLX_INFO("GetChannelInfoByTime: %d", time);
  const frameData frame = gst_index_parser_get_iframe_by_time(parser, time, 0);
  if (!frame.is_valid) {
    PLX_ERROR("[PLG_ERR] Can not Find GOP for %d", time);
    return FALSE;
  }
  return gst_index_parser_get_channel_info_by_index(parser,
                                                    static_cast<gint16>(frame.channel_index), out);
}

gboolean gst_index_parser_get_channel_info_by_index(GstIndexParser *parser, gint16 slot,
                                                    pvr_channel_info_s *out) {
  const guint16 number = static_cast<guint16>(slot);
  if (parser == nullptr || out == nullptr || number >= GST_INDEX_CHANNEL_SLOTS) return FALSE;
  PLX_INFO("Get_channel_info_by_index(index_parser,: at time %d ", number);
  // The current layout's record size for either layout, as recorders of both place the slots.
  const gint64 position =
      gint64{GST_INDEX_BASE_TABLE_SIZE} + number * gint64{sizeof(pvr_channel_info_s)};
  if (gst_pvr_file_seek(parser->index_file, position, SEEK_SET) < 0) {
    PLX_ERROR("[PLG_ERR] m_IndexFile->Seek Failed");
    return FALSE;
  }
  return _read_channel(parser, out);
}

void gst_index_parser_set_invalid_frame_data(GstIndexParser *parser, frameData *frame_data) {
  if (parser == nullptr || frame_data == nullptr) return;
  _invalidate(frame_data);
}
