// stream_indexer.h - looks through the packets of a recording and finds its GOPs and channels.
//
// Follows the chosen programme through changes of its tables. Everything that is decided here rests
// on the packets alone; nothing is read or written. One object serves one thread.
#ifndef PLEXA_RECORDER_STREAM_INDEXER_H_
#define PLEXA_RECORDER_STREAM_INDEXER_H_

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "gop_builder.h"
#include "media.h"
#include "psi.h"
#include "video_scanner.h"

namespace plexa::rec {

class StreamIndexer {
 public:
  struct Start {
    ProgrammeTables tables;               // as far as they are known
    int asked = 0;                        // programme that was asked for; 0: any
    int programme = 0;                    // programme to begin with, or 0
    std::vector<Channel> channels = {};   // of records that exist already
    std::optional<Channel> channel = {};  // to begin with, when the tables do not tell
    uint32_t time = 0;                    // of the first GOP
    bool resumed = false;                 // the first picture is known to begin a GOP
  };
  explicit StreamIndexer(Start start);
  StreamIndexer(const StreamIndexer &) = delete;
  StreamIndexer &operator=(const StreamIndexer &) = delete;

  // `count` packets, the first of which is number `first` of the recording.
  void packets(const uint8_t *data, size_t count, uint64_t first);
  // The recording ends behind this many packets.
  void finish(uint64_t packets);

  GopBuilder &gops() { return gops_; }
  const GopBuilder &gops() const { return gops_; }
  // A GOP's channel is an index into these. Grows while packets come.
  const std::vector<Channel> &channels() const { return channels_; }
  ScannerCounts counts() const;
  // Packets without sync byte, and the number of the first of them.
  uint64_t out_of_step() const { return out_of_step_; }
  uint64_t first_out_of_step() const { return first_out_of_step_; }
  // There have been more channels than the index holds; what came after is not indexed.
  bool out_of_channels() const { return out_of_channels_; }

 private:
  enum Role : uint8_t { kForeign, kTable, kVideo };

  void table(const uint8_t *packet);
  void follow_tables();
  void tune(std::optional<Channel> channel);
  void stop_scanner();
  void assign_roles();
  void frame(const Frame &frame);
  std::optional<uint16_t> slot_of(const Channel &channel);

  ProgrammeTables tables_;
  int asked_;
  int programme_;
  std::vector<Channel> channels_;
  std::optional<Channel> channel_;
  std::unique_ptr<VideoScanner> scanner_;
  ScannerCounts past_counts_;  // of scanners that are gone
  GopBuilder gops_;
  std::array<uint8_t, kPids> roles_ = {};
  uint64_t out_of_step_ = 0;
  uint64_t first_out_of_step_ = 0;
  bool out_of_channels_ = false;
};

}  // namespace plexa::rec

#endif  // PLEXA_RECORDER_STREAM_INDEXER_H_
