// staging.cpp - see staging.h.
#include "staging.h"

namespace plexa::box {
namespace {

// A file in the page cache takes pieces of any size: the disk works while packets still come.
constexpr std::size_t kEagerPiece = std::size_t{64} << 10;

}  // namespace

bool Staging::begin(BoxFile *file) {
  file_ = file;
  held_ = 0;
  written_ = 0;
  failure_ = 0;
  if (piece_ == nullptr) piece_.reset(static_cast<uint8_t *>(valloc(kPiece)));
  return piece_ != nullptr;
}

void Staging::add(std::size_t size) {
  held_ += size;
  const bool eager = !file_->is_in_blocks() && held_ >= kEagerPiece;
  if (held_ == kPiece || eager) flush();
}

// A short write is completed, which only works where any size may be written: what a write in
// blocks leaves undone ends the call, as it would have ended one write of the whole.
void Staging::flush() {
  std::size_t done = 0;
  while (done < held_ && failure_ == 0) {
    const gint64 result =
        gst_pvr_file_write(file_->get(), piece_.get() + done, static_cast<gint64>(held_ - done));
    if (result > 0) {
      written_ += result;  // may count padding
      done += static_cast<std::size_t>(result);
    }
    if (result <= 0 || (file_->is_in_blocks() && done < held_)) failure_ = result < 0 ? result : -1;
  }
  held_ = 0;
}

gint64 Staging::end() {
  if (held_ > 0) flush();
  return written_ > 0 || failure_ == 0 ? written_ : failure_;
}

}  // namespace plexa::box
