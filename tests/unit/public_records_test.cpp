// Where the fields of the public records stand, and how long the records are, on 32-bit and on
// 64-bit x86: callers compile these figures in. Those of the handle, of the index, of its parser
// and of the wire stand in the tests of their modules.
#include <gst-plexa/gst_plexa.h>
#include <gtest/gtest.h>

#include <cstddef>

#include "ppi_pvr_control.h"

namespace plexa_test {
namespace {

struct Figure {
  const char *name;
  size_t actual, on_32_bit, on_64_bit;
};

#define OFFSET(record, field, on_32_bit, on_64_bit) \
  Figure { #record "." #field, offsetof(record, field), on_32_bit, on_64_bit }
#define SIZE(record, on_32_bit, on_64_bit) \
  Figure { #record, sizeof(record), on_32_bit, on_64_bit }

const Figure kFigures[] = {
    OFFSET(GstKeyInfo, used, 0, 0),
    OFFSET(GstKeyInfo, path, 1, 1),
    SIZE(GstKeyInfo, 257, 257),

    OFFSET(GstFileInfo, handle_list, 0, 0),
    OFFSET(GstFileInfo, write_count, 4, 8),
    OFFSET(GstFileInfo, read_count, 8, 12),
    OFFSET(GstFileInfo, cut_mode, 12, 16),
    OFFSET(GstFileInfo, actioncount, 16, 20),
    SIZE(GstFileInfo, 20, 24),

    OFFSET(GstSharedInfo, slots, 0, 0),
    OFFSET(GstSharedInfo, items, 1028, 1032),
    SIZE(GstSharedInfo, 1108, 1128),

    OFFSET(GstSharedCutInfo, accumulated_time, 0, 0),
    OFFSET(GstSharedCutInfo, accumulated_offset, 4, 8),
    OFFSET(GstSharedCutInfo, total_cuttime, 12, 16),
    OFFSET(GstSharedCutInfo, total_cutoffset, 16, 24),
    OFFSET(GstSharedCutInfo, fixed_duration, 24, 32),
    SIZE(GstSharedCutInfo, 28, 40),

    OFFSET(GstCutBufferMgr, key, 0, 0),
    OFFSET(GstCutBufferMgr, file_path, 4, 8),
    OFFSET(GstCutBufferMgr, mdb_file, 8, 16),
    OFFSET(GstCutBufferMgr, fixed_duration, 12, 24),
    OFFSET(GstCutBufferMgr, cutbuf_starttime, 16, 28),
    OFFSET(GstCutBufferMgr, max_time, 20, 32),
    OFFSET(GstCutBufferMgr, current_time, 24, 36),
    OFFSET(GstCutBufferMgr, next_update_time, 28, 40),
    OFFSET(GstCutBufferMgr, is_atsc3, 32, 44),
    OFFSET(GstCutBufferMgr, index_parser, 36, 48),
    OFFSET(GstCutBufferMgr, cut_param, 40, 56),
    SIZE(GstCutBufferMgr, 44, 64),

    // What follows these is private, and so is the length that it gives.
    OFFSET(GstCutParam, key, 0, 0),
    OFFSET(GstCutParam, file_path, 4, 8),
    OFFSET(GstCutParam, retry_count, 8, 16),
    OFFSET(GstCutParam, cutbuf_starttime, 12, 20),
    OFFSET(GstCutParam, max_time, 16, 24),
    OFFSET(GstCutParam, cut_offset, 20, 32),
    OFFSET(GstCutParam, removed_bytes, 28, 40),
    OFFSET(GstCutParam, task, 36, 48),
    OFFSET(GstCutParam, task_lock, 40, 56),
    OFFSET(GstCutParam, cut_buffer_mgr, 52, 72),

    OFFSET(GstSocketOpenFlags, read_mode, 0, 0),
    OFFSET(GstSocketOpenFlags, direct_mode, 1, 1),
    OFFSET(GstSocketOpenFlags, is_ts, 2, 2),
    OFFSET(GstSocketOpenFlags, is_index, 3, 3),
    SIZE(GstSocketOpenFlags, 4, 4),

    OFFSET(ExtQueue, data_lock, 0, 0),
    OFFSET(ExtQueue, global_lock, 24, 40),
    OFFSET(ExtQueue, buffer, 48, 80),
    OFFSET(ExtQueue, initialized, 52, 88),
    OFFSET(ExtQueue, read_index, 56, 92),
    OFFSET(ExtQueue, write_index, 60, 96),
    OFFSET(ExtQueue, capacity, 64, 100),
    SIZE(ExtQueue, 68, 104),

    OFFSET(pvr_truncate_range_s, start_offset, 0, 0),
    OFFSET(pvr_truncate_range_s, end_offset, 8, 8),
    OFFSET(pvr_truncate_range_s, file_name, 16, 16),
    SIZE(pvr_truncate_range_s, 80, 80),
};

#undef OFFSET
#undef SIZE

TEST(PublicRecords, AreWhatCallersHaveCompiledIn) {
  for (const Figure &figure : kFigures) {
    EXPECT_EQ(figure.actual, sizeof(void *) == 4 ? figure.on_32_bit : figure.on_64_bit)
        << figure.name;
  }
}

}  // namespace
}  // namespace plexa_test
