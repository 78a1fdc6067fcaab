// decoder.h - coded pictures become images, through GStreamer.
//
// One pipeline and one decoder for as many pictures as are wanted, each of which stands for itself:
// nothing of one picture is left when the next one is decoded. One thread at a time.
#pragma once

#include <gst/gst.h>

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace plexa::pvr {

struct Image {
  int width = 0;
  int height = 0;
  std::vector<uint8_t> pixels;  // rows of width x 4 bytes: blue, green, red, unused
};

// Whether there is a decoder for this codec identifier.
bool can_decode(int codec);

class PictureDecoder {
 public:
  enum class Output { kPixels, kJpeg, kPng };

  // Images come out `height` lines high, with square pixels. Throws Failure when the codec has no
  // decoder or a GStreamer plug-in is missing.
  PictureDecoder(int codec, Output output, int height);
  ~PictureDecoder();
  PictureDecoder(const PictureDecoder &) = delete;
  PictureDecoder &operator=(const PictureDecoder &) = delete;

  // Throws Failure when the bytes hold no picture that can be decoded.
  Image decode(std::span<const uint8_t> picture);                 // Output::kPixels
  std::vector<uint8_t> encode(std::span<const uint8_t> picture);  // Output::kJpeg, kPng

 private:
  struct Unref {
    void operator()(GstElement *element) const { gst_object_unref(element); }
    void operator()(GstSample *sample) const { gst_sample_unref(sample); }
  };
  using Sample = std::unique_ptr<GstSample, Unref>;

  Sample run(std::span<const uint8_t> picture);

  std::unique_ptr<GstElement, Unref> pipeline_;
  std::unique_ptr<GstElement, Unref> source_;
  std::unique_ptr<GstElement, Unref> sink_;
};

}  // namespace plexa::pvr
