// gst_thumbnail_frame.cpp - one coded picture (an I-frame) of a recording, by time.
//
// Finds the GOP through the index, reads the I-frame's stretch of the stream file and takes the
// picture out of its video packets. What the index says about lengths and places is checked against
// the stream file before memory is taken for it; a stretch that the file does not hold whole gives
// what is there. Every call opens files of its own, so any thread may call; the files are closed
// before the picture is put together.
#include <algorithm>
#include <cstdlib>

#include "gst-plexa/gst_pvr_tools.h"
#include "gst-plexa/gst_thumbnail_common.h"
#include "gst_thumbnail_files.h"
#include "gst_thumbnail_internal.h"

#define PLEXA_LOG_AREA "EXT_THM"
#include "plexa_log.h"

namespace plexa {
namespace {

constexpr gint32 kMaxMoves = 3;

// The I-frame's stretch of the transport stream as read, and what it takes to make a picture of it.
struct FrameTs {
  HeapPtr<guint8> bytes;
  gint32 length = 0;
  guint16 video_pid = 0;
  gint32 codec = -1;
};

bool _open(ScopedPvrFile &stream, const gchar *stream_path, ScopedPvrFile &index,
           const gchar *index_path) {
  if (stream.init() != 0) return false;
  const gint64 stream_ret = stream.open_stream(stream_path);
  if (stream_ret < 0) {
    PLX_ERROR("[PLG_ERR] kvf file open failed, fd = [%lld]", static_cast<long long>(stream_ret));
    return false;
  }
  if (index.init() != 0) return false;
  const gint64 index_ret = index.open_index(index_path);
  if (index_ret < 0) {
    PLX_ERROR("[PLG_ERR] mdb file open failed, fd = [%lld]", static_cast<long long>(index_ret));
    return false;
  }
  return true;
}

bool _is_valid(const frameData &frame) {
  if (frame.is_valid == 0) PLX_ERROR("[PLG_ERR] frameData.isValid == FALSE");
  return frame.is_valid != 0;
}

void _log_frame(const frameData &frame) {
  PLX_INFO(
      "stream_offset = [%lld], next_gop_frame_offset = [%lld], pts = [%lld], mdb_offset = [%d]\n"
      "length = [%d], timecode = [%d], next_gop_timecode = [%d], last_frame_timecode = [%d]\n"
      "channel_index = [%d], video_pid = [%d], video_format = [%d], has_seq_header = [%d]",
      static_cast<long long>(frame.stream_offset),
      static_cast<long long>(frame.next_gop_frame_offset), static_cast<long long>(frame.pts),
      frame.mdb_offset, frame.length, frame.timecode, frame.next_gop_timecode,
      frame.last_frame_timecode, frame.channel_index, frame.video_pid, frame.video_format,
      frame.has_seq_header);
}

// An empty I-frame, or one of at least twice the average, is not worth showing. With no average
// known (below 1) only the empty ones are left out.
bool _gives_way(const frameData &frame, gint32 average) {
  const gint32 length = static_cast<gint32>(frame.length);
  if (length == 0) return true;
  return average >= 1 && length / average >= 2;
}

frameData _find_frame(GstIndexParser *parser, gint32 time, gint32 average) {
  frameData frame = gst_index_parser_get_iframe_by_time(parser, time, 0);
  if (!_is_valid(frame)) return frame;
  _log_frame(frame);
  for (gint32 moves = 0; moves < kMaxMoves && _gives_way(frame, average); ++moves) {
    PLX_INFO("get next gop iframe[timecode:%d nexttimecode:%d]", frame.timecode,
             frame.next_gop_timecode);
    const gint32 next = static_cast<gint32>(frame.next_gop_timecode);
    frame = gst_index_parser_get_iframe_by_time(parser, next, 0);
    if (!_is_valid(frame)) break;
  }
  return frame;
}

bool _get_channel(GstIndexParser *parser, const frameData &frame, pvr_channel_info_s *channel) {
  const gint16 slot = static_cast<gint16>(frame.channel_index);
  if (!gst_index_parser_get_channel_info_by_index(parser, slot, channel)) {
    PLX_ERROR("[PLG_ERR] get channelinfo failed");
    return false;
  }
  PLX_INFO(
      "channel info: video_pid = [%d], audio_pid = [%d], pcr_pid = [%d], video_encode_type = [%d]",
      channel->video_pid, channel->audio_pid, channel->pcr_pid, channel->video_encode_type);
  return true;
}

bool _read_failed() {
  PLX_ERROR("[PLG_ERR] _gst_thumbnail_read_frame_ts:Read Frame TS error");
  return false;
}

// The part of the I-frame's length that the stream file holds. A length that is no length (below
// 0) stays what it is.
bool _held_length(GstPvrFile *stream, const frameData &frame, gint32 *held) {
  const gint64 offset = static_cast<gint64>(frame.stream_offset);
  const gint64 size = gst_pvr_file_size(stream);
  if (size < 0 || offset < 0) return _read_failed();
  const gint64 length = static_cast<gint32>(frame.length);
  *held = static_cast<gint32>(std::min(length, std::max<gint64>(size - offset, 0)));
  return true;
}

// Only what arrives counts: a file that shrank meanwhile gives fewer packets, not zeros.
bool _gst_thumbnail_read_frame_ts(GstPvrFile *stream, const frameData &frame, FrameTs &ts) {
  if (ts.length >= 0) {
    ts.bytes.reset(static_cast<guint8 *>(std::malloc(static_cast<size_t>(std::max(ts.length, 1)))));
  }
  if (!ts.bytes) {
    PLX_ERROR("[PLG_ERR] temp_buf is NULL");
    return false;
  }
  if (ts.length < 1) return true;
  const gint64 offset = static_cast<gint64>(frame.stream_offset);
  if (gst_pvr_file_seek(stream, offset, 0) < 0) return _read_failed();
  const gint64 got = gst_pvr_file_read(stream, ts.bytes.get(), ts.length);
  if (got < 0) return _read_failed();
  ts.length = static_cast<gint32>(std::min<gint64>(got, ts.length));
  return true;
}

bool _read_frame(const gchar *stream_path, const gchar *index_path, gint32 time, gint32 average,
                 FrameTs &ts) {
  ScopedPvrFile stream;
  ScopedPvrFile index;
  if (!_open(stream, stream_path, index, index_path)) return false;
  ScopedIndexParser parser(index.get(), index_path);
  parser.start();  // when it fails, the lookup finds nothing
  const frameData frame = _find_frame(parser.get(), time, average);
  if (frame.is_valid == 0) return false;
  pvr_channel_info_s channel{};
  if (!_get_channel(parser.get(), frame, &channel)) return false;
  if (!_held_length(stream.get(), frame, &ts.length)) return false;
  ts.video_pid = channel.video_pid;
  ts.codec = channel.video_encode_type;
  PLX_INFO("ts_size = [%d], frame_data.length = [%d], video_pid = [%d], video_encode_type=[%d]",
           ts.length, frame.length, ts.video_pid, ts.codec);
  return _gst_thumbnail_read_frame_ts(stream.get(), frame, ts);
}

bool _extract(const FrameTs &ts, guint8 **picture, guint32 *size) {
  VideoPackets video;
  if (!_gst_thumbnail_filter_video_packets(ts.bytes.get(), ts.length, ts.video_pid, video)) {
    return false;
  }
  if (_gst_thumbnail_get_iframe_es(video, ts.codec, picture, size) == 1) return true;
  PLX_ERROR("[PLG_ERR] _gst_thumbnail_get_iframe_es failed");
  return false;
}

}  // namespace
}  // namespace plexa

gint32 gst_thumbnail_get_recorded_frame(const gchar *path, gint32 time, guint8 **buffer,
                                        guint32 *size, gint32 *code, gint32 average) {
  if (path == nullptr || buffer == nullptr || size == nullptr || code == nullptr) return 0;
  PLX_INFO("[THM_IN]filepath = [%s], time = [%d]", path, time);
  const plexa::HeapPtr<gchar> index_path(gst_pvr_tool_change_extension(path, ".mdb"));
  if (!index_path) return 0;
  PLX_INFO("indexpath = [%s]", index_path.get());
  plexa::FrameTs ts;
  if (!plexa::_read_frame(path, index_path.get(), time, average, ts)) return 0;
  if (!plexa::_extract(ts, buffer, size)) return 0;
  *code = ts.codec;
  PLX_INFO(
      "[THM_OUT]gst_thumbnail_get_recorded_frame succeeded, thumbnail buffer = [%p], size = [%d], "
      "code_id = [%d]",
      static_cast<void *>(*buffer), *size, *code);
  return 1;
}
