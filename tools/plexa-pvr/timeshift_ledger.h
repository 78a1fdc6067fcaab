// timeshift_ledger.h - remembers every packet of the last part of a recording, so that whoever
// reads the recording beside its writer can be held against what was written.
//
// Four bytes a packet. Any thread may call; one lock, held for copying only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

namespace plexa::pvr {

class PacketLedger {
 public:
  static constexpr size_t kPacket = 188;

  // Enters the next packets.
  void append(const uint8_t *packets, size_t count);
  // Packets in front of this one are asked for no more.
  void forget_before(uint64_t packet);

  uint64_t end() const;  // packets entered so far

  enum class Answer { kSame, kDifferent, kUnknown };
  // Are these the packets from number `first` on? Unknown: not all are remembered. When different,
  // `wrong` is the place of the first that is.
  Answer compare(uint64_t first, const uint8_t *packets, size_t count,
                 size_t *wrong = nullptr) const;

 private:
  static constexpr size_t kChunk = 1024;

  mutable std::mutex lock_;
  std::deque<std::vector<uint32_t>> chunks_;
  uint64_t first_chunk_ = 0;
  uint64_t end_ = 0;
};

}  // namespace plexa::pvr
