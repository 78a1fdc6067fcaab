/* gst_pvr_file.h - one handle for a file of a recording, wherever it lies.
 *
 * The caller owns the handle's storage and calls, in this order: init, open, any operations, close,
 * deinit. A handle may be opened again after close. Open chooses the back-end; from then on every
 * operation is one call of it under the handle's lock, so several threads may use one handle and
 * wait for each other. Different handles do not wait for each other.
 *
 * Offsets, positions and sizes are bytes, times are milliseconds.
 */
#ifndef GST_PVR_FILE_H
#define GST_PVR_FILE_H

#include "gst_file_socket_io.h"
#include "gst_plexa_defs.h"

G_BEGIN_DECLS

typedef struct _GstPvrFile GstPvrFile;

/* Values of GstPvrFile's var.file_mode. */
#define GST_PVR_FILE_MODE_SOCKET 0u
#define GST_PVR_FILE_MODE_DISK 1u

/* Arguments of gst_pvr_file_open(). */
#define GST_PVR_FILE_WRITE 0u
#define GST_PVR_FILE_READ 1u
#define GST_PVR_FILE_BUFFER_IO 0u
#define GST_PVR_FILE_DIRECT_IO 1u
#define GST_PVR_FILE_NORMAL 0u
#define GST_PVR_FILE_TIMESHIFT 1u
#define GST_PVR_FILE_STREAM 0u
#define GST_PVR_FILE_INDEX 1u

/* What gst_pvr_file_cut_file() gives when it fails. */
#define GST_PVR_FILE_CUT_FAILED 80000000

/* What a back-end does for the handle. Init empties all slots, open fills all eleven; calling an
 * operation whose slot is empty gives -1. All are called under the handle's lock, except
 * set_last_wrote_time. A negative result is a failure and reaches the caller unchanged; the errno
 * of a failed system call is then in the handle's error number.
 *
 * open    0 or more on success. A close may follow a failed open; a socket file's has a socket to
 *         release when the connect failed, the others' have nothing.
 * close   0 or more on success. Releases everything, also when it fails; but nothing when a cut
 *         file gives -3, since the cut that it met still works on the handle.
 * read    Bytes read, 0 at the end of the file. Fewer than asked for is not an error.
 * write   Bytes written, with direct I/O including padding.
 * seek    The new position. whence is 0 from the start, 1 from the position, 2 from the end.
 * tell    The position.
 * fsync   0 or more on success.
 * size    The file's size.
 * set_max_time         The back-end's own result; -1 when it has no maximum time.
 * get_max_time         The length of time that is kept, negative when there is none.
 * set_last_wrote_time  The result is ignored. Guards what it stores by itself.
 */
typedef struct _PvrFileOps {
  gint64 (*open)(GstPvrFile *file, const gchar *path, guint8 read_permission, guint8 direct_io,
                 guint32 append_mode, guint8 atsc3);
  gint64 (*close)(GstPvrFile *file);
  gint64 (*read)(GstPvrFile *file, void *buffer, gint64 size);
  gint64 (*write)(GstPvrFile *file, const void *buffer, gint64 size);
  gint64 (*seek)(GstPvrFile *file, gint64 offset, gint32 whence);
  gint64 (*tell)(GstPvrFile *file);
  gint64 (*fsync)(GstPvrFile *file);
  gint64 (*size)(GstPvrFile *file);
  gint64 (*set_max_time)(GstPvrFile *file, guint32 cut_buf_start_time, guint32 cut_time);
  gint64 (*get_max_time)(GstPvrFile *file);
  gint64 (*set_last_wrote_time)(GstPvrFile *file, guint32 time);
} PvrFileOps;

/* What the normal file keeps in the handle. */
typedef struct _GstNormalFile {
  gint32 key;        /* slot in the shared file-info registry, -1 when none is held */
  gint32 descriptor; /* -1 when closed */
  const gchar *path; /* the caller's string, not copied; null when closed */
  guint8 read_mode;  /* 1 reader, 0 writer */
} GstNormalFile;

/* What the socket file keeps in the handle. */
typedef struct _GstSocketFile {
  GstFileSocketIo socket_io; /* the connection */
  const gchar *path;         /* the caller's string, not copied; null when closed */
  GstSocketOpenFlags flags;  /* how the file was opened */
} GstSocketFile;

