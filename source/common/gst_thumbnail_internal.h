// gst_thumbnail_internal.h - the inner steps of the thumbnail modules, for each other and for the
// unit tests, fuzz targets and benchmarks. Nothing here is exported.
//
// All functions work on what they are given and keep no state; any thread may call them.
#pragma once

#include <cstdlib>
#include <memory>
#include <span>

#include "gst-plexa/gst_plexa_defs.h"

namespace plexa {

struct FreeDeleter {
  void operator()(void *memory) const noexcept { std::free(memory); }
};
template <class T>
using HeapPtr = std::unique_ptr<T, FreeDeleter>;

// ---------------------------------------------------------------- transport packets to picture

inline constexpr guint32 kTsPacketSize = 188;
inline constexpr gint32 kCodeH264 = 1;

// The packets of one PID inside a stretch of transport stream, in stream order. They stay where
// they are: the list points into the stretch, which must outlive it.
struct VideoPackets {
  HeapPtr<const guint8 *[]> packets;
  gint32 count = 0;

  gint32 ts_size() const { return count * static_cast<gint32>(kTsPacketSize); }
};

// Lists the whole packets of video_pid among the first length bytes of ts; a tail of under 188
// bytes is dropped. False, with its line in the log, when there is no memory for the list.
bool _gst_thumbnail_filter_video_packets(const guint8 *ts, gint32 length, guint16 video_pid,
                                         VideoPackets &out);

// Takes the coded picture out of the packets: 1, with a heap block of exactly *es_size bytes that
// the caller frees; 0, with both outputs untouched. An H.264 frame ends with its PES packet; an
// H.264 field, and every other codec, takes a second one along.
gint32 _gst_thumbnail_get_iframe_es(const VideoPackets &video, gint32 codec, guint8 **es_buf,
                                    guint32 *es_size);

// ---------------------------------------------------------------- H.264 headers (ITU-T H.264)

// Headers are parsed in a buffer of this size, filled with zeros behind what was copied into it.
inline constexpr guint32 kParseBufferSize = 2048;

// Removes the emulation prevention bytes (clause 7.4.1) in place and lowers *length by their
// number.
void de_emulation_prevention(guint8 *buffer, guint32 *length);

// Bit readers. A position counts bits from the first byte's most significant bit. Bits behind the
// end of the buffer are zeros; no reader ever leaves it.
//
// u(n): n bits (clause 7.2). More than 32 bits give the last 32.
guint32 u(guint32 n, std::span<const guint8> buffer, guint32 &position);
// ue(v) and se(v) (clauses 9.1 and 9.1.1). Leading zeros are counted in the first length bytes
// only; a position behind them gives 0 and moves on by one bit.
guint32 Ue(std::span<const guint8> buffer, guint32 length, guint32 &position);
gint32 Se(std::span<const guint8> buffer, guint32 length, guint32 &position);

// Looks for the first slice of the picture and the last SPS before it: 1 a field, 0 a frame (also
// when there is no slice, or no SPS before it), -1 when there was no memory to find out.
gint32 h264_parser_field_encoding(const guint8 *es, guint32 size);

}  // namespace plexa
