// channel_text.h - an I-frame, and a channel record, as the commands print them.
#pragma once

#include "json.h"
#include "recording.h"

namespace plexa::pvr {

// The members of an object that is open.
void add_channel(Json &json, guint16 slot, const pvr_channel_info_s &channel);
void add_gop(Json &json, gint64 number, const pvr_gop_info_s &gop);

// "H.264, video PID 256, audio PID 257, PCR PID 256".
std::string channel_text(const pvr_channel_info_s &channel);

}  // namespace plexa::pvr
