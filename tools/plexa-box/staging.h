// staging.h - the data of one write call, on its way from the packets to the file.
//
// A call's data comes in packets of any size, and a file that is written past the page cache takes
// whole blocks from a page-aligned address; so the data is put together again and written in large
// pieces. What the pieces were answered is added up to what one call would have been answered. One
// object serves one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "box_file.h"

namespace plexa::box {

class Staging {
 public:
  static constexpr std::size_t kPiece = std::size_t{1} << 20;  // whole blocks and pages

  // False: out of memory.
  bool begin(BoxFile *file);
  // Where the next bytes go, and how many there is room for; never 0.
  uint8_t *room() { return piece_.get() + held_; }
  std::size_t room_size() const { return kPiece - held_; }
  // So many bytes were put there.
  void add(std::size_t size);
  // The call's data is complete: bytes written, or the first piece's failure when there are none.
  gint64 end();

 private:
  struct Free {
    void operator()(uint8_t *memory) const { std::free(memory); }
  };
  void flush();

  std::unique_ptr<uint8_t, Free> piece_;  // kept for the next call
  BoxFile *file_ = nullptr;
  std::size_t held_ = 0;
  gint64 written_ = 0;
  gint64 failure_ = 0;  // nothing is written behind one
};

}  // namespace plexa::box
