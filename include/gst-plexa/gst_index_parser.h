/* gst_index_parser.h - the ".mdb" index file and the parser that finds any I-frame through it.
 *
 * The file is described byte by byte in docs/index-file.md. A parser reads it through a handle that
 * its caller has opened, and never writes:
 *
 *   gst_pvr_file_init(&file);
 *   gst_pvr_file_open(&file, path, GST_PVR_FILE_READ, GST_PVR_FILE_BUFFER_IO, GST_PVR_FILE_NORMAL,
 *                     GST_PVR_FILE_INDEX, 0, 0);
 *   gst_index_parser_init(&parser, &file);
 *   gst_index_parser_set_mdb_file_type(&parser, path);
 *   if (gst_index_parser_start(&parser) == 1) {
 *     frameData frame = gst_index_parser_get_iframe_by_time(&parser, 60000, 0);
 *     if (frame.is_valid) ...
 *   }
 *   gst_index_parser_stop(&parser);
 *   gst_pvr_file_close(&file);
 *   gst_pvr_file_deinit(&file);
 *
 * Everything a parser hands out is relative to the recording's start: times in milliseconds,
 * offsets in bytes of the stream file. The file may still be growing; each search looks at its size
 * anew.
 *
 * Thread safety: a parser takes no lock and serves one caller at a time. Different parsers share
 * nothing. All functions but init and the legacy conversions may block on
 * storage. Failures are logged; errno is not part of any result, but the index handle keeps the
 * number of the system call that failed (gst_pvr_file_get_error_num()). A null parser gives the
 * failure result. */
#ifndef GST_INDEX_PARSER_H
#define GST_INDEX_PARSER_H

#include "gst_plexa_defs.h"
#include "gst_pvr_file.h"

G_BEGIN_DECLS

#define MDB_VERSION 0x20110916u

#define GST_INDEX_BASE_TABLE_SIZE 4088u
#define GST_INDEX_CHANNEL_SLOTS 4096u
#define GST_INDEX_CACHE_GOPS 32u

/* Results of the is_target_*_gop_cached tests. */
#define GST_INDEX_TARGET_BEFORE 1
#define GST_INDEX_TARGET_AFTER 2
#define GST_INDEX_TARGET_CACHED 3

/* Base table, at the start of the file. 4088 bytes. */
typedef struct __attribute__((packed)) _pvr_base_table_s {
  guint8 reserved_0[4];
  guint32 mdb_version; /*  4  the upper half is checked */
  guint8 reserved_8[4];
  guint32 start_time_code;    /* 12  ms, first GOP */
  guint32 end_time_code;      /* 16  ms, 0 while recording */
  guint64 start_packet_count; /* 20  number of the first packet */
  guint64 total_size;         /* 28  bytes, as the recorder stored it */
  guint32 channel_info_size;  /* 36  232 current, 256 legacy */
  guint8 reserved_40[8];
  guint32 gop_start_offset; /* 48  0: right behind the channel-info area */
  guint8 reserved_52[4036];
} pvr_base_table_s;

/* GOP record, current layout. 104 bytes. */
typedef struct _pvr_gop_info_s {
  guint64 pts; /*  0  90 kHz */
  guint32 reserved_8;
  guint32 time_code;    /* 12  ms */
  guint64 packet_count; /* 16  packet at which the I-frame begins */
  guint32 iframe_size;  /* 24  188-byte packets */
  guint16 video_pid;    /* 28 */
  guint8 reserved_30[19];
  guint8 video_format; /* 49 */
  guint8 reserved_50[10];
  guint32 last_frame_time;         /* 60  ms */
  guint64 last_frame_packet_count; /* 64 */
  guint16 index_of_channel;        /* 72  slot in the channel-info area */
  guint8 exist_seq_header;         /* 74 */
  guint8 reserved_75;
  guint32 next_gop_first_time;         /* 76  ms */
  guint64 next_gop_first_packet_count; /* 80 */
  guint64 next_gop_pts;                /* 88 */
  guint8 reserved_96[8];
} pvr_gop_info_s;

