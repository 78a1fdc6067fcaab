// channel_text.cpp - see channel_text.h.
#include "channel_text.h"

#include "text.h"

namespace plexa::pvr {

void add_channel(Json &json, guint16 slot, const pvr_channel_info_s &channel) {
  json.add("slot", int{slot})
      .add("codec", codec_name(channel.video_encode_type))
      .add("code_id", int{channel.video_encode_type})
      .add("video_pid", int{channel.video_pid})
      .add("audio_pid", channel.audio_pid)
      .add("pcr_pid", int{channel.pcr_pid});
}

void add_gop(Json &json, gint64 number, const pvr_gop_info_s &gop) {
  json.add("number", number)
      .add("time_ms", gop.time_code)
      .add("pts", gop.pts)
      .add("offset", gop.packet_count * guint64{kPacketSize})
      .add("length", guint64{gop.iframe_size} * guint64{kPacketSize})
      .add("channel", int{gop.index_of_channel})
      .add("video_pid", int{gop.video_pid})
      .add("video_format", int{gop.video_format})
      .add("has_sequence_header", gop.exist_seq_header != 0);
}

std::string channel_text(const pvr_channel_info_s &channel) {
  return format("%s, video PID %d, audio PID %u, PCR PID %d", codec_name(channel.video_encode_type),
                int{channel.video_pid}, channel.audio_pid, int{channel.pcr_pid});
}

}  // namespace plexa::pvr
