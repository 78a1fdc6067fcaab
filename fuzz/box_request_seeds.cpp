// box_request_seeds.cpp - what a television says: whole visits to the box, from OPEN to CLOSE.
#include <algorithm>
#include <initializer_list>
#include <string>

#include "gst_socket_protocol.h"
#include "seeds.h"

namespace {

using namespace plexa;
using plexa_fuzz::Bytes;

template <class Record>
Bytes bytes_of(const Record &record) {
  const auto *const bytes = reinterpret_cast<const uint8_t *>(&record);
  return {bytes, bytes + sizeof record};
}

Bytes visit(std::initializer_list<Bytes> requests) {
  Bytes all;
  for (const Bytes &each : requests) all.insert(all.end(), each.begin(), each.end());
  return all;
}

Bytes bare(CommandType command) { return bytes_of(new_request<BareRequest>(command)); }

Bytes open(const char *path, const GstSocketOpenFlags &flags) {
  auto request = new_request<OpenRequest>(COMMAND_TYPE_OPEN);
  put_path(request.path, path);
  put_path(request.path_2, path);
  request.flags = flags;
  return bytes_of(request);
}

Bytes read(guint32 size) {
  auto request = new_request<ReadRequest>(COMMAND_TYPE_READ);
  request.size = size;
  return bytes_of(request);
}

Bytes write(guint32 total, size_t size) {
  auto request = new_request<WriteRequest>(COMMAND_TYPE_WRITE);
  request.header.packet_size += static_cast<gint32>(size);
  request.total = total;
  Bytes packet = bytes_of(request);
  packet.resize(packet.size() + size, 0x47);
  return packet;
}

Bytes seek(gint64 offset, gint32 whence) {
  auto request = new_request<SeekRequest>(COMMAND_TYPE_SEEK);
  request.offset = offset;
  request.whence = whence;
  return bytes_of(request);
}

Bytes max_time(gint64 time) {
  auto request = new_request<MaxTimeRequest>(COMMAND_TYPE_SET_MAX_TIME);
  request.time = time;
  return bytes_of(request);
}

Bytes wrote_time(guint32 time) {
  auto request = new_request<WroteTimeRequest>(COMMAND_TYPE_SET_WROTE_TIME);
  request.time = time;
  return bytes_of(request);
}

Bytes rename_file(const char *from, const char *to) {
  auto request = new_request<RenameRequest>(COMMAND_TYPE_RENAME);
  put_path(request.old_path, from);
  put_path(request.new_path, to);
  return bytes_of(request);
}

Bytes cut(const char *path, gint64 start, gint64 end, const char *name) {
  auto request = new_request<CutFileRequest>(COMMAND_TYPE_CUT_FILE);
  put_path(request.cut.kvf_file_name, path);
  request.cut.start_offset = start;
  request.cut.end_offset = end;
  put_path(request.cut.second_file_name, name);
  request.cut.has_second_file_name = name != nullptr ? 1 : 0;
  return bytes_of(request);
}

Bytes remove_file(const char *path) {
  Bytes packet = bare(COMMAND_TYPE_ROMOVE_FILE);
  packet.resize(packet.size() + kPathField);
  packet[0] = static_cast<uint8_t>(packet.size());
  packet[1] = static_cast<uint8_t>(packet.size() >> 8);
  std::copy_n(path, std::char_traits<char>::length(path), packet.begin() + sizeof(header_data_s));
  return packet;
}

}  // namespace

std::vector<plexa_fuzz::Bytes> plexa_fuzz::seeds() {
  return {
      visit({open("/a.kvf", {1, 0, 0, 0}), read(100000), seek(-5000, 2), read(65536), read(0),
             bare(COMMAND_TYPE_TELL), bare(COMMAND_TYPE_SIZE), bare(COMMAND_TYPE_CLOSE)}),
      visit({open("/new/film.kvf", {0, 0, 0, 0}), write(5000, 2000), write(5000, 3000),
             bare(COMMAND_TYPE_FSYNC), seek(10, 0), write(188, 188), bare(COMMAND_TYPE_CLOSE)}),
      visit({open("/a.kvf", {0, 1, 1, 0}), max_time(360000), wrote_time(1000), write(4096, 4096),
             bare(COMMAND_TYPE_GET_MAX_TIME), bare(COMMAND_TYPE_CLOSE)}),
      visit({open("/a.mdb", {1, 0, 1, 1}), read(4088), seek(100, 1)}),
      visit({rename_file("/a.kvf", "/c.kvf"), rename_file("/none.kvf", "/../d.kvf")}),
      visit({cut("/b.kvf", 0, 192512, "/short.kvf"), cut("/a.kvf", -1, 1, nullptr)}),
      visit({remove_file("/b.kvf"), bare(COMMAND_TYPE_IOCTL), bare(COMMAND_TYPE_CHOWN)}),
  };
}
