// index_maker.cpp - rebuild_index() and repair_index(): an index for a stream file that exists.
//
// Either way the work is done in a file beside the index, which replaces it only when it is
// complete and on the disk. Thread-safe for different recordings.
#include "recorder.h"
#include "sound_records.h"
#include "stream_scan.h"

namespace plexa::rec {
namespace {

Outcome rebuild(const std::string &stream_path, const Options &options) {
  StreamScan scan(options);
  std::string problem = scan.open(stream_path);
  if (problem.empty()) problem = scan.choose_programme();
  if (!problem.empty()) return failure(problem);
  NewIndex new_index;
  problem = new_index.create(scan.paths().index);
  if (!problem.empty()) return failure(problem);
  IndexWriter index;
  if (!index.create(new_index.path(), options.layout)) {
    return failure("'" + new_index.path() + "' cannot be written: " + error_text(index.error()));
  }
  StreamIndexer indexer(scan.probe().start());
  return complete_index(scan, indexer, index, new_index, 0);
}

Outcome nothing_to_repair(const SoundRecords &records, const StreamScan &scan) {
  Outcome outcome;
  outcome.ok = true;
  outcome.summary.packets = scan.packets();
  outcome.summary.bytes = scan.packets() * kPacketSize;
  outcome.summary.gops = records.count();
  outcome.summary.duration_ms = records.duration();
  outcome.summary.channels = static_cast<unsigned>(records.channels().size());
  outcome.summary.note = "the index is sound";
  return outcome;
}

// Begins with the last sound record: whether it was closed by what follows, or by the crash, only
// the stream can tell.
StreamIndexer::Start start_at_last(const SoundRecords &records, const StreamScan &scan,
                                   const Options &options) {
  StreamIndexer::Start start = scan.probe().start();
  start.tables.expect_anew();
  start.channels = records.channels();
  start.channel = records.channels()[records.last().index_of_channel];
  const Programme *const programme = start.tables.find_by_video(start.channel->video_pid);
  if (programme != nullptr && options.program == 0) start.programme = programme->number;
  start.time = records.last().time_code;
  start.resumed = true;
  return start;
}

Outcome repair(const std::string &stream_path, const Options &options) {
  SoundRecords records;
  Options anew = options;
  {
    StreamScan scan(options);
    std::string problem = scan.open(stream_path);
    if (!problem.empty()) return failure(problem);
    problem = refuse_special_file(scan.paths().index);  // a pipe would be waited for
    if (!problem.empty()) return failure(problem);
    records.load(scan.paths().index, scan);
    if (records.tells_layout()) anew.layout = records.layout();
    if (records.is_complete()) return nothing_to_repair(records, scan);
    if (records.count() > 0) {
      problem = scan.choose_programme();
      if (!problem.empty()) return failure(problem);
      NewIndex new_index;
      problem = new_index.create(scan.paths().index);
      if (!problem.empty()) return failure(problem);
      IndexWriter index;
      if (!index.create_from(new_index.path(), records.layout(), records.head(),
                             records.bytes_before_last(), records.channels().size())) {
        return failure("'" + new_index.path() +
                       "' cannot be written: " + error_text(index.error()));
      }
      StreamIndexer indexer(start_at_last(records, scan, options));
      return complete_index(scan, indexer, index, new_index, records.last().packet_count);
    }
  }
  return rebuild(stream_path, anew);
}

}  // namespace

Outcome rebuild_index(const std::string &stream_path, const Options &options) {
  return guarded([&] { return rebuild(stream_path, options); });
}

Outcome repair_index(const std::string &stream_path, const Options &options) {
  return guarded([&] { return repair(stream_path, options); });
}

}  // namespace plexa::rec
