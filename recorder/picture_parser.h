// picture_parser.h - tells pictures apart and judges them, one parser per video coding.
//
// A unit is what begins behind a start code 00 00 01: a NAL unit, or a header or slice of MPEG-2.
// The scanner cuts the video into units and shows a parser the first bytes of those that it wants;
// GStreamer's codec parsers read the headers. One object serves one thread.
#ifndef PLEXA_RECORDER_PICTURE_PARSER_H_
#define PLEXA_RECORDER_PICTURE_PARSER_H_

#include <cstddef>
#include <cstdint>
#include <memory>

#include "media.h"

namespace plexa::rec {

// One coded picture: a frame, or one field of it.
struct Picture {
  enum class Structure : uint8_t { kFrame, kTopField, kBottomField };

  bool coded = false;  // a slice of it has been seen
  Entry entry = Entry::kNone;
  bool sequence_header = false;
  bool bidirectional = false;
  bool can_be_second = false;  // may be the second field of the frame before it
  Structure structure = Structure::kFrame;
  unsigned frame_id = 0;  // equal in both fields of a frame
  int64_t duration = 0;   // of the whole frame in ticks; 0: unknown
};

// The two are the fields of one frame, in this order.
bool is_field_pair(const Picture &first, const Picture &second);

class PictureParser {
 public:
  // No unit is collected beyond this.
  static constexpr size_t kLongestUnit = 2048;

  virtual ~PictureParser() = default;

  // How many bytes of a unit that begins with this byte are wanted at this point of the picture,
  // that byte included; 0: the unit says nothing. A unit may be shorter.
  virtual size_t wants(uint8_t first_byte) const = 0;
  // Such a unit stands at the beginning of a picture.
  virtual bool is_opener(const uint8_t *unit, size_t size) const = 0;
  // Its first bytes tell all, so that it is of use although packets behind them are lost.
  virtual bool is_slice(uint8_t first_byte) const = 0;
  // The unit belongs to the current picture.
  virtual void take(const uint8_t *unit, size_t size) = 0;

  const Picture &picture() const { return picture_; }
  // Ends the current picture; the next one begins empty.
  Picture finish();

 protected:
  Picture picture_;
  // A message in front of the next slice announces a recovery point. It goes with its picture.
  bool recovery_ = false;
};

std::unique_ptr<PictureParser> make_mpeg2_parser();
std::unique_ptr<PictureParser> make_h264_parser();
std::unique_ptr<PictureParser> make_h265_parser();
std::unique_ptr<PictureParser> make_picture_parser(Codec codec);

}  // namespace plexa::rec

#endif  // PLEXA_RECORDER_PICTURE_PARSER_H_
