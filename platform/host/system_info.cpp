// system_info.cpp - the television's model year, from the environment.
//
// Refuses any other key, and the year when PLEXA_HOST_TV_YEAR is not set, as a platform without the
// key does; set to nothing, the year is an empty text. Any thread may call, as long as none changes
// the environment meanwhile.
#include "system_info.h"

#include <cstdlib>
#include <cstring>

int system_info_get_value_string(int key, char **value) {
  if (value == nullptr) return -1;
  *value = nullptr;  // so that a caller who frees whatever he got is safe after a failure, too
  if (key != SYSTEM_INFO_KEY_FHD_QRT_TV_YEAR) return -1;
  const char *const year = secure_getenv("PLEXA_HOST_TV_YEAR");
  if (year == nullptr) return -1;
  *value = strdup(year);
  return *value == nullptr ? -1 : 0;
}
