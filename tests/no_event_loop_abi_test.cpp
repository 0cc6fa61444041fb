// A host that links libquarry.so but no event-loop library: live configuration reports the
// missing attachment, and the set-up without an event loop still works.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <string>

#include "quarry/quarry.h"

namespace {

TEST(NoEventLoop, ConfigurationWithoutKelp) {
  char pattern[] = "/tmp/quarry-noloop-XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(pattern));
  std::string base = std::string(pattern) + "/";
  setenv("QUARRY_PATH", base.c_str(), 1);
  quarry_set_process_name("noloop");
  quarry_handle* handle = nullptr;
  ASSERT_EQ(0, quarry_open_internal(&handle, "live", 4096, 4, "live.dec", "1", nullptr));
  quarry_set_dump_on_exit(handle, false);

  testing::internal::CaptureStderr();
  int dummy_loop = 0;  // any context: there is no kelp_attach_fd to hand it to
  EXPECT_EQ(6, quarry_enable_configuration(handle, &dummy_loop));
  EXPECT_EQ("quarry_enable_configuration(): kelp_attach_fd() failed.\n",
            testing::internal::GetCapturedStderr());
  // The watch was set up before the attachment failed; the set-up alone reports success.
  EXPECT_EQ(0, quarry_enable_configuration2(handle));
  struct stat st;
  EXPECT_EQ(0, stat((base + "noloop/live/quarry.ctrl").c_str(), &st));
  EXPECT_EQ(0, system(("rm -rf '" + base + "'").c_str()));
}

}  // namespace
