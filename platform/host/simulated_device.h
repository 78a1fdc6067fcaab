// simulated_device.h - the state behind the simulated tuner, demultiplexer and TV system.
//
// One record under one mutex. A call that a program makes takes the mutex once, for as long as it
// takes to copy a value; nothing is called while it is held. Any thread may call.
#pragma once

#include <array>
#include <cstdint>
#include <mutex>

#include "plexa_platform_host.h"

namespace plexa_host {

// What a call returns when it is used wrongly.
inline constexpr int kMisuse = -1;

// The open handles of one kind. A handle is the address of its slot: a pointer that is no slot, or
// the slot of a closed handle, is recognised without being followed.
class HandleTable {
 public:
  // Null when all slots are taken. The numbers of handles start at 1.
  void *open(int *id) noexcept;
  bool close(void *handle) noexcept;
  bool is_open(const void *handle) const noexcept { return find(handle) != nullptr; }
  bool is_open(const void *handle, int id) const noexcept;
  int count() const noexcept;

 private:
  struct Slot {
    int id = 0;  // 0: free
  };
  const Slot *find(const void *handle) const noexcept;

  std::array<Slot, PLEXA_HOST_MAX_HANDLES> slots_{};
  int last_id_ = 0;
};

struct DeviceState {
  std::uint32_t pwm_register = 0;
  std::uint64_t stc = 0;
  int antenna_status = 255;
  int signal_status = 2;
  int ewbs_frequency = -1;
  int ewbs_mode = -1;
  std::array<int, PLEXA_HOST_CALL_COUNT> results{};
  HandleTable demux_handles;
  HandleTable tuner_handles;

  int result_of(PlexaHostCall call) const noexcept { return results[call]; }
};

// The device state, locked for as long as this object lives.
class LockedDevice {
 public:
  LockedDevice() noexcept;
  DeviceState *operator->() const noexcept { return &state_; }
  DeviceState &operator*() const noexcept { return state_; }

 private:
  std::lock_guard<std::mutex> lock_;
  DeviceState &state_;
};

}  // namespace plexa_host
