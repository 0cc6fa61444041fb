// Once per process: clock calibration, time base, identity, exit hook, environment, info file.
// Thread contract: runs under circular_buffer_list_mutex; must not be called with it held.
#pragma once

#include <time.h>

// Results: 0 done (now or earlier); -1 lock failed; -2 clock unreadable; -3 info file not
// created (its directory does not exist yet on the first open).
int quarry_global_init_once();
// Sets ts_res, ts_idx_mask and ts_index from the observed step of CLOCK_MONOTONIC.
void calibrate_clock();

// Test seam: the clock that calibrate_clock reads, with clock_gettime's result convention (0
// read, else failed). Null restores clock_gettime(CLOCK_MONOTONIC).
using calibration_clock = int (*)(struct timespec* now);
void set_calibration_clock(calibration_clock clock);
