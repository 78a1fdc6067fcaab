// thumbnails.h - the library's thumbnail calls, with results that own what they hold.
//
// Functions without state; a recording's ".thm" file is written by one caller at a time.
#pragma once

#include <glib.h>

#include <span>
#include <string>
#include <vector>

#include "recording.h"

namespace plexa::pvr {

struct ThumbnailFile {
  std::string path;            // ".thm"
  std::string completion;      // ".tm", which exists once the file is complete
  gint32 total_time = 0;       // ms
  std::vector<guint32> sizes;  // bytes of each picture
  std::vector<gint32> codes;   // codec identifier of each
};

// Makes the ".thm" and ".tm" files of the recording. Throws Failure.
ThumbnailFile make_thumbnail_file(const Recording &recording);

// One coded I-picture.
class CodedPicture {
 public:
  // Throws Failure when there is none at this time.
  CodedPicture(const Recording &recording, gint32 time, gint32 average_iframe_size);
  ~CodedPicture();
  CodedPicture(const CodedPicture &) = delete;
  CodedPicture &operator=(const CodedPicture &) = delete;

  int codec() const { return codec_; }
  std::span<const guint8> bytes() const { return {buffer_, size_}; }

 private:
  guint8 *buffer_ = nullptr;
  guint32 size_ = 0;
  gint32 codec_ = -1;
};

gint32 average_iframe_size(const Recording &recording);

}  // namespace plexa::pvr
