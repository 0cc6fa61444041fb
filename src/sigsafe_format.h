// Number-to-text conversion and bounded string copy for the dump path.
// Async-signal-safe: these functions allocate nothing, take no lock and touch only the
// caller's memory, so signal handlers may call them.
#pragma once

#include <stdint.h>

#include "quarry/quarry.h"

// Copies at most n - 1 characters of src (strncpy semantics) and terminates dst[n - 1].
// n must be at least 1. Returns dst.
char* bounded_copy(char* dst, const char* src, int32_t n);
