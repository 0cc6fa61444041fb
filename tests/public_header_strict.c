/* Compiled by check_public_header.sh with gcc and clang as C99, C11 and C++17 at -Wall -Wextra
 * -Wpedantic -Werror: the installed headers, and every macro of quarry.h expanded with and
 * without values. */
#include "kelp/kelp.h"
#include "quarry/quarry.h"

#if !defined(QUARRY_VERSION_MAJOR) || !defined(QUARRY_VERSION_MINOR) || \
    !defined(QUARRY_VERSION_PATCH) || QUARRY_VERSION < QUARRY_VERSION_NUMBER(1, 0, 0)
#error "version macros missing or wrong"
#endif

void quarry_strict_calls(quarry_handle* h);

void quarry_strict_calls(quarry_handle* h) {
  const unsigned long long big = 1;
  QUARRY_TRACE(h, 0, "");
  QUARRY_TRACE(h, 1, "d", 1);
  QUARRY_TRACE(h, 2, "dDs", 1, big, "s");
  /* The most values one call takes: 62 after the signature. */
  QUARRY_TRACE(h, 3, "dddddddddddddddddddddddddddddddddddddddddddddddddddddddddddddd", 1, 2, 3, 4,
               5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26,
               27, 28, 29, 30, 31, 32, 33, 34, 35, 36, 37, 38, 39, 40, 41, 42, 43, 44, 45, 46, 47,
               48, 49, 50, 51, 52, 53, 54, 55, 56, 57, 58, 59, 60, 61, 62);
  (void)QUARRY_FLAG_HAS_STRINGS;
#if defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
  /* The typed form, with no value and with each argument type it maps. */
  QUARRY_RECORD(h, 4);
  QUARRY_RECORD(h, 5, 1, big, "s", (short)2, 3u);
#endif
}
