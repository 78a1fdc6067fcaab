/* gst_pvr_tools.h - path helpers, a millisecond tick and a free-space diagnostic.
 *
 * Paths are borrowed. A result of type gchar * is a new string that the caller frees with free();
 * it is null, with a line in the log, when the path is null or lacks the character that it is split
 * at, and also when memory runs out. All functions are safe from any thread.
 */
#ifndef GST_PVR_TOOLS_H
#define GST_PVR_TOOLS_H

#include "gst_plexa_defs.h"

G_BEGIN_DECLS

/**
 * The part before the last "." of the whole path. So "/x.y/rec", which has its only dot in a
 * folder's name, gives "/x".
 */
GST_PLEXA_API gchar *gst_pvr_tool_extract_filepath_no_ext(const gchar *path);

/**
 * The path with what follows its last "." replaced: "/x/rec.a.kvf" and ".mdb" give "/x/rec.a.mdb".
 *
 * @param ext  The new extension with its dot; null gives null without a message.
 */
GST_PLEXA_API gchar *gst_pvr_tool_change_extension(const gchar *path, const gchar *ext);

/** The folder: the part before the last "/", "" for "/rec". */
GST_PLEXA_API gchar *gst_pvr_tool_extract_filepath_base(const gchar *path);

/** The file's name: the part behind the last "/", "" for "/x/". */
GST_PLEXA_API gchar *gst_pvr_tool_extract_filepath_del_base(const gchar *path);

/**
 * Find @p prefix anywhere in @p text, not only at its start.
 *
 * @return The place in @p text behind the first occurrence, not a copy; null when there is none, or
 *         when either argument is null.
 */
GST_PLEXA_API const gchar *gst_pvr_tool_remove_prefix(const gchar *prefix, const gchar *text);

/** @return Whether @p needle occurs in @p text; FALSE when either is null. */
GST_PLEXA_API gboolean gst_pvr_tool_is_include_string(const gchar *needle, const gchar *text);

/**
 * @return Milliseconds since a fixed moment in the past, in steps of the system's clock tick (POSIX
 *         times(); 10 ms where a second has 100 ticks). Wraps around at 2^32.
 */
GST_PLEXA_API guint32 gst_pvr_tool_tick(void);

/**
 * Write to the log what df(1) says about the file system of a recording: the first two lines of its
 * output, 200 bytes each at most. For diagnosis only.
 *
 * @param path  Path with a "CONTENT" in it. What stands before the first one, without the slash
 *              between them, is the folder to ask about; only its first 128 bytes are used. A null
 *              path, one without "CONTENT", and a shell that cannot be started are logged.
 *
 * Blocks until the command has ended.
 */
GST_PLEXA_API void gst_pvr_tool_check_filesystem_size(const gchar *path);

G_END_DECLS

#endif
