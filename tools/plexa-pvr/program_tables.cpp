// program_tables.cpp - see program_tables.h.
#include "program_tables.h"

#define GST_USE_UNSTABLE_API
#include <gst/mpegts/mpegts.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <span>

#include "ts_packet.h"

namespace plexa::pvr {
namespace {

using Packets = std::vector<uint8_t>;

constexpr int kPatPid = 0;
constexpr gint64 kFirstWindow = 8192;  // packets
constexpr gint64 kBlock = 8192;
constexpr uint8_t kStuffing = 0xff;

struct SectionUnref {
  void operator()(GstMpegtsSection *section) const {
    gst_mini_object_unref(GST_MINI_OBJECT_CAST(section));
  }
};
using Section = std::unique_ptr<GstMpegtsSection, SectionUnref>;

// ISO/IEC 13818-1 clause 2.4.4.1: the sections of one PID, each with the packets that hold it.
class SectionAssembler {
 public:
  // Calls complete(section bytes, packets) for every section that this packet ends.
  template <class Complete>
  void packet(const TsPacket &packet, Complete complete) {
    auto data = packet.payload();
    if (data.empty()) return;
    if (packet.starts_unit()) {
      const size_t pointer = data[0];
      data = data.subspan(1);
      if (pointer > data.size()) return drop();
      append(packet, data.first(pointer), complete);
      drop();
      begin(packet, data.subspan(pointer), complete);
    } else {
      append(packet, data, complete);
    }
  }

 private:
  void drop() {
    section_.clear();
    packets_.clear();
  }

  template <class Complete>
  void begin(const TsPacket &packet, std::span<const uint8_t> data, Complete complete) {
    while (!data.empty() && data[0] != kStuffing) {
      drop();
      section_.push_back(data[0]);
      const size_t taken = 1 + append(packet, data.subspan(1), complete);
      if (!section_.empty()) return;  // goes on in the next packet
      data = data.subspan(taken);
    }
  }

  // Returns how many bytes belong to the open section, which is closed when it is complete.
  template <class Complete>
  size_t append(const TsPacket &packet, std::span<const uint8_t> data, Complete complete) {
    if (section_.empty()) return 0;
    packets_.insert(packets_.end(), packet.bytes(), packet.bytes() + TsPacket::kSize);
    const size_t before = section_.size();
    section_.insert(section_.end(), data.begin(), data.end());
    if (section_.size() < 3) return data.size();
    const size_t whole = 3 + (size_t{section_[1] & 0x0fu} << 8 | section_[2]);
    if (section_.size() < whole) return data.size();
    section_.resize(whole);
    complete(section_, packets_);
    drop();
    return whole > before ? whole - before : 0;
  }

  std::vector<uint8_t> section_;  // empty: none is open
  Packets packets_;
};

// Null when it is not a sound section of this kind that is in force.
Section parse(int pid, const std::vector<uint8_t> &bytes, GstMpegtsSectionType type) {
  // The library takes the copy over.
  auto *const copy = static_cast<guint8 *>(g_memdup2(bytes.data(), bytes.size()));
  Section section(gst_mpegts_section_new(static_cast<guint16>(pid), copy, bytes.size()));
  if (section != nullptr && (section->section_type != type || !section->current_next_indicator)) {
    section.reset();
  }
  return section;
}

std::set<int> pmt_pids(const Section &section) {
  std::set<int> pids;
  GPtrArray *const programs = gst_mpegts_section_get_pat(section.get());
  if (programs == nullptr) return pids;
  for (guint i = 0; i < programs->len; ++i) {
    const auto *const program =
        static_cast<const GstMpegtsPatProgram *>(g_ptr_array_index(programs, i));
    if (program->program_number != 0) pids.insert(program->network_or_program_map_PID);
  }
  g_ptr_array_unref(programs);
  return pids;
}

bool lists_pid(const Section &section, int pid) {
  const GstMpegtsPMT *const pmt = gst_mpegts_section_get_pmt(section.get());
  if (pmt == nullptr) return false;
  for (guint i = 0; i < pmt->streams->len; ++i) {
    const auto *const stream =
        static_cast<const GstMpegtsPMTStream *>(g_ptr_array_index(pmt->streams, i));
    if (stream->pid == pid) return true;
  }
  return false;
}

struct Span {
  gint64 begin;  // packets
  gint64 end;
};

// Calls visit(packet) for the packets of the stream in this span.
template <class Visit>
void for_each_packet(Recording &recording, Span span, Visit visit) {
  std::vector<uint8_t> block(static_cast<size_t>(kBlock * kPacketSize));
  for (gint64 at = span.begin; at < span.end;) {
    const gint64 want = std::min(kBlock, span.end - at);
    const gint64 got =
        recording.stream().read_at(at * kPacketSize, block.data(), want * kPacketSize) /
        kPacketSize;
    for (gint64 i = 0; i < got; ++i) visit(TsPacket(block.data() + i * kPacketSize));
    if (got < want) return;
    at += got;
  }
}

struct Found {
  Packets pat;
  Packets pmt;
  bool complete() const { return !pat.empty() && !pmt.empty(); }
};

// The last PAT of the span, and the last PMT that it points to and that has the PID.
Found search(Recording &recording, Span span, int video_pid) {
  Found found;
  std::set<int> pids;
  SectionAssembler pat;
  for_each_packet(recording, span, [&](const TsPacket &packet) {
    if (!packet.in_sync() || packet.pid() != kPatPid) return;
    pat.packet(packet, [&](const std::vector<uint8_t> &bytes, const Packets &packets) {
      const Section section = parse(kPatPid, bytes, GST_MPEGTS_SECTION_PAT);
      if (section == nullptr) return;
      found.pat = packets;
      pids = pmt_pids(section);
    });
  });
  if (pids.empty()) return found;
  std::map<int, SectionAssembler> assemblers;
  for_each_packet(recording, span, [&](const TsPacket &packet) {
    const int pid = packet.pid();
    if (!packet.in_sync() || !pids.contains(pid)) return;
    assemblers[pid].packet(packet, [&](const std::vector<uint8_t> &bytes, const Packets &packets) {
      const Section section = parse(pid, bytes, GST_MPEGTS_SECTION_PMT);
      if (section != nullptr && lists_pid(section, video_pid)) found.pmt = packets;
    });
  });
  return found;
}

// Wider and wider spans, up to the limit. `span_of` makes one of a width.
template <class SpanOf>
Found search_widening(Recording &recording, gint64 limit, int video_pid, SpanOf span_of) {
  Found found;
  for (gint64 width = kFirstWindow; limit > 0; width *= 8) {
    found = search(recording, span_of(std::min(width, limit)), video_pid);
    if (found.complete() || width >= limit) break;
  }
  return found;
}

}  // namespace

std::vector<uint8_t> find_program_tables(Recording &recording, gint64 at, int video_pid) {
  gst_mpegts_initialize();
  Found found = search_widening(recording, at, video_pid, [at](gint64 width) {
    return Span{at - width, at};
  });
  if (!found.complete()) {
    found =
        search_widening(recording, recording.stream_packets() - at, video_pid, [at](gint64 width) {
          return Span{at, at + width};
        });
  }
  if (!found.complete()) return {};
  Packets all = std::move(found.pat);
  all.insert(all.end(), found.pmt.begin(), found.pmt.end());
  return all;
}

}  // namespace plexa::pvr
