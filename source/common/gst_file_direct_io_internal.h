// gst_file_direct_io_internal.h - bounce buffers over a close and the open that follows it.
#pragma once

namespace plexa {

// While one of these lives, the bounce buffers of the handles that its thread closes are not given
// back to the system but to the handles that this thread opens. A cut closes and opens every handle
// of a recording while all its readers wait, and mapping two megabytes for each, unmapping them and
// having them zeroed again page by page at the next read costs more than the opening itself. What
// is left over at the end is freed. One at a time on a thread.
class KeptBounceBuffers {
 public:
  KeptBounceBuffers() noexcept;
  ~KeptBounceBuffers();
  KeptBounceBuffers(const KeptBounceBuffers &) = delete;
  KeptBounceBuffers &operator=(const KeptBounceBuffers &) = delete;

  void keep(void *buffer) noexcept;
  void *take() noexcept;  // null: there is none left

 private:
  void *first_ = nullptr;
};

}  // namespace plexa
