/* tuner_control.h - the platform's tuner. All calls: 0 is success. Safe from any thread. */
#ifndef PLEXA_PLATFORM_TUNER_CONTROL_H
#define PLEXA_PLATFORM_TUNER_CONTROL_H

#ifdef __cplusplus
extern "C" {
#endif
/* Whoever defines these, in a library or in a program, is seen by all others. */
#pragma GCC visibility push(default)

/**
 * Open a tuner handle.
 *
 * @param device    Device selector, as the platform numbers them.
 * @param mode      Mode selector, as the platform numbers them.
 * @param id        Receives the handle's number; untouched on failure.
 * @param selector  Selector of the tuner's function, as the platform numbers them.
 * @return The handle, given back with tuner_control_DestroyHandle(), or NULL.
 */
void *tuner_control_CreateHandle(int device, int mode, int *id, int selector);
/** Close a handle. */
int tuner_control_DestroyHandle(void *handle);

/** Get the antenna connection bits, 255 when unknown; @p status is untouched on failure. */
int tuner_control_getAntennaConnectionStatus(void *handle, int *status);
/**
 * Get the signal state: 0 and 1 are the two known states, anything else is undefined; @p status is
 * untouched on failure.
 */
int tuner_control_getDigitalSignalStatus(void *handle, int *status);
/** Set the frequency on which the emergency warning broadcast is watched. */
int tuner_control_setEwbsFrequency(void *handle, int frequency);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
