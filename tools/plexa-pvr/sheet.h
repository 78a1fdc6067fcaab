// sheet.h - the contact sheet: a recording's five pictures in a row, with their times.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "decoder.h"

namespace plexa::pvr {

struct SheetPicture {
  int64_t time;         // ms that was asked for
  Image image;          // a grey one when it could not be decoded
  std::string problem;  // why it could not; empty: it could
};

// The times of the five pictures: equal steps of the total time, rounded down to whole seconds.
std::vector<gint32> sheet_times(gint32 total_time);

// Decodes the pictures of a finished ".thm" file of the recording. Throws when none can be decoded.
std::vector<SheetPicture> decode_thumbnails(const std::string &thm_path, gint32 total_time,
                                            const std::vector<guint32> &sizes,
                                            const std::vector<gint32> &codes);

// Throws when some could not be decoded, and says how many and why; for the end of the work.
void check_decoded(const std::vector<SheetPicture> &pictures);

// The sheet as a PNG. The title stands above the pictures.
std::vector<uint8_t> draw_sheet(const std::string &title,
                                const std::vector<SheetPicture> &pictures);

}  // namespace plexa::pvr
