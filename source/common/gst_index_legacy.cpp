// gst_index_legacy.cpp - turns records of the older recorder platform ("Pelko") into current ones
// ("Nolva"), so that everything above reads one layout only.
//
// A pure rearrangement: no value is refused, and fields of the current record that have no source
// are left as they are. Safe from any thread.
#include <cstddef>
#include <cstring>

#include "gst-plexa/gst_index_parser.h"

#define PLEXA_LOG_AREA "EXT_PAR"
#include "plexa_log.h"

static_assert(sizeof(pvr_gop_info_s) == 104 && sizeof(pvr_pelko_gop_info_s) == 100);
static_assert(alignof(pvr_pelko_gop_info_s) == 1, "records of 100 bytes follow each other");

// Up to byte 95 the two GOP records are laid out alike.
#define SAME_GOP_OFFSET(field, offset)                       \
  static_assert(offsetof(pvr_gop_info_s, field) == offset && \
                offsetof(pvr_pelko_gop_info_s, field) == offset)
SAME_GOP_OFFSET(pts, 0);
SAME_GOP_OFFSET(reserved_8, 8);
SAME_GOP_OFFSET(time_code, 12);
SAME_GOP_OFFSET(packet_count, 16);
SAME_GOP_OFFSET(iframe_size, 24);
SAME_GOP_OFFSET(video_pid, 28);
SAME_GOP_OFFSET(video_format, 49);
SAME_GOP_OFFSET(last_frame_time, 60);
SAME_GOP_OFFSET(last_frame_packet_count, 64);
SAME_GOP_OFFSET(index_of_channel, 72);
SAME_GOP_OFFSET(exist_seq_header, 74);
SAME_GOP_OFFSET(next_gop_first_time, 76);
SAME_GOP_OFFSET(next_gop_first_packet_count, 80);
SAME_GOP_OFFSET(next_gop_pts, 88);
#undef SAME_GOP_OFFSET

static_assert(sizeof(pvr_channel_info_s) == 232 && sizeof(pvr_pelko_channel_info_s) == 256);
#define CHANNEL_OFFSETS(field, nolva_offset, pelko_offset)             \
  static_assert(offsetof(pvr_channel_info_s, field) == nolva_offset && \
                offsetof(pvr_pelko_channel_info_s, field) == pelko_offset)
CHANNEL_OFFSETS(carried_0, 0, 0);
CHANNEL_OFFSETS(carried_4, 4, 4);
CHANNEL_OFFSETS(carried_16, 16, 16);
CHANNEL_OFFSETS(audio_pid, 144, 144);
CHANNEL_OFFSETS(carried_148, 148, 148);
CHANNEL_OFFSETS(video_pid, 172, 172);
CHANNEL_OFFSETS(carried_174, 174, 174);
CHANNEL_OFFSETS(video_encode_type, 176, 176);
CHANNEL_OFFSETS(carried_177, 177, 177);
CHANNEL_OFFSETS(pcr_pid, 178, 180);
#undef CHANNEL_OFFSETS
static_assert(offsetof(pvr_channel_info_s, carried_180) == 180);
static_assert(offsetof(pvr_channel_info_s, carried_184) == 184);
static_assert(offsetof(pvr_pelko_channel_info_s, carried_182) == 182);
static_assert(offsetof(pvr_pelko_channel_info_s, carried_210) == 210);

