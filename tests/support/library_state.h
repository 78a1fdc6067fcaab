// library_state.h - has a call let go of everything that it took? For sweeps over failures; the
// sanitizer's leak check looks after the memory.
#pragma once

#include <string>

namespace plexa_test {

int open_descriptors();    // of this process
bool registry_is_empty();  // no recording counts as open in the shared file-info registry

}  // namespace plexa_test
