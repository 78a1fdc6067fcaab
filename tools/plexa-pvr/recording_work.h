// recording_work.h - what `record`, `index` and others share around the recorder: its progress on
// the terminal and its summary.
#pragma once

#include <string>

#include "progress.h"
#include "recorder.h"

namespace plexa::pvr {

// Shows the recorder's progress for as long as the object lives.
class RecorderProgress {
 public:
  RecorderProgress(const char *label, rec::Options &options);

 private:
  ProgressBar bar_;
};

// Prints what was made of the recording; throws when that is not what was wanted.
void finish_work(const std::string &stream_path, const rec::Outcome &outcome, bool json);

}  // namespace plexa::pvr
