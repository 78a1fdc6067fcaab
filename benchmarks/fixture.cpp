// fixture.cpp - see fixture.h.
#include "fixture.h"

#include <gst-plexa/gst_index_parser.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

namespace plexa_bench {
namespace {

std::string absolute(const std::string &name) {
  return (std::filesystem::canonical(std::filesystem::current_path()) / name).string();
}

}  // namespace

ScratchFile::ScratchFile(const std::string &name) : path_(absolute(name)) {}

ScratchFile::ScratchFile(const std::string &name, uint64_t size) : path_(absolute(name)) {
  std::ofstream out(path_, std::ios::binary | std::ios::trunc);
  std::vector<char> block(1 << 20);
  for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(i % 251);
  for (uint64_t at = 0; at < size; at += block.size()) {
    out.write(block.data(),
              static_cast<std::streamsize>(std::min<uint64_t>(block.size(), size - at)));
  }
  if (!out.flush()) {
    std::perror(path_.c_str());
    std::exit(1);
  }
}

ScratchFile::~ScratchFile() { std::remove(path_.c_str()); }

void write_index(const std::string &path, uint32_t gops, uint32_t iframe_packets) {
  std::vector<pvr_gop_info_s> records(gops);
  for (uint32_t i = 0; i < gops; ++i) {
    pvr_gop_info_s &gop = records[i];
    std::memset(&gop, 0, sizeof gop);
    gop.time_code = i * 500;
    gop.pts = uint64_t{i} * 45000;
    gop.packet_count = uint64_t{i} * 1000;
    gop.iframe_size = iframe_packets;
    gop.video_pid = 0x100;
    gop.last_frame_time = gop.time_code + 460;
    gop.last_frame_packet_count = gop.packet_count + 999;
    gop.exist_seq_header = 1;
    gop.next_gop_first_time = gop.time_code + 500;
    gop.next_gop_first_packet_count = gop.packet_count + 1000;
    gop.next_gop_pts = gop.pts + 45000;
  }
  pvr_base_table_s base;
  std::memset(&base, 0, sizeof base);
  base.mdb_version = MDB_VERSION;
  base.end_time_code = gops * 500;
  base.total_size = uint64_t{gops} * 188000;
  base.channel_info_size = sizeof(pvr_channel_info_s);
  std::vector<pvr_channel_info_s> channels(GST_INDEX_CHANNEL_SLOTS);
  std::memset(channels.data(), 0, channels.size() * sizeof channels[0]);
  channels[0].video_pid = 0x100;
  channels[0].video_encode_type = 1;
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char *>(&base), sizeof base);
  out.write(reinterpret_cast<const char *>(channels.data()),
            static_cast<std::streamsize>(channels.size() * sizeof channels[0]));
  out.write(reinterpret_cast<const char *>(records.data()),
            static_cast<std::streamsize>(records.size() * sizeof records[0]));
  if (!out.flush()) {
    std::perror(path.c_str());
    std::exit(1);
  }
}

}  // namespace plexa_bench