/* What the cut file keeps in the handle. */
typedef struct _GstCutFile {
  gint32 key;              /* slot in the shared file-info registry, -1 when none is held */
  gint32 descriptor;       /* -1 when closed, also when it could not be opened again after a cut */
  const gchar *file_path;  /* the caller's string, not copied; null when closed */
  guint32 last_wrote_time; /* ms, the recorded time that the writer reported; atomic */
  struct _GstCutBufferMgr *cut_buffer_mgr; /* a writer's, null for a reader */
  gint64 offset_backup;                    /* position in the file on disk before a cut closed it */
  guint8 read_mode;                        /* 1 reader, 0 writer */
  guint8 is_direct;                        /* 1 opened with O_DIRECT */
  gchar *own_path; /* a copy: a cut may open the file again while a close waits */
} GstCutFile;

/* The handle's inner state, "var". The three flags are reached through the handle itself, in whose
 * order of fields they stand between the record type and the error number. */
typedef struct _GstPvrFileVar {
  GMutex *lock; /* null: the handle is not initialised */
  union {
    GstNormalFile normal;
    GstCutFile cut;
    GstSocketFile socket;
  } state;             /* what the chosen back-end keeps for itself */
  guint32 file_mode;   /* 0 socket, 1 disk */
  guint32 file_type;   /* 0 normal, 1 time-shift */
  guint32 record_type; /* 0 stream, 1 index */
  guint8 is_normal_file;
  guint8 is_opened;
  guint8 read_permission;
  gint32 error_number; /* errno of the back-end's last failed system call */
} GstPvrFileVar;

struct _GstPvrFile {
  __extension__ union {
    GstPvrFileVar var;
    __extension__ struct {
      guint8 var_before_flags[G_STRUCT_OFFSET(GstPvrFileVar, is_normal_file)];
      guint8 is_normal_file;  /* 1 normal file, 0 cut file; set for disk files */
      guint8 is_opened;       /* 1 between a successful open and the next close */
      guint8 read_permission; /* 1 opened for reading, 0 for writing */
    };
  };
  guint8 direct_io; /* 1 direct (aligned, past the page cache), 0 buffered */
  void *tpbuf;      /* bounce buffer of direct reading, null when there is none */
  PvrFileOps ops;
};

/* ---- Lifecycle ---- */

/**
 * Prepare a handle: no operations, not opened, a new lock.
 *
 * @param file  Storage for the handle, not null; need not be zeroed. Not a handle that is in use.
 * @return 0, always. Undone by gst_pvr_file_deinit().
 */
GST_PLEXA_API gint32 gst_pvr_file_init(GstPvrFile *file);

/**
 * Release a handle's lock. Close the handle first: all that is released here of a file that is
 * still open is what others would stumble over, a connection to the companion box and a live
 * time-shift stream's place among the handles of its recording (which waits for a cut that works on
 * them, and gives up a writer's own that has not begun).
 *
 * @param file  Handle; one that has no lock (never initialised but zeroed, or deinitialised before)
 *              and null are left alone.
 *
 * No other thread may use the handle any more.
 */
GST_PLEXA_API void gst_pvr_file_deinit(GstPvrFile *file);

/**
 * Open a file of a recording.
 *
 * @param file         Initialised handle. One that is open is closed first.
 * @param path         Absolute path without symbolic links or "..". Not copied: the string must
 *                     live until close. A file that exists under another real path is refused.
 * @param permission   GST_PVR_FILE_WRITE, GST_PVR_FILE_READ (any non-zero value).
 * @param io           GST_PVR_FILE_BUFFER_IO, GST_PVR_FILE_DIRECT_IO (any non-zero value).
 * @param type         GST_PVR_FILE_NORMAL, GST_PVR_FILE_TIMESHIFT.
 * @param ext          GST_PVR_FILE_STREAM, GST_PVR_FILE_INDEX.
 * @param append_mode  0: a file opened for writing is emptied. Non-zero: it is kept; a stream is
 *                     written at its end, an index (a path that ends in ".mdb") from its start.
 * @param atsc3        0 normal broadcast, non-zero ATSC 3.0.
 * @return 0 or more on success; -1 without a lock or a path, when the registry refuses the file, or
 *         when it cannot be opened (see gst_pvr_file_get_error_num()); -3 for a live time-shift
 *         stream that has been in the middle of a cut for 2 seconds.
 *
 * Writing and O_NOATIME: only the owner of an existing file (or root) may open it for writing.
 * Blocks on storage. Safe from any thread.
 */
