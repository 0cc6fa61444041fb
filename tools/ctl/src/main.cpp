// quarryctl's command line: global options, the subcommand table with each one's help and
// options, and the exit statuses (0 done, 1 failed, 2 usage). No exception leaves main.
// Thread contract: runs on the main thread only.
#include <stdio.h>
#include <string.h>

#include <exception>

#include "common.h"
#include "quarry_layout/tree.h"

namespace quarryctl {
namespace {

const char kUsage[] =
    "Usage: quarryctl [--base DIR] COMMAND [ARG]...\n"
    "Lists, dumps and steers running quarry hosts through their files below the trace base\n"
    "directory (--base DIR, else QUARRY_PATH, else the setup file's, else /dev/shm/quarry/).\n"
    "\n"
    "Commands:\n"
    "  ls [PROCESS...] [--json]        processes, buffers, handles and their switches\n"
    "  dump TARGET [BUFFER...]         ask for trace files and wait for them\n"
    "  on TARGET HANDLE...             switch tracing on for handles (names or patterns)\n"
    "  off TARGET HANDLE...            switch tracing off\n"
    "  resize TARGET BUFFER SIZE       grow a buffer (65536, 64K, 1M)\n"
    "  rotate TARGET BUFFER COUNT      keep COUNT trace files in rotation\n"
    "  stream TARGET HANDLE...         decode live records until interrupted\n"
    "  show TARGET [BUFFER]            decode the newest trace files\n"
    "  recover TARGET [BUFFER]         turn a dead host's persistent rings into trace files\n"
    "\n"
    "TARGET is a process directory name or a PID. 'quarryctl COMMAND --help' describes a\n"
    "command. Exit status: 0 done, 1 failed, 2 usage error.\n";

struct Command {
  const char* name;
  const char* help;
  // Options it accepts: "name" for a flag, "name=" for one that takes a value.
  std::vector<std::string> options;
};

const Command kCommands[] = {
    {"ls",
     "Usage: quarryctl ls [PROCESS...] [--json]\n"
     "Lists every process directory (or those named; names may be shell patterns or PIDs):\n"
     "the host's PID and whether it is running, stale (gone) or not a host (a live PID that\n"
     "does not catch the dump signal); forked children under their parent; two live hosts in\n"
     "one directory. Per buffer: size, whether the host watches its control file (live),\n"
     "word and entry counts and age of the newest trace file, each handle's TRACE and PIPE\n"
     "switches, and control-file lines the library ignores.\n",
     {"json"}},
    {"dump",
     "Usage: quarryctl dump TARGET [BUFFER...] [--decode[=FORMAT]] [--timeout SECONDS]\n"
     "Checks that the host is alive and catches the dump signal, sends it, and waits until\n"
     "every buffer has a complete new trace file (default 10 seconds); prints their paths, or\n"
     "decodes them (FORMAT text, json or chrome; --decode-dir DIR as for quarry-decode). Named\n"
     "buffers whose control file the host watches are dumped alone through that file.\n",
     {"decode", "decode=", "timeout=", "decode-dir="}},
    {"on",
     "Usage: quarryctl on TARGET HANDLE...\n"
     "Switches tracing on for the handles (full names or shell patterns such as 'net/*') by\n"
     "rewriting their buffers' control files in place, without a dump request.\n",
     {}},
    {"off",
     "Usage: quarryctl off TARGET HANDLE...\n"
     "Switches tracing off for the handles (full names or shell patterns such as 'net/*') by\n"
     "rewriting their buffers' control files in place, without a dump request.\n",
     {}},
    {"resize",
     "Usage: quarryctl resize TARGET BUFFER SIZE\n"
     "Grows the buffer to SIZE bytes (65536, 64K, 1M, at most 2G). The library rounds up to a\n"
     "power of two of at least 4096 and never shrinks a buffer; both are said.\n",
     {}},
    {"rotate",
     "Usage: quarryctl rotate TARGET BUFFER COUNT\n"
     "Keeps COUNT trace files (quarry_0.trc ... quarry_<COUNT-1>.trc) in rotation; each\n"
     "change of the control file moves the next dump on to the next file.\n",
     {}},
    {"stream",
     "Usage: quarryctl stream TARGET HANDLE... [--format=text|json|chrome] [--decode-dir DIR]\n"
     "Creates the buffer's named pipe when absent, switches the handles to PIPE and decodes\n"
     "their records live to standard output until interrupted, the host exits or the output\n"
     "is closed; then puts the pipe switches back and removes the pipe it created.\n",
     {"format=", "decode-dir="}},
    {"show",
     "Usage: quarryctl show TARGET [BUFFER] [--format=text|json|chrome] [--decode-dir DIR]\n"
     "Decodes the newest trace file of each buffer, merged by time (as quarry-decode DIR).\n",
     {"format=", "decode-dir="}},
    {"recover",
     "Usage: quarryctl recover TARGET [BUFFER] [--decode-dir DIR]\n"
     "Turns the persistent rings (QUARRY_PERSIST) that dead runs of the process left in its\n"
     "buffer directories into quarry.recovered.*.trc trace files (as quarry-decode --recover).\n"
     "Rings of a running process are never touched.\n",
     {"decode-dir="}},
};

const Command* find_command(const std::string& name) {
  for (const Command& command : kCommands) {
    if (name == command.name) return &command;
  }
  return nullptr;
}

// Parses the arguments after the command name. "-d" is short for --decode-dir.
Args parse_args(const Command& command, int argc, char** argv, int first, std::string* base,
                bool* help) {
  Args args;
  bool only_positional = false;
  for (int i = first; i < argc; ++i) {
    std::string arg = argv[i];
    // "-3" is a (negative) number for the command to judge, not an option.
    if (only_positional || arg.size() < 2 || arg[0] != '-' || (arg[1] >= '0' && arg[1] <= '9')) {
      args.positional.push_back(arg);
      continue;
    }
    if (arg == "--") {
      only_positional = true;
      continue;
    }
    if (arg == "-h" || arg == "--help") {
      *help = true;
      continue;
    }
    if (arg == "-d") arg = "--decode-dir";
    if (arg.compare(0, 2, "--") != 0) throw usage_error("unknown option " + arg);
    std::string name = arg.substr(2), value;
    size_t equals = name.find('=');
    bool has_value = equals != std::string::npos;
    if (has_value) {
      value = name.substr(equals + 1);
      name.resize(equals);
    }
    auto takes = [&](const std::string& option) {
      for (const std::string& o : command.options) {
        if (o == option) return true;
      }
      return false;
    };
    bool valued = name == "base" || takes(name + "=");
    if (!valued && !takes(name)) throw usage_error("unknown option --" + name);
    if (valued && !has_value && !takes(name)) {
      if (i + 1 >= argc) throw usage_error("option --" + name + " needs a value");
      value = argv[++i];
      has_value = true;
    }
    if (!valued && has_value) throw usage_error("option --" + name + " takes no value");
    if (name == "base") {
      *base = value;
    } else {
      args.options.emplace(name, value);
    }
  }
  return args;
}

int run(int argc, char** argv) {
  std::string base;
  int i = 1;
  // Global options before the command.
  for (; i < argc && argv[i][0] == '-'; ++i) {
    std::string arg = argv[i];
    if (arg == "-h" || arg == "--help") {
      fputs(kUsage, stdout);
      return kExitOk;
    } else if (arg == "--base" && i + 1 < argc) {
      base = argv[++i];
    } else if (arg.compare(0, 7, "--base=") == 0) {
      base = arg.substr(7);
    } else {
      fprintf(stderr, "quarryctl: unknown option %s\nTry 'quarryctl --help'.\n", arg.c_str());
      return kExitUsage;
    }
  }
  if (i >= argc) {
    fputs(kUsage, stderr);
    return kExitUsage;
  }
  const std::string name = argv[i];
  const Command* command = find_command(name);
  if (command == nullptr) {
    fprintf(stderr, "quarryctl: unknown command '%s'\nTry 'quarryctl --help'.\n", name.c_str());
    return kExitUsage;
  }
  try {
    bool help = false;
    Args args = parse_args(*command, argc, argv, i + 1, &base, &help);
    if (help) {
      fputs(command->help, stdout);
      return kExitOk;
    }
    Context ctx;
    ctx.base = quarry_layout::base_dir(base);
    if (name == "ls") return cmd_ls(ctx, args);
    if (name == "dump") return cmd_dump(ctx, args);
    if (name == "on" || name == "off") return cmd_switch(ctx, args, name == "on");
    if (name == "resize") return cmd_resize(ctx, args);
    if (name == "rotate") return cmd_rotate(ctx, args);
    if (name == "stream") return cmd_stream(ctx, args);
    if (name == "recover") return cmd_recover(ctx, args);
    return cmd_show(ctx, args);
  } catch (const Failure& e) {
    fprintf(stderr, "quarryctl %s: %s\n", name.c_str(), e.what());
    if (e.status == kExitUsage) fprintf(stderr, "Try 'quarryctl %s --help'.\n", name.c_str());
    return e.status;
  }
}

}  // namespace
}  // namespace quarryctl

int main(int argc, char** argv) {
  try {
    return quarryctl::run(argc, argv);
  } catch (const std::exception& e) {
    fprintf(stderr, "quarryctl: %s\n", e.what());
  } catch (...) {
    fprintf(stderr, "quarryctl: unexpected failure\n");
  }
  return quarryctl::kExitFailed;
}
