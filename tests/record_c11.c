/* QUARRY_RECORD as a C11 host writes it (-Wall -Wextra -Wpedantic -Werror): one call per case,
 * which record_writer_test checks word for word against its record model. */
#include "quarry/quarry.h"

void record_c11_case(quarry_handle* h, int which) {
  const char* text = "c11";
  char buffer[] = "mutable";
  switch (which) {
    case 0:
      QUARRY_RECORD(h, 0);
      break;
    case 1:
      QUARRY_RECORD(h, 1, (signed char)-1, (unsigned short)65535, -5, 0xFF000000u);
      break;
    case 2:
      QUARRY_RECORD(h, 2, -1L, 0x1FFFFFFFFull, (_Bool)1);
      break;
    case 3:
      QUARRY_RECORD(h, 3, text, 7, buffer, (const char*)0);
      break;
    case 4:
      QUARRY_RECORD(h, 4, 1, 2, 3, 4, 5, 6, 7, (unsigned long long)8);
      break;
    default:
      break;
  }
}
