// entry_picture.h - what kind of picture a PES packet begins with, as GStreamer's codec parsers see
// it.
//
// The parsers remember parameter sets, so one inspector looks at the GOPs of one recording, in
// order. Any bytes are taken. One thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

namespace plexa::pvr {

enum class EntryPicture {
  kIntra,      // every slice that was seen of the picture is intra-coded
  kAnnounced,  // predicted, but a recovery point or sequence header says that decoding begins here
  kPredicted,  // neither
  kNone,       // no picture begins in these bytes
  kUnknown,    // the picture cannot be told: another codec, or its parameter sets are missing
};

struct Entry {
  EntryPicture kind = EntryPicture::kNone;
  bool first = false;  // no other picture begins before it in the PES packet
};

class EntryInspector {
 public:
  EntryInspector();
  ~EntryInspector();
  EntryInspector(const EntryInspector &) = delete;
  EntryInspector &operator=(const EntryInspector &) = delete;

  // `code`: codec identifier of a channel record. The data are the elementary stream of one PES
  // packet, or its beginning. A PES packet with several pictures counts as its best one.
  Entry inspect(int code, std::span<const uint8_t> data);

 private:
  struct Parsers;
  std::unique_ptr<Parsers> parsers_;
};

}  // namespace plexa::pvr
