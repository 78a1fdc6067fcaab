/* demux_control.h - the platform's demultiplexer. All calls: 0 is success. Safe from any thread. */
#ifndef PLEXA_PLATFORM_DEMUX_CONTROL_H
#define PLEXA_PLATFORM_DEMUX_CONTROL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
/* Whoever defines these, in a library or in a program, is seen by all others. */
#pragma GCC visibility push(default)

/**
 * Open a demultiplexer handle.
 *
 * @param device  Device selector, as the platform numbers them.
 * @param mode    Mode selector, as the platform numbers them.
 * @param id      Receives the handle's number; untouched on failure.
 * @return The handle, given back with demux_control_DestroyHandle(), or NULL.
 */
void *demux_control_CreateHandle(int device, int mode, int *id);
/** Close a handle; @p id is the number that it was opened with. */
int demux_control_DestroyHandle(void *handle, int id);

/** Set the register that steers the clock-recovery oscillator. */
int demux_control_setPWMInfo(void *handle, int id, unsigned int value);
/** Get the register that steers the clock-recovery oscillator; @p value is untouched on failure. */
int demux_control_getPWMInfo(void *handle, int id, unsigned int *value);

/** Get the system time clock, ISO/IEC 13818-1 clause 2.4.2; @p stc is untouched on failure. */
int demux_control_getSTC(void *handle, int id, uint64_t *stc);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
