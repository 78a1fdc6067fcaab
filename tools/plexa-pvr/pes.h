// pes.h - PES packets as they lie in transport packets. ISO/IEC 13818-1 clause 2.4.3.
//
// Takes any bytes. Functions without state; any thread may call them.
#pragma once

#include <glib.h>

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace plexa::pvr {

// The PES packet that begins with the first of these packets, as far as they hold it: it ends where
// the next one of the PID begins.
std::vector<uint8_t> pes_packet(std::span<const uint8_t> packets, int pid);

// What the PES packet carries.
std::span<const uint8_t> elementary_stream(std::span<const uint8_t> pes);

// None: the header carries no PTS.
std::optional<guint64> pes_pts(std::span<const uint8_t> pes);

bool is_video_pes(std::span<const uint8_t> pes);

}  // namespace plexa::pvr
