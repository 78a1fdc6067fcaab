// gst_edit_unit.cpp - takes a byte range out of a recorded stream in place.
//
// Partial delete accepts whole units only, so that neither a packet nor a block of the file system
// is ever taken apart; it refuses a range without a whole unit, a reversed one and negative
// offsets. Erase takes a range as it is and leaves its checks to the platform. The file changes in
// one step, the platform's truncate-range call. No state is kept: any thread may call, one at a
// time for a file.
#include "gst-plexa/gst_edit_unit.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "gst-plexa/gst_pvr_file.h"
#include "gst-plexa/gst_zeb.h"
#include "ppi_pvr_control.h"

#define PLEXA_LOG_AREA "EXT_EDT"
#include "plexa_log.h"

namespace {

constexpr int kPacketsPerUnitBits = 10;
constexpr gint64 kPacketSize = 188;
static_assert(GST_EDIT_UNIT_SIZE == (kPacketSize << kPacketsPerUnitBits));
static_assert(GST_EDIT_UNIT_SIZE % 4096 == 0);

constexpr std::size_t kLongestPath = 255;
constexpr mode_t kCreatedMode = 0744;

gint64 snap(gint64 offset) {
  return (offset >> kPacketsPerUnitBits) / kPacketSize * GST_EDIT_UNIT_SIZE;
}

// Closes on the way out of a failure; its errno stays the one that the caller sees.
class Descriptor {
 public:
  explicit Descriptor(int number) noexcept : number_(number) {}
  Descriptor(const Descriptor &) = delete;
  Descriptor &operator=(const Descriptor &) = delete;
  ~Descriptor() {
    const plexa::KeepErrno keep;
    if (number_ >= 0) ::close(number_);
  }
  int get() const noexcept { return number_; }
  int close() noexcept {
    const int number = number_;
    number_ = -1;  // released even when the kernel reports a failure
    return ::close(number);
  }

 private:
  int number_;
};

pvr_truncate_range_s _make_request(const gchar *path, gint64 start, gint64 end) {
  pvr_truncate_range_s request = {};
  request.start_offset = start;
  request.end_offset = end;
  std::strncpy(request.file_name, path, sizeof request.file_name - 1);
  return request;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"  // -Wpedantic: ISO C++ has no %m, the platform's log does

// 0, or -1 with errno.
gint64 _truncate_range(Descriptor &descriptor, const gchar *path, gint64 start, gint64 end) {
  const pvr_truncate_range_s request = _make_request(path, start, end);
  if (ppi_pvr_control_file_truncate_range(descriptor.get(), &request) < 0) {
    PLX_ERROR("[PLG_ERR] FTRUNCATERANGE return error, errno=[%d:%m]\n", errno);
    return -1;
  }
  PLX_ERROR("[PLG_ERR] FTRUNCATERANGE return 0 [%s]", path);
  if (fsync(descriptor.get()) < 0) {
    PLX_ERROR("[PLG_ERR] fsync return error, errno=[%d:%m]\n", errno);
    return -1;
  }
  if (descriptor.close() < 0) {
    PLX_ERROR("[PLG_ERR] close return error, errno=[%d:%m]\n", errno);
    return -1;
  }
  return 0;
}

gint64 _rename(const gchar *path, const gchar *new_name) {
  if (new_name == nullptr || std::rename(path, new_name) == 0) return 0;
  PLX_ERROR("[PLG_ERR] rename [%s] -> [%s] failed. errno=[%d:%m]", path, new_name, errno);
  return -1;
}

#pragma GCC diagnostic pop

}  // namespace

gint64 gst_edit_unit_do_partial_delete(const gchar *path, gint64 start_offset, gint64 end_offset) {
  if (path == nullptr) return -1;
  PLX_ERROR("file_path = [%s], start_offset = [%lld], end_offset = [%lld]", path,
            static_cast<long long>(start_offset), static_cast<long long>(end_offset));
  const gint64 start = snap(start_offset);
  const gint64 end = snap(end_offset);
  if (start_offset < 0 || end_offset < 0 || end <= start) {
    PLX_ERROR("[PLG_ERR] A-B is too short. No P.Erase Needed");
    return GST_EDIT_UNIT_NOT_NEEDED;
  }
  const auto error = static_cast<gint32>(gst_edit_unit_erase_record(path, start, end, nullptr));
  if (error != 0) {
    PLX_ERROR("[PLG_ERR] gst_edit_unit_erase_record failed,  error = [%d]", error);
    return GST_EDIT_UNIT_FAILED;
  }
  return end - start;
}

gint64 gst_edit_unit_erase_record(const gchar *path, gint64 start_offset, gint64 end_offset,
                                  const gchar *new_name) {
  if (path == nullptr) return -1;
  PLX_ERROR("in_file = [%s], start_offset = [%lld], end_offset = [%lld]", path,
            static_cast<long long>(start_offset), static_cast<long long>(end_offset));
  if (gst_zeb_is_need_socket() == 1) {
    return gst_pvr_file_cut_file(path, start_offset, end_offset, new_name);
  }
  Descriptor descriptor(open64(path, O_RDWR | O_CREAT, kCreatedMode));
  if (descriptor.get() < 0) {
    PLX_ERROR("[PLG_ERR] File Open Error");
    return GST_EDIT_UNIT_FAILED;
  }
  fcntl(descriptor.get(), F_SETFD, FD_CLOEXEC);  // best effort: programs that the process starts
  if (std::strlen(path) > kLongestPath) {
    PLX_ERROR("[PLG_ERR] The input file name is too long, please check");
    return GST_EDIT_UNIT_NOT_NEEDED;
  }
  const gint64 result = _truncate_range(descriptor, path, start_offset, end_offset);
  return result != 0 ? result : _rename(path, new_name);
}
