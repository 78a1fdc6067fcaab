// cmd_cut.cpp - plexa-pvr cut: a range taken out of a recording, in place.
//
// What goes are whole GOPs inside the range that was asked for. The stream file loses whole erase
// units, which begin where no GOP does; the packets left over at the seam are overwritten.
#include <algorithm>
#include <cstdio>

#include "command_line.h"
#include "cut_journal.h"
#include "failure.h"
#include "gop_match.h"
#include "gst-plexa/gst_edit_unit.h"
#include "index_image.h"
#include "interrupt.h"
#include "json.h"
#include "recording.h"
#include "seam.h"
#include "text.h"

namespace plexa::pvr {

extern const Command kCut;

namespace {

// What goes: the GOPs from `first` up to the one before `end`.
struct Range {
  gint64 first = 0;
  gint64 end = 0;
  guint32 from = 0;  // ms
  guint32 to = 0;
  gint64 begin = 0;   // bytes of the stream file that hold these GOPs
  gint64 behind = 0;  // for the last GOP, the file's end
  guint64 next_pts = 0;
  bool to_the_end = false;
};

Failure damaged(const Recording &recording) {
  return path_failure(recording.index_path(),
                      "the index does not agree with the stream (see 'plexa-pvr check'); nothing "
                      "is taken out");
}

void require_finished(Recording &recording) {
  if (!recording.complete()) {
    throw path_failure(recording.stream_path(),
                       "the recording was never ended; 'plexa-pvr index --repair' does it");
  }
  const std::string mismatch = recording.mismatch();
  if (!mismatch.empty()) throw Failure(mismatch);
}

// Every record is written anew: one that does not follow from the one before would be spread.
void require_order(Recording &recording) {
  bool sound = true;
  pvr_gop_info_s before{};
  recording.for_each_gop(0, [&](gint64 number, const pvr_gop_info_s &gop) {
    sound = gop.time_code <= G_MAXINT32 && gop.next_gop_first_time > gop.time_code &&
            gop.next_gop_first_packet_count > gop.packet_count &&
            (number == 0 || (gop.packet_count == before.next_gop_first_packet_count &&
                             gop.time_code == before.next_gop_first_time));
    before = gop;
    return sound;
  });
  // That the last one ends within the stream has been seen before.
  if (!sound) throw damaged(recording);
}

void require_gop(Recording &recording, const pvr_gop_info_s &gop) {
  const auto at = static_cast<gint64>(gop.packet_count) * kPacketSize;
  if (match_gop(recording.stream(), at, gop) == GopMatch::kNo) throw damaged(recording);
}

Failure nothing_between(const Recording &recording, gint32 from, gint32 to) {
  return path_failure(
      recording.stream_path(),
      format("no whole GOP lies between %s and %s ('plexa-pvr frames' lists where they begin)",
             clock_text(from).c_str(), clock_text(to).c_str()));
}

// Behind the last GOP that ends by this time.
gint64 end_gop(Recording &recording, gint32 to) {
  if (to >= recording.duration()) return recording.gops();
  const gint64 from_there = recording.first_gop_from(to);
  if (from_there < recording.gops() &&
      recording.gop(from_there).time_code == static_cast<guint32>(to)) {
    return from_there;
  }
  return from_there - 1;
}

Range range_of(Recording &recording, gint32 from, gint32 to) {
  const gint32 duration = recording.duration();
  if (from >= duration) {
    throw path_failure(recording.stream_path(),
                       format("--from %s lies behind the end, %s", clock_text(from).c_str(),
                              clock_text(duration).c_str()));
  }
  Range range;
  range.first = recording.first_gop_from(from);
  range.end = end_gop(recording, to);
  if (range.first >= range.end) throw nothing_between(recording, from, std::min(to, duration));
  range.to_the_end = range.end == recording.gops();
  if (range.first == 0 && range.to_the_end) {
    throw path_failure(recording.stream_path(), "nothing of the recording would be left");
  }
  const pvr_gop_info_s first = recording.gop(range.first);
  require_gop(recording, first);
  range.from = first.time_code;
  // What lies in front of the first GOP belongs to no picture and goes with it.
  if (range.first > 0) range.begin = static_cast<gint64>(first.packet_count) * kPacketSize;
  if (range.to_the_end) {
    range.to = static_cast<guint32>(duration);
    range.behind = recording.stream_size();
    range.next_pts = first.pts;
    return range;
  }
  const pvr_gop_info_s behind = recording.gop(range.end);
  require_gop(recording, behind);
  range.to = behind.time_code;
  range.behind = static_cast<gint64>(behind.packet_count) * kPacketSize;
  range.next_pts = behind.pts;
  return range;
}

gint64 unit_from(gint64 offset) {
  return (offset + GST_EDIT_UNIT_SIZE - 1) / GST_EDIT_UNIT_SIZE * GST_EDIT_UNIT_SIZE;
}

gint64 unit_before(gint64 offset) { return offset / GST_EDIT_UNIT_SIZE * GST_EDIT_UNIT_SIZE; }

// The whole units inside the range go, and what is left of it on both sides becomes the seam. A
// range without a whole unit becomes seam altogether.
StreamCut cut_of(Recording &recording, const Range &range) {
  StreamCut cut;
  cut.old_size = recording.stream_size();
  cut.patch_at = range.begin;
  if (range.to_the_end) {
    cut.begin = range.begin;
    cut.end = cut.old_size;
    return cut;
  }
  const FileBytes lead = seam_lead(recording, recording.gop(range.end));
  cut.begin = unit_from(range.begin);
  cut.end = unit_before(range.behind - static_cast<gint64>(lead.size()));
  if (cut.end <= cut.begin) cut.begin = cut.end = range.begin;
  const gint64 left = range.behind - range.begin - (cut.end - cut.begin);
  cut.patch = seam_of(left, lead);
  return cut;
}

// The last record before the cut ends where the first one behind it now begins.
void join(IndexImage &index, const Range &range, const StreamCut &cut) {
  if (range.first == 0) return;
  const auto last = static_cast<size_t>(range.first - 1);
  pvr_gop_info_s record = index.record(last);
  const gint64 seam_end = range.begin + static_cast<gint64>(cut.patch.size());
  record.next_gop_first_packet_count =
      index.base().start_packet_count + static_cast<guint64>(seam_end / kPacketSize);
  record.next_gop_pts = range.next_pts;
  index.set_record(last, record);
}

// Time and packets go on from where the range began.
void move_up(IndexImage &index, const Range &range, const StreamCut &cut) {
  const guint32 time = range.to - range.from;
  const auto packets = static_cast<guint64>((cut.end - cut.begin) / kPacketSize);
  for (auto number = static_cast<size_t>(range.first); number < index.count(); ++number) {
    pvr_gop_info_s record = index.record(number);
    record.time_code -= time;
    record.last_frame_time -= time;
    record.next_gop_first_time -= time;
    record.packet_count -= packets;
    record.last_frame_packet_count -= packets;
    record.next_gop_first_packet_count -= packets;
    index.set_record(number, record);
  }
  pvr_base_table_s base = index.base();
  base.end_time_code -= time;
  base.total_size = static_cast<guint64>(cut.new_size());
  index.set_base(base);
}

FileBytes index_behind(const Recording &recording, const Range &range, const StreamCut &cut) {
  IndexImage index(recording);
  index.erase(static_cast<size_t>(range.first), static_cast<size_t>(range.end));
  join(index, range, cut);
  move_up(index, range, cut);
  return index.bytes();
}

void print(const std::string &path, const Range &range, const StreamCut &cut, gint64 gops_left,
           guint32 duration, bool as_json) {
  const gint64 removed = cut.end - cut.begin;
  if (!as_json) {
    std::printf("%s: took out %s to %s, %lld GOPs, %s; left %s, %s\n", display(path).c_str(),
                clock_text(range.from).c_str(), clock_text(range.to).c_str(),
                static_cast<long long>(range.end - range.first),
                bytes_text(static_cast<guint64>(removed)).c_str(), clock_text(duration).c_str(),
                bytes_text(static_cast<guint64>(cut.new_size())).c_str());
    return;
  }
  Json json;
  json.object()
      .add("recording", display(path))
      .add("from_ms", range.from)
      .add("to_ms", range.to)
      .add("first_gop", range.first)
      .add("gops_removed", range.end - range.first)
      .add("bytes_removed", removed)
      .add("bytes_overwritten", guint64{cut.patch.size()})
      .add("duration_ms", duration)
      .add("size", cut.new_size())
      .add("gops", gops_left)
      .end();
  std::fputs(json.text().c_str(), stdout);
}

void cut_range(const RecordingPaths &paths, gint32 from, gint32 to, bool as_json) {
  const LockedStream stream(paths.stream);
  Recording recording(paths.stream);
  require_finished(recording);
  require_order(recording);
  const Range range = range_of(recording, from, to);
  const StreamCut cut = cut_of(recording, range);
  const FileBytes index = index_behind(recording, range, cut);
  if (catch_interrupts()) throw path_failure(paths.stream, "interrupted; nothing is taken out");
  cut_recording(stream, paths, cut, index);
  print(paths.stream, range, cut, recording.gops() - (range.end - range.first),
        static_cast<guint32>(recording.duration()) - (range.to - range.from), as_json);
}

int run(int argc, char **argv) {
  OptionText from;
  OptionText to;
  CommandLine line(kCut);
  line.add({"from", 0, 0, G_OPTION_ARG_STRING, &from.value,
            "Take out from the first I-frame at or after T; from the start otherwise", "T"});
  line.add({"to", 0, 0, G_OPTION_ARG_STRING, &to.value,
            "Take out up to the last I-frame at or before T; to the end otherwise", "T"});
  line.add_json();
  if (!line.parse(argc, argv, 1, 1)) return kExitOk;
  if (!from && !to) throw UsageError("give --from, --to or both");
  const gint32 from_time = from ? parse_time("--from", from.text()) : 0;
  const gint32 to_time = to ? parse_time("--to", to.text()) : G_MAXINT32;
  if (from_time >= to_time) throw UsageError("--from must lie before --to");
  catch_interrupts();
  cut_range(find_recording(line.operand(0)), from_time, to_time, line.json());
  return kExitOk;
}

}  // namespace

const Command kCut{
    "cut", "REC", "Take a range out of a finished recording, in place",
    "Takes the whole GOPs that lie between the two times out of the recording. What\n"
    "stays is not copied: the file system takes whole units of 192512 bytes out of\n"
    "the stream file, and what is left of the range at the seam, under three units,\n"
    "is overwritten with null packets. What lies outside the range stays as it is,\n"
    "byte for byte. The thumbnail file is removed, since it shows the old recording.\n"
    "There is no way back.\n"
    "\n"
    "The new index is made first and replaces the old one at the end. After a crash\n"
    "the next plexa-pvr command on the recording finishes the cut, or calls it off\n"
    "when the stream file had not been touched. Nobody may play the recording\n"
    "meanwhile. The file system must be able to take ranges out of files, as ext4\n"
    "and XFS are.\n"
    "\n"
    "T is a time: 1500ms, 12.5 (seconds), 1:02.5 or 00:01:02.500.\n"
    "\n"
    "Examples:\n"
    "  plexa-pvr cut film.kvf --from 20:00 --to 26:30\n"
    "  plexa-pvr cut film.kvf --to 3:15\n"
    "  plexa-pvr cut film.kvf --from 1:45:00\n",
    run};

}  // namespace plexa::pvr
