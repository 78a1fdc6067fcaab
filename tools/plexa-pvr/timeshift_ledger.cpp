// timeshift_ledger.cpp - see timeshift_ledger.h.
#include "timeshift_ledger.h"

#include <algorithm>
#include <cstring>

namespace plexa::pvr {
namespace {

// 32 bits of a multiplicative hash over the whole packet: a wrong byte goes unseen once in four
// thousand million times.
uint32_t fingerprint(const uint8_t *packet) {
  constexpr uint64_t kFactor = 0x9e3779b97f4a7c15u;
  uint64_t hash = kFactor;
  for (size_t at = 0; at + 4 <= PacketLedger::kPacket; at += 4) {
    uint32_t word;
    std::memcpy(&word, packet + at, sizeof word);
    hash = (hash ^ word) * kFactor;
    hash ^= hash >> 29;
  }
  return static_cast<uint32_t>(hash >> 32);
}
static_assert(PacketLedger::kPacket % 4 == 0);

}  // namespace

void PacketLedger::append(const uint8_t *packets, size_t count) {
  std::vector<uint32_t> prints(count);
  for (size_t i = 0; i < count; ++i) prints[i] = fingerprint(packets + i * kPacket);
  const std::lock_guard hold(lock_);
  for (const uint32_t print : prints) {
    if (end_ % kChunk == 0) chunks_.emplace_back().reserve(kChunk);
    chunks_.back().push_back(print);
    ++end_;
  }
}

// The chunk that is being filled stays.
void PacketLedger::forget_before(uint64_t packet) {
  const std::lock_guard hold(lock_);
  while (chunks_.size() > 1 && (first_chunk_ + 1) * kChunk <= packet) {
    chunks_.pop_front();
    ++first_chunk_;
  }
}

uint64_t PacketLedger::end() const {
  const std::lock_guard hold(lock_);
  return end_;
}

PacketLedger::Answer PacketLedger::compare(uint64_t first, const uint8_t *packets, size_t count,
                                           size_t *wrong) const {
  std::vector<uint32_t> prints(count);
  {
    const std::lock_guard hold(lock_);
    if (first < first_chunk_ * kChunk || first > end_ || count > end_ - first) {
      return Answer::kUnknown;
    }
    for (size_t i = 0; i < count; ++i) {
      const uint64_t number = first + i;
      prints[i] = chunks_[number / kChunk - first_chunk_][number % kChunk];
    }
  }
  for (size_t i = 0; i < count; ++i) {
    if (fingerprint(packets + i * kPacket) == prints[i]) continue;
    if (wrong != nullptr) *wrong = i;
    return Answer::kDifferent;
  }
  return Answer::kSame;
}

}  // namespace plexa::pvr
