/* Compiled as strict C99 (-std=c99 -pedantic-errors): the public header must stay plain C.
 * The ABI test calls this function, so the C view of the ABI is exercised as well. */
#include "quarry/quarry.h"

int quarry_c99_smoke(quarry_handle* handle) {
  char digits[32];
  const char* hex = uint64_2_xstr(0xBEEFu, digits, sizeof digits);
  if (hex == 0 || hex[0] != 'b') return 1;
  if (quarry_signature_fixed_words("dD") != 7 || quarry_signature_flags("ds") != 1) return 2;
  QUARRY_TRACE(handle, 0, "ds", 42, "from C");
  quarry_internal(handle, 0, 4, 0, "", 0);
  return quarry_is_enabled(handle) ? 0 : 3;
}
