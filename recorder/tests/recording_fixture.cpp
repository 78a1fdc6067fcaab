// recording_fixture.cpp - see recording_fixture.h.
#include "recording_fixture.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <thread>

#include "index_writer.h"

namespace plexa_test {

using ::testing::AssertionFailure;
using ::testing::AssertionResult;
using ::testing::AssertionSuccess;

IndexFile IndexFile::read(const std::string &path) {
  IndexFile out;
  const Bytes bytes = read_file(path);
  if (bytes.size() < sizeof out.base) return out;
  std::memcpy(&out.base, bytes.data(), sizeof out.base);
  out.legacy = out.base.channel_info_size == 256;
  const size_t size = out.legacy ? 100 : 104;
  size_t at = out.base.gop_start_offset;
  for (; at + size <= bytes.size(); at += size) {
    pvr_gop_info_s gop{};
    std::memcpy(&gop, bytes.data() + at, std::min(size, sizeof gop));
    out.gops.push_back(gop);
  }
  out.torn_bytes = bytes.size() > at ? bytes.size() - at : 0;
  return out;
}

namespace {

bool begins_picture(const Bytes &stream, const pvr_gop_info_s &gop) {
  const size_t at = gop.packet_count * kPacketSize;
  if (at + kPacketSize > stream.size()) return false;
  const uint8_t *const packet = stream.data() + at;
  return packet[0] == 0x47 && plexa::rec::packet_pid(packet) == gop.video_pid &&
         plexa::rec::packet_starts_unit(packet);
}

std::string index_path(const std::string &stream) {
  return stream.substr(0, stream.rfind('.')) + ".mdb";
}

AssertionResult gop_is_sound(const IndexFile &index, size_t number, const Bytes &stream) {
  const pvr_gop_info_s &gop = index.gops[number];
  const auto failed = [&](const char *what) {
    return AssertionFailure() << what << " of GOP " << number << " (packet " << gop.packet_count
                              << ", time " << gop.time_code << ")";
  };
  const uint64_t packets = stream.size() / kPacketSize;
  if (!begins_picture(stream, gop)) return failed("the packet");
  if (gop.iframe_size == 0 || gop.packet_count + gop.iframe_size > packets)
    return failed("the I-frame");
  if (gop.next_gop_first_packet_count <= gop.packet_count ||
      gop.next_gop_first_packet_count > packets) {
    return failed("the next packet");
  }
  if (gop.next_gop_first_time <= gop.time_code) return failed("the next time");
  if (gop.last_frame_time < gop.time_code || gop.last_frame_time > gop.next_gop_first_time) {
    return failed("the last frame's time");
  }
  if (gop.last_frame_packet_count < gop.packet_count ||
      gop.last_frame_packet_count > gop.next_gop_first_packet_count) {
    return failed("the last frame's packet");
  }
  if (number == 0) return gop.time_code == 0 ? AssertionSuccess() : failed("the first time");
  const pvr_gop_info_s &before = index.gops[number - 1];
  if (before.next_gop_first_packet_count != gop.packet_count ||
      before.next_gop_first_time != gop.time_code || before.next_gop_pts != gop.pts) {
    return failed("the link to");
  }
  return AssertionSuccess();
}

}  // namespace

AssertionResult is_usable(const std::string &stream, bool whole) {
  const Bytes bytes = read_file(stream);
  const IndexFile index = IndexFile::read(index_path(stream));
  if (whole && bytes.size() % kPacketSize != 0) return AssertionFailure() << "a torn packet";
  if (whole && index.torn_bytes != 0) return AssertionFailure() << "a torn record";
  if (whole && index.gops.empty()) return AssertionFailure() << "no GOP";
  for (size_t i = 0; i < index.gops.size(); ++i) {
    const AssertionResult sound = gop_is_sound(index, i, bytes);
    if (!sound) return sound;
  }
  if (!whole) return AssertionSuccess();
  if (index.base.end_time_code != index.gops.back().next_gop_first_time) {
    return AssertionFailure() << "end time " << index.base.end_time_code;
  }
  if (index.base.total_size != bytes.size()) {
    return AssertionFailure() << "total size " << index.base.total_size;
  }
  return AssertionSuccess();
}

namespace {

class Parser {
 public:
  explicit Parser(const std::string &path) : path_(path) {
    gst_pvr_file_init(&file_);
    gst_pvr_file_open(&file_, path_.c_str(), GST_PVR_FILE_READ, GST_PVR_FILE_BUFFER_IO,
                      GST_PVR_FILE_NORMAL, GST_PVR_FILE_INDEX, 0, 0);
    gst_index_parser_init(&parser_, &file_);
    gst_index_parser_set_mdb_file_type(&parser_, path_.c_str());
    started_ = gst_index_parser_start(&parser_) == 1;
  }
  ~Parser() {
    gst_index_parser_stop(&parser_);
    gst_pvr_file_close(&file_);
    gst_pvr_file_deinit(&file_);
  }
  Parser(const Parser &) = delete;
  Parser &operator=(const Parser &) = delete;

