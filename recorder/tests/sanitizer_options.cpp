// sanitizer_options.cpp - see sanitizer_options.h.
#include "sanitizer_options.h"
