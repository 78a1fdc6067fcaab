// index_writer.h - writes the ".mdb" index of a recording, GOP by GOP.
//
// The base table and the channel area are written first, with an end time of 0 ("still recording");
// then every GOP record follows its channel's record. finish() puts the end time and the size into
// the base table, in place. Whatever happens in between leaves an index that readers accept. One
// object serves one thread.
#ifndef PLEXA_RECORDER_INDEX_WRITER_H_
#define PLEXA_RECORDER_INDEX_WRITER_H_

#include <cstdint>
#include <string>
#include <vector>

#include "gop_builder.h"
#include "gst-plexa/gst_index_parser.h"
#include "media.h"
#include "output_file.h"
#include "recorder.h"

namespace plexa::rec {

// Sizes of a layout.
struct IndexShape {
  explicit IndexShape(Layout layout);
  uint32_t channel_size;  // bytes a channel record
  uint32_t gop_size;      // bytes a GOP record
  uint32_t gop_start;     // where the first GOP record lies when the base table does not say
};

// What an index begins with.
std::vector<uint8_t> make_index_head(Layout layout);

// Record contents.
pvr_gop_info_s gop_record(const Gop &gop);
pvr_channel_info_s channel_record(const Channel &channel);
Channel channel_from_record(const pvr_channel_info_s &record);
// The 232 bytes of the record as the layout stores it in its slot.
std::vector<uint8_t> stored_channel(const Channel &channel, Layout layout);

class IndexWriter {
 public:
  // Begins an index in the empty file `path`. False: error(), and the file may hold a part.
  bool create(const std::string &path, Layout layout);
  // Begins with the head and records of another index, all of whose channels are in use.
  bool create_from(const std::string &path, Layout layout, const std::vector<uint8_t> &head,
                   const std::vector<uint8_t> &records, size_t channels);

  // Appends a record. `channels`: all so far; those that are new are written first.
  bool append(const Gop &gop, const std::vector<Channel> &channels);
  // Enters the end of the recording, makes the file durable and closes it.
  bool finish(uint64_t stream_size);
  void abandon() { file_.close(); }

  uint64_t gops() const { return gops_; }
  uint32_t duration() const { return end_time_ - base_.start_time_code; }
  size_t channels() const { return channels_written_; }
  int error() const { return file_.error(); }

 private:
  bool begin(const std::string &path, Layout layout);
  bool write_at(int64_t offset, const uint8_t *data, size_t size);
  bool write_channels(const std::vector<Channel> &channels, size_t needed);
  bool cut_back();

  OutputFile file_;
  Layout layout_ = Layout::kCurrent;
  pvr_base_table_s base_{};
  int64_t at_ = 0;   // the file's write position
  int64_t end_ = 0;  // where the next GOP record goes
  uint64_t gops_ = 0;
  uint32_t end_time_ = 0;
  size_t channels_written_ = 0;
};

}  // namespace plexa::rec

#endif  // PLEXA_RECORDER_INDEX_WRITER_H_
