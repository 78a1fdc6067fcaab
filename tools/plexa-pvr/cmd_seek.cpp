// cmd_seek.cpp - plexa-pvr seek: what the index answers about a time or an offset.
#include <cstdio>
#include <optional>

#include "channel_text.h"
#include "command_line.h"
#include "failure.h"
#include "json.h"
#include "recording.h"
#include "text.h"

namespace plexa::pvr {

extern const Command kSeek;

namespace {

struct Question {
  std::optional<gint32> time;
  std::optional<gint64> offset;
  gint32 interval = 0;
};

struct Answer {
  frameData frame;
  gint64 number;
  gint32 time_by_offset;  // of the offset asked for, or of the I-frame; -1: none
  gint32 bit_rate;        // -1: none
  std::optional<pvr_channel_info_s> channel;
};

std::string question_text(const Question &question) {
  const std::string place = question.time
                                ? format("time %s", clock_text(*question.time).c_str())
                                : format("offset %lld", static_cast<long long>(*question.offset));
  if (question.interval == 0) return place;
  return format("%d GOPs from %s", question.interval, place.c_str());
}

Answer ask(Recording &recording, const Question &question) {
  GstIndexParser *const parser = recording.parser();
  Answer answer{};
  answer.frame =
      question.time
          ? gst_index_parser_get_iframe_by_time(parser, *question.time, question.interval)
          : gst_index_parser_get_iframe_by_offset(parser, *question.offset, question.interval);
  if (!answer.frame.is_valid) {
    throw path_failure(recording.index_path(), "no I-frame at " + question_text(question));
  }
  answer.number = gint64{parser->cached_start_abs_index} + answer.frame.cached_index;
  const gint64 offset = question.offset.value_or(static_cast<gint64>(answer.frame.stream_offset));
  answer.time_by_offset = gst_index_parser_get_time_by_offset(parser, offset);
  answer.bit_rate =
      gst_index_parser_get_estimated_bitrate(parser, static_cast<gint32>(answer.frame.timecode));
  answer.channel = recording.channel(answer.frame.channel_index);
  return answer;
}

void print_text(const Answer &answer) {
  const frameData &frame = answer.frame;
  std::printf("I-frame:         %lld\n", static_cast<long long>(answer.number));
  std::printf("Time:            %s (%u ms)\n", clock_text(frame.timecode).c_str(), frame.timecode);
  std::printf("PTS:             %llu\n", static_cast<unsigned long long>(frame.pts));
  std::printf("Offset:          %llu\n", static_cast<unsigned long long>(frame.stream_offset));
  std::printf("Length:          %u\n", frame.length);
  std::printf("Index record:    %u\n", frame.mdb_offset);
  std::printf("Last frame:      %s\n", clock_text(frame.last_frame_timecode).c_str());
  std::printf("Next GOP:        %s, PTS %llu, offset %llu\n",
              clock_text(frame.next_gop_timecode).c_str(),
              static_cast<unsigned long long>(frame.next_gop_pts),
              static_cast<unsigned long long>(frame.next_gop_frame_offset));
  std::printf("Time by offset:  %s\n",
              answer.time_by_offset < 0 ? "none" : clock_text(answer.time_by_offset).c_str());
  std::printf("Bit rate:        %s\n",
              answer.bit_rate < 0 ? "unknown" : bit_rate_text(answer.bit_rate).c_str());
  std::printf("Channel:         %d (%s)\n", int{frame.channel_index},
              answer.channel ? channel_text(*answer.channel).c_str() : "no such record");
}

void add_or_null(Json &json, const char *name, gint32 value) {
  if (value < 0) {
    json.add_null(name);
  } else {
    json.add(name, value);
  }
}

void add_frame(Json &json, const Answer &answer) {
  const frameData &frame = answer.frame;
  json.object("frame")
      .add("number", answer.number)
      .add("time_ms", frame.timecode)
      .add("pts", frame.pts)
      .add("offset", frame.stream_offset)
      .add("length", frame.length)
      .add("index_offset", frame.mdb_offset)
      .add("last_frame_time_ms", frame.last_frame_timecode)
      .add("next_gop_time_ms", frame.next_gop_timecode)
      .add("next_gop_pts", frame.next_gop_pts)
      .add("next_gop_offset", frame.next_gop_frame_offset)
      .add("video_pid", int{frame.video_pid})
      .add("video_format", int{frame.video_format})
      .add("has_sequence_header", frame.has_seq_header != 0)
      .end();
}

void print_json(Recording &recording, const Question &question, const Answer &answer) {
  Json json;
  json.object().add("recording", display(recording.stream_path())).object("asked");
  if (question.time) json.add("time_ms", *question.time);
  if (question.offset) json.add("offset", *question.offset);
  json.add("interval", question.interval).end();
  add_frame(json, answer);
  add_or_null(json, "time_by_offset_ms", answer.time_by_offset);
  add_or_null(json, "bit_rate", answer.bit_rate);
  if (answer.channel) {
    json.object("channel");
    add_channel(json, answer.frame.channel_index, *answer.channel);
    json.end();
  } else {
    json.add_null("channel");
  }
  std::fputs(json.end().text().c_str(), stdout);
}

int run(int argc, char **argv) {
  OptionText time;
  OptionText offset;
  OptionText interval;
  CommandLine line(kSeek);
  line.add({"time", 0, 0, G_OPTION_ARG_STRING, &time.value, "The I-frame at or before T", "T"});
  line.add({"offset", 0, 0, G_OPTION_ARG_STRING, &offset.value,
            "The I-frame at or before byte N of the stream file", "N"});
  line.add({"interval", 0, 0, G_OPTION_ARG_STRING, &interval.value,
            "The I-frame K GOPs further on (or back, when K is negative)", "K"});
  line.add_json();
  if (!line.parse(argc, argv, 1, 1)) return kExitOk;
  if (bool(time) == bool(offset)) throw UsageError("give one of --time and --offset");
  Question question;
  if (time) question.time = parse_time("--time", time.text());
  if (offset) question.offset = parse_number("--offset", offset.text(), 0, G_MAXINT64);
  if (interval) {
    question.interval =
        static_cast<gint32>(parse_number("--interval", interval.text(), -G_MAXINT32, G_MAXINT32));
  }

  Recording recording(line.operand(0));
  const std::string mismatch = recording.mismatch();
  const Answer answer = ask(recording, question);
  if (line.json()) {
    print_json(recording, question, answer);
  } else {
    print_text(answer);
  }
  if (!mismatch.empty()) throw Failure(mismatch);
  return kExitOk;
}

}  // namespace

const Command kSeek{
    "seek", "REC", "Find the I-frame at a time or an offset",
    "Prints what the index answers: the I-frame, the time of the offset, the bit\n"
    "rate there and the channel record in force. A time or an offset behind the end\n"
    "gives the last I-frame.\n"
    "\n"
    "T is a time: 1500ms, 12.5 (seconds), 1:02.5 or 00:01:02.500.\n"
    "N is a number of bytes, decimal or 0x...\n"
    "\n"
    "Examples:\n"
    "  plexa-pvr seek film.kvf --time 12:30\n"
    "  plexa-pvr seek film.kvf --time 12:30 --interval -1\n"
    "  plexa-pvr seek film.kvf --offset 1000000 --json\n",
    run};

}  // namespace plexa::pvr
