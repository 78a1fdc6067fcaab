// cmd_timeshift.cpp - plexa-pvr timeshift: a recording of bounded length, played while it is made.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <system_error>
#include <thread>
#include <vector>

#include "command_line.h"
#include "cut_journal.h"
#include "failure.h"
#include "gst-plexa/gst_file_shared_info.h"
#include "input_file.h"
#include "interrupt.h"
#include "json.h"
#include "paths.h"
#include "progress.h"
#include "recorder.h"
#include "recording.h"
#include "text.h"
#include "timeshift_reader.h"

namespace plexa::pvr {

extern const Command kTimeshift;

namespace {

constexpr int64_t kMinute = 60000;
constexpr int64_t kLeastMinutes = 6;  // the library cuts no shorter buffer
constexpr int64_t kMostMinutes = 91;  // ... and keeps no longer one
// One of the hundred that may read a recording is the library itself, in its index.
constexpr int64_t kMostReaders = 99;
constexpr int64_t kUsualReaders = 4;

// -1: the box does not tell. The storing thread asks it, too, and no exception may leave a thread.
int64_t size_on_box(const std::string &path) {
  try {
    return PvrFile(path, GST_PVR_FILE_STREAM).size();
  } catch (const Failure &) {
    return -1;
  }
}

int64_t file_size(const std::string &path) {
  if (rec::is_box_in_use()) return std::max<int64_t>(size_on_box(path), 0);
  struct stat64 status {};
  return ::stat64(path.c_str(), &status) == 0 ? status.st_size : 0;
}

// On a box only the reader that follows live knows what it may ask for: what has been cut off in
// the meantime is told to the writer alone.
int64_t most_readers() { return rec::is_box_in_use() ? 1 : kMostReaders; }
int64_t usual_readers() { return std::min(most_readers(), kUsualReaders); }

// The recording as its observer sees it, with the readers beside it.
class Session : public rec::TimeshiftObserver {
 public:
  Session(unsigned readers, bool hurried) : readers_(readers) { buffer_.hurried = hurried; }
  ~Session() override { ended(); }

  void taken(const uint8_t *packets, size_t count) override {
    buffer_.ledger.append(packets, count);
  }
  void began(const std::string &stream_path) override;
  void stored(uint64_t bytes) override;
  void ended() override;

  std::string status(uint32_t recorded_ms) const;
  const ReaderFindings &findings() const { return findings_; }
  const std::string &path() const { return buffer_.path; }
  uint64_t cuts() const { return cuts_; }
  int64_t removed() const { return removed_; }
  int64_t removed_ms() const { return removed_ms_; }
  int64_t largest_size() const { return largest_size_; }

 private:
  void look_for_cut();
  int64_t removed_on_box() const;

