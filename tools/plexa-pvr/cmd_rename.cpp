// cmd_rename.cpp - plexa-pvr rename: gives a recording another name, on the disk or on the box.
#include <cerrno>
#include <cstdio>
#include <memory>

#include "command_line.h"
#include "failure.h"
#include "files.h"
#include "gst-plexa/gst_pvr_file.h"
#include "input_file.h"
#include "json.h"
#include "paths.h"
#include "recording.h"
#include "text.h"

namespace plexa::pvr {

extern const Command kRename;

namespace {

// On a box only opening tells. On the own disk it does not: a file may be unreadable, or a pipe.
bool is_there(const std::string &path) {
  if (!rec::is_box_in_use()) return file_exists(path);
  try {
    PvrFile(path, GST_PVR_FILE_STREAM);
    return true;
  } catch (const Failure &) {
    return false;
  }
}

void move(const std::string &from, const std::string &to) {
  GstPvrFile file{};
  gst_pvr_file_init(&file);
  errno = 0;
  const gint32 result = gst_pvr_file_rename(&file, from.c_str(), to.c_str());
  const int error = errno;
  gst_pvr_file_deinit(&file);
  if (result != 1) throw path_failure(from, error != 0 ? g_strerror(error) : "cannot be renamed");
}

std::string beside(const std::string &stream, const char *extension) {
  return stream.substr(0, stream.rfind('.')) + extension;
}

// The thumbnails go along. A box's mark of their completeness does not: it has none.
void move_thumbnails(const std::string &from, const std::string &to) {
  for (const char *const extension : {".thm", ".tm"}) {
    if (is_there(beside(from, extension))) move(beside(from, extension), beside(to, extension));
  }
}

void rename_recording(const std::string &from, const std::string &to, bool json) {
  const RecordingPaths old_paths = find_recording(from);
  rec::RecordingPaths new_paths;
  const std::string problem = rec::resolve_recording(to, new_paths);
  if (!problem.empty()) throw Failure(display(problem));
  // Thumbnails that someone else's recording has left behind would pass for this one's.
  for (const std::string &path :
       {new_paths.stream, new_paths.index, beside(new_paths.stream, ".thm"),
        beside(new_paths.stream, ".tm")}) {
    if (is_there(path)) throw path_failure(path, "exists already");
  }
  std::unique_ptr<const LockedStream> lock;
  if (!rec::is_box_in_use()) lock = std::make_unique<LockedStream>(old_paths.stream);
  move(old_paths.stream, new_paths.stream);
  try {
    move(old_paths.index, new_paths.index);
  } catch (const Failure &) {
    move(new_paths.stream, old_paths.stream);  // the two belong under one name
    throw;
  }
  move_thumbnails(old_paths.stream, new_paths.stream);
  rec::sync_folder(new_paths.stream);
  if (!json) {
    std::printf("Recording:  %s\n", display(new_paths.stream).c_str());
    return;
  }
  Json document;
  document.object().add("recording", display(new_paths.stream));
  std::fputs(document.end().text().c_str(), stdout);
}

int run(int argc, char **argv) {
  CommandLine line(kRename);
  line.add_json();
  if (!line.parse(argc, argv, 2, 2)) return kExitOk;
  rename_recording(line.operand(0), stream_name(line.operand(1)), line.json());
  return kExitOk;
}

}  // namespace

const Command kRename{
    "rename", "REC NEW.kvf", "Give a recording another name",
    "Renames stream file and index, and the thumbnails when there are some. NEW\n"
    "must not exist, and lie on the same disk. A recording that is being made is\n"
    "refused, except on a companion box, which cannot tell.\n"
    "\n"
    "Example:\n"
    "  plexa-pvr rename film.kvf holiday.kvf\n",
    run};

}  // namespace plexa::pvr
