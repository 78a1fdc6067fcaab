// thumbnails.cpp - see thumbnails.h.
#include "thumbnails.h"

#include <cerrno>
#include <cstdlib>
#include <memory>

#include "failure.h"
#include "gst-plexa/gst_plexa_api.h"
#include "gst-plexa/gst_pvr_tools.h"
#include "gst-plexa/gst_thumbnail_common.h"
#include "text.h"

namespace plexa::pvr {
namespace {

std::string with_extension(const std::string &path, const char *extension) {
  const std::unique_ptr<gchar, decltype(&std::free)> changed(
      gst_pvr_tool_change_extension(path.c_str(), extension), &std::free);
  if (changed == nullptr) throw path_failure(path, "has no extension");
  return changed.get();
}

}  // namespace

ThumbnailFile make_thumbnail_file(const Recording &recording) {
  const std::string &stream = recording.stream_path();
  ThumbnailFile file;
  file.path = with_extension(stream, ".thm");
  file.completion = with_extension(stream, ".tm");
  file.sizes.resize(GST_THUMBNAIL_PICTURES);
  file.codes.resize(GST_THUMBNAIL_PICTURES);
  if (gst_thumbnail_get_total_recorded_time(stream.c_str(), &file.total_time) != 1) {
    throw path_failure(stream, "the recorded time cannot be read");
  }
  errno = 0;
  if (gst_plexa_api_make_thumbnail_file(stream.c_str(), file.sizes.data(), file.codes.data()) !=
      1) {
    const int error = errno;
    throw path_failure(file.path,
                       format("the thumbnails could not be made%s%s; --log error tells why",
                              error != 0 ? ": " : "", error != 0 ? g_strerror(error) : ""));
  }
  return file;
}

CodedPicture::CodedPicture(const Recording &recording, gint32 time, gint32 average_iframe_size) {
  if (gst_thumbnail_get_recorded_frame(recording.stream_path().c_str(), time, &buffer_, &size_,
                                       &codec_, average_iframe_size) != 1) {
    throw path_failure(recording.stream_path(),
                       format("no picture at %s", clock_text(time).c_str()));
  }
}

CodedPicture::~CodedPicture() {
  if (buffer_ != nullptr) gst_thumbnail_release_buffer(&buffer_);
}

gint32 average_iframe_size(const Recording &recording) {
  gint32 average = 1;
  gst_thumbnail_get_iframe_average_size(recording.stream_path().c_str(), &average);
  return average;
}

}  // namespace plexa::pvr
