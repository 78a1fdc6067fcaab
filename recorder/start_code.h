// start_code.h - finds the start codes 00 00 01 that open every unit of MPEG-2, H.264 and H.265.
#ifndef PLEXA_RECORDER_START_CODE_H_
#define PLEXA_RECORDER_START_CODE_H_

#include <cstddef>
#include <cstdint>

namespace plexa::rec {

// The first i in [from, size - 3) with 00 00 01 at data[i] (so that the byte behind it, which says
// what the unit is, lies in the data as well); `size` when there is none. Reads no byte outside
// data[0, size).
size_t find_start_code(const uint8_t *data, size_t from, size_t size);

}  // namespace plexa::rec

#endif  // PLEXA_RECORDER_START_CODE_H_
