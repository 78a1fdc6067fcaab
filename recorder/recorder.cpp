// recorder.cpp - record(): from packets of any kind to a stream file with its index.
//
// The order of the writes is what makes a recording safe: packets first, then the records of the
// GOPs that lie wholly within them. So at every moment the index speaks only of what is there.
#include "recorder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "index_writer.h"
#include "input.h"
#include "output_file.h"
#include "packet_grid.h"
#include "paths.h"
#include "probe.h"
#include "session.h"
#include "stream_indexer.h"
#include "stream_writer.h"
#include "timeshift_writer.h"
#include "write_behind.h"

namespace plexa::rec {
namespace {

constexpr size_t kBlock = size_t{256} << 10;  // one read
constexpr uint64_t kWriteback = uint64_t{16} << 20;
constexpr size_t kMostHeld = size_t{64} << 20;  // held back until the input has proved good
constexpr size_t kPacedBlock = size_t{32} << 10;

class Recording {
 public:
  Recording(int fd, const Options &options)
      : input_(fd, options.stop, options.follow),
        fd_(fd),
        options_(options),
        probe_(options.program),
        progress_(options),
        pace_(options.speed, options.stop),
        timeshift_(options.timeshift ? std::make_unique<TimeshiftWriter>(*options.timeshift)
                                     : nullptr),
        observer_(options.timeshift ? options.timeshift->observer : nullptr) {}

  Outcome run(const std::string &stream_path);

 private:
  std::string check_options() const;
  std::string check_outputs();
  std::string refuse_output(const std::string &path) const;
  bool take_input();
  bool take_packets(const uint8_t *data, size_t count, bool is_live);
  bool hold(const uint8_t *data, size_t count);
  void begin_indexing();
  bool begin_recording();
  void remove_old_thumbnails() const;
  bool create_files();
  bool create_stream();
  PacketStore &store();
  bool append_stored();
  void start_writeback();
  bool append_gops(uint64_t stored);
  void stream_failed();
  void end_input();
  void fill_unit();
  void tell_end();
  Outcome end_recording();
  void describe_buffer(Summary &summary) const;
  Outcome refused();
  void remove_files();