  const unsigned readers_;
  TimeshiftBuffer buffer_;
  ReaderFindings findings_;
  std::vector<std::thread> threads_;
  std::atomic<uint64_t> written_{0};
  std::atomic<uint64_t> cuts_{0};
  std::atomic<int64_t> removed_{0};
  std::atomic<int64_t> removed_ms_{0};
  std::atomic<int64_t> size_{0};
  std::atomic<int64_t> largest_size_{0};
};

void Session::began(const std::string &stream_path) {
  buffer_.path = stream_path;
  try {
    for (unsigned number = 0; number < readers_; ++number) {
      threads_.emplace_back([this, number] { TimeshiftReader(number, buffer_, findings_).run(); });
    }
  } catch (const std::system_error &error) {
    findings_.fault(format("only %zu readers can be started: %s", threads_.size(), error.what()));
  }
}

void Session::stored(uint64_t bytes) {
  written_ = bytes;
  look_for_cut();
  size_ = file_size(buffer_.path);
  if (size_ > largest_size_) largest_size_ = size_.load();
  buffer_.stored = bytes;
}

// A write waits for the cut before it, so that none is missed. Readers may be a cut behind.
void Session::look_for_cut() {
  GstSharedCutInfo *const info = gst_shared_cut_info_get();
  const int64_t removed =
      rec::is_box_in_use() ? removed_on_box() : gst_shared_cut_info_get_total_cutoffset(info);
  if (removed <= removed_) return;
  ++cuts_;
  buffer_.ledger.forget_before(static_cast<uint64_t>(removed_) / PacketLedger::kPacket);
  removed_ = removed;
  removed_ms_ = gst_shared_cut_info_get_accumulated_time(info);
}

// The box tells the time that it has cut off, not the bytes: those are what its file lacks.
int64_t Session::removed_on_box() const {
  const int64_t size = size_on_box(buffer_.path);
  return size < 0 ? removed_.load() : static_cast<int64_t>(written_) - size;
}

void Session::ended() {
  if (buffer_.ended.exchange(true)) return;
  for (std::thread &thread : threads_) thread.join();
  if (!buffer_.path.empty()) look_for_cut();
}

std::string Session::status(uint32_t recorded_ms) const {
  return format("%s, span %s, %s, %llu cuts, longest wait %lld ms", clock_text(recorded_ms).c_str(),
                clock_text(recorded_ms - removed_ms_).c_str(),
                bytes_text(static_cast<uint64_t>(size_.load())).c_str(),
                static_cast<unsigned long long>(cuts_.load()),
                static_cast<long long>(findings_.longest_wait_us / 1000));
}

void print_json(const Session &session, const rec::Summary &summary, unsigned readers) {
  const ReaderFindings &found = session.findings();
  Json json;
  json.object()
      .add("recording", display(session.path()))
      .add("recorded_ms", summary.duration_ms)
      .add("bytes", summary.bytes)
      .add("gops", summary.gops)
      .add("size", file_size(session.path()))
      .add("span_ms", summary.duration_ms - session.removed_ms())
      .add("cuts", session.cuts())
      .add("bytes_removed", session.removed())
      .add("largest_size", session.largest_size())
      .add("readers", readers)
      .add("reads", found.reads.load())
      .add("bytes_verified", found.bytes_verified.load())
      .add("overtaken", found.overtaken.load())
      .add("longest_wait_us", found.longest_wait_us.load())
      .add("faults", found.faults.load());
  if (found.faults > 0) json.add("first_fault", found.first_fault());
  json.add("disk_full", summary.disk_full);
  if (!summary.note.empty()) json.add("note", display(summary.note));
  std::fputs(json.end().text().c_str(), stdout);
}

void print_text(const Session &session, const rec::Summary &summary, unsigned readers) {
  const ReaderFindings &found = session.findings();
  const auto size = static_cast<uint64_t>(file_size(session.path()));
  std::printf("Recording:      %s\n", display(session.path()).c_str());
  std::printf("Recorded:       %s, %s\n", clock_text(summary.duration_ms).c_str(),
              bytes_text(summary.bytes).c_str());
  std::printf("Kept:           %s, %s\n",
              clock_text(summary.duration_ms - session.removed_ms()).c_str(),
              bytes_text(size).c_str());
  std::printf("Cuts:           %llu, %s\n", static_cast<unsigned long long>(session.cuts()),
              bytes_text(static_cast<uint64_t>(session.removed())).c_str());
  std::printf("Largest size:   %s\n",
              bytes_text(static_cast<uint64_t>(session.largest_size())).c_str());
  std::printf("Readers:        %u, %llu reads, %s verified\n", readers,
              static_cast<unsigned long long>(found.reads.load()),
              bytes_text(found.bytes_verified.load()).c_str());
  std::printf("Overtaken:      %llu\n", static_cast<unsigned long long>(found.overtaken.load()));
  std::printf("Longest wait:   %.1f ms\n",
              static_cast<double>(found.longest_wait_us.load()) / 1000);
  std::printf("Faults:         %llu\n", static_cast<unsigned long long>(found.faults.load()));
  if (!summary.note.empty()) std::printf("Note:           %s\n", summary.note.c_str());
}

// 0: as fast as it goes.
double parse_speed(const std::string &text) {
  if (text == "max") return 0;
  char *end = nullptr;
  const double speed = g_ascii_strtod(text.c_str(), &end);
  const bool whole = !text.empty() && end == text.c_str() + text.size();
  if (!whole || !std::isfinite(speed) || speed < 0.01 || speed > 10000) {
    throw UsageError(
        format("--speed: not a number from 0.01 to 10000, or max: '%s'", display(text).c_str()));
  }
  return speed;
}

struct Request {
  rec::Options options;
  unsigned readers = 0;
  std::string input;
  std::string output;
  bool json = false;
};

// Prints the summary; throws when something is wrong.
void finish(const Session &session, const rec::Outcome &outcome, const Request &request) {
  if (!outcome.ok) throw Failure(display(outcome.error));
  if (request.json) {
    print_json(session, outcome.summary, request.readers);
  } else {
    print_text(session, outcome.summary, request.readers);
  }
  const ReaderFindings &found = session.findings();
  if (found.faults > 0) {
    throw path_failure(session.path(), format("readers found %llu faults, the first: %s",
                                              static_cast<unsigned long long>(found.faults.load()),
                                              found.first_fault().c_str()));
  }
  if (outcome.summary.disk_full) {
    throw path_failure(session.path(), "the recording was cut short: " + outcome.summary.note);
  }
}

void record(Request &request) {
  const InputFile input(request.input);
  Session session(request.readers, request.options.speed == 0);
  request.options.timeshift->observer = &session;
  request.options.stop = &catch_interrupts();
  rec::Outcome outcome;
  {
    ProgressBar bar("timeshift");
    request.options.progress = [&](const rec::Progress &progress) {
      bar.update(progress.bytes_in, progress.bytes_total, session.status(progress.recorded_ms));
    };
    outcome = rec::record(input.descriptor(), request.output, request.options);
  }
  session.ended();
  finish(session, outcome, request);
}

int run(int argc, char **argv) {
  OptionText max_time;
  OptionText readers;
  OptionText speed;
  OptionText reserve;
  OptionText program;
  gboolean overwrite = FALSE;
  CommandLine line(kTimeshift);
  line.add({"max-time", 0, 0, G_OPTION_ARG_STRING, &max_time.value,
            "The most that the buffer holds, 6 to 91; needed", "MINUTES"});
  line.add({"readers", 0, 0, G_OPTION_ARG_STRING, &readers.value,
            "Readers beside the recording, 0 to 99 (default: 4)", "N"});
  line.add({"speed", 0, 0, G_OPTION_ARG_STRING, &speed.value,
            "Times real time, or max (the default): as fast as it goes", "X"});
  line.add({"reserve", 0, 0, G_OPTION_ARG_STRING, &reserve.value,
            "What stays free of the disk (default: 64)", "MIB"});
  line.add({"program", 0, 0, G_OPTION_ARG_STRING, &program.value,
            "Number of the programme; the first one with video otherwise", "N"});
  line.add(
      {"overwrite", 0, 0, G_OPTION_ARG_NONE, &overwrite, "Replace an existing recording", nullptr});
  line.add_json();
  if (!line.parse(argc, argv, 2, 2)) return kExitOk;
  if (!max_time) throw UsageError("--max-time is needed");

  Request request;
  rec::Timeshift timeshift;
  timeshift.max_time_ms =
      kMinute * parse_number("--max-time", max_time.text(), kLeastMinutes, kMostMinutes);
  if (reserve) {
    timeshift.reserve = static_cast<uint64_t>(parse_number("--reserve", reserve.text(), 0, 1 << 30))
                        << 20;
  }
  request.readers = static_cast<unsigned>(
      readers ? parse_number("--readers", readers.text(), 0, most_readers()) : usual_readers());
  if (speed) request.options.speed = parse_speed(speed.text());
  if (program) {
    request.options.program = static_cast<int>(parse_number("--program", program.text(), 1, 65535));
  }
  request.options.overwrite = overwrite != FALSE;
  request.options.timeshift = timeshift;
  request.input = line.operand(0);
  request.output = stream_name(line.operand(1));
  if (request.options.overwrite) settle_before_overwriting(request.output);
  request.json = line.json();
  record(request);
  return kExitOk;
}

}  // namespace

const Command kTimeshift{
    "timeshift", "INPUT|- OUTPUT.kvf", "Record into a buffer of bounded length and play it",
    "Records like 'record', but OUTPUT.kvf never holds more than MINUTES: once a minute\n"
    "its oldest part is cut off, while N readers go on reading. The first of them\n"
    "follows live, the others jump about in what is kept; every byte that they get is\n"
    "checked against what was recorded. Ctrl-C ends the recording cleanly.\n"
    "\n"
    "Offsets in OUTPUT.mdb count from the recording's start, whatever is cut off.\n"
    "Exit status 1: a reader found a fault, or the disk is full.\n"
    "\n"
    "Examples:\n"
    "  plexa-pvr timeshift capture.ts buffer.kvf --max-time 6 --readers 8\n"
    "  receive-tv | plexa-pvr timeshift - buffer.kvf --max-time 60\n"
    "  plexa-pvr timeshift capture.ts buffer.kvf --max-time 30 --speed 1\n",
    run};

}  // namespace plexa::pvr
