// Number-to-text conversions and bounded_copy: digits, placement at the end of the area,
// refusals that write nothing, and the bytes around the result left alone.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string>

#include "sigsafe_format.h"

namespace {

// A 40-byte area filled with '#'; conversions get a prefix of it, so bytes past `size` show
// any write beyond the area and untouched bytes in front of the digits stay '#'.
struct Area {
  char bytes[40];
  Area() { std::fill(std::begin(bytes), std::end(bytes), '#'); }
  std::string str(size_t from, size_t to) const { return std::string(bytes + from, bytes + to); }
};

TEST(Uint64ToHex, RightAlignsLowerCaseDigits) {
  Area a;
  EXPECT_EQ(uint64_2_xstr(0, a.bytes, 32), a.bytes + 30);
  EXPECT_EQ(a.str(29, 33), std::string("#0\0#", 4));

  Area b;
  EXPECT_EQ(uint64_2_xstr(UINT64_MAX, b.bytes, 32), b.bytes + 15);
  EXPECT_EQ(b.str(14, 33), std::string("#ffffffffffffffff\0#", 19));

  Area c;
  EXPECT_STREQ(uint64_2_xstr(0xabcdef0123456789, c.bytes, 32), "abcdef0123456789");
  EXPECT_STREQ(uint64_2_xstr(0x10, c.bytes, 32), "10");

  // The smallest areas that fit exactly.
  Area d;
  EXPECT_EQ(uint64_2_xstr(255, d.bytes, 3), d.bytes);
  EXPECT_EQ(d.str(0, 4), std::string("ff\0#", 4));
  EXPECT_EQ(uint64_2_xstr(UINT64_MAX, d.bytes, 17), d.bytes);
  EXPECT_EQ(d.str(0, 18), std::string("ffffffffffffffff\0#", 18));
}

TEST(Uint64ToHex, RefusesAreasTooSmallWithoutWriting) {
  Area a;
  EXPECT_EQ(uint64_2_xstr(255, a.bytes, 2), nullptr);
  EXPECT_EQ(uint64_2_xstr(0, a.bytes, 0), nullptr);
  // Size 3 and up is refused too when this value's digits do not fit.
  EXPECT_EQ(uint64_2_xstr(0x1234, a.bytes + 8, 4), nullptr);
  EXPECT_EQ(uint64_2_xstr(UINT64_MAX, a.bytes + 8, 16), nullptr);
  EXPECT_EQ(a.str(0, 40), std::string(40, '#'));
}

TEST(Uint64ToDecimal, NeedsTwentyTwoBytes) {
  Area a;
  EXPECT_EQ(uint64_2_dstr(UINT64_MAX, a.bytes, 22), a.bytes + 1);
  EXPECT_EQ(a.str(0, 23), std::string("#18446744073709551615\0#", 23));

  Area b;
  EXPECT_EQ(uint64_2_dstr(0, b.bytes, 32), b.bytes + 30);
  EXPECT_EQ(b.str(29, 33), std::string("#0\0#", 4));
  EXPECT_STREQ(uint64_2_dstr(10, b.bytes, 32), "10");
  EXPECT_STREQ(uint64_2_dstr(1234567890, b.bytes, 32), "1234567890");

  Area c;
  EXPECT_EQ(uint64_2_dstr(7, c.bytes, 21), nullptr);
  EXPECT_EQ(uint64_2_dstr(7, c.bytes, -1), nullptr);
  EXPECT_EQ(c.str(0, 40), std::string(40, '#'));
}

TEST(BoundedCopy, CutsTerminatesAndPads) {
  const std::string long_text(300, 'x');
  char big[260];
  std::fill(std::begin(big), std::end(big), '#');
  EXPECT_EQ(bounded_copy(big, long_text.c_str(), 256), big);
  EXPECT_EQ(std::string(big), std::string(255, 'x'));
  EXPECT_EQ(big[256], '#');

  Area a;
  EXPECT_STREQ(bounded_copy(a.bytes, "abc", 3), "ab");
  EXPECT_EQ(a.bytes[3], '#');
  EXPECT_STREQ(bounded_copy(a.bytes, "abc", 1), "");
  EXPECT_EQ(a.bytes[1], 'b');

  // A short source fills the rest of the first n - 1 bytes with NUL, and no further.
  Area b;
  bounded_copy(b.bytes, "ab", 8);
  EXPECT_EQ(b.str(0, 9), std::string("ab\0\0\0\0\0\0#", 9));
}

}  // namespace
