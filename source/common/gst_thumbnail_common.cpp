// gst_thumbnail_common.cpp - the ".thm" file of a recording, and the whole-recording figures that
// making it takes (total time, average I-frame size).
//
// The ".thm" file is described in docs/thumbnail-file.md. A recording whose index cannot be read,
// or gives no usable total time, is refused; so is an old ".tm" name that cannot be removed,
// because it would vouch for a file that is being rewritten. Every call opens files of its own: any
// thread may call, but two calls that write the same recording's ".thm" file must be kept apart by
// the caller.
#include "gst-plexa/gst_thumbnail_common.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string_view>

#include "gst-plexa/gst_pvr_tools.h"
#include "gst_thumbnail_files.h"
#include "gst_thumbnail_internal.h"

#define PLEXA_LOG_AREA "EXT_THM"
#include "plexa_log.h"

namespace plexa {
namespace {

constexpr gint32 kPictures = GST_THUMBNAIL_PICTURES;

// The average reads the index in blocks. Up to kMaxBlocks of them make the whole table; a longer
// table is sampled by as many, at equal distances from its first record to its last.
constexpr gint32 kBlockGops = 256;
constexpr gint32 kMaxBlocks = 16;

struct Picture {
  ~Picture() { std::free(bytes); }

  guint8 *bytes = nullptr;
  guint32 size = 0;
  gint32 code = -1;
};

struct Results {
  std::array<guint32, kPictures> sizes{};
  std::array<gint32, kPictures> codes{};
};

// ---------------------------------------------------------------- figures of the whole recording

bool _open_index(ScopedPvrFile &index, const gchar *path) {
  const gint64 ret = index.open_index(path);
  if (ret >= 0) return true;
  PLX_ERROR("[PLG_ERR] open mdb file failed, fd = [%lld]", static_cast<long long>(ret));
  return false;
}

// A parser that did not start still knows the time of a finished recording whose base table it
// could read. Without that, or with times that are upside down, there is no total time.
gint32 _total_time(GstPvrFile *index, const gchar *path, gint32 *time) {
  ScopedIndexParser parser(index, path);
  if (parser.start() < 0 && parser.get()->base_table.end_time_code == 0) return 0;
  const gint32 total = gst_index_parser_get_total_time(parser.get());
  PLX_INFO("[THM_OUT]total recorded time = [%d]", total);
  if (total < 0) return 0;
  *time = total;
  return 1;
}

struct Sum {
  guint64 packets = 0;
  gint64 frames = 0;
};

// Both layouts keep the I-frame's size at the same place of a record.
constexpr size_t kIframeSizeAt = offsetof(pvr_gop_info_s, iframe_size);
static_assert(offsetof(pvr_pelko_gop_info_s, iframe_size) == kIframeSizeAt);

void _add_block(const GstIndexParser *parser, gint64 first_gop, Sum &sum) {
  std::array<guint8, kBlockGops * sizeof(pvr_gop_info_s)> block;
  const size_t record = parser->gop_info_size;
  const gint64 at = parser->gop_start_offset + first_gop * parser->gop_info_size;
  if (gst_pvr_file_seek(parser->index_file, at, 0) < 0) return;
  const gint64 got =
      gst_pvr_file_read(parser->index_file, block.data(), kBlockGops * parser->gop_info_size);
  for (size_t end = record; static_cast<gint64>(end) <= got; end += record) {
    guint32 packets;
    std::memcpy(&packets, block.data() + (end - record) + kIframeSizeAt, sizeof packets);
    sum.packets += packets;
    ++sum.frames;
  }
}

Sum _sum_of_iframes(GstIndexParser *parser) {
  const gint64 gops = gst_index_parser_get_max_gop_index(parser);
  const gint64 blocks = std::min<gint64>((gops + kBlockGops - 1) / kBlockGops, kMaxBlocks);
  const bool whole = gops <= kBlockGops * kMaxBlocks;
  Sum sum;
  for (gint64 i = 0; i < blocks; ++i) {
    const gint64 first = whole ? i * kBlockGops : (gops - kBlockGops) * i / (kMaxBlocks - 1);
    _add_block(parser, first, sum);
  }
  return sum;
}

gint32 _mean_size(const Sum &sum) {
  const guint64 mean = sum.packets * kTsPacketSize / static_cast<guint64>(sum.frames);
  return static_cast<gint32>(std::clamp<guint64>(mean, 1, G_MAXINT32));
}

// ---------------------------------------------------------------- the ".thm" file

// The completion mark of an earlier run goes first: it is a second name of the very file that is
// now going to be emptied. Its name is made here, without the helper's log line, from the ".thm"
// name.
bool _remove_old_mark(gchar *thm_path) {
  static constexpr std::string_view kThm = ".thm";
  static constexpr std::string_view kTm = ".tm";
  gchar *const extension = thm_path + std::strlen(thm_path) - kThm.size();
  std::memcpy(extension, kTm.data(), kTm.size() + 1);
  const bool gone = unlink(thm_path) == 0 || errno == ENOENT;
  if (!gone)
    PLX_ERROR("[PLG_ERR] remove old tm file failed, path = [%s], errno = [%d]", thm_path, errno);
  std::memcpy(extension, kThm.data(), kThm.size() + 1);
  return gone;
}

bool _add_picture(const gchar *path, gint32 number, gint32 time, gint32 average, GstPvrFile *thm,
                  Results &results) {
  Picture picture;
  if (gst_thumbnail_get_recorded_frame(path, time, &picture.bytes, &picture.size, &picture.code,
                                       average) != 1) {
    PLX_ERROR("[PLG_ERR] gst_thumbnail_get_recorded_frame failed");
    return false;
  }
  PLX_INFO(
      "[THM_OUT]Thumbnail:%d, time = [%d], size = [%d], codec = [%d](UNKOWN: -1, MPEG2:0, H264:1, "
      "JPEG:2, AVS:3, H265:4)",
      number, time, picture.size, picture.code);
  const gint64 ret = gst_pvr_file_write(thm, picture.bytes, gint64{picture.size});
  gst_thumbnail_release_buffer(&picture.bytes);
  picture.bytes = nullptr;
  if (ret != gint64{picture.size}) {
    PLX_ERROR("[PLG_ERR] gst_pvr_file_write failed, file_ret = [%lld]",
              static_cast<long long>(ret));
    return false;
  }
  results.sizes[static_cast<size_t>(number)] = picture.size;
  results.codes[static_cast<size_t>(number)] = picture.code;
  return true;
}

bool _write_pictures(const gchar *path, gint32 interval, GstPvrFile *thm, Results &results) {
  gint32 average = G_MAXINT32;
  gst_thumbnail_get_iframe_average_size(path, &average);
  for (gint32 i = 0; i < kPictures; ++i) {
    const gint32 time = i * interval / 1000 * 1000;
    if (!_add_picture(path, i, time, average, thm, results)) return false;
  }
  return true;
}

void _mark_complete(const gchar *path, const gchar *thm_path) {
  const HeapPtr<gchar> tm_path(gst_pvr_tool_change_extension(path, ".tm"));
  if (tm_path) static_cast<void>(link(thm_path, tm_path.get()));  // the file counts, not its mark
  sync();
}

bool _make_file(const gchar *path, gint32 interval, gchar *thm_path, Results &results) {
  ScopedPvrFile thm;
  if (thm.init() != 0 || !_remove_old_mark(thm_path)) return false;
  const gint64 ret = thm.create(thm_path);
  if (ret < 0) {
    PLX_ERROR("[PLG_ERR] open thm file failed, file_ret = [%lld]", static_cast<long long>(ret));
    return false;
  }
  if (!_write_pictures(path, interval, thm.get(), results)) return false;
  _mark_complete(path, thm_path);
  return true;
}

}  // namespace
}  // namespace plexa

