// Helpers shared by the tests: every test process traces below its own temporary directory
// (QUARRY_PATH is set before main runs), plus small file and directory utilities.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace quarry_test {

// The temporary trace base directory of this process, with a trailing '/'.
const std::string& base_dir();
// A fresh empty directory below base_dir() (trailing '/').
std::string make_dir(const std::string& name);

bool file_exists(const std::string& path);
std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& content);
// The 32-bit words of a byte string (host order); the size must be a multiple of 4.
std::vector<uint32_t> words_of(const std::string& bytes);
// Runs body in a forked child ending in _exit(body()); returns its wait status (its pid in *pid).
int in_child(const std::function<int()>& body, pid_t* pid = nullptr);

}  // namespace quarry_test
