// gst_file_direct_io.cpp - access to a local file past the page cache.
//
// The kernel wants block-aligned positions, lengths and memory. Reads of any range go through the
// handle's page-aligned bounce buffer, in as many pieces as the range needs; writes of odd length
// go out in one page-aligned copy, filled up with sync bytes to the next block. There is no read
// without the bounce buffer, so a file opened for writing cannot be read, and negative counts are
// refused. The layer keeps no position of its own: the descriptor's position is the position. Any
// thread may call it, the handle above serialises the calls on one descriptor.
#include "gst-plexa/gst_file_direct_io.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "gst-plexa/gst_file_io.h"
#include "gst_file_direct_io_internal.h"

#define PLEXA_LOG_AREA "EXT_FMG"
#include "plexa_log.h"

namespace {

constexpr gint64 kBlock = GST_FILE_DIRECT_IO_BLOCK;
constexpr gint64 kBounceSize = GST_FILE_DIRECT_IO_BOUNCE_SIZE;
constexpr int kPadding = 0x47;  // the transport packet's sync byte
static_assert((kBlock & (kBlock - 1)) == 0 && kBounceSize % kBlock == 0);

constexpr gint64 round_down(gint64 value) { return value & ~(kBlock - 1); }
constexpr gint64 round_up(gint64 value) { return round_down(value + kBlock - 1); }

struct FreeMemory {
  void operator()(void *memory) const noexcept { std::free(memory); }
};
using PageBuffer = std::unique_ptr<void, FreeMemory>;

PageBuffer allocate_pages(gint64 size) { return PageBuffer(valloc(static_cast<size_t>(size))); }

// The bounce buffers of this thread's closed handles, while they are kept for the next opens.
thread_local plexa::KeptBounceBuffers *t_kept = nullptr;

PageBuffer new_bounce_buffer() {
  void *const kept = t_kept != nullptr ? t_kept->take() : nullptr;
  return kept != nullptr ? PageBuffer(kept) : allocate_pages(kBounceSize);
}

void release_bounce_buffer(void *buffer) {
  if (buffer != nullptr && t_kept != nullptr) return t_kept->keep(buffer);
  std::free(buffer);
}

// 1 when there is something to read, 0 at or behind the end, -1 on failure. The descriptor stands
// at the end of the file afterwards.
gint64 _gst_file_direct_io_get_file_info(GstPvrFile *file, gint32 *descriptor, gint64 *curpos,
                                         gint64 *file_size) {
  *curpos = gst_file_io_tell(file, descriptor);
  *file_size = gst_file_io_seek(file, descriptor, 0, SEEK_END);
  if (*curpos < 0 || *file_size < 0) {
    PLX_ERROR("[PLG_ERR] *curpos < 0 || *file_size < 0 ");
    return -1;
  }
  if (*curpos >= *file_size) {
    PLX_INFO("curpos=%lld,file_size=%lld, *curpos >= *file_size", static_cast<long long>(*curpos),
             static_cast<long long>(*file_size));
    return 0;
  }
  return 1;
}

// Reads the blocks that hold count bytes from head on, head counted from the descriptor's aligned
// position; head + count fits the bounce buffer. Delivers what arrived of the first wanted bytes.
gint64 _read_piece(GstPvrFile *file, gint32 *descriptor, guint8 *out, gint64 head, gint64 count,
                   gint64 wanted) {
  const auto span = static_cast<guint32>(round_up(head + count));
  const gint64 arrived = gst_file_io_read(file, descriptor, file->tpbuf, span);
  if (arrived < 0) return arrived;
  const gint64 delivered = std::clamp<gint64>(arrived - head, 0, wanted);
  std::memcpy(out, static_cast<const guint8 *>(file->tpbuf) + head, static_cast<size_t>(delivered));
  return delivered;
}

// Reads count bytes piece by piece and delivers the first wanted of them, those that the file has.
// A whole piece ends where the bounce buffer ends, on a block boundary, so the next one goes on
// without a seek. *delivered grows with every piece; the result is negative when a piece fails.
gint64 _read_pieces(GstPvrFile *file, gint32 *descriptor, guint8 *out, gint64 head, gint64 count,
                    gint64 wanted, gint64 *delivered) {
  while (*delivered < wanted) {
    const gint64 piece = std::min(count - *delivered, kBounceSize - head);
    const gint64 piece_wanted = std::min(wanted - *delivered, piece);
    const gint64 got = _read_piece(file, descriptor, out + *delivered, head, piece, piece_wanted);
    if (got < 0) return got;
    *delivered += got;
    if (got < piece_wanted) break;
    head = 0;
  }
  return *delivered;
}

// The data and behind it sync bytes up to the next block; null when there is no memory. What a
// 32-bit count cannot carry is not allocated in the first place.
PageBuffer _padded_copy(const void *buffer, gint64 size) {
  PageBuffer padded;
  if (size <= round_down(G_MAXUINT32)) padded = allocate_pages(round_up(size));
  if (padded == nullptr) return padded;
  const auto bytes = static_cast<size_t>(size);
  auto *const data = static_cast<guint8 *>(padded.get());
  std::memcpy(data, buffer, bytes);
  std::memset(data + bytes, kPadding, static_cast<size_t>(round_up(size)) - bytes);
  return padded;
}

}  // namespace