gint32 gst_thumbnail_get_total_recorded_time(const gchar *path, gint32 *time) {
  if (path == nullptr || time == nullptr) return 0;
  PLX_INFO("[THM_IN]kvf_file_name = [%s]", path);
  const plexa::HeapPtr<gchar> index_path(gst_pvr_tool_change_extension(path, ".mdb"));
  if (!index_path) return 0;
  PLX_INFO("mdb_file_name = [%s]", index_path.get());
  plexa::ScopedPvrFile index;
  const gint32 ready = index.init();
  if (ready != 0) return ready;
  if (!plexa::_open_index(index, index_path.get())) return 0;
  return plexa::_total_time(index.get(), index_path.get(), time);
}

gint32 gst_thumbnail_get_iframe_average_size(const gchar *path, gint32 *average) {
  if (path == nullptr || average == nullptr) return 0;
  *average = G_MAXINT32;
  const plexa::HeapPtr<gchar> index_path(gst_pvr_tool_change_extension(path, ".mdb"));
  plexa::ScopedPvrFile index;
  if (!index_path || index.init() != 0 || !plexa::_open_index(index, index_path.get())) return 0;
  plexa::ScopedIndexParser parser(index.get(), index_path.get());
  if (parser.start() < 0) return 0;
  const plexa::Sum sum = plexa::_sum_of_iframes(parser.get());
  if (sum.frames == 0) return 0;
  *average = plexa::_mean_size(sum);
  PLX_INFO("average iframe size = [%d] of [%lld] gops", *average,
           static_cast<long long>(sum.frames));
  return 1;
}

void gst_thumbnail_release_buffer(guint8 **buffer) {
  if (buffer != nullptr && *buffer != nullptr) std::free(*buffer);
  PLX_INFO("gst_thumbnail_release_buffer succeeded");
}

gint32 gst_thumbnail_make_recorded_frame_file(const gchar *path, guint32 *sizes, gint32 *codes) {
  if (path == nullptr) return 0;
  PLX_INFO("[THM_IN]kvf_file_name = [%s]", path);
  gint32 total = 0;
  if (gst_thumbnail_get_total_recorded_time(path, &total) != 1) {
    PLX_ERROR("[PLG_ERR] gst_thumbnail_get_total_recorded_time failed");
    return 0;
  }
  const gint32 interval = total / plexa::kPictures;
  PLX_INFO("total_time = [%d], interval = [%d]", total, interval);
  const plexa::HeapPtr<gchar> thm_path(gst_pvr_tool_change_extension(path, ".thm"));
  if (!thm_path) {
    PLX_ERROR("[PLG_ERR] thm_file_name == NULL");
    return 0;
  }
  plexa::Results results;
  if (!plexa::_make_file(path, interval, thm_path.get(), results)) return 0;
  if (sizes != nullptr) std::copy(results.sizes.begin(), results.sizes.end(), sizes);
  if (codes != nullptr) std::copy(results.codes.begin(), results.codes.end(), codes);
  PLX_INFO("gst_thumbnail_make_recorded_frame_file succeeded");
  return 1;
}
