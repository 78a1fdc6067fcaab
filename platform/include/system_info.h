/* system_info.h - facts about the television that the platform keeps. */
#ifndef PLEXA_PLATFORM_SYSTEM_INFO_H
#define PLEXA_PLATFORM_SYSTEM_INFO_H

#ifdef __cplusplus
extern "C" {
#endif
/* Whoever defines these, in a library or in a program, is seen by all others. */
#pragma GCC visibility push(default)

/* The model year of the board, four digits that may be followed by more text. */
#define SYSTEM_INFO_KEY_FHD_QRT_TV_YEAR 0x2001

/**
 * Get a text value.
 *
 * @param key    One of SYSTEM_INFO_KEY_*.
 * @param value  Receives a new string, which the caller frees with free(). A platform may hand over
 *               a string together with a failure; it is freed in the same way.
 * @return 0 on success; anything else is a failure.
 *
 * Safe from any thread.
 */
int system_info_get_value_string(int key, char **value);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