GST_PLEXA_API gint64 gst_pvr_file_open(GstPvrFile *file, const gchar *path, guint32 permission,
                                       guint32 io, guint32 type, guint32 ext, guint32 append_mode,
                                       guint32 atsc3);

/**
 * Close the file; what was written is flushed to storage first. The lock is kept.
 *
 * @return 0 or more on success; -1 for a null handle, one without a lock, one never opened, or when
 *         the close failed (closing twice does on the local disk). The handle counts as closed in
 *         any case but one: -3, from a live time-shift stream that has been in the middle of a cut
 *         for 2 seconds. The cut still works on the handle then; close it again before freeing it.
 *
 * Blocks on storage. Safe from any thread.
 */
GST_PLEXA_API gint64 gst_pvr_file_close(GstPvrFile *file);

/* ---- Operations ----
 *
 * All give -1 for a null handle, one without a lock, or one never opened, and the back-end's
 * negative result (the cause: gst_pvr_file_get_error_num()) when it fails. All block on storage and
 * are safe from any thread.
 *
 * Of a live time-shift stream the front may be cut off at any time. Its positions and sizes count
 * from the recording's first byte all the same, and an operation that has waited 2 seconds for a
 * cut gives -3: nothing has happened, and it may be tried again. See gst_cut_file.h.
 */

/**
 * Read at the position and move it behind what was read.
 *
 * @param buffer  Room for @p size bytes.
 * @param size    Bytes wanted; 0 and less give 0. Buffered: at most 4 GiB - 1 in one call.
 * @return Bytes read, possibly fewer than wanted; 0 at the end of the file; negative on failure.
 *
 * With direct I/O a failure after a part of a large read has arrived gives that part; the next read
 * meets the failure.
 */
GST_PLEXA_API gint64 gst_pvr_file_read(GstPvrFile *file, void *buffer, gint64 size);

/**
 * Write at the position (at the end for an appended stream) and move it behind what was written.
 *
 * @param buffer  @p size bytes; with direct I/O page-aligned when the size is whole blocks.
 * @param size    Bytes to write; 0 and less give 0. At most 4 GiB - 1 in one call.
 * @return Bytes written, possibly fewer than given; negative on failure.
 *
 * With direct I/O the position must be a multiple of 4096, and an odd size is filled up with 0x47
 * to the next multiple; the result counts this padding. A write over 50 ms is logged.
 */
GST_PLEXA_API gint64 gst_pvr_file_write(GstPvrFile *file, const void *buffer, gint64 size);

/**
 * Move the position.
 *
 * @param whence  0 from the start, 1 from the position, 2 from the end.
 * @return The new position from the start.
 */
GST_PLEXA_API gint64 gst_pvr_file_seek(GstPvrFile *file, gint64 offset, gint32 whence);

/** @return The position from the start. */
GST_PLEXA_API gint64 gst_pvr_file_tell(GstPvrFile *file);

/** @return The size of the file that now stands under the path given to open. */
GST_PLEXA_API gint64 gst_pvr_file_size(GstPvrFile *file);

/**
 * Wait until what was written is on storage. An fsync over 50 ms is logged.
 *
 * @return 0; 1 on the companion box; -1, always, for a live time-shift stream.
 */
GST_PLEXA_API gint64 gst_pvr_file_fsync(GstPvrFile *file);

/**
 * Rename a file, on the companion box when that is in use, else on the local disk. An existing file
 * of the new name is replaced.
 *
 * @param file      Initialised handle, used for its lock only; need not hold the file open.
 * @param old_path  Path; borrowed.
 * @param new_path  Path on the same file system; borrowed.
 * @return 1, or -1: no lock, no path, or the rename failed (errno says why; not on the box).
 *
 * Safe from any thread.
 */