  Input input_;
  int fd_;
  const Options &options_;
  Probe probe_;
  ProgressReport progress_;
  Pace pace_;
  RecordingPaths paths_;
  RecordingLock old_lock_;  // on what is overwritten
  RecordingLock lock_;
  PacketGrid grid_;
  std::vector<uint8_t> held_;
  std::unique_ptr<StreamIndexer> indexer_;
  StreamWriter ordinary_;
  std::unique_ptr<TimeshiftWriter> timeshift_;  // null: an ordinary recording
  TimeshiftObserver *observer_;
  WriteBehind writer_{store(), kBlock + PacketGrid::kMostKept};
  IndexWriter index_;
  bool recording_ = false;       // the files exist
  uint64_t packets_ = 0;         // taken from the input
  uint64_t handed_to_disk_ = 0;  // bytes of the stream file
  std::string error_;            // what made the work impossible
  std::string ended_by_;         // what ended the recording before the input did
  bool disk_full_ = false;
  bool observed_ = false;  // the observer was told that the recording began
};

PacketStore &Recording::store() {
  if (timeshift_) return *timeshift_;
  return ordinary_;
}

Outcome Recording::run(const std::string &stream_path) {
  error_ = check_options();
  if (error_.empty()) error_ = resolve_recording(stream_path, paths_);
  if (error_.empty()) error_ = check_outputs();
  if (!error_.empty()) return failure(error_);
  const bool input_is_good = take_input();
  if (!error_.empty()) return failure(error_);
  if (input_is_good) end_input();
  if (!error_.empty()) return failure(error_);
  return recording_ ? end_recording() : refused();
}

// --- the outputs, before anything is touched

std::string Recording::check_options() const {
  if (!options_.timeshift) return "";
  // On a companion box as well: it makes the cuts itself.
  if (options_.layout != Layout::kCurrent) {
    return "a time-shift recording has the current index layout";
  }
  const int64_t most = options_.timeshift->max_time_ms;
  if (gst_pvr_file_get_calculated_max_time(most, nullptr) == 0) {
    return "a time-shift recording holds at least 6 minutes";
  }
  return "";
}

std::string Recording::check_outputs() {
  for (const std::string &path : {paths_.stream, paths_.index}) {
    std::string problem = refuse_output(path);
    if (!problem.empty()) return problem;
  }
  if (!old_lock_.acquire(paths_.stream))
    return "'" + paths_.stream + "' is being recorded or indexed";
  return "";
}

std::string Recording::refuse_output(const std::string &path) const {
  if (is_box_in_use()) {
    const bool refused = !options_.overwrite && OutputFile::exists(path);
    return refused ? "'" + path + "' exists already" : "";
  }
  struct stat there = {};
  if (lstat(path.c_str(), &there) != 0) return "";
  if (!S_ISREG(there.st_mode)) return "'" + path + "' is not a regular file";
  struct stat input = {};
  const bool known = fstat(fd_, &input) == 0;
  if (known && input.st_dev == there.st_dev && input.st_ino == there.st_ino) {
    return "'" + path + "' is the input itself";
  }
  if (!options_.overwrite) return "'" + path + "' exists already";
  return "";
}

// --- the input

// False: the recording has to end here (error_ or ended_by_ says why, or it was refused).
bool Recording::take_input() {
  std::vector<uint8_t> rest;  // bytes of packets that are not whole yet
  const size_t most = options_.speed > 0 ? kPacedBlock : kBlock;
  for (;;) {
    uint8_t *const block = writer_.block();
    std::copy(rest.begin(), rest.end(), block);
    const int64_t got = input_.read(block + rest.size(), most);
    if (got < 0) {
      ended_by_ = "the input cannot be read: " + error_text(errno);
      return true;
    }
    const size_t size = rest.size() + static_cast<size_t>(got);
    const PacketGrid::Packets found = grid_.scan(block, size, got == 0);
    rest.assign(block + found.consumed, block + size);
    const bool is_live = static_cast<size_t>(got) < most;
    if (!take_packets(found.data, found.count, is_live)) return false;
    if (got == 0) return true;
    const uint32_t time = indexer_ ? indexer_->gops().time() : 0;
    progress_.update(input_.taken(), input_.total(), time, index_.gops());
    pace_.wait_for(time);
  }
}

// `is_live`: the input gives no more at the moment, so that there is time to bring the files up to
// date.
bool Recording::take_packets(const uint8_t *data, size_t count, bool is_live) {
  if (count == 0) return true;
  if (observer_ != nullptr) observer_->taken(data, count);
  if (!recording_) return hold(data, count);
  indexer_->packets(data, count, packets_);
  packets_ += count;
  writer_.hand_over(data, count * kPacketSize);
  if (is_live) writer_.drain();
  return append_stored();
}

// Until the first I-picture is found the packets stay in memory, so that an input which cannot be
// recorded leaves nothing behind.
bool Recording::hold(const uint8_t *data, size_t count) {
  held_.insert(held_.end(), data, data + count * kPacketSize);
  if (indexer_) {
    indexer_->packets(data, count, packets_);
  } else if (probe_.packets(data, count)) {
    begin_indexing();
  }
  packets_ += count;
  if (indexer_ && indexer_->gops().has_gop()) return begin_recording();
  return held_.size() < kMostHeld;
}

void Recording::begin_indexing() {
  indexer_ = std::make_unique<StreamIndexer>(probe_.start());
  indexer_->packets(held_.data(), held_.size() / kPacketSize, 0);
}

void Recording::end_input() {
  if (!indexer_ && probe_.finish()) begin_indexing();
  if (!indexer_) return;
  if (timeshift_) fill_unit();
  indexer_->finish(packets_);
  if (!recording_ && indexer_->gops().has_gop()) begin_recording();
}

// A buffer takes whole units only: null packets fill up the last one.
void Recording::fill_unit() {
  const size_t count = TimeshiftWriter::filling(packets_);
  if (count == 0 || !error_.empty()) return;
  uint8_t *const block = writer_.block();
  for (size_t i = 0; i < count; ++i) make_null_packet(block + i * kPacketSize);
  take_packets(block, count, false);
}

Outcome Recording::refused() {
  const std::string input = "the input ";
  if (input_.taken() == 0 && !ended_by_.empty()) return failure(ended_by_);
  if (input_.stopped()) return failure("stopped before the first I-picture had come");
  if (input_.taken() == 0) return failure(input + "is empty");
  if (!grid_.found()) return failure(input + "is not an MPEG transport stream");
  return failure(input + probe_.refusal(indexer_.get()));
}

// --- the recording

bool Recording::begin_recording() {
  recording_ = create_files();
  if (!recording_) return false;
  const std::vector<uint8_t> held = std::exchange(held_, {});
  if (!store().write(held.data(), held.size())) {
    stream_failed();
    return false;
  }
  writer_.start();
  return append_stored();
}

// They show what is overwritten. One that cannot go stays behind: they are no part of the
// recording.
void Recording::remove_old_thumbnails() const {
  if (!options_.overwrite || is_box_in_use()) return;
  const std::string stem = paths_.stream.substr(0, paths_.stream.rfind('.'));
  for (const char *const extension : {".tm", ".thm"}) unlink((stem + extension).c_str());
}

bool Recording::create_files() {
  remove_old_thumbnails();
  // An old index must not stand beside a new stream, not even for a moment.
  for (const std::string &path : {paths_.index, paths_.stream}) {
    if (is_box_in_use()) continue;  // it makes and empties what is opened for writing
    const int removed = options_.overwrite ? unlink(path.c_str()) : 0;
    const int error = removed != 0 && errno != ENOENT ? errno : create_new_file(path);
    if (error == 0) continue;
    error_ = "cannot create '" + path + "': " + error_text(error);
    if (path == paths_.stream) unlink(paths_.index.c_str());
    return false;
  }
  if (!lock_.acquire(paths_.stream))
    error_ = "'" + paths_.stream + "' is being recorded or indexed";
  if (error_.empty() && !create_stream()) {
    error_ = "cannot write '" + paths_.stream + "': " + error_text(store().error());
  }
  if (error_.empty() && !index_.create(paths_.index, options_.layout)) {
    error_ = "cannot write '" + paths_.index + "': " + error_text(index_.error());
  }
  if (!error_.empty()) remove_files();
  if (error_.empty() && observer_ != nullptr) {
    observed_ = true;
    observer_->began(paths_.stream);
  }
  return error_.empty();
}

bool Recording::create_stream() {
  if (timeshift_) return timeshift_->create(paths_.stream);
  return ordinary_.create(paths_.stream, options_.direct && !is_box_in_use());
}

// Appends the GOPs that are stored by now. False: the recording has to end here.
bool Recording::append_stored() {
  if (writer_.failed()) {
    writer_.stop();
    stream_failed();
    return false;
  }
  start_writeback();
  if (!append_gops(writer_.stored_packets())) return false;
  if (!indexer_->gops().is_full()) return true;
  ended_by_ = "the longest time that an index can hold is reached";
  return false;
}

// Lets the disk begin with what is stored, so that the end of the recording, which has to wait for
// the disk, finds little left to do. Only a hint: what becomes of it shows there.
void Recording::start_writeback() {
  const uint64_t stored = writer_.stored_packets() * kPacketSize;
  if (options_.direct || timeshift_ || stored - handed_to_disk_ < kWriteback) return;
  sync_file_range(lock_.descriptor(), static_cast<off64_t>(handed_to_disk_),
                  static_cast<off64_t>(stored - handed_to_disk_), SYNC_FILE_RANGE_WRITE);
  handed_to_disk_ = stored;
}

void Recording::stream_failed() {
  disk_full_ = is_disk_full(store().error());
  ended_by_ = store().problem();
}

// The observer may still read what there is, while offsets mean what they did.
void Recording::tell_end() {
  if (!observed_) return;
  observed_ = false;
  timeshift_->settle();
  observer_->ended();
}

// Records speak of stored packets only.
bool Recording::append_gops(uint64_t stored) {
  indexer_->gops().settle(stored);
  while (const std::optional<Gop> gop = indexer_->gops().take(stored)) {
    if (index_.append(*gop, indexer_->channels())) {
      // The time that the library hears from the writer is never ahead of the index.
      if (timeshift_) timeshift_->set_time(index_.duration());
      continue;
    }
    disk_full_ = disk_full_ || is_disk_full(index_.error());
    if (ended_by_.empty()) ended_by_ = "the index takes no more: " + error_text(index_.error());
    return false;
  }
  return true;
}

Outcome Recording::end_recording() {
  writer_.stop();
  tell_end();
  if (!store().finish() && ended_by_.empty()) stream_failed();
  // The last GOPs have had to wait for their end; what the stream file does not hold is forgotten.
  indexer_->gops().truncate(store().packets());
  if (index_.error() == 0) append_gops(store().packets());
  if (index_.gops() == 0) {
    remove_files();
    return failure(ended_by_.empty() ? "no whole GOP was recorded"
                                     : ended_by_ + " (before the first GOP was complete)");
  }
  Outcome outcome;
  outcome.ok = index_.finish(store().packets() * kPacketSize);
  sync_folder(paths_.index);
  if (!outcome.ok) outcome.error = "the index cannot be completed: " + error_text(index_.error());
  outcome.summary = summarise(*indexer_, index_, store().packets());
  outcome.summary.resyncs = grid_.resyncs();
  outcome.summary.disk_full = disk_full_;
  if (timeshift_) describe_buffer(outcome.summary);
  add_note(outcome.summary.note, ended_by_);
  return outcome;
}

void Recording::describe_buffer(Summary &summary) const {
  summary.removed = timeshift_->removed();
  if (timeshift_->has_stopped_cutting()) {
    add_note(summary.note, "a cut failed and cutting stopped: the buffer grows beyond its time");
  }
  if (timeshift_->span() == 0) return;
  add_note(summary.note, "the disk was nearly full: the buffer was cut to " +
                             std::to_string(timeshift_->span() / 1000) + " s before its time");
}

void Recording::remove_files() {
  writer_.stop();
  tell_end();
  store().abandon();
  index_.abandon();
  if (is_box_in_use()) return;
  unlink(paths_.index.c_str());
  unlink(paths_.stream.c_str());
}

}  // namespace

Outcome record(int input_fd, const std::string &stream_path, const Options &options) {
  return guarded([&] { return Recording(input_fd, options).run(stream_path); });
}

}  // namespace plexa::rec
