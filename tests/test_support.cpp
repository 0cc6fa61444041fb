// A private trace base directory per test process, created before main and removed at exit
// after the library's own exit handler has run.
#include "test_support.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>

namespace quarry_test {
namespace {

std::string g_base;
pid_t g_base_owner;

void remove_base_dir() {
  // Forked children run this exit handler too: only the process that made the directory.
  if (g_base.empty() || getpid() != g_base_owner) return;
  if (system(("rm -rf '" + g_base + "'").c_str()) != 0) return;
}

// Runs before main and before any open registers the library's exit dump, so removal runs after it.
struct BaseDirSetup {
  BaseDirSetup() {
    const char* tmp = getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/quarry-test-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) abort();
    g_base = pattern + "/";
    g_base_owner = getpid();
    setenv("QUARRY_PATH", g_base.c_str(), 1);
    setenv("QUARRY_DEC_PATH", g_base.c_str(), 1);
    atexit(remove_base_dir);
  }
} g_setup;

}  // namespace

const std::string& base_dir() {
  return g_base;
}

std::string make_dir(const std::string& name) {
  std::string path = g_base + name + "/";
  mkdir(path.c_str(), 0777);
  return path;
}

bool file_exists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

void write_file(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

std::vector<uint32_t> words_of(const std::string& bytes) {
  std::vector<uint32_t> words(bytes.size() / 4);
  if (!words.empty()) memcpy(words.data(), bytes.data(), words.size() * 4);
  return words;
}

int in_child(const std::function<int()>& body, pid_t* pid_out) {
  pid_t pid = fork();
  if (pid_out != nullptr) *pid_out = pid;
  if (pid == 0) {
    alarm(30);  // a child that hangs ends instead of blocking the test
    int result = body();
    fflush(nullptr);
    _exit(result);
  }
  int status = -1;
  if (pid > 0) waitpid(pid, &status, 0);
  return status;
}

}  // namespace quarry_test
