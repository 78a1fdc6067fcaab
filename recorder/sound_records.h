// sound_records.h - what of an existing index agrees with the stream.
//
// Records are sound up to the first one that contradicts itself, its neighbours or the packets it
// points at. Everything comes from a file and is checked before it is used. One object serves one
// thread.
#ifndef PLEXA_RECORDER_SOUND_RECORDS_H_
#define PLEXA_RECORDER_SOUND_RECORDS_H_

#include <cstdint>
#include <string>
#include <vector>

#include "gst-plexa/gst_index_parser.h"
#include "index_writer.h"
#include "media.h"
#include "recorder.h"

namespace plexa::rec {

class StreamScan;

class SoundRecords {
 public:
  // Reads the index; what cannot be read counts as not there.
  void load(const std::string &index_path, const StreamScan &stream);

  uint64_t count() const { return count_; }
  // Every record is sound, nothing stands behind them, and the index was completed with exactly
  // this stream.
  bool is_complete() const { return complete_; }
  uint32_t duration() const;
  bool tells_layout() const { return !head_.empty(); }
  Layout layout() const { return layout_; }
  // Base table and channel area as they stand.
  const std::vector<uint8_t> &head() const { return head_; }
  // The records in front of the last sound one, as they stand.
  std::vector<uint8_t> bytes_before_last() const;
  pvr_gop_info_s last() const { return record(count_ - 1); }
  const std::vector<Channel> &channels() const { return channels_; }  // those in use

 private:
  bool read(const std::string &index_path, uint64_t packets);
  pvr_gop_info_s record(uint64_t number) const;
  Channel channel(unsigned slot) const;
  bool is_sound(const pvr_gop_info_s &gop, const StreamScan &stream) const;
  bool follows(const pvr_gop_info_s &gop, const pvr_gop_info_s &before) const;
  bool agrees_with_base(const StreamScan &stream) const;

  Layout layout_ = Layout::kCurrent;
  pvr_base_table_s base_{};
  std::vector<uint8_t> head_;
  std::vector<uint8_t> gops_;
  std::vector<Channel> channels_;
  uint64_t count_ = 0;
  bool complete_ = false;
};

}  // namespace plexa::rec

#endif  // PLEXA_RECORDER_SOUND_RECORDS_H_
