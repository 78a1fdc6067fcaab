// tv_system.cpp - the simulated TV system: keeps the last power mode that was asked for.
//
// Any thread may call.
#include "tv_system.h"

#include "simulated_device.h"

using plexa_host::LockedDevice;

int tv_system_set_EWBS_pm_mode(int mode) {
  const LockedDevice device;
  const int result = device->result_of(PLEXA_HOST_CALL_SET_EWBS_MODE);
  if (result == 0) device->ewbs_mode = mode;
  return result;
}

int plexa_host_get_ewbs_mode() { return LockedDevice()->ewbs_mode; }
