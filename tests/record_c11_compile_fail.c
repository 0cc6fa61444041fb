/* Wrong QUARRY_RECORD calls, compiled once per case (-DCASE_<name>) by tests/compile_fail.cmake,
 * each expected to fail; CASE_OK must compile (C11, -Wall -Wextra -Wpedantic -Werror). */
#include "quarry/quarry.h"

struct pair {
  int a, b;
};

void calls(quarry_handle* h, double ratio, struct pair p, int* pointer) {
  (void)ratio, (void)p, (void)pointer;
#if defined(CASE_OK)
  QUARRY_RECORD(h, 0);
  QUARRY_RECORD(h, 1, 7, (long long)-1, "text", (unsigned char)200, p.a, 1, 2, 3);
#elif defined(CASE_FLOAT)
  QUARRY_RECORD(h, 0, ratio);
#elif defined(CASE_STRUCT)
  QUARRY_RECORD(h, 0, 1, p);
#elif defined(CASE_POINTER)
  QUARRY_RECORD(h, 0, pointer);
#elif defined(CASE_NINE_ARGUMENTS)
  QUARRY_RECORD(h, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9);
#endif
}
