// seam.cpp - see seam.h.
#include "seam.h"

#include <algorithm>
#include <array>
#include <optional>
#include <set>

#include "gstreamer.h"
#include "program_tables.h"
#include "ts_packet.h"

namespace plexa::pvr {
namespace {

using Packet = std::array<uint8_t, TsPacket::kSize>;

constexpr int kNullPid = 0x1fff;
constexpr int kFirstFreePid = 0x10;
// Sound and time stamps come at least this often.
constexpr gint64 kLook = 4096;  // packets

// ISO/IEC 13818-1 clause 2.4.3.3: PID 0x1fff, payload only.
Packet null_packet() {
  Packet packet;
  packet.fill(0xff);
  packet[0] = kSyncByte;
  packet[1] = 0x1f;
  packet[3] = 0x10;
  return packet;
}

// Clause 2.4.3.5: a packet of nothing but an adaptation field, whose discontinuity indicator says
// that neither the packet counter nor the clock goes on from before. The counter of such a packet
// is that of the packet behind it, less one.
Packet discontinuity_packet(int pid, int next_counter) {
  Packet packet;
  packet.fill(0xff);
  packet[0] = kSyncByte;
  packet[1] = static_cast<uint8_t>(pid >> 8);
  packet[2] = static_cast<uint8_t>(pid);
  packet[3] = static_cast<uint8_t>(0x20 | ((next_counter - 1) & 0x0f));
  packet[4] = TsPacket::kSize - 5;
  packet[5] = 0x80;
  return packet;
}

bool has_payload(const TsPacket &packet) { return (packet.bytes()[3] & 0x10) != 0; }

// The counter of the first packet of the PID that counts.
std::optional<int> first_counter(const FileBytes &packets, int pid) {
  for (size_t at = 0; at + TsPacket::kSize <= packets.size(); at += TsPacket::kSize) {
    const TsPacket packet(packets.data() + at);
    if (packet.in_sync() && packet.pid() == pid && has_payload(packet)) {
      return packet.bytes()[3] & 0x0f;
    }
  }
  return {};
}

std::set<int> pids_of(Recording &recording, const pvr_gop_info_s &gop) {
  std::set<int> pids{gop.video_pid};
  if (const auto channel = recording.channel(gop.index_of_channel)) {
    pids.insert(channel->pcr_pid);
    if (channel->audio_pid < kNullPid) pids.insert(static_cast<int>(channel->audio_pid));
  }
  std::erase_if(pids, [](int pid) { return pid < kFirstFreePid || pid >= kNullPid; });
  return pids;
}

void append(FileBytes &to, const Packet &packet) {
  to.insert(to.end(), packet.begin(), packet.end());
}

}  // namespace

FileBytes seam_lead(Recording &recording, const pvr_gop_info_s &behind) {
  const auto at = static_cast<gint64>(behind.packet_count);
  start_gstreamer_parsers();
  FileBytes lead = find_program_tables(recording, at, behind.video_pid);
  FileBytes packets(static_cast<size_t>(kLook * kPacketSize));
  packets.resize(static_cast<size_t>(recording.stream().read_at(
      at * kPacketSize, packets.data(), static_cast<gint64>(packets.size()))));
  for (const int pid : pids_of(recording, behind)) {
    if (const auto counter = first_counter(packets, pid)) {
      append(lead, discontinuity_packet(pid, *counter));
    }
  }
  return lead;
}

FileBytes seam_of(int64_t size, const FileBytes &lead) {
  const auto whole = static_cast<size_t>(size);
  const size_t nulls = whole >= lead.size() ? whole - lead.size() : whole;
  FileBytes seam;
  seam.reserve(whole);
  while (seam.size() < nulls) append(seam, null_packet());
  if (nulls < whole) seam.insert(seam.end(), lead.begin(), lead.end());
  return seam;
}

}  // namespace plexa::pvr