  bool started() const { return started_; }
  GstIndexParser *get() { return &parser_; }

 private:
  std::string path_;
  GstPvrFile file_{};
  GstIndexParser parser_{};
  bool started_ = false;
};

AssertionResult lookup_finds(GstIndexParser *parser, const frameData &found,
                             const pvr_gop_info_s &gop, const Bytes &stream) {
  if (found.is_valid == 0) return AssertionFailure() << "nothing found";
  if (found.stream_offset != gop.packet_count * kPacketSize || found.timecode != gop.time_code ||
      found.length != gop.iframe_size * kPacketSize || found.pts != gop.pts) {
    return AssertionFailure() << "another GOP found, at " << found.stream_offset;
  }
  pvr_channel_info_s channel{};
  if (!gst_index_parser_get_channel_info_by_index(parser, static_cast<gint16>(found.channel_index),
                                                  &channel)) {
    return AssertionFailure() << "no channel " << found.channel_index;
  }
  const uint8_t *const packet = stream.data() + found.stream_offset;
  if (packet[0] != 0x47 || plexa::rec::packet_pid(packet) != channel.video_pid ||
      !plexa::rec::packet_starts_unit(packet)) {
    return AssertionFailure() << "no picture of PID " << channel.video_pid << " begins there";
  }
  return AssertionSuccess();
}

}  // namespace

AssertionResult lookups_find_every_gop(const std::string &stream) {
  const Bytes bytes = read_file(stream);
  const IndexFile index = IndexFile::read(index_path(stream));
  Parser parser(index_path(stream));
  if (!parser.started()) return AssertionFailure() << "the parser does not start";
  if (gst_index_parser_get_max_gop_index(parser.get()) != static_cast<gint32>(index.gops.size())) {
    return AssertionFailure() << "another number of GOPs";
  }
  for (const pvr_gop_info_s &gop : index.gops) {
    const frameData by_time =
        gst_index_parser_get_iframe_by_time(parser.get(), static_cast<gint32>(gop.time_code), 0);
    const AssertionResult timed = lookup_finds(parser.get(), by_time, gop, bytes);
    if (!timed) return AssertionFailure() << "at " << gop.time_code << " ms: " << timed.message();
    const auto offset = static_cast<gint64>(gop.packet_count * kPacketSize);
    const frameData by_offset = gst_index_parser_get_iframe_by_offset(parser.get(), offset, 0);
    const AssertionResult placed = lookup_finds(parser.get(), by_offset, gop, bytes);
    if (!placed) return AssertionFailure() << "at byte " << offset << ": " << placed.message();
  }
  return AssertionSuccess();
}

Outcome RecordingTest::record(const Bytes &bytes, const Options &options) {
  write_file(input(), bytes);
  const OpenFile in(input());
  return plexa::rec::record(in.fd(), stream(), options);
}

Outcome RecordingTest::record_pipe(const Bytes &bytes, size_t piece, const Options &options) {
  int ends[2] = {-1, -1};
  if (pipe(ends) != 0) return {};
  std::thread writer([&] {
    for (size_t at = 0; at < bytes.size();) {
      const ssize_t wrote = ::write(ends[1], bytes.data() + at, std::min(piece, bytes.size() - at));
      if (wrote <= 0) break;
      at += static_cast<size_t>(wrote);
    }
    close(ends[1]);
  });
  const Outcome outcome = plexa::rec::record(ends[0], stream(), options);
  // A recording that ends early leaves the writer to finish its piece.
  Bytes rest(1 << 16);
  while (read(ends[0], rest.data(), rest.size()) > 0) {
  }
  close(ends[0]);
  writer.join();
  return outcome;
}

std::vector<std::string> RecordingTest::files() const {
  std::vector<std::string> out;
  for (const auto &entry : std::filesystem::directory_iterator(dir_.path())) {
    if (entry.path() != input()) out.push_back(entry.path().filename());
  }
  std::sort(out.begin(), out.end());
  return out;
}

void RecordingTest::remove_recording() {
  std::filesystem::remove(stream());
  std::filesystem::remove(index());
}

OpenFile::OpenFile(const std::string &path) : fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}

OpenFile::~OpenFile() {
  if (fd_ >= 0) close(fd_);
}

}  // namespace plexa_test
