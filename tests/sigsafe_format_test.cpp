// Number-to-text conversions and bounded_copy: digits, placement at the end of the area,
// refusals that write nothing, and the bytes around the result left alone.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string>

#include "sigsafe_format.h"

namespace {

TEST(Conversions, DigitsEndTheAreaAndRefusalsWriteNothing) {
  const struct {
    bool hex;
    uint64_t value;
    int32_t size;
    const char* digits;  // null: refused
  } cases[] = {
      {true, 0, 32, "0"},
      {true, UINT64_MAX, 32, "ffffffffffffffff"},
      {true, 0xabcdef0123456789, 32, "abcdef0123456789"},
      {true, 0x10, 32, "10"},
      {true, 255, 3, "ff"},  // the smallest areas that fit exactly
      {true, UINT64_MAX, 17, "ffffffffffffffff"},
      {true, 255, 2, nullptr},
      {true, 0, 0, nullptr},
      {true, 0x1234, 4, nullptr},  // size 3 and up is refused too when the digits do not fit
      {true, UINT64_MAX, 16, nullptr},
      {false, UINT64_MAX, 22, "18446744073709551615"},
      {false, 0, 32, "0"},
      {false, 10, 32, "10"},
      {false, 1234567890, 32, "1234567890"},
      {false, 7, 21, nullptr},  // decimal always needs 22 bytes
      {false, 7, -1, nullptr},
  };
  for (const auto& c : cases) {
    // A 40-byte area of '#': bytes past `size` show a write beyond the area, and bytes in
    // front of the digits must stay '#'.
    char area[40];
    std::fill(std::begin(area), std::end(area), '#');
    char* result = c.hex ? uint64_2_xstr(c.value, area, static_cast<uint32_t>(c.size))
                         : uint64_2_dstr(c.value, area, c.size);
    std::string expected(sizeof area, '#');
    if (c.digits == nullptr) {
      EXPECT_EQ(nullptr, result) << c.value << " in " << c.size;
    } else {
      size_t start = c.size - strlen(c.digits) - 1;
      EXPECT_EQ(area + start, result) << c.digits;
      expected.replace(start, strlen(c.digits) + 1, std::string(c.digits) + '\0');
    }
    EXPECT_EQ(expected, std::string(area, sizeof area)) << c.value << " in " << c.size;
  }
}

TEST(BoundedCopy, CutsTerminatesAndPads) {
  char area[9];
  std::fill(std::begin(area), std::end(area), '#');
  EXPECT_EQ(bounded_copy(area, "abc", 3), area);
  EXPECT_STREQ(area, "ab");
  EXPECT_EQ(area[3], '#');
  EXPECT_STREQ(bounded_copy(area, "abc", 1), "");
  EXPECT_EQ(area[1], 'b');
  // A short source fills the rest of the first n - 1 bytes with NUL, and no further.
  std::fill(std::begin(area), std::end(area), '#');
  bounded_copy(area, "ab", 8);
  EXPECT_EQ(std::string(area, 9), std::string("ab\0\0\0\0\0\0#", 9));
}

}  // namespace
