#include "test_stream.h"

#include <algorithm>

namespace plexa_test {
namespace {

uint32_t crc32_mpeg(const Bytes &data) {
  uint32_t crc = 0xffffffff;
  for (const uint8_t byte : data) {
    crc ^= static_cast<uint32_t>(byte) << 24;
    for (int i = 0; i < 8; ++i) crc = (crc & 0x80000000u) != 0 ? crc << 1 ^ 0x04c11db7 : crc << 1;
  }
  return crc;
}

void put16(Bytes &out, unsigned value) {
  out.push_back(static_cast<uint8_t>(value >> 8));
  out.push_back(static_cast<uint8_t>(value));
}

// Table header, body, CRC.
Bytes table(uint8_t id, uint16_t extension, uint8_t version, bool current, uint8_t number,
            uint8_t last, const Bytes &body) {
  Bytes out = {id};
  put16(out, 0xb000u | static_cast<unsigned>(body.size() + 9));
  put16(out, extension);
  out.push_back(static_cast<uint8_t>(0xc0 | version << 1 | (current ? 1 : 0)));
  out.push_back(number);
  out.push_back(last);
  out.insert(out.end(), body.begin(), body.end());
  return with_crc(out);
}

// Start code, header bytes, and the bits with emulation prevention.
Bytes nal(const Bytes &header, const BitWriter &bits) {
  Bytes out = join({{0, 0, 1}, header});
  unsigned zeros = 0;
  for (const uint8_t byte : bits.bytes()) {
    if (zeros >= 2 && byte <= 3) {
      out.push_back(3);
      zeros = 0;
    }
    out.push_back(byte);
    zeros = byte == 0 ? zeros + 1 : 0;
  }
  return out;
}

Bytes filler(size_t size) {
  Bytes out(size);
  for (size_t i = 0; i < size; ++i) out[i] = static_cast<uint8_t>(0x80 | (i * 37 % 0x7f));
  return out;
}

// --- MPEG-2, ISO/IEC 13818-2 clause 6.2

Bytes mpeg2_headers() {
  BitWriter sequence;
  sequence.u(12, 720).u(12, 576).u(4, 2).u(4, 3).u(18, 10000).u(1, 1).u(10, 112).u(1, 0);
  sequence.u(1, 0).u(1, 0);
  BitWriter extension;
  extension.u(4, 1).u(8, 0x48).u(1, 0).u(2, 1).u(2, 0).u(2, 0).u(12, 0).u(1, 1).u(8, 0).u(1, 0);
  extension.u(2, 0).u(5, 0);
  return join({{0, 0, 1, 0xb3},
               sequence.bytes(),
               {0, 0, 1, 0xb5},
               extension.bytes(),
               {0, 0, 1, 0xb8, 0x00, 0x08, 0x00, 0x40}});
}

Bytes mpeg2_picture(const TestPicture &picture) {
  const uint32_t type = picture.type == 'I' ? 1 : picture.type == 'P' ? 2 : 3;
  BitWriter header;
  header.u(10, picture.number).u(3, type).u(16, 0xffff);
  if (type >= 2) header.u(1, 0).u(3, 7);
  if (type == 3) header.u(1, 0).u(3, 7);
  header.u(1, 0);
  const uint32_t structure = picture.field == Field::kTop      ? 1
                             : picture.field == Field::kBottom ? 2
                                                               : 3;
  BitWriter extension;
  extension.u(4, 8).u(16, 0xffff).u(2, 0).u(2, structure).u(1, 1).u(1, 0).u(1, 0).u(1, 0).u(1, 0);
  extension.u(1, 0).u(1, 0).u(1, 0).u(1, 0).u(1, 0);
  Bytes out;
  if (picture.headers && picture.type == 'I') out = mpeg2_headers();
  out = join({out, {0, 0, 1, 0x00}, header.bytes(), {0, 0, 1, 0xb5}, extension.bytes()});
  for (unsigned i = 0; i < picture.slices; ++i) {
    out =
        join({out, {0, 0, 1, static_cast<uint8_t>(i + 1)}, filler(picture.size / picture.slices)});
  }
  return out;
}

// --- H.264, ITU-T H.264 clause 7.3

Bytes h264_parameter_sets(bool field_coding) {
  BitWriter sps;
  sps.u(8, 77).u(8, 0).u(8, 30).ue(0).ue(0).ue(2).ue(1).u(1, 0).ue(44).ue(17);
  sps.u(1, field_coding ? 0 : 1);
  if (field_coding) sps.u(1, 0);
  sps.u(1, 1).u(1, 0).u(1, 1);  // direct 8x8, no cropping, VUI
  sps.u(1, 0).u(1, 0).u(1, 0).u(1, 0).u(1, 1).u(32, 1).u(32, 50).u(1, 1);  // 25 frames a second
  sps.u(1, 0).u(1, 0).u(1, 0).u(1, 0).u(1, 1);
  BitWriter pps;
  pps.ue(0).ue(0).u(1, 0).u(1, 0).ue(0).ue(0).ue(0).u(1, 0).u(2, 0).se(0).se(0).se(0);
  pps.u(1, 0).u(1, 0).u(1, 0).u(1, 1);
  return join({nal({0x67}, sps), nal({0x68}, pps)});
}

Bytes h264_one_slice(const TestPicture &picture, bool field_coding, unsigned first_macroblock,
                     char type, size_t size) {
  const bool idr = picture.idr && picture.type == 'I' && picture.field != Field::kBottom;
  BitWriter bits;
  bits.ue(first_macroblock).ue(type == 'I' ? 2 : type == 'P' ? 0 : 1).ue(0);
  bits.u(4, picture.number & 15u);
  if (field_coding) {
    bits.u(1, picture.field == Field::kNone ? 0 : 1);
    if (picture.field != Field::kNone) bits.u(1, picture.field == Field::kBottom ? 1 : 0);
  }
  if (idr) bits.ue(0);
  if (type == 'B') bits.u(1, 1);          // direct_spatial_mv_pred_flag
  if (type != 'I') bits.u(1, 0).u(1, 0);  // reference counts and lists as they are
  if (type == 'B') bits.u(1, 0);
  bits.u(idr ? 2 : 1, 0).se(0).u(1, 1);
  const uint8_t header = idr ? 0x65 : 0x41;
  return join({nal({header}, bits), filler(size)});
}

Bytes h264_picture(const TestPicture &picture, bool field_coding) {
  Bytes out;
  if (picture.delimiter) out = {0, 0, 0, 1, 0x09, 0xf0};
  if (picture.headers && picture.type == 'I') out = join({out, h264_parameter_sets(field_coding)});
  if (picture.recovery_point) out = join({out, {0, 0, 1, 0x06, 0x06, 0x01, 0xc4, 0x80}});
  for (unsigned i = 0; i < picture.slices; ++i) {
    const bool last = i + 1 == picture.slices;
    const char type = last ? picture.last_slice_type.value_or(picture.type) : picture.type;
    out = join(
        {out, h264_one_slice(picture, field_coding, i * 45, type, picture.size / picture.slices)});
  }
  return out;
}

// --- H.265, ITU-T H.265 clause 7.3

Bytes h265_parameter_sets() {
  BitWriter vps;
  vps.u(4, 0).u(2, 3).u(6, 0).u(3, 0).u(1, 1).u(16, 0xffff);
  BitWriter level;
  const auto profile = [](BitWriter &bits) {
    bits.u(2, 0).u(1, 0).u(5, 1).u(32, 0x60000000).u(4, 0x9).u(32, 0).u(12, 0).u(8, 93);
  };
  profile(vps);
  vps.u(1, 1).ue(4).ue(2).ue(0).u(6, 0).ue(0).u(1, 1).u(32, 1).u(32, 25).u(1, 0).ue(0);
  vps.u(1, 0).u(1, 1);
  BitWriter sps;
  sps.u(4, 0).u(3, 0).u(1, 1);
  profile(sps);
  sps.ue(0).ue(1).ue(640).ue(360).u(1, 0).ue(0).ue(0).ue(4).u(1, 1).ue(4).ue(2).ue(0);
  sps.ue(0).ue(3).ue(0).ue(3).ue(0).ue(0).u(1, 0).u(1, 0).u(1, 0).u(1, 0).ue(0).u(1, 0);
  sps.u(1, 0).u(1, 0).u(1, 0).u(1, 0).u(1, 1);
  BitWriter pps;
  pps.ue(0).ue(0).u(8, 0).u(8, 0x80);
  return join({nal({0x40, 0x01}, vps), nal({0x42, 0x01}, sps), nal({0x44, 0x01}, pps)});
}

Bytes h265_picture(const TestPicture &picture) {
  Bytes out = {0, 0, 0, 1, 0x46, 0x01, 0x50};
  if (picture.headers && picture.type == 'I') out = join({out, h265_parameter_sets()});
  if (picture.recovery_point) out = join({out, {0, 0, 1, 0x4e, 0x01, 0x06, 0x01, 0xd0, 0x80}});
  const unsigned leading = 8;  // RASL_N: shown before the picture that it follows
  const unsigned type = picture.type == 'I'   ? (picture.idr ? 19 : 21)
                        : picture.type == 'B' ? leading
                                              : 1;
  for (unsigned i = 0; i < picture.slices; ++i) {
    const auto first = static_cast<uint8_t>(i == 0 ? 0xa0 : 0x20);
    out = join({out,
                {0, 0, 1, static_cast<uint8_t>(type << 1), 0x01, first},
                filler(picture.size / picture.slices)});
  }
  return out;
}

}  // namespace

Bytes coded_picture(Codec codec, const TestPicture &picture, bool field_coding) {
  switch (codec) {
    case Codec::kH264:
      return h264_picture(picture, field_coding);
    case Codec::kH265:
      return h265_picture(picture);
    case Codec::kMpeg2:
      break;
  }
  return mpeg2_picture(picture);
}

Bytes with_crc(Bytes section) {
  const uint32_t crc = crc32_mpeg(section);
  put16(section, crc >> 16);
  put16(section, crc & 0xffff);
  return section;
}

Bytes section_packets(uint16_t pid, const Bytes &section, uint8_t first_counter) {
  Bytes out;
  const Bytes whole = join({{0}, section});  // the pointer field
  PacketOptions options;
  options.continuity = first_counter;
  for (size_t at = 0; at < whole.size(); at += kPacketSize - 4) {
    options.unit_start = at == 0;
    const size_t end = std::min(whole.size(), at + kPacketSize - 4);
    const Bytes part(whole.begin() + static_cast<std::ptrdiff_t>(at),
                     whole.begin() + static_cast<std::ptrdiff_t>(end));
    out = join({out, ts_packet(pid, part, options)});
    ++options.continuity;
  }
  return out;
}

Bytes pat_section(const std::vector<PatEntry> &entries, uint8_t version, bool current,
                  uint8_t number, uint8_t last) {
  Bytes body;
  for (const PatEntry &entry : entries) {
    put16(body, entry.programme);
    put16(body, 0xe000u | entry.pid);
  }
  return table(0x00, 1, version, current, number, last, body);
}

Bytes pmt_section(uint16_t programme, uint16_t pcr_pid, const std::vector<PmtEntry> &entries,
                  uint8_t version, bool current) {
  Bytes body;
  put16(body, 0xe000u | pcr_pid);
  put16(body, 0xf000u);
  for (const PmtEntry &entry : entries) {
    body.push_back(entry.stream_type);
    put16(body, 0xe000u | entry.pid);
    put16(body, 0xf000u | static_cast<unsigned>(entry.descriptors.size()));
    body.insert(body.end(), entry.descriptors.begin(), entry.descriptors.end());
  }
  return table(0x02, programme, version, current, 0, 0, body);
}

uint8_t stream_type(Codec codec) {
  return codec == Codec::kH264 ? 0x1b : codec == Codec::kH265 ? 0x24 : 0x02;
}

TestStream &TestStream::tables() {
  packets(section_packets(0, pat_section({{programme, pmt_pid}}, table_version), table_counter_));
  const Bytes pmt = pmt_section(
      programme, video_pid, {{stream_type(codec_), video_pid}, {0x03, audio_pid}}, table_version);
  packets(section_packets(pmt_pid, pmt, table_counter_));
  ++table_counter_;
  return *this;
}

TestStream &TestStream::packets(const Bytes &packets) {
  bytes_.insert(bytes_.end(), packets.begin(), packets.end());
  return *this;
}

TestStream &TestStream::foreign(unsigned count) {
  for (unsigned i = 0; i < count; ++i) packets(ts_packet(0x1ffe, repeat(0x55, 184)));
  return *this;
}

uint64_t TestStream::pes_packet(const Bytes &video, std::optional<uint64_t> stamp,
                                std::optional<uint64_t> decode_stamp) {
  Bytes unit = pes(0xe0, video, stamp, decode_stamp ? 10 : stamp ? 5 : 0);
  if (decode_stamp) {
    const Bytes dts = pes(0xe0, {}, decode_stamp);
    std::copy(dts.begin() + 9, dts.begin() + 14, unit.begin() + 14);
    unit[7] = 0xc0;
  }
  Bytes carried = packetise(video_pid, unit, video_counter_);
  const uint64_t first = count();
  for (size_t at = 0; at < carried.size(); at += kPacketSize) {
    if (interleave != 0 && at > 0 && at / kPacketSize % interleave == 0) foreign();
    carried[at + 3] = static_cast<uint8_t>(carried[at + 3] | scrambling << 6);
    packets(Bytes(carried.begin() + static_cast<std::ptrdiff_t>(at),
                  carried.begin() + static_cast<std::ptrdiff_t>(at + kPacketSize)));
    video_counter_ = static_cast<uint8_t>((video_counter_ + 1) & 15);
  }
  return first;
}

TestStream &TestStream::picture(const TestPicture &picture, int shown) {
  const uint64_t stamp =
      (pts + static_cast<uint64_t>(static_cast<int64_t>(shown) * static_cast<int64_t>(duration))) &
      0x1ffffffffULL;
  const std::optional<uint64_t> carried = stamps ? std::optional(stamp) : std::nullopt;
  const uint64_t first = pes_packet(coded_picture(codec_, picture, field_coding), carried);
  if (picture.type == 'I') entries_.push_back({first, count() - 1, stamp});
  return *this;
}

TestStream &TestStream::gop(unsigned pictures, const TestPicture &first) {
  for (unsigned i = 0; i < pictures; ++i) {
    TestPicture next = first;
    next.number = i;
    if (i > 0) {
      next.type = 'P';
      next.recovery_point = false;
    }
    picture(next, static_cast<int>(i));
  }
  pts = (pts + pictures * duration) & 0x1ffffffffULL;
  return *this;
}

Bytes as_192(const Bytes &packets) {
  Bytes out;
  for (size_t at = 0; at < packets.size(); at += kPacketSize) {
    out.insert(out.end(), {0x47, 0x12, 0x34, 0x56});
    out.insert(out.end(), packets.begin() + static_cast<std::ptrdiff_t>(at),
               packets.begin() + static_cast<std::ptrdiff_t>(at + kPacketSize));
  }
  return out;
}

Bytes as_204(const Bytes &packets) {
  Bytes out;
  for (size_t at = 0; at < packets.size(); at += kPacketSize) {
    out.insert(out.end(), packets.begin() + static_cast<std::ptrdiff_t>(at),
               packets.begin() + static_cast<std::ptrdiff_t>(at + kPacketSize));
    out.insert(out.end(), 16, 0xee);
  }
  return out;
}

}  // namespace plexa_test
