/* tv_system.h - the platform's television system services. */
#ifndef PLEXA_PLATFORM_TV_SYSTEM_H
#define PLEXA_PLATFORM_TV_SYSTEM_H

#ifdef __cplusplus
extern "C" {
#endif
/* Whoever defines these, in a library or in a program, is seen by all others. */
#pragma GCC visibility push(default)

/**
 * Set the power mode that the emergency warning broadcast asks for.
 *
 * @param mode  The mode, as the platform numbers them.
 * @return 0 on success.
 *
 * Safe from any thread.
 */
int tv_system_set_EWBS_pm_mode(int mode);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
