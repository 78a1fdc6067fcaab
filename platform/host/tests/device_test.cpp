// device_test.cpp - the simulated tuner, demultiplexer and TV system, through the library.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <limits>
#include <set>
#include <thread>
#include <vector>

#include "demux_control.h"
#include "plexa_platform_host.h"
#include "tuner_control.h"
#include "tv_system.h"

namespace {

class DeviceTest : public testing::Test {
 protected:
  DeviceTest() { plexa_host_reset_devices(); }
  ~DeviceTest() override { plexa_host_reset_devices(); }
};

class DemuxTest : public DeviceTest {
 protected:
  DemuxTest() : handle_(demux_control_CreateHandle(0, 0x802, &id_)) {}

  int id_ = -1;
  void *const handle_;
};

class TunerTest : public DeviceTest {
 protected:
  TunerTest() : handle_(tuner_control_CreateHandle(0x30000, 0, &id_, 0x80000)) {}

  int id_ = -1;
  void *const handle_;
};

TEST_F(DemuxTest, ANewHandleHasANumberAndIsCounted) {
  EXPECT_NE(handle_, nullptr);
  EXPECT_EQ(id_, 1);
  EXPECT_EQ(plexa_host_get_open_demux_handles(), 1);
  EXPECT_EQ(plexa_host_get_open_tuner_handles(), 0);
}

TEST_F(DemuxTest, AClosedHandleIsNoLongerCountedAndNoLongerUsable) {
  EXPECT_EQ(demux_control_DestroyHandle(handle_, id_), 0);
  EXPECT_EQ(plexa_host_get_open_demux_handles(), 0);
  EXPECT_EQ(demux_control_setPWMInfo(handle_, id_, 5), -1);
  EXPECT_EQ(demux_control_DestroyHandle(handle_, id_), -1);
}

TEST_F(DemuxTest, HandlesAreTheirOwn) {
  int other_id = -1;
  void *const other = demux_control_CreateHandle(0, 0x802, &other_id);
  EXPECT_NE(other, handle_);
  EXPECT_NE(other_id, id_);
  EXPECT_EQ(demux_control_DestroyHandle(handle_, other_id), -1);
  EXPECT_EQ(demux_control_DestroyHandle(handle_, id_), 0);
  EXPECT_EQ(demux_control_setPWMInfo(other, other_id, 5), 0);
}

TEST_F(DemuxTest, ThePwmRegisterKeepsWhatIsWrittenToIt) {
  EXPECT_EQ(plexa_host_get_pwm_register(), 0u);
  EXPECT_EQ(demux_control_setPWMInfo(handle_, id_, 0xfedcba98u), 0);
  EXPECT_EQ(plexa_host_get_pwm_register(), 0xfedcba98u);
}

TEST_F(DemuxTest, ThePwmRegisterReadsAsTheProgramSetIt) {
  plexa_host_set_pwm_register(1234);
  unsigned int value = 0;
  EXPECT_EQ(demux_control_getPWMInfo(handle_, id_, &value), 0);
  EXPECT_EQ(value, 1234u);
}

TEST_F(DemuxTest, TheClockReadsAsTheProgramSetItInAll64Bits) {
  uint64_t stc = 1;
  EXPECT_EQ(demux_control_getSTC(handle_, id_, &stc), 0);
  EXPECT_EQ(stc, 0u);
  plexa_host_set_stc(0xfedcba9876543210u);
  EXPECT_EQ(plexa_host_get_stc(), 0xfedcba9876543210u);
  EXPECT_EQ(demux_control_getSTC(handle_, id_, &stc), 0);
  EXPECT_EQ(stc, 0xfedcba9876543210u);
}

TEST_F(DemuxTest, AWrongNumberIsRefused) {
  unsigned int value = 7;
  uint64_t stc = 8;
  EXPECT_EQ(demux_control_setPWMInfo(handle_, id_ + 1, 5), -1);
  EXPECT_EQ(demux_control_getPWMInfo(handle_, id_ + 1, &value), -1);
  EXPECT_EQ(demux_control_getSTC(handle_, id_ + 1, &stc), -1);
  EXPECT_EQ(plexa_host_get_pwm_register(), 0u);
  EXPECT_EQ(value, 7u);
  EXPECT_EQ(stc, 8u);
}

TEST_F(DemuxTest, APointerThatIsNoHandleIsRefusedUnread) {
  int tuner_id = -1;
  void *const tuner = tuner_control_CreateHandle(0x30000, 0, &tuner_id, 2);
  for (void *const stranger : {static_cast<void *>(nullptr), static_cast<void *>(&id_), tuner}) {
    EXPECT_EQ(demux_control_setPWMInfo(stranger, 1, 5), -1);
    EXPECT_EQ(demux_control_setPWMInfo(stranger, 0, 5), -1);
    EXPECT_EQ(demux_control_DestroyHandle(stranger, 1), -1);
  }
  EXPECT_EQ(plexa_host_get_pwm_register(), 0u);
}

TEST_F(DemuxTest, NullOutPointersAreRefused) {
  EXPECT_EQ(demux_control_CreateHandle(0, 0x802, nullptr), nullptr);
  EXPECT_EQ(demux_control_getPWMInfo(handle_, id_, nullptr), -1);
  EXPECT_EQ(demux_control_getSTC(handle_, id_, nullptr), -1);
  EXPECT_EQ(plexa_host_get_open_demux_handles(), 1);
}

TEST_F(DemuxTest, AResultThatIsSetIsReturnedAndTheCallDoesNothing) {
  unsigned int value = 7;
  uint64_t stc = 8;
  plexa_host_set_result(PLEXA_HOST_CALL_SET_PWM, -11);
  plexa_host_set_result(PLEXA_HOST_CALL_GET_PWM, -12);
  plexa_host_set_result(PLEXA_HOST_CALL_GET_STC, 13);
  plexa_host_set_result(PLEXA_HOST_CALL_DEMUX_DESTROY, -14);
  EXPECT_EQ(demux_control_setPWMInfo(handle_, id_, 5), -11);
  EXPECT_EQ(demux_control_getPWMInfo(handle_, id_, &value), -12);
  EXPECT_EQ(demux_control_getSTC(handle_, id_, &stc), 13);
  EXPECT_EQ(demux_control_DestroyHandle(handle_, id_), -14);
  EXPECT_EQ(plexa_host_get_pwm_register(), 0u);
  EXPECT_EQ(value, 7u);
  EXPECT_EQ(stc, 8u);
  EXPECT_EQ(plexa_host_get_open_demux_handles(), 1);
}

TEST_F(DemuxTest, ACreateThatIsMadeToFailGivesNoHandleAndNoNumber) {
  plexa_host_set_result(PLEXA_HOST_CALL_DEMUX_CREATE, -1);
  int id = -1;
  EXPECT_EQ(demux_control_CreateHandle(0, 0x802, &id), nullptr);
  EXPECT_EQ(id, -1);
  EXPECT_EQ(plexa_host_get_open_demux_handles(), 1);
}

TEST_F(DeviceTest, HandlesRunOutAndComeBack) {
  std::vector<void *> handles;
  std::set<int> ids;
  for (int i = 0; i < PLEXA_HOST_MAX_HANDLES; ++i) {
    int id = -1;
    handles.push_back(demux_control_CreateHandle(0, 0x802, &id));
    ids.insert(id);
  }
  EXPECT_THAT(handles, testing::Each(testing::NotNull()));
  EXPECT_EQ(ids.size(), static_cast<std::size_t>(PLEXA_HOST_MAX_HANDLES));
  int id = -1;
  EXPECT_EQ(demux_control_CreateHandle(0, 0x802, &id), nullptr);
  EXPECT_EQ(id, -1);
  EXPECT_EQ(demux_control_DestroyHandle(handles[3], 4), 0);
  EXPECT_NE(demux_control_CreateHandle(0, 0x802, &id), nullptr);
  EXPECT_EQ(plexa_host_get_open_demux_handles(), PLEXA_HOST_MAX_HANDLES);
}

TEST_F(TunerTest, ANewHandleHasANumberAndIsCounted) {
  EXPECT_NE(handle_, nullptr);
  EXPECT_EQ(id_, 1);
  EXPECT_EQ(plexa_host_get_open_tuner_handles(), 1);
  EXPECT_EQ(tuner_control_DestroyHandle(handle_), 0);
  EXPECT_EQ(plexa_host_get_open_tuner_handles(), 0);
  EXPECT_EQ(tuner_control_DestroyHandle(handle_), -1);
}

TEST_F(TunerTest, TheAntennaIsUnknownUntilTheProgramSetsIt) {
  int status = 0;
  EXPECT_EQ(tuner_control_getAntennaConnectionStatus(handle_, &status), 0);
  EXPECT_EQ(status, 255);
  plexa_host_set_antenna_status(0x1f);
  EXPECT_EQ(plexa_host_get_antenna_status(), 0x1f);
  EXPECT_EQ(tuner_control_getAntennaConnectionStatus(handle_, &status), 0);
  EXPECT_EQ(status, 0x1f);
}

TEST_F(TunerTest, TheSignalIsUndefinedUntilTheProgramSetsIt) {
  int status = 0;
  EXPECT_EQ(tuner_control_getDigitalSignalStatus(handle_, &status), 0);
  EXPECT_EQ(status, 2);
  plexa_host_set_signal_status(1);
  EXPECT_EQ(plexa_host_get_signal_status(), 1);
  EXPECT_EQ(tuner_control_getDigitalSignalStatus(handle_, &status), 0);
  EXPECT_EQ(status, 1);
}

TEST_F(TunerTest, TheLastWarningFrequencyCanBeRead) {
  EXPECT_EQ(plexa_host_get_ewbs_frequency(), -1);
  EXPECT_EQ(tuner_control_setEwbsFrequency(handle_, 473143), 0);
  EXPECT_EQ(tuner_control_setEwbsFrequency(handle_, 521143), 0);
  EXPECT_EQ(plexa_host_get_ewbs_frequency(), 521143);
}

TEST_F(TunerTest, APointerThatIsNoHandleIsRefusedUnread) {
  int status = 7;
  int demux_id = -1;
  void *const demux = demux_control_CreateHandle(0, 0x802, &demux_id);
  for (void *const stranger : {static_cast<void *>(nullptr), static_cast<void *>(&id_), demux}) {
    EXPECT_EQ(tuner_control_getAntennaConnectionStatus(stranger, &status), -1);
    EXPECT_EQ(tuner_control_getDigitalSignalStatus(stranger, &status), -1);
    EXPECT_EQ(tuner_control_setEwbsFrequency(stranger, 1), -1);
    EXPECT_EQ(tuner_control_DestroyHandle(stranger), -1);
  }
  EXPECT_EQ(status, 7);
  EXPECT_EQ(plexa_host_get_ewbs_frequency(), -1);
}

TEST_F(TunerTest, NullOutPointersAreRefused) {
  EXPECT_EQ(tuner_control_CreateHandle(0x30000, 0, nullptr, 2), nullptr);
  EXPECT_EQ(tuner_control_getAntennaConnectionStatus(handle_, nullptr), -1);
  EXPECT_EQ(tuner_control_getDigitalSignalStatus(handle_, nullptr), -1);
}

TEST_F(TunerTest, AResultThatIsSetIsReturnedAndTheCallDoesNothing) {
  int status = 7;
  plexa_host_set_result(PLEXA_HOST_CALL_GET_ANTENNA, -21);
  plexa_host_set_result(PLEXA_HOST_CALL_GET_SIGNAL, -22);
  plexa_host_set_result(PLEXA_HOST_CALL_SET_EWBS_FREQ, -23);
  plexa_host_set_result(PLEXA_HOST_CALL_TUNER_DESTROY, -24);
  plexa_host_set_result(PLEXA_HOST_CALL_TUNER_CREATE, -25);
  EXPECT_EQ(tuner_control_getAntennaConnectionStatus(handle_, &status), -21);
  EXPECT_EQ(tuner_control_getDigitalSignalStatus(handle_, &status), -22);
  EXPECT_EQ(tuner_control_setEwbsFrequency(handle_, 1), -23);
  EXPECT_EQ(tuner_control_DestroyHandle(handle_), -24);
  EXPECT_EQ(tuner_control_CreateHandle(0x30000, 0, &status, 2), nullptr);
  EXPECT_EQ(status, 7);
  EXPECT_EQ(plexa_host_get_ewbs_frequency(), -1);
  EXPECT_EQ(plexa_host_get_open_tuner_handles(), 1);
}

TEST_F(DeviceTest, TheLastPowerModeCanBeRead) {
  EXPECT_EQ(plexa_host_get_ewbs_mode(), -1);
  EXPECT_EQ(tv_system_set_EWBS_pm_mode(3), 0);
  EXPECT_EQ(plexa_host_get_ewbs_mode(), 3);
}

TEST_F(DeviceTest, AFailingPowerModeChangesNothing) {
  plexa_host_set_result(PLEXA_HOST_CALL_SET_EWBS_MODE, -31);
  EXPECT_EQ(tv_system_set_EWBS_pm_mode(3), -31);
  EXPECT_EQ(plexa_host_get_ewbs_mode(), -1);
}

TEST_F(DeviceTest, AResultCanBeTakenBack) {
  plexa_host_set_result(PLEXA_HOST_CALL_SET_EWBS_MODE, -31);
  plexa_host_set_result(PLEXA_HOST_CALL_SET_EWBS_MODE, 0);
  EXPECT_EQ(tv_system_set_EWBS_pm_mode(3), 0);
}

TEST_F(DeviceTest, ACallThatDoesNotExistHasNoResult) {
  for (const int call : {-1, static_cast<int>(PLEXA_HOST_CALL_COUNT), 4711}) {
    errno = 0;
    EXPECT_EQ(plexa_host_set_result(static_cast<PlexaHostCall>(call), -1), -1) << call;
    EXPECT_EQ(errno, EINVAL) << call;
  }
}

TEST_F(DemuxTest, AResetForgetsEverything) {
  plexa_host_set_pwm_register(1);
  plexa_host_set_stc(2);
  plexa_host_set_antenna_status(3);
  plexa_host_set_signal_status(4);
  plexa_host_set_result(PLEXA_HOST_CALL_SET_EWBS_MODE, -1);
  plexa_host_reset_devices();
  EXPECT_EQ(plexa_host_get_pwm_register(), 0u);
  EXPECT_EQ(plexa_host_get_stc(), 0u);
  EXPECT_EQ(plexa_host_get_antenna_status(), 255);
  EXPECT_EQ(plexa_host_get_signal_status(), 2);
  EXPECT_EQ(tv_system_set_EWBS_pm_mode(3), 0);
  EXPECT_EQ(plexa_host_get_open_demux_handles(), 0);
  EXPECT_EQ(demux_control_setPWMInfo(handle_, id_, 5), -1);
}

TEST_F(DeviceTest, ManyThreadsLeaveNoHandleOpen) {
  constexpr int kThreads = 8;
  std::vector<std::thread> threads;
  for (int number = 0; number < kThreads; ++number) {
    threads.emplace_back([] {
      for (int round = 0; round < 500; ++round) {
        int id = -1;
        void *const handle = demux_control_CreateHandle(0, 0x802, &id);
        EXPECT_EQ(demux_control_setPWMInfo(handle, id, 77), 0);
        EXPECT_EQ(demux_control_DestroyHandle(handle, id), 0);
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(plexa_host_get_open_demux_handles(), 0);
  EXPECT_EQ(plexa_host_get_pwm_register(), 77u);
}

}  // namespace
