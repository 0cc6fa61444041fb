// The C ABI as an outside host sees it: only the public header and libquarry.so, without any
// event-loop library to attach a control file to.
#include <gtest/gtest.h>
#include <malloc.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <string>

#include "quarry/quarry.h"

extern "C" int quarry_c99_smoke(quarry_handle* handle);

namespace {

TEST(PublicAbi, OpenWriteDumpAndConfigureThroughTheHeaderAlone) {
  mallopt(M_PERTURB, 0x5A);  // fresh allocations hold garbage: unterminated strings show
  char pattern[] = "/tmp/quarry-abi-XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(pattern));
  const std::string base = std::string(pattern) + "/";
  setenv("QUARRY_PATH", base.c_str(), 1);
  quarry_set_process_name("abi host");
  EXPECT_STREQ("abi_host", quarry_get_process_prefix());
  quarry_handle* h = nullptr;
  ASSERT_EQ(0, quarry_open_internal(&h, "abi", 4096, 4, "abi.dec", "1", nullptr));
  EXPECT_NE(nullptr, circular_buffer_list);
  EXPECT_STREQ("abi", quarry_handle_get_name(h));
  EXPECT_EQ(0, quarry_c99_smoke(h));

  EXPECT_TRUE(quarry_get_dump_on_exit(h));
  quarry_set_dump_on_exit(h, false);
  EXPECT_FALSE(quarry_get_dump_on_exit(h));
  EXPECT_EQ(0, quarry_dump(h));
  struct stat st;
  EXPECT_EQ(0, stat((base + "abi_host/abi/quarry_0.trc").c_str(), &st));

  // The watch is set up before the attachment fails; the set-up alone reports success.
  testing::internal::CaptureStderr();
  int no_loop = 0;  // any context: there is no kelp_attach_fd to hand it to
  EXPECT_EQ(6, quarry_enable_configuration(h, &no_loop));
  EXPECT_EQ("quarry_enable_configuration(): kelp_attach_fd() failed.\n",
            testing::internal::GetCapturedStderr());
  EXPECT_EQ(0, quarry_enable_configuration2(h));
  EXPECT_EQ(0, stat((base + "abi_host/abi/quarry.ctrl").c_str(), &st));
  EXPECT_EQ(0, quarry_close(h));

  quarry_hashtable* table = _quarry_hashtable_create(8);
  EXPECT_EQ(0, _quarry_hashtable_put(table, "k", &st, nullptr));
  EXPECT_EQ(&st, _quarry_hashtable_get(table, "k"));
  _quarry_hashtable_destroy(table);
  char digits[32];
  EXPECT_STREQ("18446744073709551615", uint64_2_dstr(~0ull, digits, sizeof digits));
  EXPECT_EQ(0, system(("rm -rf '" + base + "'").c_str()));
}

}  // namespace
