// program_tables.h - the packets of the PAT and of a programme's PMT that are in force at a place
// of a stream file.
//
// Sections are put together here; GStreamer's mpegts library parses them and checks their CRC.
// Takes any bytes. One thread at a time.
#pragma once

#include <cstdint>
#include <vector>

#include "recording.h"

namespace plexa::pvr {

// Whole transport packets: the PAT, then the PMT of the programme with this video PID. The last
// ones before packet `at` of the stream or, when there are none before it, the first that come.
// Empty: the stream has no such tables.
std::vector<uint8_t> find_program_tables(Recording &recording, gint64 at, int video_pid);

}  // namespace plexa::pvr
