// What every quarryctl subcommand shares: the failure type with its exit status, the parsed
// command line of one subcommand, and the options common to all. Thread contract: one thread.
#pragma once

#include <stdio.h>

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace quarryctl {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

// A failure to report: one line naming the file or process and what is wrong.
class Failure : public std::runtime_error {
 public:
  Failure(const std::string& what, int status = kExitFailed)
      : std::runtime_error(what), status(status) {}
  int status;
};

inline Failure usage_error(const std::string& what) {
  return Failure(what, kExitUsage);
}

// One subcommand's arguments: positionals in order, options by long name ("" for a flag).
struct Args {
  std::vector<std::string> positional;
  std::multimap<std::string, std::string> options;  // repeatable: every value kept
  bool has(const std::string& name) const { return options.count(name) != 0; }
  std::string get(const std::string& name, const std::string& fallback = "") const {
    auto found = options.find(name);
    return found == options.end() ? fallback : found->second;
  }
};

struct Context {
  std::string base;  // trace base directory, ends in '/'
  FILE* out = stdout;
  FILE* err = stderr;
};

int cmd_ls(const Context& ctx, const Args& args);
int cmd_dump(const Context& ctx, const Args& args);
int cmd_switch(const Context& ctx, const Args& args, bool on);
int cmd_resize(const Context& ctx, const Args& args);
int cmd_rotate(const Context& ctx, const Args& args);
int cmd_stream(const Context& ctx, const Args& args);
int cmd_show(const Context& ctx, const Args& args);
int cmd_recover(const Context& ctx, const Args& args);

// Runs quarry-decode's command line with `inputs` and the decoding options of `args`
// (--format, --decode-dir), writing to ctx.out.
int decode_paths(const Context& ctx, const Args& args, const std::vector<std::string>& inputs);

}  // namespace quarryctl
