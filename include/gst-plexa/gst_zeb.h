/* gst_zeb.h - is there a companion box, and of which board type is the television? */
#ifndef GST_ZEB_H
#define GST_ZEB_H

#include "gst_plexa_defs.h"

G_BEGIN_DECLS

#define ZEB_BOARD_TYPE_TALM 1u /* year string "2012" */
#define ZEB_BOARD_TYPE_VERN 2u /* "2013" */
#define ZEB_BOARD_TYPE_WISP 3u /* "2014" */
#define ZEB_BOARD_TYPE_NONE 4u /* any other, or none */

/**
 * The television's board type, from the year string of the platform's system information.
 *
 * @return One of ZEB_BOARD_TYPE_*; ZEB_BOARD_TYPE_NONE also when the platform has no year.
 *
 * Safe from any thread.
 */
GST_PLEXA_API guint32 gst_zeb_get_board_type(void);

/**
 * Is a box connected? The library's own answer is always 0. The symbol is weak: a program that has
 * a box defines the function itself, and its definition is used.
 *
 * @return 1 connected, 0 not. Asked at every open: must not block and must be safe from any thread.
 */
GST_PLEXA_API gint32 gst_zeb_is_connected(void);

/**
 * Do files lie on the box? They do when one is connected to a VERN or WISP board; without a
 * connection the board type is not asked for.
 *
 * @return 1 or 0. Safe from any thread.
 */
GST_PLEXA_API gint32 gst_zeb_is_need_socket(void);

G_END_DECLS

#endif
