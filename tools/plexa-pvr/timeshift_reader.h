// timeshift_reader.h - plays a time-shift buffer beside its writer and checks every byte that it
// gets.
//
// A reader has a handle of its own and runs in a thread of its own. Reader 0 follows the recording
// live; the others jump about at random in what is kept, read on for a while, and pause. What they
// read is held against the ledger at its offset from the recording's start; tell, size and the end
// must agree with it. A place that is cut off before the reader gets there is no fault: the reader
// then has to find itself at the oldest byte kept, and what it reads there is checked, too.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "gst-plexa/gst_pvr_file.h"
#include "timeshift_ledger.h"

namespace plexa::pvr {

// What the recording tells its readers.
struct TimeshiftBuffer {
  std::string path;
  PacketLedger ledger;
  std::atomic<uint64_t> stored{0};  // bytes from the recording's start
  std::atomic<bool> ended{false};   // the readers are to stop
  bool hurried = false;             // the recording does not keep to real time
};

// What readers have found, all together. Any thread.
struct ReaderFindings {
  std::atomic<uint64_t> reads{0};
  std::atomic<uint64_t> bytes_verified{0};
  std::atomic<uint64_t> overtaken{0};  // places that were cut off before they were read
  std::atomic<int64_t> longest_wait_us{0};
  std::atomic<uint64_t> faults{0};

  void waited(int64_t microseconds);
  void fault(const std::string &text);
  std::string first_fault() const;

 private:
  mutable std::mutex lock_;
  std::string first_fault_;
};

class TimeshiftReader {
 public:
  TimeshiftReader(unsigned number, const TimeshiftBuffer &buffer, ReaderFindings &findings);
  ~TimeshiftReader();
  TimeshiftReader(const TimeshiftReader &) = delete;
  TimeshiftReader &operator=(const TimeshiftReader &) = delete;

  // The thread's work: until the buffer has ended.
  void run();

 private:
  struct Handle {
    GstPvrFile file{};
    std::string path;  // the file keeps a pointer to it
  };

  bool open();
  void close();
  void follow();
  void jump();
  uint64_t random_place(uint64_t from, uint64_t packets);
  int64_t read_on(int64_t offset, size_t size);
  int64_t check(int64_t offset, int64_t got, int64_t position);
  int64_t check_overtaken(int64_t offset, int64_t got, int64_t position, int64_t cut);
  void check_between_packets(int64_t offset, size_t size);
  void check_size();
  void check_end();
  void pause(unsigned most_ms);
  void fault(int64_t offset, const std::string &text);
  uint64_t random(uint64_t most);  // 0 to most
  template <class Operation>
  int64_t timed(Operation operation);

  const unsigned number_;
  const TimeshiftBuffer &buffer_;
  ReaderFindings &findings_;
  Handle *handle_;  // freed when it is closed; left to a cut that does not let it go
  std::mt19937_64 random_;
  std::vector<uint8_t> bytes_;
  std::vector<uint8_t> again_;
};

}  // namespace plexa::pvr
