// Process naming and the thread-name list, with their deprecated spellings.
#include <gtest/gtest.h>
#include <pthread.h>

#include <string>
#include <thread>
#include <vector>

#include "buffer.h"

namespace {

const std::string kPrefixWarning =
    "WARNING: deprecated quarry_set_process_prefix() API invoked. Please, use "
    "quarry_set_process_name() instead.\n";
const std::string kThreadWarning =
    "WARNING: deprecated quarry_set_thread_name() API invoked. Please, use "
    "quarry_set_current_thread_name() instead.\n";

std::string thread_line(const char* name, pthread_t thread) {
  return "THREAD " + std::string(name) + " " +
         std::to_string(static_cast<int32_t>(static_cast<uint32_t>(thread))) + "\n";
}

// The texts of all entries, in list order.
std::vector<std::string> entries() {
  std::vector<std::string> texts;
  for (thread_name_entry* e = thread_name_list.load(); e != nullptr; e = e->next.load()) {
    texts.push_back(e->text);
  }
  return texts;
}

TEST(ProcessName, SpacesBecomeUnderscoresAndLongNamesAreCut) {
  char* name = quarry_get_process_prefix();
  quarry_set_process_name("my daemon 2");
  EXPECT_STREQ("my_daemon_2", name);
  quarry_set_process_name("tab\tstays");  // only spaces are replaced
  EXPECT_STREQ("tab\tstays", name);
  quarry_set_process_name(std::string(300, 'p').c_str());
  EXPECT_EQ(std::string(255, 'p'), name);
  EXPECT_EQ(name, quarry_get_process_prefix());  // the array itself, never a copy

  testing::internal::CaptureStderr();
  quarry_set_process_prefix("old style");
  quarry_set_process_prefix("again");
  EXPECT_EQ(kPrefixWarning + kPrefixWarning, testing::internal::GetCapturedStderr());
  EXPECT_STREQ("again", name);
}

TEST(ThreadNames, EntriesFollowCallOrderAndNameTheCallingThread) {
  const size_t before = entries().size();
  testing::internal::CaptureStderr();
  EXPECT_EQ(0, quarry_set_current_thread_name("a"));
  EXPECT_EQ(0, quarry_set_current_thread_name("b"));
  EXPECT_EQ("", testing::internal::GetCapturedStderr());
  // The deprecated spelling warns and still names the caller, not the thread it was given.
  pthread_t main_thread = pthread_self();
  pthread_t worker_thread{};
  std::string worker_err;
  std::thread worker([&] {
    worker_thread = pthread_self();
    testing::internal::CaptureStderr();
    EXPECT_EQ(0, quarry_set_thread_name(main_thread, "w"));
    worker_err = testing::internal::GetCapturedStderr();
  });
  worker.join();
  EXPECT_EQ(kThreadWarning, worker_err);

  const std::string long_name(80, 'n');
  EXPECT_EQ(0, quarry_set_current_thread_name(long_name.c_str()));
  std::vector<std::string> added = entries();
  added.erase(added.begin(), added.begin() + before);
  EXPECT_EQ((std::vector<std::string>{thread_line("a", main_thread), thread_line("b", main_thread),
                                      thread_line("w", worker_thread),
                                      thread_line(long_name.c_str(), main_thread).substr(0, 63)}),
            added);
}

}  // namespace
