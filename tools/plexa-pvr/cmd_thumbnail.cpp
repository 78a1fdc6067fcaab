// cmd_thumbnail.cpp - plexa-pvr thumbnail: the thumbnail file, a contact sheet, a preview strip.
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <memory>

#include "command_line.h"
#include "decoder.h"
#include "failure.h"
#include "interrupt.h"
#include "json.h"
#include "output_file.h"
#include "progress.h"
#include "recording.h"
#include "sheet.h"
#include "text.h"
#include "thumbnails.h"

namespace plexa::pvr {

extern const Command kThumbnail;

namespace {

constexpr int kPreviewHeight = 180;

struct Options {
  OptionText sheet;
  OptionText every;
  OptionText dir;
  gboolean png = FALSE;
  gboolean overwrite = FALSE;
};

std::string file_name(const std::string &path) { return path.substr(path.rfind('/') + 1); }

void write_sheet(const Recording &recording, const ThumbnailFile &file,
                 const std::vector<SheetPicture> &pictures, OutputFile &output) {
  const std::string title =
      display(file_name(recording.stream_path())) + "   " + clock_text(file.total_time);
  const std::vector<uint8_t> png = draw_sheet(title, pictures);
  output.write(png.data(), png.size());
  output.commit();
}

void print_text(const ThumbnailFile &file, const std::string &sheet) {
  const auto times = sheet_times(file.total_time);
  std::printf("Thumbnails: %s\n", display(file.path).c_str());
  for (size_t i = 0; i < times.size(); ++i) {
    std::printf("  %s  %s, %u bytes\n", clock_text(times[i]).c_str(), codec_name(file.codes[i]),
                file.sizes[i]);
  }
  if (!sheet.empty()) std::printf("Sheet:      %s\n", display(sheet).c_str());
}

void print_json(const ThumbnailFile &file, const std::string &sheet) {
  const auto times = sheet_times(file.total_time);
  Json json;
  json.object().add("thumbnails", display(file.path)).add("completion", display(file.completion));
  if (!sheet.empty()) json.add("sheet", display(sheet));
  json.array("pictures");
  for (size_t i = 0; i < times.size(); ++i) {
    json.object()
        .add("time_ms", times[i])
        .add("size", file.sizes[i])
        .add("codec", codec_name(file.codes[i]))
        .end();
  }
  std::fputs(json.end().end().text().c_str(), stdout);
}

int make_thumbnails(const Recording &recording, const Options &options, bool json) {
  const std::atomic<bool> &interrupted = catch_interrupts();
  std::unique_ptr<OutputFile> sheet;  // an output that cannot be is known before the work begins
  if (options.sheet) {
    refuse_own_files(recording, options.sheet.text());
    sheet = std::make_unique<OutputFile>(options.sheet.text(), options.overwrite != FALSE);
  }
  const ThumbnailFile file = make_thumbnail_file(recording);
  std::vector<SheetPicture> pictures;
  if (sheet != nullptr) {
    pictures = decode_thumbnails(file.path, file.total_time, file.sizes, file.codes);
    if (interrupted) throw path_failure(sheet->path(), "interrupted; nothing is written");
    write_sheet(recording, file, pictures, *sheet);
  }
  const std::string sheet_path = options.sheet.text();
  json ? print_json(file, sheet_path) : print_text(file, sheet_path);
  check_decoded(pictures);
  return kExitOk;
}

void make_folder(const std::string &path) {
  struct stat64 status {};
  if (::mkdir(path.c_str(), 0777) == 0) return;
  const int error = errno;
  if (error == EEXIST && ::stat64(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) return;
  throw path_failure(path, error);
}

// "DIR/00-12-30.jpg"; the milliseconds stand there only when steps are finer than seconds.
std::string preview_path(const Options &options, gint32 time, bool milliseconds) {
  std::string name = clock_text(time);
  if (!milliseconds) name.resize(name.find('.'));
  std::replace(name.begin(), name.end(), ':', '-');
  return options.dir.text() + "/" + name + (options.png ? ".png" : ".jpg");
}

void write_preview(const std::string &path, const std::vector<uint8_t> &image, bool overwrite) {
  OutputFile output(path, overwrite);
  output.write(image.data(), image.size());
  output.commit();
}

// One decoder as long as the codec stays the same.
class Strip {
 public:
  Strip(Recording &recording, const Options &options, gint32 step)
      : recording_(recording), options_(options), step_(step) {}

  gint32 written() const { return written_; }
  gint32 missing() const { return missing_; }              // could not be decoded
  const std::string &problem() const { return problem_; }  // of the first that is missing

  // Until the end, or until `stop`. Throws when no picture can be decoded.
  void run(const std::atomic<bool> &stop) {
    const gint32 total = recording_.duration();
    const gint32 average = average_iframe_size(recording_);
    ProgressBar bar("thumbnail");
    for (gint64 time = 0; time < std::max(total, 1) && !stop; time += step_) {
      const CodedPicture picture(recording_, static_cast<gint32>(time), average);
      const std::vector<uint8_t> image = decoded(picture);
      if (!image.empty()) {
        write_preview(preview_path(options_, static_cast<gint32>(time), step_ % 1000 != 0), image,
                      options_.overwrite != FALSE);
        ++written_;
      }
      bar.update(static_cast<uint64_t>(time), static_cast<uint64_t>(total));
    }
    if (written_ == 0 && missing_ > 0) throw Failure(problem_);
  }

 private:
  // Empty: it is missing.
  std::vector<uint8_t> decoded(const CodedPicture &picture) {
    try {
      return decoder_for(picture.codec()).encode(picture.bytes());
    } catch (const Failure &failure) {
      if (missing_++ == 0) problem_ = failure.what();
      return {};
    }
  }

  PictureDecoder &decoder_for(int codec) {
    if (decoder_ == nullptr || codec != codec_) {
      const auto output =
          options_.png ? PictureDecoder::Output::kPng : PictureDecoder::Output::kJpeg;
      decoder_ = std::make_unique<PictureDecoder>(codec, output, kPreviewHeight);
      codec_ = codec;
    }
    return *decoder_;
  }

  Recording &recording_;
  const Options &options_;
  const gint32 step_;
  gint32 written_ = 0;
  gint32 missing_ = 0;
  std::string problem_;
  int codec_ = -1;
  std::unique_ptr<PictureDecoder> decoder_;
};

int make_strip(Recording &recording, const Options &options, bool json) {
  const gint32 step = parse_time("--every", options.every.text());
  if (step < 1) throw UsageError("--every: at least 1ms");
  make_folder(options.dir.text());
  const std::atomic<bool> &stop = catch_interrupts();
  Strip strip(recording, options, step);
  strip.run(stop);
  if (json) {
    Json document;
    document.object()
        .add("dir", display(options.dir.text()))
        .add("pictures", strip.written())
        .add("missing", strip.missing())
        .end();
    std::fputs(document.text().c_str(), stdout);
  } else {
    std::printf("%d pictures in %s\n", strip.written(), display(options.dir.text()).c_str());
  }
  if (stop) throw Failure("interrupted");
  if (strip.missing() > 0) {
    throw Failure(format("%d of %d pictures are missing: %s", strip.missing(),
                         strip.missing() + strip.written(), strip.problem().c_str()));
  }
  return kExitOk;
}

int run(int argc, char **argv) {
  Options options;
  CommandLine line(kThumbnail);
  line.add({"sheet", 0, 0, G_OPTION_ARG_FILENAME, &options.sheet.value,
            "Draw the five pictures with their times", "OUT.png"});
  line.add({"every", 0, 0, G_OPTION_ARG_STRING, &options.every.value,
            "Instead: a preview picture at every T of the recording", "T"});
  line.add({"dir", 0, 0, G_OPTION_ARG_FILENAME, &options.dir.value,
            "Folder of the preview pictures; made when missing", "D"});
  line.add({"png", 0, 0, G_OPTION_ARG_NONE, &options.png,
            "Preview pictures as PNG (the default is JPEG)", nullptr});
  line.add({"overwrite", 0, 0, G_OPTION_ARG_NONE, &options.overwrite, "Replace pictures that exist",
            nullptr});
  line.add_json();
  if (!line.parse(argc, argv, 1, 1)) return kExitOk;
  if (options.every && options.sheet) throw UsageError("--every and --sheet exclude each other");
  if (static_cast<bool>(options.every) != static_cast<bool>(options.dir)) {
    throw UsageError("--every and --dir go together");
  }
  if (options.png && !options.every) throw UsageError("--png goes with --every");

  Recording recording(line.operand(0));
  if (options.every) return make_strip(recording, options, line.json());
  return make_thumbnails(recording, options, line.json());
}

}  // namespace

const Command kThumbnail{
    "thumbnail", "REC", "Make thumbnails, a contact sheet or a preview strip",
    "Writes the recording's thumbnail file (.thm), which holds five coded pictures at\n"
    "equal steps, and its second name (.tm), which marks it as complete. --sheet also\n"
    "decodes them into one picture. --every writes a strip of small pictures of the\n"
    "whole recording instead, also while it is still being recorded; their names are\n"
    "their times.\n"
    "\n"
    "Examples:\n"
    "  plexa-pvr thumbnail film.kvf --sheet film.png\n"
    "  plexa-pvr thumbnail film.kvf --every 10 --dir previews\n",
    run};

}  // namespace plexa::pvr
