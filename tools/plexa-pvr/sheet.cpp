// sheet.cpp - see sheet.h.
#include "sheet.h"

#include <cairo.h>

#include <algorithm>
#include <memory>
#include <span>

#include "failure.h"
#include "gst-plexa/gst_thumbnail_common.h"
#include "recording.h"
#include "text.h"

namespace plexa::pvr {
namespace {

constexpr int kPictureHeight = 216;
constexpr int kMargin = 12;
constexpr int kTitleHeight = 28;
constexpr int kCaptionHeight = 24;
constexpr double kFontSize = 15;

struct Destroy {
  void operator()(cairo_surface_t *surface) const { cairo_surface_destroy(surface); }
  void operator()(cairo_t *context) const { cairo_destroy(context); }
};
using Surface = std::unique_ptr<cairo_surface_t, Destroy>;
using Context = std::unique_ptr<cairo_t, Destroy>;

void draw_text(cairo_t *to, const std::string &text, double x, double y) {
  cairo_set_source_rgb(to, 0.92, 0.92, 0.92);
  cairo_move_to(to, x, y);
  cairo_show_text(to, text.c_str());
}

void draw_centred(cairo_t *to, const std::string &text, double middle, double y) {
  cairo_text_extents_t extents;
  cairo_text_extents(to, text.c_str(), &extents);
  draw_text(to, text, middle - extents.width / 2 - extents.x_bearing, y);
}

void draw_image(cairo_t *to, const Image &image, double x, double y) {
  const Surface surface(cairo_image_surface_create_for_data(
      const_cast<unsigned char *>(image.pixels.data()), CAIRO_FORMAT_RGB24, image.width,
      image.height, image.width * 4));
  cairo_set_source_surface(to, surface.get(), x, y);
  cairo_paint(to);
}

int sheet_width(const std::vector<SheetPicture> &pictures) {
  int width = kMargin;
  for (const SheetPicture &picture : pictures) width += picture.image.width + kMargin;
  return width;
}

cairo_status_t append_bytes(void *to, const unsigned char *data, unsigned int size) {
  auto *const bytes = static_cast<std::vector<uint8_t> *>(to);
  bytes->insert(bytes->end(), data, data + size);
  return CAIRO_STATUS_SUCCESS;
}

bool is_missing(const SheetPicture &picture) { return !picture.problem.empty(); }

Image grey_image() {
  constexpr int kWidth = kPictureHeight * 4 / 3;
  return {kWidth, kPictureHeight, std::vector<uint8_t>(size_t{kWidth} * kPictureHeight * 4, 0x38)};
}

// One damaged picture does not take the others with it.
SheetPicture decoded(std::unique_ptr<PictureDecoder> &decoder, int codec,
                     std::span<const uint8_t> coded) {
  try {
    if (decoder == nullptr) {
      decoder =
          std::make_unique<PictureDecoder>(codec, PictureDecoder::Output::kPixels, kPictureHeight);
    }
    return {0, decoder->decode(coded), ""};
  } catch (const Failure &failure) {
    return {0, grey_image(), failure.what()};
  }
}

std::string caption(const SheetPicture &picture) {
  return clock_text(picture.time) + (is_missing(picture) ? ", no picture" : "");
}

// Wherever recordings lie.
std::vector<uint8_t> read_whole_file(const std::string &path) {
  PvrFile file(path, GST_PVR_FILE_STREAM);
  std::vector<uint8_t> bytes(static_cast<size_t>(file.size()));
  bytes.resize(static_cast<size_t>(file.read_at(0, bytes.data(), std::ssize(bytes))));
  return bytes;
}

}  // namespace

std::vector<gint32> sheet_times(gint32 total_time) {
  const gint32 interval = total_time / GST_THUMBNAIL_PICTURES;
  std::vector<gint32> times;
  for (gint32 i = 0; i < GST_THUMBNAIL_PICTURES; ++i) {
    times.push_back(i * interval / 1000 * 1000);
  }
  return times;
}

std::vector<SheetPicture> decode_thumbnails(const std::string &thm_path, gint32 total_time,
                                            const std::vector<guint32> &sizes,
                                            const std::vector<gint32> &codes) {
  const std::vector<uint8_t> bytes = read_whole_file(thm_path);
  const std::vector<gint32> times = sheet_times(total_time);
  std::vector<SheetPicture> pictures;
  std::unique_ptr<PictureDecoder> decoder;
  size_t at = 0;
  for (size_t i = 0; i < times.size(); ++i) {
    if (sizes[i] > bytes.size() - at) throw path_failure(thm_path, "shorter than its pictures");
    if (i > 0 && codes[i] != codes[i - 1]) decoder.reset();
    pictures.push_back(decoded(decoder, codes[i], {bytes.data() + at, sizes[i]}));
    pictures.back().time = times[i];
    at += sizes[i];
  }
  if (std::all_of(pictures.begin(), pictures.end(), is_missing)) {
    throw Failure(pictures.front().problem);
  }
  return pictures;
}

void check_decoded(const std::vector<SheetPicture> &pictures) {
  const auto missing = std::count_if(pictures.begin(), pictures.end(), is_missing);
  if (missing == 0) return;
  const auto first = std::find_if(pictures.begin(), pictures.end(), is_missing);
  throw Failure(format("%d of %zu pictures are missing: %s", static_cast<int>(missing),
                       pictures.size(), first->problem.c_str()));
}

std::vector<uint8_t> draw_sheet(const std::string &title,
                                const std::vector<SheetPicture> &pictures) {
  const int height = kTitleHeight + kPictureHeight + kCaptionHeight + kMargin;
  const Surface surface(
      cairo_image_surface_create(CAIRO_FORMAT_RGB24, sheet_width(pictures), height));
  const Context context(cairo_create(surface.get()));
  cairo_set_source_rgb(context.get(), 0.11, 0.12, 0.13);
  cairo_paint(context.get());
  cairo_select_font_face(context.get(), "sans-serif", CAIRO_FONT_SLANT_NORMAL,
                         CAIRO_FONT_WEIGHT_NORMAL);
  cairo_set_font_size(context.get(), kFontSize);
  draw_text(context.get(), title, kMargin, kTitleHeight - 8);
  int x = kMargin;
  for (const SheetPicture &picture : pictures) {
    draw_image(context.get(), picture.image, x, kTitleHeight);
    draw_centred(context.get(), caption(picture), x + picture.image.width / 2.0,
                 kTitleHeight + kPictureHeight + kCaptionHeight - 5);
    x += picture.image.width + kMargin;
  }
  std::vector<uint8_t> png;
  if (cairo_surface_write_to_png_stream(surface.get(), append_bytes, &png) !=
      CAIRO_STATUS_SUCCESS) {
    throw Failure("the contact sheet could not be drawn");
  }
  return png;
}

}  // namespace plexa::pvr
