// cmd_keep.cpp - plexa-pvr keep: a time-shift buffer becomes a recording.
//
// The buffer's index counts from the first byte ever recorded, its stream file has lost the front,
// and nothing says how much. It is found by trying: whole units were removed, so there are few
// places where a GOP of the index can lie, and its time stamp tells which one is right. The stream
// file is renamed; only the index is written anew.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <optional>

#include "command_line.h"
#include "failure.h"
#include "files.h"
#include "gop_match.h"
#include "gst-plexa/gst_edit_unit.h"
#include "gst-plexa/gst_pvr_tools.h"
#include "index_image.h"
#include "input_file.h"
#include "interrupt.h"
#include "json.h"
#include "output_file.h"
#include "recorder.h"
#include "recording.h"
#include "recording_work.h"
#include "text.h"

namespace plexa::pvr {

extern const Command kKeep;

namespace {

constexpr char kStreamExtension[] = ".kvf";
constexpr gint64 kUnit = GST_EDIT_UNIT_SIZE;
// GOPs, evenly spread over the buffer, that must all lie where the index says.
constexpr gint64 kSamples = 32;

gint64 offset_of(const pvr_gop_info_s &gop) {
  return static_cast<gint64>(gop.packet_count) * kPacketSize;
}

// ---- What the front has lost ----

class LostFront {
 public:
  explicit LostFront(Recording &recording) : recording_(recording) {}

  // Bytes; none: the index is not one of this stream file.
  std::optional<gint64> find() {
    const pvr_gop_info_s last = recording_.gop(recording_.gops() - 1);
    // The stream normally ends a little behind the last GOP, which leaves one guess or two. A crash
    // may have cost the stream's end: then fewer bytes are missing in front than it seems.
    const gint64 known_end = static_cast<gint64>(last.next_gop_first_packet_count) * kPacketSize;
    const gint64 least = known_end - recording_.stream_size();
    const gint64 guess = least > 0 ? (least + kUnit - 1) / kUnit * kUnit : 0;
    for (gint64 lost = guess; lost <= offset_of(last); lost += kUnit) {
      if (fits(lost, last)) return lost;
    }
    return find_shorter(guess - kUnit);
  }

 private:
  // The last GOP that the index and a stream which has lost its end both know.
  std::optional<gint64> find_shorter(gint64 lost) {
    gint64 number = recording_.gops() - 1;
    for (; lost >= 0; lost -= kUnit) {
      const gint64 end = lost + recording_.stream_size();
      while (number > 0 && offset_of(recording_.gop(number)) + kPacketSize > end) --number;
      if (fits(lost, recording_.gop(number))) return lost;
    }
    return {};
  }

  bool fits(gint64 lost, const pvr_gop_info_s &probe) {
    return match_gop(recording_.stream(), offset_of(probe) - lost, probe) != GopMatch::kNo &&
           samples_fit(lost);
  }

  bool samples_fit(gint64 lost) {
    const gint64 end = lost + recording_.stream_size();
    gint64 first = 0;
    gint64 behind = recording_.gops();
    narrow(lost, end, first, behind);
    bool proved = false;
    const gint64 step = std::max<gint64>((behind - first) / kSamples, 1);
    for (gint64 number = first; number < behind; number += step) {
      const pvr_gop_info_s gop = recording_.gop(number);
      const GopMatch match = match_gop(recording_.stream(), offset_of(gop) - lost, gop);
      if (match == GopMatch::kNo) return false;
      proved |= match == GopMatch::kYes;
    }
    return proved;
  }

  // The GOPs whose I-frames begin inside [lost, end): they rise from record to record.
  void narrow(gint64 lost, gint64 end, gint64 &first, gint64 &behind) {
    first = first_at_or_behind(lost);
    behind = first_at_or_behind(end - kPacketSize + 1);
  }

  gint64 first_at_or_behind(gint64 offset) {
    gint64 low = 0;
    gint64 high = recording_.gops();
    while (low < high) {
      const gint64 middle = low + (high - low) / 2;
      if (offset_of(recording_.gop(middle)) < offset) {
        low = middle + 1;
      } else {
        high = middle;
      }
    }
    return low;
  }

