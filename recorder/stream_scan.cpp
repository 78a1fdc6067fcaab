// stream_scan.cpp - see stream_scan.h. Not thread-safe.
#include "stream_scan.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "gst-plexa/gst_pvr_file.h"

namespace plexa::rec {
namespace {

constexpr size_t kBlockPackets = 1394;  // 256 KiB, which stay in the processor's cache

}  // namespace

StreamScan::StreamScan(const Options &options)
    : options_(options), probe_(options.program), progress_(options) {}

StreamScan::~StreamScan() {
  if (descriptor_ >= 0) close(descriptor_);
}

std::string StreamScan::open(const std::string &stream_path) {
  const std::string problem = resolve_recording(stream_path, paths_);
  if (!problem.empty()) return problem;
  const std::string name = "'" + paths_.stream + "' ";
  descriptor_ = ::open(paths_.stream.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  struct stat status = {};
  if (descriptor_ < 0 || fstat(descriptor_, &status) != 0) {
    return name + "cannot be opened: " + error_text(errno);
  }
  if (!S_ISREG(status.st_mode)) return name + "is not a regular file";
  if (!lock_.acquire(paths_.stream)) return name + "is being recorded or indexed";
  total_packets_ = static_cast<uint64_t>(status.st_size) / kPacketSize;
  if (total_packets_ == 0) return name + "holds no packet";
  input_ = std::make_unique<Input>(descriptor_, options_.stop, false);
  buffer_.resize(kBlockPackets * kPacketSize);
  return "";
}

bool StreamScan::packet(uint64_t number, uint8_t *packet) const {
  const auto at = static_cast<off_t>(number * kPacketSize);
  return number < total_packets_ &&
         pread(descriptor_, packet, kPacketSize, at) == static_cast<ssize_t>(kPacketSize);
}

std::string StreamScan::read_blocks(uint64_t first_packet, const Block &block) {
  if (!input_->rewind_to(static_cast<int64_t>(first_packet * kPacketSize))) {
    return "'" + paths_.stream + "' cannot be read: " + error_text(errno);
  }
  size_t size = 0;
  for (;;) {
    const int64_t got = input_->read(buffer_.data() + size, buffer_.size() - size);
    if (input_->stopped()) return "stopped; the index is as it was";
    if (got < 0) return "'" + paths_.stream + "' cannot be read: " + error_text(errno);
    if (got == 0) return "";
    size += static_cast<size_t>(got);
    const size_t count = size / kPacketSize;
    if (!block(buffer_.data(), count)) return "";
    // A short read may end inside a packet.
    const size_t rest = size - count * kPacketSize;
    std::copy(buffer_.data() + count * kPacketSize, buffer_.data() + size, buffer_.data());
    size = rest;
  }
}

std::string StreamScan::choose_programme() {
  const std::string problem = read_blocks(
      0, [&](const uint8_t *data, size_t count) { return !probe_.packets(data, count); });
  if (!problem.empty()) return problem;
  if (probe_.finish()) return "";
  return "'" + paths_.stream + "' " + probe_.refusal(nullptr);
}

std::string StreamScan::run(StreamIndexer &indexer, uint64_t first_packet,
                            const std::function<std::string()> &take, const IndexWriter &index) {
  uint64_t number = first_packet;
  std::string failed;
  const std::string problem = read_blocks(first_packet, [&](const uint8_t *data, size_t count) {
    indexer.packets(data, count, number);
    number += count;
    failed = take();
    progress_.update(number * kPacketSize, total_packets_ * kPacketSize, indexer.gops().time(),
                     index.gops());
    return failed.empty() && !indexer.gops().is_full();
  });
  total_packets_ = number;
  return problem.empty() ? failed : problem;
}

NewIndex::~NewIndex() {
  if (!path_.empty()) unlink(path_.c_str());
}

std::string refuse_special_file(const std::string &path) {
  struct stat there = {};
  if (lstat(path.c_str(), &there) != 0 || S_ISREG(there.st_mode)) return "";
  return "'" + path + "' is not a regular file";
}

std::string NewIndex::create(const std::string &index_path) {
  index_path_ = index_path;
  path_ = create_temporary_index(index_path);
  if (!path_.empty()) return "";
  return "no index can be created beside '" + index_path + "': " + error_text(errno);
}

std::string NewIndex::put_in_place() {
  const std::string problem = refuse_special_file(index_path_);
  if (!problem.empty()) return problem;
  GstPvrFile handle = {};
  gst_pvr_file_init(&handle);
  const bool renamed = gst_pvr_file_rename(&handle, path_.c_str(), index_path_.c_str()) == 1;
  const int error = errno;
  gst_pvr_file_deinit(&handle);
  if (!renamed) return "'" + index_path_ + "' cannot be replaced: " + error_text(error);
  path_.clear();
  sync_folder(index_path_);
  return "";
}

Outcome complete_index(StreamScan &scan, StreamIndexer &indexer, IndexWriter &index,
                       NewIndex &new_index, uint64_t first_packet) {
  const auto take = [&]() -> std::string {
    indexer.gops().settle(UINT64_MAX);
    while (const std::optional<Gop> gop = indexer.gops().take(UINT64_MAX)) {
      if (index.append(*gop, indexer.channels())) continue;
      return "'" + new_index.path() + "' cannot be written: " + error_text(index.error());
    }
    return "";
  };
  std::string problem = scan.run(indexer, first_packet, take, index);
  if (problem.empty()) {
    indexer.finish(scan.packets());
    problem = take();
  }
  if (!problem.empty()) return failure(problem);
  if (index.gops() == 0) {
    return failure("'" + scan.paths().stream + "' " + scan.probe().refusal(&indexer));
  }
  if (!index.finish(scan.packets() * kPacketSize)) {
    return failure("'" + new_index.path() + "' cannot be written: " + error_text(index.error()));
  }
  problem = new_index.put_in_place();
  if (!problem.empty()) return failure(problem);
  Outcome outcome;
  outcome.ok = true;
  outcome.summary = summarise(indexer, index, scan.packets());
  return outcome;
}

}  // namespace plexa::rec
