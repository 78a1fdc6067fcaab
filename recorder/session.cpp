// session.cpp - see session.h. Thread-safe but for the progress report.
#include "session.h"

#define GST_USE_UNSTABLE_API
#include <gst/gst.h>
#include <gst/mpegts/mpegts.h>

#include <algorithm>
#include <exception>
#include <mutex>
#include <new>
#include <thread>

namespace plexa::rec {

bool prepare_gstreamer() {
  static std::once_flag once;
  static bool ready = false;
  std::call_once(once, [] {
    ready = gst_init_check(nullptr, nullptr, nullptr) != FALSE;
    if (ready) gst_mpegts_initialize();
  });
  return ready;
}

Outcome failure(const std::string &error) {
  Outcome outcome;
  outcome.error = error;
  return outcome;
}

Outcome guarded(const std::function<Outcome()> &work) {
  try {
    if (!prepare_gstreamer()) return failure("GStreamer cannot be initialised");
    return work();
  } catch (const std::bad_alloc &) {
    return failure("out of memory");
  } catch (const std::exception &error) {
    return failure(error.what());
  }
}

void ProgressReport::update(uint64_t bytes_in, uint64_t bytes_total, uint32_t recorded_ms,
                            uint64_t gops) {
  if (!options_.progress) return;
  const auto now = std::chrono::steady_clock::now();
  if (now < next_) return;
  next_ = now + std::chrono::milliseconds(100);
  options_.progress(Progress{bytes_in, bytes_total, recorded_ms, gops});
}

void Pace::wait_for(uint32_t recorded_ms) {
  constexpr std::chrono::milliseconds kPatience{50};  // between two looks at `stop`
  if (speed_ <= 0 || recorded_ms == 0) return;
  if (!started_) start_ = Clock::now();
  started_ = true;
  const std::chrono::duration<double, std::milli> due(recorded_ms / speed_);
  for (;;) {
    const auto rest = due - (Clock::now() - start_);
    if (rest.count() <= 0 || (stop_ != nullptr && stop_->load())) return;
    std::this_thread::sleep_for(std::min<decltype(due)>(rest, kPatience));
  }
}

Summary summarise(const StreamIndexer &indexer, const IndexWriter &index, uint64_t packets) {
  Summary summary;
  summary.packets = packets;
  summary.gops = index.gops();
  summary.duration_ms = index.duration();
  summary.channels = static_cast<unsigned>(index.channels());
  summary.bytes = packets * kPacketSize;
  summary.continuity_errors = indexer.counts().continuity_errors;
  summary.discontinuities = indexer.gops().discontinuities();
  const ScannerCounts counts = indexer.counts();
  if (counts.scrambled > 0) {
    add_note(summary.note, std::to_string(counts.scrambled) + " scrambled video packets");
  }
  if (indexer.out_of_step() > 0) {
    add_note(summary.note, std::to_string(indexer.out_of_step()) +
                               " packets without sync byte, the first at byte " +
                               std::to_string(indexer.first_out_of_step() * kPacketSize));
  }
  if (indexer.gops().is_full()) {
    add_note(summary.note, "the index can hold no later time than that of its last GOP");
  }
  if (indexer.out_of_channels()) {
    add_note(summary.note, "the index has no room for more channels; some GOPs are not in it");
  }
  return summary;
}

void add_note(std::string &note, const std::string &text) {
  if (!note.empty()) note += "; ";
  note += text;
}

}  // namespace plexa::rec
