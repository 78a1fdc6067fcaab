// psi.cpp - see psi.h. Not thread-safe.
#include "psi.h"

#define GST_USE_UNSTABLE_API
#include <gst/mpegts/mpegts.h>

#include <algorithm>
#include <memory>
#include <set>
#include <utility>

namespace plexa::rec {
namespace {

constexpr uint8_t kStuffing = 0xff;
constexpr size_t kSectionHeader = 3;
constexpr size_t kLongestSection = kSectionHeader + 4093;
constexpr size_t kShortestTable = 12;  // header, extension, version, numbers, CRC
constexpr uint8_t kPatTable = 0x00;
constexpr uint8_t kPmtTable = 0x02;
constexpr unsigned kFirstFreePid = 0x10;
// Far more than any multiplex has room for. A table without measure would make every section slow.
constexpr size_t kMostProgrammes = 1024;

size_t section_size(const std::vector<uint8_t> &section) {
  return kSectionHeader + ((static_cast<size_t>(section[1]) << 8 | section[2]) & 0x0fff);
}

unsigned table_extension(const std::vector<uint8_t> &section) {
  return static_cast<unsigned>(section[3]) << 8 | section[4];
}

uint64_t fingerprint(const std::vector<uint8_t> &section) {
  uint64_t out = section.size();
  for (size_t i = section.size() - 4; i < section.size(); ++i) out = out << 8 | section[i];
  return out;
}

struct SectionUnref {
  void operator()(GstMpegtsSection *section) const { gst_mpegts_section_unref(section); }
};
using Section = std::unique_ptr<GstMpegtsSection, SectionUnref>;

Section parse(unsigned pid, const std::vector<uint8_t> &bytes) {
  auto *const copy = static_cast<guint8 *>(g_memdup2(bytes.data(), bytes.size()));
  return Section(gst_mpegts_section_new(static_cast<guint16>(pid), copy, bytes.size()));
}

std::optional<Codec> video_codec(unsigned stream_type) {
  switch (stream_type) {
    case GST_MPEGTS_STREAM_TYPE_VIDEO_MPEG1:
    case GST_MPEGTS_STREAM_TYPE_VIDEO_MPEG2:
      return Codec::kMpeg2;
    case GST_MPEGTS_STREAM_TYPE_VIDEO_H264:
      return Codec::kH264;
    case GST_MPEGTS_STREAM_TYPE_VIDEO_HEVC:
      return Codec::kH265;
    default:
      return {};
  }
}

bool has_descriptor(const GstMpegtsPMTStream &stream, guint8 tag) {
  return stream.descriptors != nullptr &&
         gst_mpegts_find_descriptor(stream.descriptors, tag) != nullptr;
}

// Private PES packets hold AC-3, enhanced AC-3, DTS or AAC when a descriptor says so.
bool is_private_audio(const GstMpegtsPMTStream &stream) {
  constexpr guint8 kAudioTags[] = {GST_MTS_DESC_DVB_AC3, GST_MTS_DESC_DVB_ENHANCED_AC3,
                                   GST_MTS_DESC_DVB_DTS, GST_MTS_DESC_DVB_AAC};
  return std::any_of(std::begin(kAudioTags), std::end(kAudioTags),
                     [&](guint8 tag) { return has_descriptor(stream, tag); });
}

bool is_audio(const GstMpegtsPMTStream &stream) {
  constexpr unsigned kAtscAc3 = 0x81;
  constexpr unsigned kAtscEnhancedAc3 = 0x87;
  switch (static_cast<unsigned>(stream.stream_type)) {
    case GST_MPEGTS_STREAM_TYPE_AUDIO_MPEG1:
    case GST_MPEGTS_STREAM_TYPE_AUDIO_MPEG2:
    case GST_MPEGTS_STREAM_TYPE_AUDIO_AAC_ADTS:
    case GST_MPEGTS_STREAM_TYPE_AUDIO_AAC_LATM:
    case kAtscAc3:
    case kAtscEnhancedAc3:
      return true;
    case GST_MPEGTS_STREAM_TYPE_PRIVATE_PES_PACKETS:
      return is_private_audio(stream);
    default:
      return false;
  }
}

std::optional<Channel> channel_of(const GstMpegtsPMT &pmt) {
  Channel channel;
  bool has_video = false;
  channel.pcr_pid = pmt.pcr_pid;
  for (guint i = 0; i < pmt.streams->len; ++i) {
    const auto &stream = *static_cast<GstMpegtsPMTStream *>(g_ptr_array_index(pmt.streams, i));
    const std::optional<Codec> codec = video_codec(stream.stream_type);
    if (codec && !has_video) {
      has_video = true;
      channel.video_pid = stream.pid;
      channel.codec = *codec;
    } else if (channel.audio_pid == kNoPid && is_audio(stream)) {
      channel.audio_pid = stream.pid;
    }
  }
  if (!has_video) return {};
  return channel;
}

std::vector<Programme> listed_programmes(const GPtrArray *pat) {
  std::vector<Programme> out;
  for (guint i = 0; i < pat->len; ++i) {
    const auto &entry = *static_cast<GstMpegtsPatProgram *>(g_ptr_array_index(pat, i));
    if (entry.program_number == 0) continue;  // the network table's PID
    Programme programme;
    programme.number = entry.program_number;
    programme.pmt_pid = entry.network_or_program_map_PID;
    out.push_back(programme);
  }
  return out;
}

}  // namespace

void SectionAssembler::drop() {
  section_.clear();
  collecting_ = false;
}

bool SectionAssembler::continues(const uint8_t *packet) {
  const unsigned counter = packet_counter(packet);
  const bool in_step = !counter_ || counter == ((*counter_ + 1) & 15u);
  const bool repeated = counter_ && counter == *counter_;
  counter_ = counter;
  if (!in_step && !repeated) drop();
  // What begins a section may be taken twice; some multiplexers never count.
  return !repeated || packet_starts_unit(packet);
}

void SectionAssembler::packet(const uint8_t *packet, const Sink &sink) {
  if (packet_is_damaged(packet) || packet_is_scrambled(packet)) return drop();
  const Payload payload = packet_payload(packet);
  if (payload.size == 0 || !continues(packet)) return;
  if (!packet_starts_unit(packet)) return append(payload.data, payload.size, sink);
  const size_t pointer = payload.data[0];
  if (1 + pointer >= payload.size) return drop();
  append(payload.data + 1, pointer, sink);  // the end of the section before
  drop();
  collecting_ = true;
  append(payload.data + 1 + pointer, payload.size - 1 - pointer, sink);
}

void SectionAssembler::append(const uint8_t *data, size_t size, const Sink &sink) {
  while (collecting_ && size > 0) {
    if (section_.empty() && data[0] == kStuffing) return drop();
    const size_t target =
        section_.size() < kSectionHeader ? kSectionHeader : section_size(section_);
    if (target > kLongestSection) return drop();
    const size_t part = std::min(size, target - section_.size());
    section_.insert(section_.end(), data, data + part);
    data += part;
    size -= part;
    if (section_.size() < kSectionHeader || section_.size() < section_size(section_)) continue;
    sink(section_);
    section_.clear();
  }
}

bool ProgrammeTables::packet(const uint8_t *packet) {
  const unsigned pid = packet_pid(packet);
  const auto found = assemblers_.find(pid);
  if (found == assemblers_.end()) return false;
  std::vector<std::vector<uint8_t>> complete;
  found->second.packet(packet, [&](const std::vector<uint8_t> &bytes) {
    complete.push_back(bytes);  // taking a table may change assemblers_
  });
  bool changed = false;
  for (const auto &bytes : complete) changed = section(pid, bytes) || changed;
  return changed;
}

bool ProgrammeTables::is_repetition(unsigned pid, const std::vector<uint8_t> &bytes) {
  const unsigned table = pid == 0 ? bytes[6] : table_extension(bytes);
  const uint64_t print = fingerprint(bytes);
  const auto found = seen_.find({pid, table});
  return found != seen_.end() && found->second == print;
}

bool ProgrammeTables::section(unsigned pid, const std::vector<uint8_t> &bytes) {
  const uint8_t wanted = pid == 0 ? kPatTable : kPmtTable;
  if (bytes.size() < kShortestTable || bytes[0] != wanted || is_repetition(pid, bytes))
    return false;
  const Section parsed = parse(pid, bytes);
  if (!parsed || parsed->current_next_indicator == FALSE) return false;
  const GstMpegtsSectionType type = pid == 0 ? GST_MPEGTS_SECTION_PAT : GST_MPEGTS_SECTION_PMT;
  if (parsed->section_type != type) return false;
  bool changed = false;
  if (pid == 0) {
    GPtrArray *const pat = gst_mpegts_section_get_pat(parsed.get());
    if (pat == nullptr) return false;
    changed = take_programmes(parsed->section_number, parsed->last_section_number,
                              parsed->version_number, listed_programmes(pat));
    g_ptr_array_unref(pat);
  } else {
    const GstMpegtsPMT *const pmt = gst_mpegts_section_get_pmt(parsed.get());
    if (pmt == nullptr) return false;
    changed = take_map(pid, parsed->subtable_extension, channel_of(*pmt));
  }
  if (changed) seen_[{pid, pid == 0 ? bytes[6] : table_extension(bytes)}] = fingerprint(bytes);
  return changed;
}

bool ProgrammeTables::take_programmes(unsigned section_number, unsigned last_section, int version,
                                      std::vector<Programme> listed) {
  if (version != pat_version_) {
    pat_parts_.clear();
    std::erase_if(seen_, [](const auto &entry) { return entry.first.first == 0; });
  }
  pat_parts_.erase(pat_parts_.upper_bound(last_section), pat_parts_.end());
  pat_version_ = version;
  pat_parts_[section_number] = std::move(listed);
  programmes_ = merge_parts(pat_parts_.size() > last_section);
  have_pat_ = true;
  listen();
  return true;
}

// The programmes of all sections, each with what is known of it. While sections are missing, those
// listed before stay: they may stand there.
std::vector<Programme> ProgrammeTables::merge_parts(bool whole) const {
  std::map<std::pair<uint16_t, uint16_t>, const Programme *> before;
  for (const Programme &programme : programmes_) {
    before.insert({{programme.number, programme.pmt_pid}, &programme});
  }
  std::vector<Programme> out;
  std::set<uint16_t> numbers;
  for (const auto &[number, part] : pat_parts_) {
    for (const Programme &programme : part) {
      if (out.size() >= kMostProgrammes) return out;
      const auto same = before.find({programme.number, programme.pmt_pid});
      out.push_back(same != before.end() ? *same->second : programme);
      numbers.insert(programme.number);
    }
  }
  for (const Programme &programme : programmes_) {
    if (whole || out.size() >= kMostProgrammes) break;
    if (numbers.count(programme.number) == 0) out.push_back(programme);
  }
  return out;
}

void ProgrammeTables::listen() {
  std::map<unsigned, SectionAssembler> wanted;
  wanted[0] = std::move(assemblers_[0]);
  std::set<std::pair<unsigned, unsigned>> known;
  for (const Programme &programme : programmes_) {
    const unsigned pid = programme.pmt_pid;
    if (programme.known) known.insert({pid, programme.number});
    if (pid < kFirstFreePid || pid >= kNoPid || wanted.count(pid) != 0) continue;
    wanted[pid] = std::move(assemblers_[pid]);
  }
  assemblers_ = std::move(wanted);
  // A programme that comes, or comes back, needs its map although the PID may have carried it.
  std::erase_if(seen_, [&](const auto &entry) {
    return entry.first.first != 0 && known.count(entry.first) == 0;
  });
}

bool ProgrammeTables::take_map(unsigned pid, unsigned number, std::optional<Channel> channel) {
  const auto found = std::find_if(programmes_.begin(), programmes_.end(), [&](const Programme &p) {
    return p.pmt_pid == pid && p.number == number;
  });
  if (found == programmes_.end()) return false;
  found->known = true;
  found->channel = channel;
  return true;
}

void ProgrammeTables::expect_anew() {
  seen_.clear();
  for (Programme &programme : programmes_) programme.known = false;
}

std::vector<unsigned> ProgrammeTables::pids() const {
  std::vector<unsigned> out;
  for (const auto &entry : assemblers_) out.push_back(entry.first);
  return out;
}

const Programme *ProgrammeTables::find(int number) const {
  const auto found = std::find_if(programmes_.begin(), programmes_.end(),
                                  [&](const Programme &p) { return p.number == number; });
  return found == programmes_.end() ? nullptr : &*found;
}

const Programme *ProgrammeTables::find_by_video(uint16_t video_pid) const {
  const auto found = std::find_if(programmes_.begin(), programmes_.end(), [&](const Programme &p) {
    return p.channel && p.channel->video_pid == video_pid;
  });
  return found == programmes_.end() ? nullptr : &*found;
}

const Programme *ProgrammeTables::choose(int number, bool impatient) const {
  if (number != 0) {
    const Programme *const asked = find(number);
    return asked != nullptr && asked->channel ? asked : nullptr;
  }
  for (const Programme &programme : programmes_) {
    if (programme.channel) return &programme;
    if (!programme.known && !impatient) return nullptr;
  }
  return nullptr;
}

}  // namespace plexa::rec
