// seam.h - the packets that stand in for what could not be taken out at the seam of a cut.
//
// A cut takes whole units out of the stream file, an I-frame begins anywhere. Of the packets
// between the last picture that stays and the first one behind the cut, those that remain in the
// file are replaced. One thread at a time.
#pragma once

#include "files.h"
#include "recording.h"

namespace plexa::pvr {

// What stands before the first picture behind the cut, as far as there is room: the programme
// tables in force there, and for every PID of the programme a packet that announces the jump. Whole
// packets.
FileBytes seam_lead(Recording &recording, const pvr_gop_info_s &behind);

// `size` bytes, whole packets: null packets, then the lead if it fits.
FileBytes seam_of(int64_t size, const FileBytes &lead);

}  // namespace plexa::pvr