/* GOP record, legacy layout. 100 bytes. */
typedef struct __attribute__((packed)) _pvr_pelko_gop_info_s {
  guint64 pts;
  guint32 reserved_8;
  guint32 time_code;
  guint64 packet_count;
  guint32 iframe_size;
  guint16 video_pid;
  guint8 reserved_30[19];
  guint8 video_format;
  guint8 reserved_50[10];
  guint32 last_frame_time;
  guint64 last_frame_packet_count;
  guint16 index_of_channel;
  guint8 exist_seq_header; /* any value but 0 is true */
  guint8 reserved_75;
  guint32 next_gop_first_time;
  guint64 next_gop_first_packet_count;
  guint64 next_gop_pts;
  guint8 reserved_96[4];
} pvr_pelko_gop_info_s;

/* Channel record, current layout. 232 bytes. Fields named carried_* pass through unchanged. */
typedef struct _pvr_channel_info_s {
  guint32 carried_0;
  guint16 carried_4[6];
  guint8 carried_16[128];
  guint32 audio_pid; /* 144 */
  guint32 carried_148[6];
  guint16 video_pid; /* 172 */
  guint16 carried_174;
  guint8 video_encode_type; /* 176  0 MPEG-2, 1 H.264, 2 JPEG, 3 AVS, 4 H.265 */
  guint8 carried_177;
  guint16 pcr_pid; /* 178 */
  guint16 carried_180;
  guint8 padding_182[2];
  guint32 carried_184;
  guint8 reserved_188[44];
} pvr_channel_info_s;

/* Channel record, legacy layout. 256 bytes. */
typedef struct _pvr_pelko_channel_info_s {
  guint32 carried_0;
  guint16 carried_4[6];
  guint8 carried_16[128];
  guint32 audio_pid; /* 144 */
  guint32 carried_148[6];
  guint16 video_pid; /* 172 */
  guint16 carried_174;
  guint8 video_encode_type; /* 176 */
  guint8 carried_177;
  guint16 reserved_178;
  guint16 pcr_pid; /* 180 */
  guint16 carried_182;
  guint8 reserved_184[26];
  guint8 carried_210;
  guint8 reserved_211[45];
} pvr_pelko_channel_info_s;

/* An I-frame, as the lookups answer it. Test is_valid before anything else. */
typedef struct _frameData {
  guint64 stream_offset;         /* bytes */
  guint64 next_gop_frame_offset; /* bytes */
  guint64 pts;                   /* 90 kHz */
  guint64 next_gop_pts;          /* 90 kHz */
  guint32 mdb_offset;            /* bytes, of the GOP's record in the index */
  guint32 length;                /* bytes of the I-frame */
  guint32 timecode;              /* ms from the recording's start */
  guint32 next_gop_timecode;     /* ms */
  guint32 last_frame_timecode;   /* ms */
  guint16 channel_index;
  guint16 video_pid;
  guint8 video_format;
  guint8 has_seq_header;
  guint8 is_valid;
  guint32 cached_index; /* slot in the parser's window */
} frameData;

/* A parser; storage is the caller's. One parser serves one caller at a time. */
typedef struct _GstIndexParser {
  guint32 cached_current_index;
  guint32 cached_start_index;
  guint32 cached_end_index;
  guint32 cached_start_abs_index;
  guint32 cached_end_abs_index;
  pvr_base_table_s base_table;
  pvr_gop_info_s *gop_cache; /* 32 records, relative to the recording's start; null when unloaded */
  GstPvrFile *index_file;    /* the caller's open handle */
  guint32 base_table_size;
  guint32 channel_info_size;
  guint32 gop_info_size;
  guint32 gop_start_offset;
  gboolean is_started;
  gboolean is_pelko_mdb;
} GstIndexParser;

/* --- Lifecycle and base table --- */

