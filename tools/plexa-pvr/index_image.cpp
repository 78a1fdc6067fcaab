// index_image.cpp - see index_image.h.
#include "index_image.h"

#include <algorithm>
#include <cstring>

#include "failure.h"

namespace plexa::pvr {

IndexImage::IndexImage(const Recording &recording)
    : bytes_(read_whole(recording.index_path())),
      start_(static_cast<size_t>(recording.record_offset(0))),
      record_size_(static_cast<size_t>(recording.record_offset(1)) - start_) {
  const auto whole = static_cast<size_t>(recording.record_offset(recording.gops()));
  if (bytes_.size() < whole || start_ < sizeof(pvr_base_table_s)) {
    throw path_failure(recording.index_path(), "has become shorter while it was read");
  }
  bytes_.resize(whole);  // a part of a record at the end counts for nothing
}

pvr_base_table_s IndexImage::base() const {
  pvr_base_table_s base{};
  std::memcpy(&base, bytes_.data(), sizeof base);
  return base;
}

void IndexImage::set_base(const pvr_base_table_s &base) {
  std::memcpy(bytes_.data(), &base, sizeof base);
}

// The layouts agree but for reserved bytes at the end of a record.
pvr_gop_info_s IndexImage::record(size_t number) const {
  pvr_gop_info_s record{};
  std::memcpy(&record, bytes_.data() + start_ + number * record_size_,
              std::min(record_size_, sizeof record));
  return record;
}

void IndexImage::set_record(size_t number, const pvr_gop_info_s &record) {
  std::memcpy(bytes_.data() + start_ + number * record_size_, &record,
              std::min(record_size_, sizeof record));
}

void IndexImage::erase(size_t first, size_t end) {
  const auto at = [this](size_t number) {
    return bytes_.begin() + static_cast<std::ptrdiff_t>(start_ + number * record_size_);
  };
  bytes_.erase(at(first), at(end));
}

}  // namespace plexa::pvr
