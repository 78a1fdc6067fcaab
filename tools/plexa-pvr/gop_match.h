// gop_match.h - does the I-frame of a GOP record begin at this byte of the stream file?
//
// Takes any bytes. One thread at a time.
#pragma once

#include "gst-plexa/gst_index_parser.h"
#include "recording.h"

namespace plexa::pvr {

enum class GopMatch {
  kNo,
  kPossible,  // a PES packet of the video begins there, but its time stamp proves nothing
  kYes,       // with the record's time stamp
};

GopMatch match_gop(PvrFile &stream, gint64 offset, const pvr_gop_info_s &gop);

}  // namespace plexa::pvr
