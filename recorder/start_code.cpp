// start_code.cpp - the innermost loop of indexing: every byte of the video passes through it.
//
// With SSE2 (every 64-bit x86) sixteen positions are tested at a time; elsewhere a third of the
// bytes is looked at. Thread-safe: no state.
#include "start_code.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace plexa::rec {
namespace {

size_t find_by_bytes(const uint8_t *data, size_t from, size_t size) {
  // The third byte decides: above 1 it cannot be part of a start code at all.
  size_t i = from;
  while (i + 3 < size) {
    const uint8_t third = data[i + 2];
    if (third > 1) {
      i += 3;
    } else if (third == 1) {
      if (data[i] == 0 && data[i + 1] == 0) return i;
      i += 3;
    } else {
      i += 1;
    }
  }
  return size;
}

#if defined(__SSE2__)
__m128i load(const uint8_t *at) { return _mm_loadu_si128(reinterpret_cast<const __m128i *>(at)); }

// Bit k: a start code begins at `at` + k.
unsigned start_codes_at(const uint8_t *at) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i zeros = _mm_cmpeq_epi8(_mm_or_si128(load(at), load(at + 1)), zero);
  const __m128i ones = _mm_cmpeq_epi8(load(at + 2), _mm_set1_epi8(1));
  return static_cast<unsigned>(_mm_movemask_epi8(_mm_and_si128(zeros, ones)));
}
#endif

}  // namespace

size_t find_start_code(const uint8_t *data, size_t from, size_t size) {
#if defined(__SSE2__)
  constexpr size_t kSpan = 19;  // sixteen positions and the three bytes behind the last of them
  if (from + kSpan <= size) {
    const size_t last = size - kSpan;
    for (size_t i = from; i <= last; i += 16) {
      const unsigned found = start_codes_at(data + i);
      if (found != 0) return i + static_cast<size_t>(__builtin_ctz(found));
    }
    // Fewer than sixteen positions are left: test the last sixteen, some of them a second time.
    const unsigned found = start_codes_at(data + last);
    return found == 0 ? size : last + static_cast<size_t>(__builtin_ctz(found));
  }
#endif
  return find_by_bytes(data, from, size);
}

}  // namespace plexa::rec
