/* gst_plexa_api.h - the thumbnail entry, and tuner and demultiplexer requests to the platform. */
#ifndef GST_PLEXA_API_H
#define GST_PLEXA_API_H

#include "gst_plexa_defs.h"

G_BEGIN_DECLS

/**
 * Write the recording's ".thm" file: five coded pictures at equal steps of time, one behind the
 * other, and beside it the ".tm" link that says that it is complete.
 *
 * @param path   Path of the stream file; borrowed. Null is refused with a message.
 * @param sizes  Receives the five pictures' sizes in bytes, or null; untouched on failure.
 * @param codes  Receives the five pictures' codecs, or null; untouched on failure. -1 unknown,
 *               0 MPEG-2, 1 H.264, 2 JPEG, 3 AVS, 4 H.265.
 * @return 1 or 0.
 *
 * Blocks on storage. Safe from several threads for different recordings.
 */
GST_PLEXA_API gint32 gst_plexa_api_make_thumbnail_file(const gchar *path, guint32 *sizes,
                                                       gint32 *codes);

/*
 * Requests to the platform. Each opens a handle of the platform's service, makes one call and
 * closes the handle. The result is the platform's own, 0 for success. No pointer may be null. Safe
 * from any thread, as the platform's services are; each may block as long as the platform does.
 */

/** Set the register that steers the clock-recovery oscillator. */
GST_PLEXA_API gint32 gst_plexa_api_set_tsd_pwm_reg(guint32 value);

/** Get that register; on failure @p value holds what the platform left there. */
GST_PLEXA_API gint32 gst_plexa_api_get_tsd_pwm_reg(guint32 *value);

/**
 * Get the system time clock, ISO/IEC 13818-1 clause 2.4.2; on failure @p stc holds what the
 * platform left there.
 */
GST_PLEXA_API gint32 gst_plexa_api_get_tsd_stc(guint64 *stc);

/**
 * Get the antenna connection.
 *
 * @param combination  Receives bits 0 to 3 of the platform's status, or 255 when it is unknown,
 * also when the platform failed without giving one.
 */
GST_PLEXA_API gint32 gst_plexa_api_get_tuner_Antenna_status(gint32 *combination);

/**
 * Get the digital signal's state.
 *
 * @param state  Receives the platform's 0 or 1; 2 for anything else, also when the platform failed
 *               without giving one.
 */
GST_PLEXA_API gint32 gst_plexa_api_get_tuner_signal_status(gint32 *state);

/** Set the frequency, in the tuner's unit, on which emergency warnings are watched for. */
GST_PLEXA_API gint32 gst_plexa_api_set_tuner_ewbs_freq(gint32 frequency);

/** Set the power mode that emergency warnings ask for; the mode is the platform's number. */
GST_PLEXA_API gint32 gst_plexa_api_set_EWBS_pm_mode(gint32 mode);

G_END_DECLS

#endif
