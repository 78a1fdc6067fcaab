// check.cpp - see check.h.
#include "check.h"

#include <algorithm>
#include <map>
#include <vector>

#include "entry_picture.h"
#include "pes.h"
#include "text.h"
#include "ts_packet.h"

namespace plexa::pvr {
namespace {

constexpr gint64 kBlockPackets = 8192;
// A picture that is not told after this many packets is looked at whole, up to the second figure.
constexpr gint64 kFirstLook = 64;
constexpr gint64 kWholeLook = 65536;
// This many sync bytes in a row, and the packets are in step again.
constexpr gint64 kInStep = 5;
constexpr guint32 kEndSlack = 1000;  // ms that a recorder may count on behind the last picture
constexpr guint16 kLastPid = 0x1ffe;
constexpr int kCodecs = 5;

using Gop = pvr_gop_info_s;

unsigned long long number(guint64 value) { return value; }

class IndexCheck {
 public:
  IndexCheck(Recording &recording, const FaultSink &sink) : recording_(recording), sink_(sink) {}

  void run(const CheckProgress &progress) {
    check_base_table();
    std::optional<Gop> previous;
    recording_.for_each_gop(0, [&](gint64 at, const Gop &gop) {
      at_ = at;
      check_order(gop, previous);
      if (check_place(gop)) check_iframe(gop);
      previous = gop;
      progress(static_cast<double>(at) / static_cast<double>(recording_.gops()) / 2);
      return true;
    });
    check_end(*previous);
  }

 private:
  guint64 packets() const { return static_cast<guint64>(recording_.stream_packets()); }

  void fault(const char *kind, const std::string &text, const Gop &gop) {
    Fault out{kind, text, at_, recording_.record_offset(at_), {}};
    if (gop.packet_count < packets()) {
      out.stream_at = static_cast<gint64>(gop.packet_count) * kPacketSize;
    }
    sink_(out);
  }

  void index_fault(const char *kind, gint64 at, const std::string &text) {
    sink_({kind, text, {}, at, {}});
  }

  void check_base_table();
  void check_order(const Gop &gop, const std::optional<Gop> &previous);
  void check_follower(const Gop &gop, const Gop &previous);
  bool check_place(const Gop &gop);
  int check_channel(const Gop &gop);
  void check_iframe(const Gop &gop);
  bool check_packet(const Gop &gop, const TsPacket &packet);
  void read_packets(const Gop &gop, gint64 count);
  std::vector<uint8_t> read_pes(const Gop &gop, gint64 packets);
  Entry look_at(const Gop &gop, int code, const std::vector<uint8_t> &beginning);
  void check_picture(const Gop &gop, int code, const std::vector<uint8_t> &beginning);
  void check_end_time(const Gop &last);
  void check_end(const Gop &last);

