// The C ABI as an outside host sees it: only the public header and libquarry.so.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "quarry/quarry.h"

extern "C" int quarry_c99_smoke(quarry_handle* handle);

namespace {

std::string fresh_base_dir() {
  char pattern[] = "/tmp/quarry-abi-XXXXXX";
  if (mkdtemp(pattern) == nullptr) return "";
  std::string dir = std::string(pattern) + "/";
  setenv("QUARRY_PATH", dir.c_str(), 1);
  return dir;
}

TEST(PublicAbi, OpenWriteDumpThroughTheHeaderAlone) {
  std::string base = fresh_base_dir();
  ASSERT_FALSE(base.empty());
  quarry_set_process_name("abi host");
  EXPECT_STREQ("abi_host", quarry_get_process_prefix());

  EXPECT_EQ(nullptr, circular_buffer_list);
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
  EXPECT_EQ(0, quarry_close(h));
  std::string cleanup = "rm -rf " + base;
  EXPECT_EQ(0, system(cleanup.c_str()));
}

TEST(PublicAbi, HashTableAndConversionsAreUsableFromOutside) {
  quarry_hashtable* table = _quarry_hashtable_create(8);
  ASSERT_NE(nullptr, table);
  int value = 7;
  EXPECT_EQ(0, _quarry_hashtable_put(table, "k", &value, nullptr));
  quarry_hashtable_iterator it;
  ASSERT_EQ(0, _quarry_hashtable_iterator_init(table, &it));
  const char* key = nullptr;
  void* got = nullptr;
  EXPECT_EQ(1, _quarry_hashtable_iterator_next(&it, &key, &got));
  EXPECT_STREQ("k", key);
  EXPECT_EQ(&value, got);
  _quarry_hashtable_destroy(table);

  char buf[32];
  EXPECT_STREQ("18446744073709551615", uint64_2_dstr(~0ull, buf, sizeof buf));
}

}  // namespace
