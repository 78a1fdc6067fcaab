// timeshift_writer.h - writes the buffer of a time-shift recording: whole units of 1024 packets.
//
// A unit is what the library cuts in, and a multiple both of a packet and of a block, so that no
// padding ever enters the stream and the file always ends with a whole packet. What is less than a
// unit is held back; whoever ends the recording fills it up.
//
// A part of the disk stays free (Timeshift::reserve). A write that would touch it has the buffer
// cut earlier than it was to be, to three quarters of the time that it holds, again and again down
// to a minute; when that does not help, the buffer takes no more. One object serves one thread at a
// time, but for set_time().
#ifndef PLEXA_RECORDER_TIMESHIFT_WRITER_H_
#define PLEXA_RECORDER_TIMESHIFT_WRITER_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "media.h"
#include "packet_store.h"
#include "recorder.h"
#include "timeshift_file.h"

namespace plexa::rec {

class TimeshiftWriter : public PacketStore {
 public:
  static constexpr size_t kUnitPackets = 1024;
  static constexpr size_t kUnit = kUnitPackets * kPacketSize;
  static_assert(kUnit % TimeshiftFile::kBlock == 0);

  explicit TimeshiftWriter(const Timeshift &options) : options_(options) {}

  // Begins in the empty file `path`. False: error().
  bool create(const std::string &path);
  bool write(const uint8_t *data, size_t size) override;
  // What does not fill a unit is dropped.
  bool finish() override;
  void abandon() override { file_.close(); }

  // The index describes the recording up to this time, in milliseconds. Any thread.
  void set_time(uint32_t milliseconds) { time_.store(milliseconds, std::memory_order_release); }
  // Packets which, behind this many, make the last unit whole.
  static size_t filling(uint64_t packets) {
    return static_cast<size_t>((kUnitPackets - packets % kUnitPackets) % kUnitPackets);
  }
  // Waits for a cut that is going on.
  void settle() const { file_.wait_for_cut(); }

  uint64_t packets() const override { return stored_ / kPacketSize; }
  uint64_t removed() const { return removed_; }  // bytes cut off so far
  uint32_t span() const { return span_; }        // milliseconds; 0: never shortened
  // Of a buffer that is finished: a cut has failed, and nothing has been cut off since.
  bool has_stopped_cutting() const { return file_.has_stopped_cutting(); }
  int error() const override { return error_; }
  std::string problem() const override;

 private:
  enum class Relief { kNone, kAsked, kCame };
  struct Free {
    void operator()(uint8_t *unit) const { std::free(unit); }
  };

  void take_time();
  bool store_unit();
  bool write_unit();
  bool has_room();
  Relief cut_early();
  bool shorten();
  uint64_t free_space() const;
  bool cut_to_packets();
  bool fail(int error);

  Timeshift options_;
  TimeshiftFile file_;
  std::unique_ptr<uint8_t[], Free> unit_;
  size_t unit_size_ = 0;  // bytes gathered
  std::atomic<uint32_t> time_{0};
  uint32_t reported_ = 0;  // of it, what the library has been told
  uint64_t stored_ = 0;
  uint64_t removed_ = 0;
  bool failed_ = false;
  int error_ = 0;
  bool reserve_touched_ = false;  // that is why nothing more is taken
  uint32_t span_ = 0;
  bool asked_ = false;  // for a cut before its time
  int64_t removed_when_asked_ = 0;
  bool hopeless_ = false;  // the library cuts no more
};

}  // namespace plexa::rec

#endif  // PLEXA_RECORDER_TIMESHIFT_WRITER_H_
