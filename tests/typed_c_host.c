/* A C host of the typed_points provider, through the C header the build generated from its
 * declaration: the same calls as decode_cli_test makes from C++. */
#include <stdint.h>

#include "typed_points.h"

void typed_c_calls(void) {
  typed_points_open(4096, 0);
  typed_points_tick();
  typed_points_request(0xFF000000u, "GET /x");
  typed_points_reply(-2, 0xFFFFFFFFFFFFFFFFull);
  typed_points_mixed(-1, 0, INT64_MIN, "abcd", 200);
  typed_points_six(1, 2, 3, 4, 0xFFFFFFFFu, -6);
}