  Recording &recording_;
  const FaultSink &sink_;
  gint64 at_ = 0;  // GOP number
  EntryInspector inspector_;
  std::map<guint16, std::optional<pvr_channel_info_s>> channels_;
  std::vector<uint8_t> buffer_;
};

void IndexCheck::check_base_table() {
  const pvr_base_table_s &table = recording_.parser()->base_table;
  const guint32 channel_end =
      GST_INDEX_BASE_TABLE_SIZE + GST_INDEX_CHANNEL_SLOTS * table.channel_info_size;
  if (table.gop_start_offset != 0 && table.gop_start_offset < channel_end) {
    index_fault("base-table", 48,
                format("GOP records begin at %u, inside the channel records, which end at %u",
                       table.gop_start_offset, channel_end));
  }
  if (recording_.complete() && table.end_time_code < table.start_time_code) {
    index_fault("base-table", 16,
                format("the end time %u lies before the start time %u", table.end_time_code,
                       table.start_time_code));
  }
  if (recording_.complete() && table.total_size != static_cast<guint64>(recording_.stream_size())) {
    index_fault("base-table", 28,
                format("the stored size is %llu bytes, the stream file has %lld",
                       number(table.total_size), static_cast<long long>(recording_.stream_size())));
  }
  const gint64 tail = (recording_.index_size() - recording_.record_offset(0)) %
                      gint64{recording_.parser()->gop_info_size};
  if (tail != 0 && !recording_.running()) {
    index_fault(
        "partial-record", recording_.record_offset(recording_.gops()),
        format("%lld bytes of an unfinished GOP record at the end", static_cast<long long>(tail)));
  }
}

void IndexCheck::check_order(const Gop &gop, const std::optional<Gop> &previous) {
  if (gop.time_code > G_MAXINT32) {
    fault("time", format("time %u ms lies before the start time", gop.time_code), gop);
  }
  if (gop.last_frame_time < gop.time_code || gop.last_frame_time > gop.next_gop_first_time) {
    fault("time",
          format("the last frame's time, %u ms, is not between %u and %u ms", gop.last_frame_time,
                 gop.time_code, gop.next_gop_first_time),
          gop);
  }
  if (gop.next_gop_first_time <= gop.time_code) {
    fault("time",
          format("the next GOP's time, %u ms, is not behind this one's, %u ms",
                 gop.next_gop_first_time, gop.time_code),
          gop);
  }
  if (gop.next_gop_first_packet_count <= gop.packet_count) {
    fault("packet",
          format("the next GOP's packet, %llu, is not behind this one's, %llu",
                 number(gop.next_gop_first_packet_count), number(gop.packet_count)),
          gop);
  }
  if (gop.last_frame_packet_count < gop.packet_count ||
      gop.last_frame_packet_count > gop.next_gop_first_packet_count) {
    fault("packet",
          format("the last frame's packet, %llu, is not between %llu and %llu",
                 number(gop.last_frame_packet_count), number(gop.packet_count),
                 number(gop.next_gop_first_packet_count)),
          gop);
  }
  if (previous) check_follower(gop, *previous);
}

void IndexCheck::check_follower(const Gop &gop, const Gop &previous) {
  if (gop.time_code <= previous.time_code) {
    fault("time",
          format("time %u ms is not behind %u ms of the GOP before", gop.time_code,
                 previous.time_code),
          gop);
  }
  if (gop.packet_count <= previous.packet_count) {
    fault("packet",
          format("packet %llu is not behind %llu of the GOP before", number(gop.packet_count),
                 number(previous.packet_count)),
          gop);
  }
  if (previous.next_gop_first_time != gop.time_code) {
    fault("chain",
          format("time %u ms, but the GOP before says %u ms", gop.time_code,
                 previous.next_gop_first_time),
          gop);
  }
  if (previous.next_gop_first_packet_count != gop.packet_count) {
    fault("chain",
          format("packet %llu, but the GOP before says %llu", number(gop.packet_count),
                 number(previous.next_gop_first_packet_count)),
          gop);
  }
  if (previous.next_gop_pts != gop.pts) {
    fault("chain",
          format("PTS %llu, but the GOP before says %llu", number(gop.pts),
                 number(previous.next_gop_pts)),
          gop);
  }
}

// True when the I-frame can be looked for.
bool IndexCheck::check_place(const Gop &gop) {
  if (gop.iframe_size == 0) fault("length", "the I-frame has no length", gop);
  if (gop.packet_count >= packets()) {
    fault("length",
          format("packet %llu lies behind the end of the stream, which has %llu packets",
                 number(gop.packet_count), number(packets())),
          gop);
    return false;
  }
  if (gop.iframe_size > packets() - gop.packet_count) {
    fault("length",
          format("an I-frame of %u packets at packet %llu ends behind the stream's end, "
                 "packet %llu",
                 gop.iframe_size, number(gop.packet_count), number(packets())),
          gop);
  }
  return true;
}

// The codec of the GOP's channel; -1: unknown.
int IndexCheck::check_channel(const Gop &gop) {
  const guint16 slot = gop.index_of_channel;
  if (slot >= GST_INDEX_CHANNEL_SLOTS) {
    fault("channel", format("channel slot %d; there are %u", int{slot}, GST_INDEX_CHANNEL_SLOTS),
          gop);
    return -1;
  }
  const auto [known, is_new] = channels_.try_emplace(slot);
  if (is_new) known->second = recording_.channel(slot);
  const auto &channel = known->second;
  if (!channel) {
    fault("channel", format("the channel record of slot %d cannot be read", int{slot}), gop);
    return -1;
  }
  if (channel->video_pid == 0 || channel->video_pid > kLastPid) {
    fault("channel",
          format("slot %d holds no channel record (video PID %d)", int{slot},
                 int{channel->video_pid}),
          gop);
    return -1;
  }
  if (channel->video_pid != gop.video_pid) {
    fault("channel",
          format("video PID %d, but the channel record of slot %d says %d", int{gop.video_pid},
                 int{slot}, int{channel->video_pid}),
          gop);
  }
  if (channel->video_encode_type >= kCodecs) {
    fault("channel",
          format("slot %d has the unknown codec identifier %d", int{slot},
                 int{channel->video_encode_type}),
          gop);
    return -1;
  }
  return channel->video_encode_type;
}

void IndexCheck::check_iframe(const Gop &gop) {
  const int code = check_channel(gop);
  const std::vector<uint8_t> pes = read_pes(gop, kFirstLook);
  if (buffer_.size() < TsPacket::kSize || !check_packet(gop, TsPacket(buffer_.data()))) return;
  if (!is_video_pes(pes)) {
    fault("iframe", "no video PES packet begins at the I-frame", gop);
  } else if (code >= 0) {
    check_picture(gop, code, pes);
  }
}

// True when a PES packet of the video may begin with the packet.
bool IndexCheck::check_packet(const Gop &gop, const TsPacket &packet) {
  if (!packet.in_sync()) {
    fault("iframe", format("no sync byte at the I-frame, but 0x%02x", packet.bytes()[0]), gop);
  } else if (packet.pid() != gop.video_pid) {
    fault("iframe",
          format("the packet at the I-frame has PID %d, not the video's %d", packet.pid(),
                 int{gop.video_pid}),
          gop);
  } else if (packet.is_scrambled()) {
    fault("iframe", "the packet at the I-frame is scrambled", gop);
  } else if (!packet.starts_unit()) {
    fault("iframe", "no PES packet begins in the packet at the I-frame", gop);
  } else {
    return true;
  }
  return false;
}

// Fills the buffer with at most this many packets from the I-frame on.
void IndexCheck::read_packets(const Gop &gop, gint64 count) {
  const auto at = static_cast<gint64>(gop.packet_count);
  const gint64 size = std::min(count, recording_.stream_packets() - at) * kPacketSize;
  buffer_.resize(static_cast<size_t>(size));
  buffer_.resize(
      static_cast<size_t>(recording_.stream().read_at(at * kPacketSize, buffer_.data(), size)));
}

std::vector<uint8_t> IndexCheck::read_pes(const Gop &gop, gint64 packets) {
  read_packets(gop, packets);
  return pes_packet(buffer_, gop.video_pid);
}

// The beginning shows the picture's type nearly always; if it does not, the whole I-frame is read.
Entry IndexCheck::look_at(const Gop &gop, int code, const std::vector<uint8_t> &beginning) {
  const Entry entry = inspector_.inspect(code, elementary_stream(beginning));
  const gint64 whole = std::min<gint64>(gop.iframe_size, kWholeLook);
  if (entry.kind == EntryPicture::kIntra || whole <= kFirstLook) return entry;
  return inspector_.inspect(code, elementary_stream(read_pes(gop, whole)));
}

void IndexCheck::check_picture(const Gop &gop, int code, const std::vector<uint8_t> &beginning) {
  const Entry entry = look_at(gop, code, beginning);
  if (entry.kind == EntryPicture::kPredicted) {
    fault("picture", format("the %s picture at the I-frame is no I-picture", codec_name(code)),
          gop);
  } else if (entry.kind == EntryPicture::kNone) {
    fault("picture", format("no %s picture begins at the I-frame", codec_name(code)), gop);
  }
  // The time stamp of a PES packet is that of the first picture that begins in it.
  const auto pts = pes_pts(beginning);
  if (entry.first && pts && *pts != gop.pts) {
    fault("pts", format("PTS %llu, but the stream has %llu there", number(gop.pts), number(*pts)),
          gop);
  }
}

// Tools that do not look at the stream take the recording's length from the base table alone.
void IndexCheck::check_end_time(const Gop &last) {
  const pvr_base_table_s &table = recording_.parser()->base_table;
  if (!recording_.complete() || table.end_time_code < table.start_time_code) return;
  const guint32 duration = table.end_time_code - table.start_time_code;
  if (duration >= last.time_code && duration <= guint64{last.next_gop_first_time} + kEndSlack) {
    return;
  }
  index_fault("base-table", 16,
              format("the end time says %u ms, the last GOP lasts from %u to %u ms", duration,
                     last.time_code, last.next_gop_first_time));
}

void IndexCheck::check_end(const Gop &last) {
  if (last.next_gop_first_packet_count > packets()) {
    fault("index-longer",
          format("the index reaches to packet %llu, the stream ends at %llu",
                 number(last.next_gop_first_packet_count), number(packets())),
          last);
    return;
  }
  if (!recording_.mismatch().empty()) {
    fault("index-shorter",
          format("the index ends at packet %llu, the stream at %llu",
                 number(last.next_gop_first_packet_count), number(packets())),
          last);
    return;
  }
  check_end_time(last);
}

// The sync byte of every packet. A stretch without them is one fault.
class SyncCheck {
 public:
  SyncCheck(Recording &recording, const FaultSink &sink) : recording_(recording), sink_(sink) {}

