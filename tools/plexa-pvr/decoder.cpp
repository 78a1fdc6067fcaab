// decoder.cpp - see decoder.h.
#include "decoder.h"

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/video/video.h>

#include <cstring>
#include <string>

#include "failure.h"
#include "text.h"

namespace plexa::pvr {
namespace {

constexpr GstClockTime kPatience = 20 * GST_SECOND;  // for one picture

// From the coded picture's caps to the decoder, by the codec identifier of the channel record.
const char *decoder_elements(int codec) {
  switch (codec) {
    case 0:
      return "caps=\"video/mpeg,mpegversion=2,systemstream=false\" "
             "! mpegvideoparse ! avdec_mpeg2video max-threads=1";
    case 1:
      return "caps=\"video/x-h264,stream-format=byte-stream\" "
             "! h264parse ! avdec_h264 max-threads=1";
    case 4:
      return "caps=\"video/x-h265,stream-format=byte-stream\" "
             "! h265parse ! avdec_h265 max-threads=1";
    default:
      return nullptr;
  }
}

const char *output_elements(PictureDecoder::Output output) {
  switch (output) {
    case PictureDecoder::Output::kJpeg:
      return " ! jpegenc";
    case PictureDecoder::Output::kPng:
      return " ! pngenc snapshot=false";
    default:
      return "";
  }
}

std::string description(int codec, PictureDecoder::Output output, int height) {
  return format(
      "appsrc name=source format=time %s ! videoconvert ! videoscale ! "
      "video/x-raw,%sheight=%d,pixel-aspect-ratio=1/1%s ! appsink name=sink sync=false",
      decoder_elements(codec), output == PictureDecoder::Output::kPixels ? "format=BGRx," : "",
      height, output_elements(output));
}

// What the pipeline has to say about a picture that did not come out.
Failure picture_failure(GstElement *pipeline) {
  GstBus *const bus = gst_element_get_bus(pipeline);
  GstMessage *const message = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR);
  gst_object_unref(bus);
  if (message == nullptr) return Failure("a picture could not be decoded");
  GError *error = nullptr;
  gst_message_parse_error(message, &error, nullptr);
  const Failure failure(format("a picture could not be decoded: %s", error->message));
  g_error_free(error);
  gst_message_unref(message);
  return failure;
}

// Back to rest at the end of a picture, however it ended.
class Rest {
 public:
  explicit Rest(GstElement *pipeline) : pipeline_(pipeline) {}
  ~Rest() { gst_element_set_state(pipeline_, GST_STATE_NULL); }
  Rest(const Rest &) = delete;
  Rest &operator=(const Rest &) = delete;

 private:
  GstElement *pipeline_;
};

}  // namespace

bool can_decode(int codec) { return decoder_elements(codec) != nullptr; }

PictureDecoder::PictureDecoder(int codec, Output output, int height) {
  if (!can_decode(codec)) {
    throw Failure(format("pictures of codec %s cannot be decoded", codec_name(codec)));
  }
  gst_init(nullptr, nullptr);
  GError *error = nullptr;
  pipeline_.reset(gst_parse_launch(description(codec, output, height).c_str(), &error));
  if (error != nullptr) {
    const Failure failure(format("no decoder: %s", error->message));
    g_error_free(error);
    throw failure;
  }
  source_.reset(gst_bin_get_by_name(GST_BIN(pipeline_.get()), "source"));
  sink_.reset(gst_bin_get_by_name(GST_BIN(pipeline_.get()), "sink"));
}

PictureDecoder::~PictureDecoder() {
  if (pipeline_ != nullptr) gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
}

// A decoder holds pictures back until it knows that none comes before them, so every picture is a
// stream with an end. Of what comes out the first is the I-picture: leading pictures that follow it
// in the stream refer to pictures that are not there, and are dropped.
PictureDecoder::Sample PictureDecoder::run(std::span<const uint8_t> picture) {
  const Rest rest(pipeline_.get());
  gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING);
  GstBuffer *const buffer = gst_buffer_new_memdup(picture.data(), picture.size());
  GST_BUFFER_PTS(buffer) = 0;
  gst_app_src_push_buffer(GST_APP_SRC(source_.get()), buffer);
  gst_app_src_end_of_stream(GST_APP_SRC(source_.get()));
  Sample sample(gst_app_sink_try_pull_sample(GST_APP_SINK(sink_.get()), kPatience));
  if (sample == nullptr) throw picture_failure(pipeline_.get());
  return sample;
}

Image PictureDecoder::decode(std::span<const uint8_t> picture) {
  const Sample sample = run(picture);
  GstVideoInfo info;
  GstVideoFrame frame;
  if (!gst_video_info_from_caps(&info, gst_sample_get_caps(sample.get())) ||
      !gst_video_frame_map(&frame, &info, gst_sample_get_buffer(sample.get()), GST_MAP_READ)) {
    throw Failure("a decoded picture could not be read");
  }
  Image image{GST_VIDEO_INFO_WIDTH(&info), GST_VIDEO_INFO_HEIGHT(&info), {}};
  const size_t row = static_cast<size_t>(image.width) * 4;
  image.pixels.resize(row * static_cast<size_t>(image.height));
  const auto *const from = static_cast<const uint8_t *>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0));
  for (int y = 0; y < image.height; ++y) {
    std::memcpy(image.pixels.data() + row * static_cast<size_t>(y),
                from + static_cast<ptrdiff_t>(GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0)) * y, row);
  }
  gst_video_frame_unmap(&frame);
  return image;
}

std::vector<uint8_t> PictureDecoder::encode(std::span<const uint8_t> picture) {
  const Sample sample = run(picture);
  GstMapInfo map;
  GstBuffer *const buffer = gst_sample_get_buffer(sample.get());
  if (!gst_buffer_map(buffer, &map, GST_MAP_READ)) {
    throw Failure("a decoded picture could not be read");
  }
  std::vector<uint8_t> bytes(map.data, map.data + map.size);
  gst_buffer_unmap(buffer, &map);
  return bytes;
}

}  // namespace plexa::pvr
