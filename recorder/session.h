// session.h - what making a recording and making an index have in common.
#ifndef PLEXA_RECORDER_SESSION_H_
#define PLEXA_RECORDER_SESSION_H_

#include <atomic>
#include <chrono>
#include <functional>
#include <string>

#include "index_writer.h"
#include "input.h"
#include "recorder.h"
#include "stream_indexer.h"

namespace plexa::rec {

// GStreamer's parsers want it initialised. False: it cannot be.
bool prepare_gstreamer();

Outcome failure(const std::string &error);

// Runs `work`; what it throws (memory, that is) becomes a failure.
Outcome guarded(const std::function<Outcome()> &work);

// Tells the caller's progress function how far the work is, about ten times a second.
class ProgressReport {
 public:
  explicit ProgressReport(const Options &options) : options_(options) {}
  void update(uint64_t bytes_in, uint64_t bytes_total, uint32_t recorded_ms, uint64_t gops);

 private:
  const Options &options_;
  std::chrono::steady_clock::time_point next_{};
};

// Holds a recording back to a multiple of the time that it tells.
class Pace {
 public:
  // `speed` 0: as fast as it goes. `stop` ends every wait.
  Pace(double speed, const std::atomic<bool> *stop) : speed_(speed), stop_(stop) {}
  // The recording has reached this time; waits for the clock to reach it, too.
  void wait_for(uint32_t recorded_ms);

 private:
  using Clock = std::chrono::steady_clock;
  const double speed_;
  const std::atomic<bool> *const stop_;
  Clock::time_point start_{};
  bool started_ = false;
};

Summary summarise(const StreamIndexer &indexer, const IndexWriter &index, uint64_t packets);

// Appends `text` to the note, which stays one line.
void add_note(std::string &note, const std::string &text);

}  // namespace plexa::rec

#endif  // PLEXA_RECORDER_SESSION_H_
