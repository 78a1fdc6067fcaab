// index_image.h - a whole index in memory, to be changed and written back.
//
// Records are kept as they stand in the file: bytes that nobody reads are carried along. Taken from
// an index that a Recording has accepted. One thread at a time.
#pragma once

#include <cstddef>
#include <string>

#include "files.h"
#include "gst-plexa/gst_index_parser.h"
#include "recording.h"

namespace plexa::pvr {

class IndexImage {
 public:
  // The index of a recording that is open: as many records as it had when it was opened.
  explicit IndexImage(const Recording &recording);

  pvr_base_table_s base() const;
  void set_base(const pvr_base_table_s &base);

  size_t count() const { return (bytes_.size() - start_) / record_size_; }
  // As they stand in the file, not relative to the base table.
  pvr_gop_info_s record(size_t number) const;
  void set_record(size_t number, const pvr_gop_info_s &record);
  // Removes the records from `first` up to the one before `end`.
  void erase(size_t first, size_t end);

  const FileBytes &bytes() const { return bytes_; }

 private:
  FileBytes bytes_;
  size_t start_;        // of the GOP records
  size_t record_size_;  // bytes
};

}  // namespace plexa::pvr
