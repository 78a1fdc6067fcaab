#include "sanitizer_options.h"
