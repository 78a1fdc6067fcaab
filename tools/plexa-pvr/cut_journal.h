// cut_journal.h - takes a range out of a recording so that a crash leaves the old recording or the
// new one.
//
// Before the stream is touched, two files lie beside it, on the disk: the new index
// (NAME.cut-index) and the journal (NAME.cut-journal), which tells what is being done. Then the
// range is taken out, which is one step of the file system; what the journal holds is written over
// the packets at the seam; and the new index is renamed over the old one. Whoever finds a journal
// knows from the stream's size how far the work had come: before the one step, it is called off and
// the recording is the old one; behind it, the rest is done once more. One process at a time: the
// stream is locked.
#pragma once

#include <cstdint>

#include "files.h"
#include "recording.h"

namespace plexa::pvr {

struct StreamCut {
  int64_t old_size = 0;  // of the stream file
  int64_t begin = 0;     // bytes taken out: from here ...
  int64_t end = 0;       // ... to here; equal: none. Both whole units, or end is the file's end
  int64_t patch_at = 0;  // what is written at the seam, counted in the shortened file
  FileBytes patch{};

  int64_t new_size() const { return old_size - (end - begin); }
};

// Does all of it. Throws when it could not be done; the recording is the old one then, unless the
// message says that the next command will finish the cut.
void cut_recording(const LockedStream &stream, const RecordingPaths &paths, const StreamCut &cut,
                   const FileBytes &new_index);

// When a crash has interrupted a cut of this recording: finishes it or calls it off. Does nothing,
// and costs next to nothing, when there is no journal.
void settle_interrupted_cut(const RecordingPaths &paths);

// The same for a recording that is about to be replaced, if there is one: its journal must not
// outlive it.
void settle_before_overwriting(const std::string &stream_path);

}  // namespace plexa::pvr