namespace {

constexpr size_t kVideoBlockOffset = offsetof(pvr_gop_info_s, video_pid);
constexpr size_t kVideoBlockSize = offsetof(pvr_gop_info_s, last_frame_time) - kVideoBlockOffset;
static_assert(kVideoBlockSize == 32);

// From the PID to the format code, with the reserved bytes around them.
void _copy_video_block(const pvr_pelko_gop_info_s *pelko, pvr_gop_info_s *nolva) {
  std::memcpy(reinterpret_cast<guint8 *>(nolva) + kVideoBlockOffset,
              reinterpret_cast<const guint8 *>(pelko) + kVideoBlockOffset, kVideoBlockSize);
}

void _log_gop(const pvr_gop_info_s &gop) {
  PLX_INFO(
      "pts = [%lld], time_code = [%d], packet_count = [%lld], iframe_size = [%d], "
      "last_frame_time = [%d]\nlast_frame_packet_count = [%lld], index_of_channel = [%d], "
      "exist_seq_header = [%d], next_gop_first_time = [%d], next_gop_first_packet_count = [%lld], "
      "next_gop_pts = [%lld]",
      static_cast<long long>(gop.pts), static_cast<gint32>(gop.time_code),
      static_cast<long long>(gop.packet_count), static_cast<gint32>(gop.iframe_size),
      static_cast<gint32>(gop.last_frame_time), static_cast<long long>(gop.last_frame_packet_count),
      gop.index_of_channel, gop.exist_seq_header, static_cast<gint32>(gop.next_gop_first_time),
      static_cast<long long>(gop.next_gop_first_packet_count),
      static_cast<long long>(gop.next_gop_pts));
}

// The older platform kept these in another order.
void _copy_halfwords(const pvr_pelko_channel_info_s *pelko, pvr_channel_info_s *nolva) {
  nolva->carried_4[0] = pelko->carried_4[0];
  nolva->carried_4[1] = pelko->carried_4[1];
  nolva->carried_4[3] = pelko->carried_4[2];
  nolva->carried_4[2] = pelko->carried_4[3];
  nolva->carried_4[4] = pelko->carried_4[4];
  nolva->carried_4[5] = pelko->carried_4[5];
}

void _copy_words(const pvr_pelko_channel_info_s *pelko, pvr_channel_info_s *nolva) {
  nolva->carried_148[2] = pelko->carried_148[0];
  nolva->carried_148[3] = pelko->carried_148[1];
  nolva->carried_148[0] = pelko->carried_148[2];
  nolva->carried_148[4] = pelko->carried_148[3];
  nolva->carried_148[1] = pelko->carried_148[4];
  nolva->carried_148[5] = pelko->carried_148[5];
}

}  // namespace

void gst_index_parser_convert_pelko_gop_info_to_nolva(const pvr_pelko_gop_info_s *pelko,
                                                      pvr_gop_info_s *nolva) {
  if (pelko == nullptr || nolva == nullptr) return;
  nolva->pts = pelko->pts;
  nolva->reserved_8 = pelko->reserved_8;
  nolva->time_code = pelko->time_code;
  nolva->packet_count = pelko->packet_count;
  nolva->iframe_size = pelko->iframe_size;
  _copy_video_block(pelko, nolva);
  nolva->last_frame_time = pelko->last_frame_time;
  nolva->last_frame_packet_count = pelko->last_frame_packet_count;
  nolva->index_of_channel = pelko->index_of_channel;
  nolva->exist_seq_header = pelko->exist_seq_header != 0;
  nolva->next_gop_first_time = pelko->next_gop_first_time;
  nolva->next_gop_first_packet_count = pelko->next_gop_first_packet_count;
  nolva->next_gop_pts = pelko->next_gop_pts;
  _log_gop(*nolva);
}

void gst_index_parser_convert_pelko_channel_info_to_nolva(const pvr_pelko_channel_info_s *pelko,
                                                          pvr_channel_info_s *nolva) {
  if (pelko == nullptr || nolva == nullptr) return;
  nolva->carried_0 = pelko->carried_0;
  _copy_halfwords(pelko, nolva);
  std::memcpy(nolva->carried_16, pelko->carried_16, sizeof nolva->carried_16);
  nolva->audio_pid = pelko->audio_pid;
  _copy_words(pelko, nolva);
  nolva->video_pid = pelko->video_pid;
  nolva->carried_174 = pelko->carried_174;
  nolva->video_encode_type = pelko->video_encode_type;
  nolva->carried_177 = pelko->carried_177;
  nolva->pcr_pid = pelko->pcr_pid;
  nolva->carried_180 = pelko->carried_182;
  nolva->carried_184 = pelko->carried_210;
  PLX_INFO(
      "channel info: video_pid = [%d], audio_pid = [%d], pcr_pid = [%d], "
      "video_encode_type = [%d]",
      nolva->video_pid, static_cast<gint32>(nolva->audio_pid), nolva->pcr_pid,
      nolva->video_encode_type);
}
