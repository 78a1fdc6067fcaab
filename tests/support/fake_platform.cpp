// fake_platform.cpp - see fake_platform.h.
#include "fake_platform.h"

#include <cerrno>
#include <cstring>

#include "demux_control.h"
#include "ppi_pvr_control.h"
#include "system_info.h"
#include "tuner_control.h"
#include "tv_system.h"

namespace plexa_test {

FakePlatform &fake_platform() {
  static FakePlatform platform;
  return platform;
}

namespace {

char tuner_handle;
char demux_handle;

std::string handle_name(const void *handle) {
  if (handle == &tuner_handle) return "tuner";
  return handle == &demux_handle ? "demux" : "?";
}

template <class... Numbers>
void note(const std::string &name, const std::string &handle, Numbers... numbers) {
  std::string text = name + "(" + handle;
  [[maybe_unused]] const char *separator = handle.empty() ? "" : ", ";
  ((text += separator + std::to_string(numbers), separator = ", "), ...);
  fake_platform().calls.push_back(text + ")");
}

}  // namespace
}  // namespace plexa_test

using plexa_test::fake_platform;
using plexa_test::handle_name;
using plexa_test::note;

extern "C" {

int system_info_get_value_string(int key, char **value) {
  auto &fake = fake_platform();
  ++fake.system_info_calls;
  fake.system_info_key = key;
  if (fake.tv_year) *value = strdup(fake.tv_year->c_str());
  return fake.system_info_result;
}

int ppi_pvr_control_file_truncate_range(int fd, const pvr_truncate_range_s *request) {
  auto &fake = fake_platform();
  if (fake.truncate_range) {
    return fake.truncate_range(fd, request->start_offset, request->end_offset, request->file_name);
  }
  errno = ENOSYS;
  return -1;
}

void *demux_control_CreateHandle(int device, int mode, int *id) {
  note("demux_control_CreateHandle", "", device, mode, *id);
  *id = 7;
  return &plexa_test::demux_handle;
}

int demux_control_DestroyHandle(void *handle, int id) {
  note("demux_control_DestroyHandle", handle_name(handle), id);
  return 0;
}

int demux_control_setPWMInfo(void *handle, int id, unsigned int value) {
  note("demux_control_setPWMInfo", handle_name(handle), id, value);
  fake_platform().pwm_value = value;
  return fake_platform().demux_result;
}

int demux_control_getPWMInfo(void *handle, int id, unsigned int *value) {
  note("demux_control_getPWMInfo", handle_name(handle), id);
  *value = fake_platform().pwm_value;
  return fake_platform().demux_result;
}

int demux_control_getSTC(void *handle, int id, uint64_t *stc) {
  note("demux_control_getSTC", handle_name(handle), id);
  *stc = fake_platform().stc_value;
  return fake_platform().demux_result;
}

void *tuner_control_CreateHandle(int device, int mode, int *id, int selector) {
  note("tuner_control_CreateHandle", "", device, mode, *id, selector);
  *id = 9;
  return &plexa_test::tuner_handle;
}

int tuner_control_DestroyHandle(void *handle) {
  note("tuner_control_DestroyHandle", handle_name(handle));
  return 0;
}

int tuner_control_getAntennaConnectionStatus(void *handle, int *status) {
  note("tuner_control_getAntennaConnectionStatus", handle_name(handle), *status);
  if (fake_platform().antenna_status) *status = *fake_platform().antenna_status;
  return fake_platform().tuner_result;
}

int tuner_control_getDigitalSignalStatus(void *handle, int *status) {
  note("tuner_control_getDigitalSignalStatus", handle_name(handle), *status);
  if (fake_platform().signal_status) *status = *fake_platform().signal_status;
  return fake_platform().tuner_result;
}

int tuner_control_setEwbsFrequency(void *handle, int frequency) {
  note("tuner_control_setEwbsFrequency", handle_name(handle), frequency);
  return fake_platform().tuner_result;
}

int tv_system_set_EWBS_pm_mode(int mode) {
  note("tv_system_set_EWBS_pm_mode", "", mode);
  return fake_platform().tv_system_result;
}
}
