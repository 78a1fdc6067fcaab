// packet_grid.h - finds the transport packets in bytes that may hold anything.
//
// Packets come 188 bytes apart, 192 (four bytes of time stamp in front of each, as discs and
// camcorders have them) or 204 (sixteen bytes of error correction behind each). The distance and
// the beginning are recognised by sync bytes that repeat, at the start and again wherever packets
// are lost in between. One object serves one thread.
#ifndef PLEXA_RECORDER_PACKET_GRID_H_
#define PLEXA_RECORDER_PACKET_GRID_H_

#include <cstddef>
#include <cstdint>

#include "media.h"

namespace plexa::rec {

class PacketGrid {
 public:
  struct Packets {
    uint8_t *data = nullptr;  // 188-byte packets, back to back
    size_t count = 0;
    size_t consumed = 0;  // bytes that are done with; the rest is to be handed in again
  };

  // Takes the bytes at `data`, which it may move about, and gives the whole packets in them.
  // `at_end`: no more bytes follow. Bytes behind `consumed` are to come again, in front of the next
  // ones, unless at_end; they are at most kMostKept.
  Packets scan(uint8_t *data, size_t size, bool at_end);

  static constexpr size_t kConfirm = 5;  // sync bytes that make a grid
  static constexpr size_t kLongestStride = 204;
  static constexpr size_t kMostKept = (kConfirm + 2) * kLongestStride;

  bool found() const { return stride_ != 0; }
  size_t stride() const { return stride_; }  // 0: none found yet
  uint64_t resyncs() const { return resyncs_; }

 private:
  struct Scan;
  enum class Fit { kYes, kNo, kNeedMore };

  Fit fits(const Scan &scan, size_t at, size_t stride) const;
  Fit fits_any(const Scan &scan, size_t at);
  Fit search(Scan &scan);
  bool follow(Scan &scan);
  bool step_over(Scan &scan);

  size_t stride_ = 0;
  bool in_step_ = false;  // a packet begins at the next byte handed in
  uint64_t resyncs_ = 0;
};

}  // namespace plexa::rec

#endif  // PLEXA_RECORDER_PACKET_GRID_H_