  Recording &recording_;
};

// ---- The new index ----

struct Kept {
  gint64 lost = 0;   // bytes missing in front
  gint64 first = 0;  // GOPs that are still there whole ...
  gint64 end = 0;    // ... up to the one before this
  guint32 from = 0;  // ms
  guint32 to = 0;
  gint64 indexed = 0;  // bytes of the stream file that they reach to
};

void require_order(Recording &recording) {
  bool sound = true;
  pvr_gop_info_s before{};
  recording.for_each_gop(0, [&](gint64 number, const pvr_gop_info_s &gop) {
    constexpr auto kMostPackets = static_cast<guint64>(G_MAXINT64 / kPacketSize);
    sound = gop.time_code <= G_MAXINT32 && gop.next_gop_first_packet_count <= kMostPackets &&
            gop.packet_count < gop.next_gop_first_packet_count &&
            (number == 0 || (gop.packet_count >= before.next_gop_first_packet_count &&
                             gop.time_code > before.time_code));
    before = gop;
    return sound;
  });
  if (!sound) {
    throw path_failure(recording.index_path(),
                       "the index contradicts itself; 'plexa-pvr index' makes one anew");
  }
}

Kept kept_of(Recording &recording) {
  const auto lost = LostFront(recording).find();
  if (!lost) {
    throw path_failure(recording.stream_path(),
                       "the index does not fit the stream file, whatever has been removed from its "
                       "front; 'plexa-pvr index' makes one anew");
  }
  Kept kept;
  kept.lost = *lost;
  kept.first = recording.gops();
  const gint64 end = kept.lost + recording.stream_size();
  recording.for_each_gop(0, [&](gint64 number, const pvr_gop_info_s &gop) {
    const gint64 behind = static_cast<gint64>(gop.next_gop_first_packet_count) * kPacketSize;
    if (offset_of(gop) < kept.lost) return true;
    if (behind > end) return false;
    if (kept.end == 0) {
      kept.first = number;
      kept.from = gop.time_code;
    }
    kept.end = number + 1;
    kept.to = gop.next_gop_first_time;
    kept.indexed = behind - kept.lost;
    return true;
  });
  if (kept.end == 0) throw path_failure(recording.stream_path(), "no whole GOP is left in it");
  return kept;
}

// The recorder has ended it, and the index reaches the stream's end.
bool is_whole(const Recording &recording, const Kept &kept) {
  constexpr gint64 kPadding = 4096;  // of a last block written past the page cache
  return recording.complete() && kept.end == recording.gops() &&
         recording.stream_size() - kept.indexed < kPadding;
}

// As if recording had begun with the first packet that is left, and the first GOP.
FileBytes index_of(const Recording &recording, const Kept &kept) {
  IndexImage index(recording);
  index.erase(static_cast<size_t>(kept.end), index.count());
  index.erase(0, static_cast<size_t>(kept.first));
  pvr_base_table_s base = index.base();
  const guint64 packets = base.start_packet_count + static_cast<guint64>(kept.lost / kPacketSize);
  const guint32 time = base.start_time_code + kept.from;
  for (size_t number = 0; number < index.count(); ++number) {
    pvr_gop_info_s record = index.record(number);
    record.time_code -= time;
    record.last_frame_time -= time;
    record.next_gop_first_time -= time;
    record.packet_count -= packets;
    record.last_frame_packet_count -= packets;
    record.next_gop_first_packet_count -= packets;
    index.set_record(number, record);
  }
  base.start_time_code = 0;
  base.start_packet_count = 0;
  // An end that is not known yet is found by the recorder's repair.
  base.end_time_code = is_whole(recording, kept) ? kept.to - kept.from : 0;
  base.total_size = is_whole(recording, kept) ? static_cast<guint64>(recording.stream_size()) : 0;
  index.set_base(base);
  return index.bytes();
}

// ---- The new names ----

struct NewNames {
  std::string stream;
  std::string index;
};

// Absolute and without symbolic links, as the library wants them.
NewNames new_names(const std::string &operand) {
  const std::string &given = stream_name(operand);
  char *const folder = ::realpath(folder_of(given).c_str(), nullptr);
  if (folder == nullptr) throw path_failure(folder_of(given), errno);
  std::string stem(folder);
  std::free(folder);
  const std::string name = given.substr(given.rfind('/') + 1);
  stem += (stem == "/" ? "" : "/") + name.substr(0, name.size() - sizeof kStreamExtension + 1);
  return {stem + kStreamExtension, stem + ".mdb"};
}

// An index that a crash has left in front of the rename is the very one that is written now.
void write_index(const NewNames &names, const FileBytes &bytes) {
  if (file_exists(names.index) && read_whole(names.index) == bytes) return;
  OutputFile output(names.index, false);
  output.write(bytes.data(), bytes.size());
  output.commit();
}

void rename_stream(const std::string &from, const std::string &to) {
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return;
  if (errno == EXDEV) {
    throw path_failure(to, "lies on another file system than the buffer, and nothing is copied");
  }
  if (errno == EEXIST) throw path_failure(to, "exists already");
  if (errno != EINVAL && errno != ENOSYS) throw path_failure(to, errno);
  // The file system has no such rename; that there is no such file has been seen.
  rename_file(from, to);
}

// The index first: the buffer is whole until the rename, the recording from there on.
void move_files(const RecordingPaths &buffer, const NewNames &names, const FileBytes &index) {
  if (file_exists(names.stream)) throw path_failure(names.stream, "exists already");
  write_index(names, index);
  sync_folder_of(names.index);
  try {
    rename_stream(buffer.stream, names.stream);
  } catch (...) {
    ::unlink(names.index.c_str());
    throw;
  }
  sync_folder_of(names.stream);
  const std::string stem = buffer.stream.substr(0, buffer.stream.rfind('.'));
  for (const char *const extension : {".thm", ".tm"}) remove_file(stem + extension);
  remove_file(buffer.index);
  sync_folder_of(buffer.stream);
}

// ---- The command ----

struct Result {
  gint64 lost = 0;
  guint32 from = 0;  // ms of the buffer's own time
  gint32 duration = 0;
  gint64 gops = 0;
  gint64 size = 0;
};

void print(const NewNames &names, const Result &result, bool as_json) {
  if (!as_json) {
    std::printf(
        "%s: %s, %lld GOPs, %s; kept from %s on, %s had been removed before it\n",
        display(names.stream).c_str(), clock_text(result.duration).c_str(),
        static_cast<long long>(result.gops), bytes_text(static_cast<guint64>(result.size)).c_str(),
        clock_text(result.from).c_str(), bytes_text(static_cast<guint64>(result.lost)).c_str());
    return;
  }
  Json json;
  json.object()
      .add("recording", display(names.stream))
      .add("from_ms", result.from)
      .add("bytes_lost", result.lost)
      .add("duration_ms", result.duration)
      .add("gops", result.gops)
      .add("size", result.size)
      .end();
  std::fputs(json.text().c_str(), stdout);
}

// Moves the buffer. Its index as far as it goes; true: to the end.
bool move_buffer(const RecordingPaths &buffer, const NewNames &names, Result &result) {
  const LockedStream lock(buffer.stream);
  Recording recording(buffer.stream);
  require_order(recording);
  const Kept kept = kept_of(recording);
  const FileBytes index = index_of(recording, kept);
  if (catch_interrupts()) throw path_failure(buffer.stream, "interrupted; nothing is changed");
  move_files(buffer, names, index);
  result.lost = kept.lost;
  result.from = kept.from;
  return is_whole(recording, kept);
}

// A packet that a crash has left unfinished.
void drop_partial_packet(const std::string &path) {
  const LockedStream stream(path);
  const int64_t whole = stream.size() / kPacketSize * kPacketSize;
  if (whole != stream.size() && ::ftruncate64(stream.get(), whole) != 0) {
    throw path_failure(path, errno);
  }
}

// What a recorder that never ended had stored behind its last record.
void index_the_rest(const NewNames &names) {
  drop_partial_packet(names.stream);
  rec::Options options;
  options.stop = &catch_interrupts();
  rec::Outcome outcome;
  {
    const RecorderProgress progress("indexing", options);
    outcome = rec::repair_index(names.stream, options);
  }
  if (outcome.ok) return;
  throw Failure(display(outcome.error) + "; the recording is kept, but its end is not indexed ('" +
                "plexa-pvr index --repair' does it)");
}

int run(int argc, char **argv) {
  CommandLine line(kKeep);
  line.add_json();
  if (!line.parse(argc, argv, 2, 2)) return kExitOk;
  const NewNames names = new_names(line.operand(1));
  const RecordingPaths buffer = find_recording(line.operand(0));
  catch_interrupts();
  Result result;
  if (!move_buffer(buffer, names, result)) index_the_rest(names);
  Recording recording(names.stream);
  result.duration = recording.duration();
  result.gops = recording.gops();
  result.size = recording.stream_size();
  print(names, result, line.json());
  return kExitOk;
}

}  // namespace

const Command kKeep{
    "keep", "BUFFER.kvf NEW.kvf", "Turn a time-shift buffer into a recording",
    "Renames the stream file of a time-shift buffer that nobody records any more, and\n"
    "writes an index for what is left of it: the time begins with the first I-frame\n"
    "that is still there. The stream is not copied, so NEW.kvf must be on the same\n"
    "file system. A buffer that a crash left behind is kept up to its last whole\n"
    "packet. A buffer that is being recorded is refused, and so is a NEW.kvf that\n"
    "exists. After a crash in the middle there is the buffer, and the same command\n"
    "does it, or the recording.\n"
    "\n"
    "Examples:\n"
    "  plexa-pvr keep buffer.kvf match.kvf\n"
    "  plexa-pvr keep buffer.mdb /films/match.kvf --json\n",
    run};

}  // namespace plexa::pvr
