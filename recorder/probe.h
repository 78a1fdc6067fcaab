// probe.h - decides which programme of an input is indexed, and says why when none can be.
//
// One object serves one thread.
#ifndef PLEXA_RECORDER_PROBE_H_
#define PLEXA_RECORDER_PROBE_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "psi.h"
#include "stream_indexer.h"

namespace plexa::rec {

class Probe {
 public:
  // `asked`: programme number; 0: the first with video.
  explicit Probe(int asked) : asked_(asked) {}

  // Packets from the beginning of the input on. True once the programme is chosen; packets behind
  // the one that decided it are not looked at.
  bool packets(const uint8_t *data, size_t count);
  // There are no more packets. True: chosen now, from what is known.
  bool finish();

  // What the indexer begins with, for the whole input from its first packet on.
  StreamIndexer::Start start() const;

  // Why the input cannot be indexed: one line that goes on from its name. `indexer`: null when no
  // programme was chosen.
  std::string refusal(const StreamIndexer *indexer) const;

 private:
  bool choose(bool impatient);
  std::string programme_list() const;
  std::string refusal_without_programme() const;

  int asked_;
  int chosen_ = 0;
  ProgrammeTables tables_;
  uint64_t packets_ = 0;
  uint64_t out_of_step_ = 0;           // of them, those without sync byte
  uint64_t packets_at_candidate_ = 0;  // when a programme with video was first known; 0: not yet
};

}  // namespace plexa::rec

#endif  // PLEXA_RECORDER_PROBE_H_
