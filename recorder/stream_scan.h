// stream_scan.h - runs the indexer over a stream file that exists.
//
// Packets stand at multiples of 188 bytes there, or a player would not find them; packets without a
// sync byte are passed over but keep their number. One object serves one thread.
#ifndef PLEXA_RECORDER_STREAM_SCAN_H_
#define PLEXA_RECORDER_STREAM_SCAN_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "input.h"
#include "paths.h"
#include "probe.h"
#include "recorder.h"
#include "session.h"
#include "stream_indexer.h"

namespace plexa::rec {

class StreamScan {
 public:
  explicit StreamScan(const Options &options);
  ~StreamScan();
  StreamScan(const StreamScan &) = delete;
  StreamScan &operator=(const StreamScan &) = delete;

  // Opens the stream file and holds the recording. Like every function here: an empty result, or
  // one line that says what is wrong.
  std::string open(const std::string &stream_path);
  const RecordingPaths &paths() const { return paths_; }
  uint64_t packets() const { return total_packets_; }  // of the file when it was opened

  // The packet with this number; false when there is none, or it cannot be read.
  bool packet(uint64_t number, uint8_t *packet) const;

  // Chooses the programme by the packets at the beginning.
  std::string choose_programme();
  const Probe &probe() const { return probe_; }

  // Looks through the file from this packet on. `take` is called after every block.
  std::string run(StreamIndexer &indexer, uint64_t first_packet,
                  const std::function<std::string()> &take, const IndexWriter &index);

 private:
  using Block = std::function<bool(const uint8_t *data, size_t count)>;
  std::string read_blocks(uint64_t first_packet, const Block &block);

  const Options &options_;
  RecordingPaths paths_;
  RecordingLock lock_;
  std::unique_ptr<Input> input_;
  int descriptor_ = -1;
  uint64_t total_packets_ = 0;
  Probe probe_;
  ProgressReport progress_;
  std::vector<uint8_t> buffer_;
};

// Why no index can stand under this name: a directory or a pipe has it. Empty: one can.
std::string refuse_special_file(const std::string &path);

// What stands in the index's place until it is complete. Removed unless it was put in place.
class NewIndex {
 public:
  ~NewIndex();
  std::string create(const std::string &index_path);
  const std::string &path() const { return path_; }
  // Renames it over the old index.
  std::string put_in_place();

 private:
  std::string path_;
  std::string index_path_;
};

// Runs the indexer to the end and completes `index`, which stands in `new_index`.
Outcome complete_index(StreamScan &scan, StreamIndexer &indexer, IndexWriter &index,
                       NewIndex &new_index, uint64_t first_packet);

}  // namespace plexa::rec

#endif  // PLEXA_RECORDER_STREAM_SCAN_H_
