/*
 * plexa_platform_host.h - what a program can set and read of the host platform.
 *
 * libplexa-platform-host.so provides the platform services that libgst-plexa.so calls (log, system
 * information, PVR control, tuner, demultiplexer, TV system) on an ordinary Linux machine. This
 * header is for the program around it: it steers the log, and sets and reads the simulated tuner,
 * demultiplexer and TV system.
 *
 * Environment, read once when the log is first used or set up:
 *   PLEXA_HOST_LOG       off, error (the default) or debug
 *   PLEXA_HOST_LOG_FILE  file that the log is appended to; standard error when not set
 * and at each system_info_get_value_string() call:
 *   PLEXA_HOST_TV_YEAR   the television's model year
 * A program must not change its environment while other threads use these services. Programs with
 * raised privileges (set-user-ID and the like) ignore these variables.
 *
 * Every function may be called from any thread at any time, but not from a signal handler. None
 * throws.
 */
#ifndef PLEXA_PLATFORM_HOST_H
#define PLEXA_PLATFORM_HOST_H

#include <stdint.h>

#if defined(__GNUC__)
#define PLEXA_HOST_API __attribute__((visibility("default")))
#else
#define PLEXA_HOST_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Log ------------------------------------------------------------------------------------ */

/** Which messages the log keeps. */
typedef enum {
  PLEXA_HOST_LOG_LEVEL_OFF = 0,   /**< none; a message costs a comparison or two */
  PLEXA_HOST_LOG_LEVEL_ERROR = 1, /**< priority 6 and above */
  PLEXA_HOST_LOG_LEVEL_DEBUG = 2  /**< priority 3 and above */
} PlexaHostLogLevel;

/**
 * Set the level of the log; overrides PLEXA_HOST_LOG.
 *
 * @param level  The level; a value that is none of the three counts as
 *               PLEXA_HOST_LOG_LEVEL_ERROR.
 */
PLEXA_HOST_API void plexa_host_set_log_level(PlexaHostLogLevel level);

/** @return The level in force. */
PLEXA_HOST_API PlexaHostLogLevel plexa_host_get_log_level(void);

/**
 * Turn a level's name into the level, for command lines.
 *
 * @param name   "off", "error" or "debug"; borrowed, may be NULL.
 * @param level  Receives the level; untouched on failure.
 * @return 0, or -1 with errno EINVAL when the name is none of the three or @p level is NULL.
 */
PLEXA_HOST_API int plexa_host_log_level_from_name(const char *name, PlexaHostLogLevel *level);

/**
 * Send the log to a file, or back to standard error; overrides PLEXA_HOST_LOG_FILE.
 *
 * The file is created when missing (mode 0644) and appended to, so that several processes can share
 * it. Other threads may go on logging: each message goes whole to the old or to the new place.
 *
 * @param path  The file, not empty; borrowed. NULL: standard error.
 * @return 0, or -1 with errno set; the log then stays where it was.
 */
PLEXA_HOST_API int plexa_host_set_log_file(const char *path);

/* ---- Simulated devices ---------------------------------------------------------------------- */

/** The calls of the simulated tuner, demultiplexer and TV system, for plexa_host_set_result(). */
typedef enum {
  PLEXA_HOST_CALL_DEMUX_CREATE = 0,   /**< demux_control_CreateHandle() */
  PLEXA_HOST_CALL_DEMUX_DESTROY = 1,  /**< demux_control_DestroyHandle() */
  PLEXA_HOST_CALL_SET_PWM = 2,        /**< demux_control_setPWMInfo() */
  PLEXA_HOST_CALL_GET_PWM = 3,        /**< demux_control_getPWMInfo() */
  PLEXA_HOST_CALL_GET_STC = 4,        /**< demux_control_getSTC() */
  PLEXA_HOST_CALL_TUNER_CREATE = 5,   /**< tuner_control_CreateHandle() */
  PLEXA_HOST_CALL_TUNER_DESTROY = 6,  /**< tuner_control_DestroyHandle() */
  PLEXA_HOST_CALL_GET_ANTENNA = 7,    /**< tuner_control_getAntennaConnectionStatus() */
  PLEXA_HOST_CALL_GET_SIGNAL = 8,     /**< tuner_control_getDigitalSignalStatus() */
  PLEXA_HOST_CALL_SET_EWBS_FREQ = 9,  /**< tuner_control_setEwbsFrequency() */
  PLEXA_HOST_CALL_SET_EWBS_MODE = 10, /**< tv_system_set_EWBS_pm_mode() */
  PLEXA_HOST_CALL_COUNT = 11          /**< number of calls; not a call */
} PlexaHostCall;

/** How many handles of one kind can be open at a time; a further CreateHandle gives NULL. */
#define PLEXA_HOST_MAX_HANDLES 64

/**
 * Put the tuner, demultiplexer and TV system back into the state they have when the program starts,
 * as each function below names it. Open handles become invalid. The log keeps its settings.
 */
PLEXA_HOST_API void plexa_host_reset_devices(void);

/**
 * Set the result that a call of a simulated device returns from now on; 0 at start.
 *
 * With 0 the call does its work. With any other value it does nothing, leaves its out values
 * untouched and returns that value (a CreateHandle returns NULL; a DestroyHandle leaves the handle
 * open). Whatever is set, a call on a handle that is not open, or with a NULL out pointer, returns
 * -1 and does nothing.
 *
 * @param call    The call.
 * @param result  Its result.
 * @return 0, or -1 with errno EINVAL when there is no such call.
 */
PLEXA_HOST_API int plexa_host_set_result(PlexaHostCall call, int result);

/** Set the demultiplexer's PWM register, as demux_control_setPWMInfo() does; 0 at start. */
PLEXA_HOST_API void plexa_host_set_pwm_register(uint32_t value);
/** @return The demultiplexer's PWM register. */
PLEXA_HOST_API uint32_t plexa_host_get_pwm_register(void);

/** Set the system time clock that the demultiplexer reports; it stands still. 0 at start. */
PLEXA_HOST_API void plexa_host_set_stc(uint64_t stc);
/** @return The system time clock that the demultiplexer reports. */
PLEXA_HOST_API uint64_t plexa_host_get_stc(void);

/** Set the antenna connection bits that the tuner reports; 255 (unknown) at start. */
PLEXA_HOST_API void plexa_host_set_antenna_status(int status);
/** @return The antenna connection bits that the tuner reports. */
PLEXA_HOST_API int plexa_host_get_antenna_status(void);

/** Set the signal state that the tuner reports; 2 (undefined) at start. */
PLEXA_HOST_API void plexa_host_set_signal_status(int status);
/** @return The signal state that the tuner reports. */
PLEXA_HOST_API int plexa_host_get_signal_status(void);

/** @return The last frequency given to tuner_control_setEwbsFrequency(); -1 before the first. */
PLEXA_HOST_API int plexa_host_get_ewbs_frequency(void);
/** @return The last mode given to tv_system_set_EWBS_pm_mode(); -1 before the first. */
PLEXA_HOST_API int plexa_host_get_ewbs_mode(void);

/** @return The number of demultiplexer handles that are open. */
PLEXA_HOST_API int plexa_host_get_open_demux_handles(void);
/** @return The number of tuner handles that are open. */
PLEXA_HOST_API int plexa_host_get_open_tuner_handles(void);

#ifdef __cplusplus
}
#endif

#endif
