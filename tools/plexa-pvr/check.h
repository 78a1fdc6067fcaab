// check.h - holds a recording's index against its stream.
//
// Finds, and hands to the sink one by one, everything in which the two do not agree or the stream
// is not what a stream must be. Takes any bytes in either file. One thread at a time.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "recording.h"

namespace plexa::pvr {

struct Fault {
  const char *kind = "";            // one of the words that the manual page lists
  std::string text;                 // what is wrong, without the place
  std::optional<gint64> gop;        // number of the GOP
  std::optional<gint64> index_at;   // byte of the index
  std::optional<gint64> stream_at;  // byte of the stream file
};

using FaultSink = std::function<void(const Fault &)>;

// How far the work is, from 0 to 1.
using CheckProgress = std::function<void(double share)>;

void check_recording(Recording &recording, const FaultSink &sink, const CheckProgress &progress);

}  // namespace plexa::pvr
