// simulated_device.cpp - the state that the simulated tuner, demultiplexer and TV system share.
//
// Refuses a handle that is not open and a call that does not exist. Any thread may call.
#include "simulated_device.h"

#include <algorithm>
#include <cerrno>
#include <limits>

namespace plexa_host {
namespace {

// Both live as long as the process: a detached thread may still call while main() returns.
constinit std::mutex g_mutex;
constinit DeviceState g_state;

}  // namespace

const HandleTable::Slot *HandleTable::find(const void *handle) const noexcept {
  const auto slot = std::find_if(slots_.begin(), slots_.end(),
                                 [handle](const Slot &each) { return &each == handle; });
  return slot == slots_.end() || slot->id == 0 ? nullptr : &*slot;
}

void *HandleTable::open(int *id) noexcept {
  const auto slot =
      std::find_if(slots_.begin(), slots_.end(), [](const Slot &each) { return each.id == 0; });
  if (slot == slots_.end()) return nullptr;
  last_id_ = last_id_ == std::numeric_limits<int>::max() ? 1 : last_id_ + 1;
  slot->id = last_id_;
  *id = slot->id;
  return &*slot;
}

bool HandleTable::close(void *handle) noexcept {
  const Slot *const slot = find(handle);
  if (slot == nullptr) return false;
  slots_[static_cast<std::size_t>(slot - slots_.data())].id = 0;
  return true;
}

bool HandleTable::is_open(const void *handle, int id) const noexcept {
  const Slot *const slot = find(handle);
  return slot != nullptr && slot->id == id;
}

int HandleTable::count() const noexcept {
  return static_cast<int>(
      std::count_if(slots_.begin(), slots_.end(), [](const Slot &each) { return each.id != 0; }));
}

LockedDevice::LockedDevice() noexcept : lock_(g_mutex), state_(g_state) {}

}  // namespace plexa_host

using plexa_host::LockedDevice;

void plexa_host_reset_devices() { *LockedDevice() = plexa_host::DeviceState(); }

int plexa_host_set_result(PlexaHostCall call, int result) {
  // By way of an unsigned number: C callers can hand over any value.
  const auto index = static_cast<unsigned int>(call);
  if (index >= PLEXA_HOST_CALL_COUNT) {
    errno = EINVAL;
    return -1;
  }
  LockedDevice()->results[index] = result;
  return 0;
}
