// gst_file_shared_info_internal.h - the library's only process-wide state, and how the operations
// of a time-shift recording and its cuts keep out of each other's way.
//
// The item's cut_mode and actioncount are what everyone sees. They alone would leave windows: an
// operation could slip in between a look at the mark and its own count, a failed write lowers the
// count twice, and the mark is cleared when cutting is switched off although the cut still comes.
// So each slot also has a private count of the operations that are really inside, and a private
// mark that stands while handles are closed and opened again. Each step below is one hold of the
// registry mutex.
#pragma once

#include <pthread.h>

#include "gst-plexa/gst_file_shared_info.h"

namespace plexa {

// Static storage, zero at load. The two mutexes are never held together and never across I/O.
struct LibSharedInfo {
  GstSharedInfo *registry;         // null until the first gst_shared_info_get()
  pthread_mutex_t registry_mutex;  // guards the table and every item in it
  GstSharedCutInfo *cut_info;      // null until the first use, and after a remove
  pthread_mutex_t cut_info_mutex;  // guards the record
};

// Clears the slot of the key and zeroes its item; frees the list of handles. The registry mutex is
// held by the caller.
void _release_slot(GstSharedInfo *table, guint32 key) noexcept;

// ---- Operations ----

// Waits while a cut is in progress, 2 seconds at most, and counts the caller as running. False: the
// cut was still in progress, nothing is counted. A bad key counts nothing and is let in.
bool _enter_operation(guint32 key) noexcept;
// The same for the last operation of a handle that is given up: a cut that still waits for its turn
// is not waited for, since it cannot begin meanwhile; one that works on the handles is waited for
// without a limit.
void _enter_last_operation(guint32 key) noexcept;
void _leave_operation(guint32 key) noexcept;
// The end of a handle: leaves its last operation and deletes its listed item, without a gap in
// which a cut could find the closed handle in the list. One that is not listed any more has no
// item: its slot was given up, and may be another recording's.
void _leave_and_delete_item(guint32 key, bool reader, GstPvrFile *handle) noexcept;

enum class Opening { kOpened, kNoKey, kBusy, kRefused };

// Finds the key, waits as above, counts the caller as running and adds the listed handle, without a
// gap in which the key could become another recording's. Opened: the caller has to leave.
Opening _open_item(const gchar *path, bool reader, GstPvrFile *handle, gint32 *key) noexcept;

// ---- Cuts ----

// Which recording's the slot is: another number after each release, never 0.
guint32 _tenancy(guint32 key) noexcept;

// One cut at a time on a recording, whoever of its writers starts it. The owner is any address; a
// claim that is granted sets cut_mode, and stands until it is given back or the slot is released.
// Refused when the slot's tenancy is not this one any more; 0: whosever it is.
bool _claim_cut(guint32 key, const void *owner, guint32 tenancy = 0) noexcept;
void _give_back_cut(guint32 key, const void *owner) noexcept;
// The same for an owner that goes: the mark that its claim has set goes, too.
void _abandon_cut(guint32 key, const void *owner) noexcept;

enum class CutStart { kStarted, kBusy, kNoRegistry };

// Keeps operations out from now on, unless one is running or another cut is at work. A tenancy
// that is over counts as no registry; 0: whosever it is.
CutStart _begin_cut(guint32 key, guint32 tenancy = 0) noexcept;
// Clears cut_mode, which everyone sees. Operations are still kept out.
void _unmark_cut(guint32 key) noexcept;
// Clears the mark and lets the waiting operations in. An owner's claim is given back in the same
// step, so that none of them meets a cut that is over but not out of the way.
void _end_cut(guint32 key, const void *owner = nullptr) noexcept;
// Waits until a cut could begin, or the time is over.
void _wait_for_operations(guint32 key, int milliseconds) noexcept;

// The handle at a place of the recording's list, in opening order; null behind its end. The list
// stands still while a cut is at work.
GstPvrFile *_listed_handle(guint32 key, gint32 index) noexcept;
// A refused open costs the recording a count, so its slot, and the list with it, can be given up
// while a handle is still open.
bool _is_listed(guint32 key, const GstPvrFile *handle) noexcept;

// Bytes cut off this recording's file since its slot was taken or a writer emptied it. Unlike the
// shared record it belongs to one recording and does not die with one of several writers.
gint64 _bytes_cut_off(guint32 key) noexcept;
void _add_bytes_cut_off(guint32 key, gint64 bytes) noexcept;
void _forget_bytes_cut_off(guint32 key) noexcept;

}  // namespace plexa

extern "C" plexa::LibSharedInfo g_lib_shared_info;
