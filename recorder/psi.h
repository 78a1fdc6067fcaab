// psi.h - programme tables: which programmes a transport stream has and which PIDs they use.
//
// Sections are put together from packets here; GStreamer's mpegts library parses them and checks
// their CRC. Tables that announce a change ("next") are left aside until they come into force.
// One object serves one thread.
#ifndef PLEXA_RECORDER_PSI_H_
#define PLEXA_RECORDER_PSI_H_

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "media.h"

namespace plexa::rec {

// Puts the sections of one PID together. ISO/IEC 13818-1 clause 2.4.4.
class SectionAssembler {
 public:
  using Sink = std::function<void(const std::vector<uint8_t> &section)>;

  // A packet of the PID, in order. A section that misses a packet is dropped.
  void packet(const uint8_t *packet, const Sink &sink);

 private:
  void append(const uint8_t *data, size_t size, const Sink &sink);
  void drop();
  bool continues(const uint8_t *packet);

  std::vector<uint8_t> section_;
  bool collecting_ = false;
  std::optional<unsigned> counter_;
};

struct Programme {
  uint16_t number = 0;
  uint16_t pmt_pid = kNoPid;
  bool known = false;              // its map has been seen
  std::optional<Channel> channel;  // none: no video that can be indexed
};

class ProgrammeTables {
 public:
  // A packet of PID 0 or of a programme map. True when something came to be known or changed.
  bool packet(const uint8_t *packet);
  // This PID carries a table that packet() wants.
  bool wants(unsigned pid) const { return pid == 0 || assemblers_.count(pid) != 0; }

  // All such PIDs.
  std::vector<unsigned> pids() const;

  bool have_programmes() const { return have_pat_; }
  const std::vector<Programme> &programmes() const {
    return programmes_;
  }  // as the table lists them
  const Programme *find(int number) const;
  const Programme *find_by_video(uint16_t video_pid) const;
  // What is known may no longer be in force: the next table of each kind is reported as a change,
  // and no programme counts as known before its map has come again.
  void expect_anew();
  // The programme asked for; number 0: the first in the table with video. Null while it cannot be
  // told: its own map, or that of one before it, has not been seen. `impatient` settles for the
  // first known one with video.
  const Programme *choose(int number, bool impatient) const;

 private:
  bool section(unsigned pid, const std::vector<uint8_t> &bytes);
  bool is_repetition(unsigned pid, const std::vector<uint8_t> &bytes);
  bool take_programmes(unsigned section_number, unsigned last_section, int version,
                       std::vector<Programme> listed);
  std::vector<Programme> merge_parts(bool whole) const;
  bool take_map(unsigned pid, unsigned number, std::optional<Channel> channel);
  void listen();

  std::map<unsigned, SectionAssembler> assemblers_{{0u, SectionAssembler{}}};
  // Length and CRC of the last section of each PID and table, to pass over repetitions quickly. Of
  // maps only those of the programmes that are known by them.
  std::map<std::pair<unsigned, unsigned>, uint64_t> seen_;
  int pat_version_ = -1;
  std::map<unsigned, std::vector<Programme>> pat_parts_;  // of this version, by section number
  std::vector<Programme> programmes_;
  bool have_pat_ = false;
};

}  // namespace plexa::rec

#endif  // PLEXA_RECORDER_PSI_H_