  void run(const CheckProgress &progress) {
    std::vector<uint8_t> block(static_cast<size_t>(kBlockPackets * kPacketSize));
    const gint64 packets = recording_.stream_packets();
    while (at_ < packets) {
      const gint64 want = std::min(kBlockPackets, packets - at_) * kPacketSize;
      const gint64 got = recording_.stream().read_at(at_ * kPacketSize, block.data(), want);
      check_block(block.data(), got / kPacketSize);
      if (got < want) break;  // the file has been cut meanwhile
      progress(0.5 + static_cast<double>(at_) / static_cast<double>(packets) / 2);
    }
    report();
    check_tail();
  }

 private:
  void check_block(const uint8_t *block, gint64 count) {
    for (gint64 i = 0; i < count; ++i, ++at_) {
      if (block[i * kPacketSize] == kSyncByte) {
        if (bad_ > 0 && ++good_ == kInStep) report();
      } else {
        if (bad_++ == 0) first_bad_ = at_;
        last_bad_ = at_;
        good_ = 0;
      }
    }
  }

  void report() {
    if (bad_ == 0) return;
    const std::string what =
        bad_ == 1
            ? format("no sync byte at packet %lld", static_cast<long long>(first_bad_))
            : format("no sync byte at %lld packets from %lld to %lld", static_cast<long long>(bad_),
                     static_cast<long long>(first_bad_), static_cast<long long>(last_bad_));
    sink_({"sync", what, {}, {}, first_bad_ * kPacketSize});
    bad_ = 0;
    good_ = 0;
  }

  void check_tail() {
    const gint64 tail = recording_.stream_size() % kPacketSize;
    if (tail == 0 || recording_.running()) return;
    sink_({"partial-packet",
           format("%lld bytes of an unfinished packet at the end", static_cast<long long>(tail)),
           {},
           {},
           recording_.stream_packets() * kPacketSize});
  }

  Recording &recording_;
  const FaultSink &sink_;
  gint64 at_ = 0;  // packet number
  gint64 bad_ = 0;
  gint64 good_ = 0;  // in a row since the last bad one
  gint64 first_bad_ = 0;
  gint64 last_bad_ = 0;
};

}  // namespace

void check_recording(Recording &recording, const FaultSink &sink, const CheckProgress &progress) {
  IndexCheck(recording, sink).run(progress);
  SyncCheck(recording, sink).run(progress);
}

}  // namespace plexa::pvr
