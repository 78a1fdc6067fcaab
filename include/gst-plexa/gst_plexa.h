/* gst_plexa.h - everything that libgst-plexa offers. */
#ifndef GST_PLEXA_H
#define GST_PLEXA_H

#include "ext_queue.h"
#include "gst_cut_buffer_mgr.h"
#include "gst_cut_file.h"
#include "gst_cut_thread.h"
#include "gst_edit_unit.h"
#include "gst_file_direct_io.h"
#include "gst_file_io.h"
#include "gst_file_key_mgr.h"
#include "gst_file_shared_info.h"
#include "gst_file_socket_io.h"
#include "gst_index_parser.h"
#include "gst_normal_file.h"
#include "gst_plexa_api.h"
#include "gst_plexa_defs.h"
#include "gst_pvr_file.h"
#include "gst_pvr_tools.h"
#include "gst_socket_file.h"
#include "gst_thumbnail_common.h"
#include "gst_thumbnail_util.h"
#include "gst_vector.h"
#include "gst_zeb.h"

#endif
