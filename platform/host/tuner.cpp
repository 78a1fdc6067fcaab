// tuner.cpp - the simulated tuner: antenna and signal states as they are set, and the last
// frequency that was asked for.
//
// Refuses, with -1, a handle that is not open and a null out pointer. Any thread may call.
#include "simulated_device.h"
#include "tuner_control.h"

using plexa_host::kMisuse;
using plexa_host::LockedDevice;

void *tuner_control_CreateHandle(int /*device*/, int /*mode*/, int *id, int /*selector*/) {
  const LockedDevice device;
  if (id == nullptr || device->result_of(PLEXA_HOST_CALL_TUNER_CREATE) != 0) return nullptr;
  return device->tuner_handles.open(id);
}

int tuner_control_DestroyHandle(void *handle) {
  const LockedDevice device;
  if (!device->tuner_handles.is_open(handle)) return kMisuse;
  const int result = device->result_of(PLEXA_HOST_CALL_TUNER_DESTROY);
  if (result == 0) device->tuner_handles.close(handle);
  return result;
}

int tuner_control_getAntennaConnectionStatus(void *handle, int *status) {
  const LockedDevice device;
  if (status == nullptr || !device->tuner_handles.is_open(handle)) return kMisuse;
  const int result = device->result_of(PLEXA_HOST_CALL_GET_ANTENNA);
  if (result == 0) *status = device->antenna_status;
  return result;
}

int tuner_control_getDigitalSignalStatus(void *handle, int *status) {
  const LockedDevice device;
  if (status == nullptr || !device->tuner_handles.is_open(handle)) return kMisuse;
  const int result = device->result_of(PLEXA_HOST_CALL_GET_SIGNAL);
  if (result == 0) *status = device->signal_status;
  return result;
}

int tuner_control_setEwbsFrequency(void *handle, int frequency) {
  const LockedDevice device;
  if (!device->tuner_handles.is_open(handle)) return kMisuse;
  const int result = device->result_of(PLEXA_HOST_CALL_SET_EWBS_FREQ);
  if (result == 0) device->ewbs_frequency = frequency;
  return result;
}

void plexa_host_set_antenna_status(int status) { LockedDevice()->antenna_status = status; }

int plexa_host_get_antenna_status() { return LockedDevice()->antenna_status; }

void plexa_host_set_signal_status(int status) { LockedDevice()->signal_status = status; }

int plexa_host_get_signal_status() { return LockedDevice()->signal_status; }

int plexa_host_get_ewbs_frequency() { return LockedDevice()->ewbs_frequency; }

int plexa_host_get_open_tuner_handles() { return LockedDevice()->tuner_handles.count(); }
