// demux.cpp - the simulated demultiplexer: a PWM register and a clock that stands where it is set.
//
// Refuses, with -1, a handle that is not open, a number that is not the handle's, and a null out
// pointer. Any thread may call.
#include "demux_control.h"
#include "simulated_device.h"

using plexa_host::kMisuse;
using plexa_host::LockedDevice;

void *demux_control_CreateHandle(int /*device*/, int /*mode*/, int *id) {
  const LockedDevice device;
  if (id == nullptr || device->result_of(PLEXA_HOST_CALL_DEMUX_CREATE) != 0) return nullptr;
  return device->demux_handles.open(id);
}

int demux_control_DestroyHandle(void *handle, int id) {
  const LockedDevice device;
  if (!device->demux_handles.is_open(handle, id)) return kMisuse;
  const int result = device->result_of(PLEXA_HOST_CALL_DEMUX_DESTROY);
  if (result == 0) device->demux_handles.close(handle);
  return result;
}

int demux_control_setPWMInfo(void *handle, int id, unsigned int value) {
  const LockedDevice device;
  if (!device->demux_handles.is_open(handle, id)) return kMisuse;
  const int result = device->result_of(PLEXA_HOST_CALL_SET_PWM);
  if (result == 0) device->pwm_register = value;
  return result;
}

int demux_control_getPWMInfo(void *handle, int id, unsigned int *value) {
  const LockedDevice device;
  if (value == nullptr || !device->demux_handles.is_open(handle, id)) return kMisuse;
  const int result = device->result_of(PLEXA_HOST_CALL_GET_PWM);
  if (result == 0) *value = device->pwm_register;
  return result;
}

int demux_control_getSTC(void *handle, int id, uint64_t *stc) {
  const LockedDevice device;
  if (stc == nullptr || !device->demux_handles.is_open(handle, id)) return kMisuse;
  const int result = device->result_of(PLEXA_HOST_CALL_GET_STC);
  if (result == 0) *stc = device->stc;
  return result;
}

void plexa_host_set_pwm_register(uint32_t value) { LockedDevice()->pwm_register = value; }

uint32_t plexa_host_get_pwm_register() { return LockedDevice()->pwm_register; }

void plexa_host_set_stc(uint64_t stc) { LockedDevice()->stc = stc; }

uint64_t plexa_host_get_stc() { return LockedDevice()->stc; }

int plexa_host_get_open_demux_handles() { return LockedDevice()->demux_handles.count(); }
