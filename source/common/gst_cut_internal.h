// gst_cut_internal.h - what the manager, the cut file and the cut thread know of each other, and
// the steps of a cut for their tests.
#pragma once

#include "gst-plexa/gst_cut_buffer_mgr.h"

namespace plexa {

// Sum and difference of two times in milliseconds; past the end of 32 bits they stay at the end.
gint32 _add_times(gint32 time, gint32 milliseconds) noexcept;
gint32 _subtract_times(gint32 time, gint32 milliseconds) noexcept;

// gst_cut_mgr_destroy() without its line and without removing the shared cut info, which belongs to
// the writers that are really open.
void _release_cut_mgr(GstCutBufferMgr *mgr) noexcept;

// gst_cut_file_close() of a handle that is given up and cannot be closed again: waits for a cut
// that works on it, however long, and not for one that waits for its turn. Leaves a closed handle
// alone.
void cut_file_release(GstPvrFile *file) noexcept;

// gst_cut_file_io_open() without the next cut period.
gint64 _reopen(GstPvrFile *file);

// What is_busy says of a record's task.
inline constexpr gint kTaskIdle = 0;
inline constexpr gint kTaskBusy = 1;
inline constexpr gint kTaskEnding = 2;  // its cut is over, and the task about to stop itself
inline constexpr gint kTaskLost = -1;   // got no thread; it is neither started nor waited for again

// Waits for a task whose cut is over. Gives what is then said of it: idle, busy or lost.
gint _settle_task(GstCutParam *param) noexcept;

// gst_cut_thread_create_task() of a settled task, telling whether a cut is on its way.
bool _start_cut_task(GstCutParam *param, gint state) noexcept;

// Frees a record that no task holds.
void _free_cut_param(GstCutParam *param) noexcept;

// One pass of the task, and its four steps.
void _gst_cut_thread_loop(void *cut_param);
bool _gst_cut_thread_close_all(GstCutParam *param);
bool _gst_cut_thread_cut(GstCutParam *param);
bool _gst_cut_thread_open_all(GstCutParam *param);
bool _gst_cut_thread_seek_all(GstCutParam *param);

}  // namespace plexa