/**
 * Make a parser ready to be started.
 *
 * @param parser      The caller's storage; need not be zeroed, but its copy of the base table is
 * not touched. A parser that holds a window must be stopped first.
 * @param index_file  Handle of the ".mdb"; borrowed until stop.
 *
 * The parser expects the current layout until gst_index_parser_set_mdb_file_type() says otherwise.
 */
GST_PLEXA_API void gst_index_parser_init(GstIndexParser *parser, GstPvrFile *index_file);

/**
 * Tell the layout of an index file. Opens and closes it.
 *
 * @param path  Path of the ".mdb"; borrowed.
 * @return 0 legacy layout, 1 current layout, -1 neither or not readable.
 *
 * Safe from any thread.
 */
GST_PLEXA_API gint32 gst_index_parser_get_mdb_file_type(const gchar *path);

/**
 * Have the parser read the layout of an index file; between init and start.
 *
 * @param path  Path of the ".mdb"; borrowed. Nothing happens without it.
 *
 * A file of neither layout, or one that cannot be read, counts as the current layout.
 */
GST_PLEXA_API void gst_index_parser_set_mdb_file_type(GstIndexParser *parser, const gchar *path);

/**
 * Load the base table and the first window.
 *
 * @return 1; negative when the parser is started already (what it holds stays), when the base table
 *         is refused, and when no whole GOP record can be read.
 *
 * A start that failed may be repeated. Allocates the window, which stop frees.
 */
GST_PLEXA_API gint32 gst_index_parser_start(GstIndexParser *parser);

/**
 * Load the base table alone: the part of start that reads it. Works on a parser that was started
 * once, for the table's new values in a growing file; before that it knows no table size and fails.
 *
 * @return TRUE; FALSE when the handle cannot be read or the version is not a known one.
 */
GST_PLEXA_API gboolean gst_index_parser_read_base_table(GstIndexParser *parser);

/**
 * Release the window and forget the base table. The parser must be initialised again before it can
 * be started again; the handle stays open.
 *
 * @return 1, or -1 for a null parser.
 */
GST_PLEXA_API gint32 gst_index_parser_stop(GstIndexParser *parser);

/** Zero the parser's copy of the base table. Part of stop. */
GST_PLEXA_API void gst_index_parser_unload_base_table(GstIndexParser *parser);

/** Free the window. Part of stop; harmless when there is none. */
GST_PLEXA_API void gst_index_parser_unload_gop_table(GstIndexParser *parser);

/**
 * The recording's length.
 *
 * @return Milliseconds: from the base table, or from the last record while the recording is being
 *         written; 0 when nothing has been recorded yet; negative on failure.
 */
GST_PLEXA_API gint32 gst_index_parser_get_total_time(GstIndexParser *parser);

/** @return The recording's size in bytes as the recorder stored it, or -1 for a null parser. */
GST_PLEXA_API gint64 gst_index_parser_get_total_size(GstIndexParser *parser);

/** @return The size of the index file in bytes, now; negative on failure. */
GST_PLEXA_API gint64 gst_index_parser_get_file_size(GstIndexParser *parser);

/**
 * The number of whole GOP records in the file, now. In spite of its name one more than the number
 * of the last GOP.
 *
 * @return 0 or more; 0 before start; -1 for a null parser.
 */
GST_PLEXA_API gint32 gst_index_parser_get_max_gop_index(GstIndexParser *parser);

/* --- The window of GOP records and the searches that move it ---
 *
 * What the lookups are made of. A load is one seek and one read, and replaces the whole window; one
 * that fails leaves the window's indices as they were, and its records undefined. */

/**
 * Allocate the window, in place of one that there may be.
 *
 * @param flag  0: also load the first GOPs.
 * @return Records loaded; 0 when none were asked for; negative on failure.
 */
GST_PLEXA_API gint32 gst_index_parser_cache_initial_gop(GstIndexParser *parser, gint32 flag);

