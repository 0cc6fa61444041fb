// A host that links libquarry.so but no event-loop library: live configuration reports the
// missing attachment, and the set-up without an event loop still works.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "quarry/quarry.h"

namespace {

std::string read_all(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

TEST(NoEventLoop, ConfigurationWithoutKelp) {
  char pattern[] = "/tmp/quarry-noloop-XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(pattern));
  std::string base = std::string(pattern) + "/";
  setenv("QUARRY_PATH", base.c_str(), 1);
  quarry_set_process_name("noloop");

  quarry_handle* handle = nullptr;
  ASSERT_EQ(0, quarry_open_internal(&handle, "live", 4096, 4, "live.dec", "1", nullptr));
  quarry_set_dump_on_exit(handle, false);

  std::string captured = base + "stderr";
  fflush(stderr);
  int saved = dup(2);
  ASSERT_NE(nullptr, freopen(captured.c_str(), "w", stderr));
  int dummy_loop = 0;  // any context: there is no kelp_attach_fd to hand it to
  int result = quarry_enable_configuration(handle, &dummy_loop);
  fflush(stderr);
  dup2(saved, 2);
  close(saved);

  EXPECT_EQ(6, result);
  EXPECT_EQ("quarry_enable_configuration(): kelp_attach_fd() failed.\n", read_all(captured));
  // The watch was set up before the attachment failed; the set-up alone reports success.
  EXPECT_EQ(0, quarry_enable_configuration2(handle));
  struct stat st;
  EXPECT_EQ(0, stat((base + "noloop/live/quarry.ctrl").c_str(), &st));

  std::string remove = "rm -rf '" + base + "'";
  EXPECT_EQ(0, system(remove.c_str()));
}

}  // namespace
