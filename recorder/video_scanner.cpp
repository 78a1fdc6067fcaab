// video_scanner.cpp - see video_scanner.h. PES packets: ISO/IEC 13818-1 clause 2.4.3.6.
#include "video_scanner.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "start_code.h"

namespace plexa::rec {
namespace {

constexpr size_t kFixedHeader = 9;  // up to and with the length of the header data
constexpr uint32_t kStartCode = 0x00000100;
constexpr size_t kPrefix = 3;  // 00 00 01

uint64_t time_stamp(const uint8_t *at) {
  return static_cast<uint64_t>(at[0] & 0x0e) << 29 | static_cast<uint64_t>(at[1]) << 22 |
         static_cast<uint64_t>(at[2] & 0xfe) << 14 | static_cast<uint64_t>(at[3]) << 7 | at[4] >> 1;
}

uint32_t last_four(Payload payload) {
  const uint8_t *const at = payload.data + payload.size - 4;
  return static_cast<uint32_t>(at[0]) << 24 | static_cast<uint32_t>(at[1]) << 16 |
         static_cast<uint32_t>(at[2]) << 8 | at[3];
}

// Nothing of what went before lies in front of the start code; zero bytes belong to it.
bool is_at_front(const uint8_t *data, size_t code) {
  return std::all_of(data, data + code, [](uint8_t byte) { return byte == 0; });
}

// The transport packets of such a PES packet look clear.
bool is_scrambled_header(const std::vector<uint8_t> &header) { return (header[6] & 0x30) != 0; }

bool is_video_header(const std::vector<uint8_t> &header) {
  const bool starts = header[0] == 0 && header[1] == 0 && header[2] == 1;
  // Without the mark '10' this is no MPEG-2 PES packet with a header of its own (padding, maps).
  return starts && (header[6] & 0xc0) == 0x80;
}

}  // namespace

VideoScanner::VideoScanner(Codec codec, Sink sink)
    : sink_(std::move(sink)), parser_(make_picture_parser(codec)) {
  header_.reserve(kFixedHeader + 255);
}

void VideoScanner::packet(const uint8_t *packet, uint64_t number) {
  if (packet_is_damaged(packet)) {
    counter_.reset();
    return lose();
  }
  Payload payload = packet_payload(packet);
  if (payload.size == 0) return take_announcement(packet);
  if (!in_sequence(packet, payload)) return;
  if (packet_is_scrambled(packet)) {
    in_pes_ = in_header_ = false;
    return pass_over_scrambled();
  }
  if (packet_starts_unit(packet)) begin_pes(number);
  if (in_header_) payload = pes_header(payload);
  if (pes_scrambled_) return pass_over_scrambled();
  ++counts_.clear;
  if (!in_pes_ || payload.size == 0) return;
  video(payload, number);
  last_packet_ = number;
}

void VideoScanner::pass_over_scrambled() {
  ++counts_.scrambled;
  lose();
}

// A packet without payload does not count on, but may announce that the counter jumps.
void VideoScanner::take_announcement(const uint8_t *packet) {
  const unsigned counter = packet_counter(packet);
  if (!packet_may_jump(packet) || !counter_ || counter == *counter_) return;
  counter_ = counter;
  lose();
}

// False for a packet that is sent twice. An equal counter alone does not say so: some multiplexers
// never count.
bool VideoScanner::in_sequence(const uint8_t *packet, Payload payload) {
  const unsigned counter = packet_counter(packet);
  const std::optional<unsigned> before = std::exchange(counter_, counter);
  if (!before || counter == ((*before + 1) & 15u)) return true;
  if (packet_may_jump(packet)) {
    lose();
    return true;
  }
  if (counter == *before && payload.size > kPrefix && last_four(payload) == window_) return false;
  ++counts_.continuity_errors;
  lose();
  return true;
}

// What was collected may not go on in the next packet.
void VideoScanner::lose() {
  window_ = 0xffffffff;
  if (unit_wanted_ > 0 && unit_size_ > 0 && parser_->is_slice(unit_[0])) end_unit(0);
  unit_wanted_ = 0;
  if (in_header_) in_pes_ = in_header_ = false;
  lost_ = true;
}

void VideoScanner::begin_pes(uint64_t number) {
  in_pes_ = false;
  pes_scrambled_ = false;
  in_header_ = true;
  header_.clear();
  pes_ = Pes{pes_.serial + 1, number, {}, {}};
}

// Takes the header from the payload; what is left of it is video.
Payload VideoScanner::pes_header(Payload payload) {
  while (payload.size > 0) {
    const size_t target = header_.size() < kFixedHeader ? kFixedHeader : kFixedHeader + header_[8];
    const size_t part = std::min(payload.size, target - header_.size());
    header_.insert(header_.end(), payload.data, payload.data + part);
    payload.data += part;
    payload.size -= part;
    if (header_.size() < kFixedHeader || header_.size() < kFixedHeader + header_[8]) continue;
    in_header_ = false;
    in_pes_ = is_video_header(header_);
    pes_scrambled_ = in_pes_ && is_scrambled_header(header_);
    if (pes_scrambled_) in_pes_ = false;
    if (in_pes_) read_time_stamps();
    break;
  }
  return payload;
}

void VideoScanner::read_time_stamps() {
  const unsigned flags = header_[7] >> 6;
  const size_t length = header_[8];
  if (flags >= 2 && length >= 5) pes_.pts = time_stamp(&header_[kFixedHeader]);
  if (flags == 3 && length >= 10) pes_.dts = time_stamp(&header_[kFixedHeader + 5]);
}

void VideoScanner::video(Payload payload, uint64_t number) {
  const uint8_t *const data = payload.data;
  const size_t size = payload.size;
  size_t at = straddling_start_code(payload);  // what lies before is collected
  for (size_t from = at;;) {
    const size_t code = find_start_code(data, from, size);
    if (code == size) break;
    if (code > at) collect(data + at, code - at);
    end_unit(0);
    at = code + kPrefix;
    begin_unit(data[at], is_at_front(data, code) ? last_packet_ : number);
    from = at + 1;
  }
  collect(data + at, size - at);
  if (size > kPrefix) window_ = last_four(payload);  // else the window has them all
}

// A start code that begins in the payload before and ends in this one. The first byte that is still
// to be collected; the byte that says what the unit is is the first of the unit.
size_t VideoScanner::straddling_start_code(Payload payload) {
  size_t at = 0;
  for (size_t i = 0; i < std::min(payload.size, kPrefix); ++i) {
    window_ = window_ << 8 | payload.data[i];
    if ((window_ & 0xffffff00) != kStartCode) continue;
    end_unit(kPrefix - i);
    begin_unit(payload.data[i], last_packet_);
    at = i;
  }
  return at;
}

void VideoScanner::begin_unit(uint8_t first_byte, uint64_t packet_before) {
  unit_wanted_ = parser_->wants(first_byte);
  unit_size_ = 0;
  if (unit_wanted_ == 0) return;
  unit_place_ = Place{packet_before, pes_};
}

void VideoScanner::collect(const uint8_t *data, size_t size) {
  while (unit_wanted_ > 0 && size > 0) {
    const size_t part = std::min(size, unit_wanted_ - unit_size_);
    std::memcpy(unit_.data() + unit_size_, data, part);
    unit_size_ += part;
    data += part;
    size -= part;
    if (unit_size_ == unit_wanted_) judge(false);
  }
}

// The unit ends, `excess` bytes of the next start code having been collected with it.
void VideoScanner::end_unit(size_t excess) {
  if (unit_wanted_ == 0) return;
  unit_size_ -= std::min(excess, unit_size_);
  if (unit_size_ > 0) judge(true);
  unit_wanted_ = 0;
}

void VideoScanner::judge(bool complete) {
  if (opens_picture()) {
    finish_picture(unit_place_.packet_before);
    begin_picture();
  }
  // At the beginning of a picture more of a unit may be wanted than in the middle of it.
  const size_t wanted = std::min(parser_->wants(unit_[0]), unit_.size());
  if (!complete && wanted > unit_size_) {
    unit_wanted_ = wanted;
    return;
  }
  if (!in_picture_) begin_picture();
  parser_->take(unit_.data(), unit_size_);
  unit_wanted_ = 0;
}

bool VideoScanner::opens_picture() const {
  if (!in_picture_ || !parser_->is_opener(unit_.data(), unit_size_)) return false;
  if (parser_->picture().coded) return true;
  // Headers whose picture was lost do not belong to the picture of the next PES packet.
  return lost_ && unit_place_.pes.serial != picture_place_.pes.serial;
}

void VideoScanner::begin_picture() {
  in_picture_ = true;
  lost_ = false;
  picture_place_ = unit_place_;
  // Time stamps belong to the first picture that begins in the PES packet, to no other.
  if (std::exchange(stamped_pes_, unit_place_.pes.serial) != unit_place_.pes.serial) return;
  picture_place_.pes.pts.reset();
  picture_place_.pes.dts.reset();
}

void VideoScanner::finish_picture(uint64_t last_packet) {
  in_picture_ = false;
  const Picture picture = parser_->finish();
  if (!picture.coded) return;
  Frame frame;
  frame.entry = picture.entry;
  frame.sequence_header = picture.sequence_header;
  frame.bidirectional = picture.bidirectional;
  frame.pes_packet = picture_place_.pes.packet;
  frame.last_packet = std::max(last_packet, frame.pes_packet);
  frame.pts = picture_place_.pes.pts;
  frame.dts = picture_place_.pes.dts;
  frame.duration = picture.duration;
  frame.cut_off = ending_;
  report(picture, frame);
}

void VideoScanner::report(const Picture &picture, const Frame &frame) {
  if (held_picture_) {
    const Picture first = *std::exchange(held_picture_, std::nullopt);
    if (is_field_pair(first, picture)) {
      held_.last_packet = frame.last_packet;
      held_.cut_off = frame.cut_off;
      return sink_(held_);
    }
    sink_(held_);
  }
  if (picture.structure == Picture::Structure::kFrame) return sink_(frame);
  held_picture_ = picture;
  held_ = frame;
}

void VideoScanner::finish() {
  end_unit(0);
  ending_ = true;
  if (in_picture_) finish_picture(last_packet_);
  if (!std::exchange(held_picture_, std::nullopt)) return;
  held_.cut_off = true;
  sink_(held_);
}

}  // namespace plexa::rec