GST_PLEXA_API gint32 gst_pvr_file_rename(GstPvrFile *file, const gchar *old_path,
                                         const gchar *new_path);

/**
 * The errno of the last system call that failed for this handle; 0 when none did since init, 56
 * when the last open was refused because the path led elsewhere. Success does not reset it.
 *
 * @return The error number; -1 for a null handle.
 *
 * Takes no lock, never blocks. Safe from any thread.
 */
GST_PLEXA_API gint32 gst_pvr_file_get_error_num(GstPvrFile *file);

/**
 * Have a range cut out of a recording that lies on the companion box. Does not ask whether the box
 * is in use: the caller has.
 *
 * @param kvf_file_name     The stream file's path on the box; its first 255 characters are sent.
 * @param start_offset      Bytes, first of the range.
 * @param end_offset        Bytes, end of the range.
 * @param second_file_name  A second name for the box, sent like the first; null for none.
 * @return 0, or GST_PVR_FILE_CUT_FAILED.
 *
 * Uses a connection of its own and blocks for as long as the box does. Safe from any thread.
 */
GST_PLEXA_API gint32 gst_pvr_file_cut_file(const gchar *kvf_file_name, gint64 start_offset,
                                           gint64 end_offset, const gchar *second_file_name);

/* ---- Time-shift ---- */

/**
 * Set the span of time that a time-shift recording keeps.
 *
 * @param max_time  Milliseconds; becomes the two times of gst_pvr_file_get_calculated_max_time().
 * @return The back-end's result, 1 from the writer of a live time-shift stream; -1 when it has no
 *         maximum time (a normal file, a reader), for a maximum that stands for no cutting, for a
 *         null handle, one without a lock, or one never opened.
 *
 * Safe from any thread.
 */
GST_PLEXA_API gint64 gst_pvr_file_set_max_time(GstPvrFile *file, gint64 max_time);

/**
 * @return Milliseconds that the process's time-shift recording keeps (a minute less than the
 *         maximum that was set), also from a reader; 0 when none is set. -1 for a normal file, a
 *         null handle, one without a lock, or one never opened.
 */
GST_PLEXA_API gint64 gst_pvr_file_get_max_time(GstPvrFile *file);

/**
 * Tell the back-end up to which time the recording has been written. A normal file ignores it.
 *
 * @param file  Handle that has been opened; null is logged, one never opened is left alone.
 * @param time  Milliseconds from the recording's start.
 *
 * Takes no lock on the local disk; a file on the companion box makes an exchange of it and waits
 * for the handle's other operations. Safe from any thread, but not beside open or close of the same
 * handle.
 */
GST_PLEXA_API void gst_pvr_file_set_last_wrote_time(GstPvrFile *file, guint32 time);

/**
 * The two times of a time-shift buffer for a wanted maximum: at most 91 minutes, cut from one
 * minute before the maximum on, never cut below 6 minutes.
 *
 * @param max_time  Milliseconds.
 * @param cut_time  Receives the maximum in milliseconds, 0 when there is to be no cutting; may be
 *                  null.
 * @return The time in milliseconds from which cutting starts, 0 when there is to be no cutting.
 *
 * Pure; safe from any thread.
 */
GST_PLEXA_API guint32 gst_pvr_file_get_calculated_max_time(gint64 max_time, guint32 *cut_time);

/**
 * How much has been cut off the start of the process's time-shift recording.
 *
 * @return Milliseconds.
 *
 * Safe from any thread, as are the two conversions.
 */
GST_PLEXA_API gint32 gst_pvr_file_get_rel_start_time(void);

/**
 * A time from the recording's start as a time from the start of what is left of it.
 *
 * @return Milliseconds. A time that has been cut off wraps around 32 bits and is never negative;
 *         gst_pvr_file_convert_rel_abs() gives it back.
 */
GST_PLEXA_API gint64 gst_pvr_file_convert_abs_rel(guint32 absolute_time);

/** The reverse: a time from the start of what is left as a time from the recording's start. */
GST_PLEXA_API gint64 gst_pvr_file_convert_rel_abs(guint32 relative_time);

G_END_DECLS

#endif