/**
 * Load the window that holds a GOP, with 16 GOPs before it where there are so many.
 *
 * @param target  Number of the GOP, from 0; becomes the current one. Near the end of a growing file
 *                it may not be there yet: then the current slot lies behind cached_end_index.
 * @return Records loaded, 1 to 32; negative on failure or without a window.
 */
GST_PLEXA_API gint32 gst_index_parser_read_gop(GstIndexParser *parser, gint32 target);

/** @return TRUE when the parser is started, or the first GOPs could be loaded now. */
GST_PLEXA_API gboolean gst_index_parser_check_gop_loaded(GstIndexParser *parser);

/**
 * Move the window on: the last GOP of this one becomes the current one of the next.
 *
 * @return Records loaded; negative on failure.
 */
GST_PLEXA_API gint32 gst_index_parser_read_next_gop_table(GstIndexParser *parser);

/**
 * Move the window back: its first GOP becomes the current one of the window before.
 *
 * @return Records loaded; 0 when this is the first window; negative on failure.
 */
GST_PLEXA_API gint32 gst_index_parser_read_previous_gop_table(GstIndexParser *parser);

/**
 * Where a target lies to the window. Both ends belong to the window.
 *
 * @return GST_INDEX_TARGET_BEFORE, _AFTER or _CACHED; -1 without a window.
 *
 * Reads no file. Times and offsets compare signed, PTS unsigned.
 */
GST_PLEXA_API gint32 gst_index_parser_is_target_time_gop_cached(GstIndexParser *parser,
                                                                gint32 time);
/** The same by PTS, 90 kHz. */
GST_PLEXA_API gint32 gst_index_parser_is_target_pts_gop_cached(GstIndexParser *parser, guint64 pts);
/** The same by stream offset, bytes. */
GST_PLEXA_API gint32 gst_index_parser_is_target_offset_gop_cached(GstIndexParser *parser,
                                                                  gint64 offset);

/**
 * Find the window that holds a time.
 *
 * @param start, end  GOP numbers, both inside the range.
 * @param time        Milliseconds.
 * @return 1 found, or the range is a single GOP, which is not loaded; 2 the time lies behind the
 *         range; negative when a load fails or no longer narrows the range.
 */
GST_PLEXA_API gint32 gst_index_parser_binary_search_by_time(GstIndexParser *parser, gint32 start,
                                                            gint32 end, gint32 time);
/** The same by PTS, 90 kHz. */
GST_PLEXA_API gint32 gst_index_parser_binary_search_by_pts(GstIndexParser *parser, gint32 start,
                                                           gint32 end, guint64 pts);
/**
 * The same by stream offset, bytes.
 *
 * @return 1 found, or the range holds at most one GOP; @p end when the offset lies behind the first
 *         window tried and that window ends the range; negative as above.
 */
GST_PLEXA_API gint32 gst_index_parser_binary_search_by_offset(GstIndexParser *parser, gint32 start,
                                                              gint32 end, gint64 offset);

/**
 * Search everything that is in the file now.
 *
 * @return As the binary search; negative for a file without a GOP.
 */
GST_PLEXA_API gint32 gst_index_parser_search_n_load_gop_table_by_time(GstIndexParser *parser,
                                                                      gint32 time);
/** The same by stream offset, bytes; 1 for a file with at most one GOP. */
GST_PLEXA_API gint32 gst_index_parser_search_n_load_gop_table_by_offset(GstIndexParser *parser,
                                                                        gint64 offset);

/**
 * Move the window to a time that lies outside it: by one load when it is near, else by a search.
 *
 * @return 0 or more; negative on failure or without a window.
 */
GST_PLEXA_API gint32 gst_index_parser_refresh_cached_gop_by_time(GstIndexParser *parser,
                                                                 gint32 time);
/** The same by stream offset, bytes. */
GST_PLEXA_API gint32 gst_index_parser_refresh_cached_gop_by_offset(GstIndexParser *parser,
                                                                   gint64 offset);

