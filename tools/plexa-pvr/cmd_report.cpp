// cmd_report.cpp - plexa-pvr report: one page that shows what a recording is.
#include <atomic>
#include <cstdio>
#include <map>

#include "chart.h"
#include "command_line.h"
#include "failure.h"
#include "interrupt.h"
#include "output_file.h"
#include "recording.h"
#include "sheet.h"
#include "text.h"
#include "thumbnails.h"

namespace plexa::pvr {

extern const Command kReport;

namespace {

constexpr char kStyle[] =
    "body{font:15px/1.5 sans-serif;max-width:60em;margin:2em auto;padding:0 1em;color:#222}"
    "h1{font-size:1.5em;overflow-wrap:anywhere}h2{font-size:1.15em;margin-top:1.6em}"
    "img,svg{width:100%;height:auto}table{border-collapse:collapse;width:100%}"
    "th,td{text-align:left;padding:.3em .7em;border-bottom:1px solid #ddd}"
    ".grid{stroke:#ddd}.area{fill:#3b7dd8;fill-opacity:.75}"
    "svg text{font:12px sans-serif;fill:#444}.scale{text-anchor:end}"
    "svg .title{font-size:14px;fill:#222}";

struct Series {
  std::vector<ChartPoint> bit_rate;    // Mbit/s
  std::vector<ChartPoint> gop_length;  // ms
  std::map<guint16, gint64> channels;  // GOPs by slot
};

std::string escape(const std::string &text) {
  gchar *const escaped = g_markup_escape_text(text.c_str(), -1);
  std::string out = escaped;
  g_free(escaped);
  return out;
}

std::string base64(const std::vector<uint8_t> &bytes) {
  gchar *const text = g_base64_encode(bytes.data(), bytes.size());
  std::string out = text;
  g_free(text);
  return out;
}

Series series_of(Recording &recording) {
  Series series;
  recording.for_each_gop(0, [&](gint64, const pvr_gop_info_s &gop) {
    const auto length = static_cast<gint32>(gop.next_gop_first_time - gop.time_code);
    const auto packets = static_cast<gint64>(gop.next_gop_first_packet_count - gop.packet_count);
    if (length > 0 && packets >= 0) {
      const double bits = static_cast<double>(packets) * kPacketSize * 8;
      series.bit_rate.push_back({gop.time_code, bits / length / 1000});
      series.gop_length.push_back({gop.time_code, static_cast<double>(length)});
    }
    ++series.channels[gop.index_of_channel];
    return true;
  });
  return series;
}

std::string row(const std::string &name, const std::string &value) {
  return "<tr><th>" + name + "</th><td>" + value + "</td></tr>\n";
}

std::string facts(Recording &recording) {
  const gint32 duration = recording.duration();
  std::string rows = row("Duration", clock_text(duration));
  rows += row("Size", bytes_text(static_cast<uint64_t>(recording.stream_size())));
  rows += row("GOPs", format("%lld", static_cast<long long>(recording.gops())));
  if (duration > 0) {
    rows += row("Bit rate", bit_rate_text(static_cast<int64_t>(
                                static_cast<double>(recording.stream_size()) * 8000 / duration)));
  }
  rows += row("Index", std::string(recording.layout()) + " layout, " +
                           (recording.complete() ? "complete" : "still running, or cut short"));
  return "<table>\n" + rows + "</table>\n";
}

std::string channel_row(Recording &recording, guint16 slot, gint64 gops) {
  const auto channel = recording.channel(slot);
  if (!channel) {
    return format("<tr><td>%d</td><td colspan=\"4\">no such record</td><td>%lld</td></tr>\n",
                  int{slot}, static_cast<long long>(gops));
  }
  return format("<tr><td>%d</td><td>%s</td><td>%d</td><td>%u</td><td>%d</td><td>%lld</td></tr>\n",
                int{slot}, codec_name(channel->video_encode_type), int{channel->video_pid},
                channel->audio_pid, int{channel->pcr_pid}, static_cast<long long>(gops));
}

std::string channel_table(Recording &recording, const Series &series) {
  std::string rows =
      "<tr><th>Slot</th><th>Codec</th><th>Video PID</th><th>Audio PID</th><th>PCR PID</th>"
      "<th>GOPs</th></tr>\n";
  for (const auto &[slot, gops] : series.channels) rows += channel_row(recording, slot, gops);
  return "<table>\n" + rows + "</table>\n";
}

std::vector<SheetPicture> pictures_of(const Recording &recording) {
  const ThumbnailFile file = make_thumbnail_file(recording);
  return decode_thumbnails(file.path, file.total_time, file.sizes, file.codes);
}

std::string sheet_image(const Recording &recording, const std::vector<SheetPicture> &pictures) {
  const auto png = draw_sheet(display(recording.stream_path()), pictures);
  return "<img alt=\"Five pictures of the recording\" src=\"data:image/png;base64," + base64(png) +
         "\">\n";
}

std::string page(Recording &recording, const std::vector<SheetPicture> &pictures) {
  const std::string name = escape(display(recording.stream_path()));
  const Series series = series_of(recording);
  const gint32 duration = recording.duration();
  std::string html =
      "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n<title>" + name +
      "</title>\n<style>" + kStyle + "</style>\n</head>\n<body>\n<h1>" + name + "</h1>\n";
  html += sheet_image(recording, pictures) + facts(recording);
  html += "<h2>Over time</h2>\n";
  html += svg_chart("Bit rate", series.bit_rate, duration, "Mbit/s");
  html += svg_chart("GOP length", series.gop_length, duration, "ms");
  html += "<h2>Channel records</h2>\n" + channel_table(recording, series);
  return html + "</body>\n</html>\n";
}

int run(int argc, char **argv) {
  gboolean overwrite = FALSE;
  CommandLine line(kReport);
  line.add({"overwrite", 0, 0, G_OPTION_ARG_NONE, &overwrite, "Replace OUT.html when it exists",
            nullptr});
  if (!line.parse(argc, argv, 2, 2)) return kExitOk;

  Recording recording(line.operand(0));
  const std::atomic<bool> &interrupted = catch_interrupts();
  refuse_own_files(recording, line.operand(1));
  OutputFile output(line.operand(1), overwrite != FALSE);
  const std::vector<SheetPicture> pictures = pictures_of(recording);
  const std::string html = page(recording, pictures);
  if (interrupted) throw path_failure(output.path(), "interrupted; nothing is written");
  output.write(html.data(), html.size());
  output.commit();
  check_decoded(pictures);
  return kExitOk;
}

}  // namespace

const Command kReport{
    "report", "REC OUT.html", "Write a page with pictures, charts and tables",
    "Writes one page that needs nothing else: the contact sheet, the bit rate and the\n"
    "length of the GOPs over time, and the channel records. The recording's thumbnail\n"
    "file is made on the way.\n"
    "\n"
    "Example:\n"
    "  plexa-pvr report film.kvf film.html\n",
    run};

}  // namespace plexa::pvr