namespace plexa {

KeptBounceBuffers::KeptBounceBuffers() noexcept { t_kept = this; }

KeptBounceBuffers::~KeptBounceBuffers() {
  t_kept = nullptr;
  while (void *const buffer = take()) std::free(buffer);
}

// The first bytes of a kept buffer are the link to the next one.
void KeptBounceBuffers::keep(void *buffer) noexcept {
  std::memcpy(buffer, &first_, sizeof first_);
  first_ = buffer;
}

void *KeptBounceBuffers::take() noexcept {
  void *const buffer = first_;
  if (buffer != nullptr) std::memcpy(&first_, buffer, sizeof first_);
  return buffer;
}

}  // namespace plexa

gint64 gst_file_direct_io_open(GstPvrFile *file, gint32 *descriptor, const gchar *path,
                               guint8 read_mode, guint8 direct_mode, guint8 append_mode) {
  file->tpbuf = nullptr;
  if (path == nullptr) {
    PLX_ERROR("[PLG_ERR] file_path is NULL");
    return -1;
  }
  PageBuffer bounce;
  if (read_mode != 0) {
    bounce = new_bounce_buffer();
    if (bounce == nullptr) {
      PLX_ERROR("[PLG_ERR] Allocate memery failed!");
      return -1;
    }
  }
  const gint64 result =
      gst_file_io_open(file, descriptor, path, read_mode, direct_mode, append_mode);
  if (result >= 0) file->tpbuf = bounce.release();
  return result;
}

gint64 gst_file_direct_io_close(GstPvrFile *file, gint32 *descriptor) {
  const gint64 result = gst_file_io_close(file, descriptor);
  release_bounce_buffer(file->tpbuf);
  file->tpbuf = nullptr;
  return result;
}

gint64 gst_file_direct_io_read(GstPvrFile *file, gint32 *descriptor, void *buffer, gint64 count) {
  if (file->tpbuf == nullptr) {
    PLX_ERROR("[PLG_ERR] io->tpbuf is NULL");
    return -1;
  }
  if (count < 0) {
    PLX_ERROR("[PLG_ERR] count < 0");
    return -1;
  }
  gint64 curpos = 0;
  gint64 file_size = 0;
  const gint64 info = _gst_file_direct_io_get_file_info(file, descriptor, &curpos, &file_size);
  if (info < 1) {
    PLX_INFO("count < 1");
    return info;
  }
  const gint64 start = round_down(curpos);
  if (gst_file_io_seek(file, descriptor, start, SEEK_SET) < 0) {
    PLX_ERROR("[PLG_ERR] count < 0");
    return -1;
  }
  gint64 delivered = 0;
  const gint64 result =
      _read_pieces(file, descriptor, static_cast<guint8 *>(buffer), curpos - start, count,
                   std::min(count, file_size - curpos), &delivered);
  if (result < 0) {
    PLX_ERROR("[PLG_ERR] count < 0");
    // What arrived before the failure is delivered; a caller that asks again meets it again.
    if (delivered == 0) return result;
  }
  if (gst_file_io_seek(file, descriptor, curpos + delivered, SEEK_SET) < 0) {
    PLX_ERROR("[PLG_ERR] count < 0");  // the bytes are there all the same
  }
  return delivered;
}

gint64 gst_file_direct_io_write(GstPvrFile *file, gint32 *descriptor, const void *buffer,
                                gint64 size) {
  if (size < 0) {
    PLX_ERROR("[PLG_ERR] size < 0 [%lld]", static_cast<long long>(size));
    return -1;
  }
  if (size % kBlock == 0) {
    return gst_file_io_write(file, descriptor, buffer, static_cast<guint32>(size));
  }
  const PageBuffer padded = _padded_copy(buffer, size);
  if (padded == nullptr) {
    PLX_ERROR("[PLG_ERR] pbuff is NULL");
    return -1;
  }
  return gst_file_io_write(file, descriptor, padded.get(), static_cast<guint32>(round_up(size)));
}