/**
 * Make the last GOP that starts at or before a time the current one, moving the window where need
 * be. Before the first GOP that is slot 0, behind the last one the last slot.
 *
 * @return 1; negative on failure or without a window.
 */
GST_PLEXA_API gint32 gst_index_parser_locate_current_idx_to_time(GstIndexParser *parser,
                                                                 gint32 time);
/**
 * The same by stream offset, bytes.
 *
 * @return 0 or more: the current GOP's time, or 1. Negative on failure.
 */
GST_PLEXA_API gint32 gst_index_parser_locate_current_idx_to_offset(GstIndexParser *parser,
                                                                   gint64 offset);

/* --- Lookups --- */

/**
 * The I-frame at a time, or some GOPs away from it.
 *
 * @param time      Milliseconds from the recording's start.
 * @param interval  GOPs to step on (or back, when negative) from the last one that starts at or
 *                  before @p time.
 * @return By value; test is_valid. Not valid for a negative time, a GOP that the file does not
 * hold, and every failure.
 */
GST_PLEXA_API frameData gst_index_parser_get_iframe_by_time(GstIndexParser *parser, gint32 time,
                                                            gint32 interval);

/**
 * The I-frame of the GOP that a byte of the stream file belongs to, or some GOPs away from it.
 *
 * @param offset    Bytes from the start of the stream file.
 * @param interval  GOPs to step on or back.
 * @return By value; test is_valid.
 */
GST_PLEXA_API frameData gst_index_parser_get_iframe_by_offset(GstIndexParser *parser, gint64 offset,
                                                              gint32 interval);

/**
 * The time of a byte of the stream file, in steps of a hundredth of its GOP.
 *
 * @param offset  Bytes from the start of the stream file.
 * @return Milliseconds from the recording's start; -1 when no GOP holds the byte.
 */
GST_PLEXA_API gint32 gst_index_parser_get_time_by_offset(GstIndexParser *parser, gint64 offset);

/**
 * The bit rate of the GOP at a time.
 *
 * @return Bits per second; -1 when there is no such GOP or it takes no time.
 */
GST_PLEXA_API gint32 gst_index_parser_get_estimated_bitrate(GstIndexParser *parser, gint32 time);

/**
 * The channel description in force at a time.
 *
 * @param out  The caller's record; may hold part of a record after a failed read.
 * @return TRUE when @p out is filled.
 */
GST_PLEXA_API gboolean gst_index_parser_get_channel_info_by_time(GstIndexParser *parser,
                                                                 gint32 time,
                                                                 pvr_channel_info_s *out);
/**
 * The channel description in a slot of the channel-info area.
 *
 * @param slot  0 to 4095, taken as unsigned; others are refused without touching the file.
 * @param out   The caller's record. From a legacy file, bytes that the legacy record does not have
 *              are left as they are.
 * @return TRUE when @p out is filled.
 */
GST_PLEXA_API gboolean gst_index_parser_get_channel_info_by_index(GstIndexParser *parser,
                                                                  gint16 slot,
                                                                  pvr_channel_info_s *out);

/**
 * Mark frame data as not found: is_valid and has_seq_header 0; stream_offset, mdb_offset, length,
 * timecode and channel_index all ones; the rest as it was. Does nothing unless both are given.
 */
GST_PLEXA_API void gst_index_parser_set_invalid_frame_data(GstIndexParser *parser,
                                                           frameData *frame_data);

/* --- Legacy records --- */

/**
 * Turn a legacy record into a current one. Bytes of @p nolva that have no source are left as they
 * are. Does nothing unless both are given. Safe from any thread.
 */
GST_PLEXA_API void gst_index_parser_convert_pelko_gop_info_to_nolva(
    const pvr_pelko_gop_info_s *pelko, pvr_gop_info_s *nolva);
/** The same for a channel record. */
GST_PLEXA_API void gst_index_parser_convert_pelko_channel_info_to_nolva(
    const pvr_pelko_channel_info_s *pelko, pvr_channel_info_s *nolva);

G_END_DECLS

#endif
