// quarry-soak: a crash soak. Each run forks a host whose writer threads fill several buffers
// while it is killed at a random moment, by a real fault (SIGSEGV, SIGFPE), abort() or a signal
// from this driver (SIGTERM, SIGINT, SIGQUIT); the driver then checks the exit status, that every
// buffer left a trace file, that each decodes with the right termination reason, and counts
// damaged records beyond those the writers had in flight. Seeded: a run is reproduced by its
// seed and index. Thread contract: the driver is single-threaded; each host is its own process.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "quarry/quarry.h"
#include "quarry_decode/error.h"
#include "quarry_decode/trace_reader.h"

namespace {

struct Options {
  int runs = 60;
  uint64_t seed = 1;
  int buffers = 3;
  int threads = 3;
  int max_delay_ms = 30;
  bool keep = false;
  bool verbose = false;
};

struct Kill {
  const char* name;
  int signo;
  bool from_driver;
};
const Kill kKills[] = {{"segv", SIGSEGV, false}, {"abrt", SIGABRT, false}, {"fpe", SIGFPE, false},
                       {"term", SIGTERM, true},  {"int", SIGINT, true},    {"quit", SIGQUIT, true}};

// Trace points of the host, as its decode file describes them. Every argument is derived from
// one sequence number, so the driver can tell a whole record from a mixed-up one.
constexpr char kDecodeFile[] =
    "0 one    d      a\n"
    "1 wide   dD     a b\n"
    "2 text   s      t\n"
    "3 six    dddddd a b c d e f\n";
const char kText[] = "abcdefghijklmnopqrstuvwxyz0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";

// ---- The host -------------------------------------------------------------------------------

[[noreturn]] void run_host(const Options& options, const Kill& kill, uint32_t delay_us,
                           int ready_fd) {
  struct rlimit no_core = {0, 0};
  setrlimit(RLIMIT_CORE, &no_core);  // thousands of runs must not leave core images
  // A driver started in the background inherits SIGINT and SIGQUIT ignored; the library would
  // then rightly let the process live on after its dump.
  for (const Kill& k : kKills) signal(k.signo, SIG_DFL);
  quarry_set_process_name("soak");
  std::vector<quarry_handle*> handles;
  for (int b = 0; b < options.buffers; ++b) {
    quarry_handle* h = nullptr;
    std::string name = "b" + std::to_string(b);
    if (quarry_open_internal(&h, name.c_str(), 16384, 4, "soak.dec", "1", nullptr) != 0) _exit(90);
    handles.push_back(h);
  }
  std::atomic<int> warm{0};
  for (int t = 0; t < options.threads; ++t) {
    std::thread([&handles, &warm] {
      bool counted = false;
      for (uint32_t seq = 0;; ++seq) {
        quarry_handle* h = handles[seq % handles.size()];
        switch (seq % 4) {
          case 0:
            QUARRY_TRACE(h, 0, "d", seq);
            break;
          case 1:
            QUARRY_TRACE(h, 1, "dD", seq, static_cast<unsigned long long>(seq) << 20);
            break;
          case 2:
            QUARRY_TRACE(h, 2, "s", kText + (seq % (sizeof kText - 1)));
            break;
          default:
            QUARRY_TRACE(h, 3, "dddddd", seq, seq + 1, seq + 2, seq + 3, seq + 4, seq + 5);
        }
        if (!counted && seq == 20000) counted = true, warm.fetch_add(1);
      }
    }).detach();
  }
  while (warm.load() < options.threads) usleep(100);  // every ring has wrapped by now
  if (kill.from_driver) {
    char ready = 1;
    if (write(ready_fd, &ready, 1) != 1) _exit(91);
    for (;;) pause();
  }
  usleep(delay_us);
  // Volatile all the way, so that the compiler keeps the faulting store and the division (it
  // would turn 1 / x into a comparison, and drop a store that nothing reads).
  volatile int zero = 0;
  volatile int seven = 7;
  volatile int* volatile nowhere = nullptr;
  switch (kill.signo) {
    case SIGSEGV:
      *nowhere = 1;
      break;
    case SIGFPE:
      zero = seven / zero;
      break;
    default:
      abort();
  }
  _exit(92);
}

// ---- Checking one trace file ----------------------------------------------------------------

// Checks every decoded record's arguments against the sequence they were derived from, and
// counts damage sites: runs of words between two decoded records (or after the last), each of
// which one record in flight can explain. The decoder may reject a whole record next to such a
// run (the word after a record must be a header word), so sites, not rejected records, are
// what the writers in flight bound. A record in flight that was overtaken by a whole pass of
// the ring lands over newer records and leaves a run on each side of itself: two runs with a
// single record between them count as one site.
struct CheckingSink : quarry_decode::RecordSink {
  uint64_t mixed = 0;
  uint64_t sites = 0;
  uint64_t end = 0;        // word offset after the last decoded record; 0 before the first
  uint64_t since_gap = 0;  // records decoded since the last run of damaged words
  bool had_gap = false;
  void gap() {
    if (!had_gap || since_gap != 1) ++sites;
    had_gap = true;
    since_gap = 0;
  }
  void on_record(const quarry_decode::Record& r) override {
    if (end != 0 && r.offset > end) gap();
    end = r.offset + r.length;
    ++since_gap;
    const quarry_decode::ArgValue* a = r.args;
    bool ok = true;
    switch (r.id) {
      case 0:
        ok = r.arg_count == 1;
        break;
      case 1:
        ok = r.arg_count == 2 && a[1].number == (a[0].number << 20);
        break;
      case 2: {
        std::string_view all(kText);
        ok = r.arg_count == 1 && all.size() >= a[0].text.size() &&
             all.substr(all.size() - a[0].text.size()) == a[0].text;
        break;
      }
      case 3:
        ok = r.arg_count == 6;
        for (uint32_t i = 1; ok && i < 6; ++i) ok = a[i].number == uint32_t(a[0].number + i);
        break;
      default:
        ok = false;
    }
    if (!ok) ++mixed, ++sites;
  }
};

struct Totals {
  int runs = 0, failed_runs = 0, files = 0, damaged_files = 0;
  uint64_t records = 0, rejected = 0, mixed = 0, sites = 0, beyond_in_flight = 0;
  uint64_t skipped_words = 0;
};

// Returns an empty string when the file is good, else what is wrong with it.
std::string check_file(const Options& options, const std::string& path, const std::string& dec_dir,
                       const Kill& kill, pid_t host, Totals& totals) {
  quarry_decode::DecodeFileCache cache({dec_dir});
  quarry_decode::TraceData data;
  try {
    data = quarry_decode::read_trace_file(path, cache);
  } catch (const std::exception& e) {
    return std::string("does not decode: ") + e.what();
  }
  CheckingSink sink;
  quarry_decode::decode_trace(data, sink);
  if (sink.end != 0 && sink.end < data.words.size()) sink.gap();  // a hole at the newest end
  const auto& header = data.source->header;
  const auto& stats = data.source->stats;
  ++totals.files;
  totals.records += stats.records;
  totals.rejected += stats.rejected;
  totals.mixed += sink.mixed;
  totals.skipped_words += stats.skipped_words - stats.seam_words;
  totals.sites += sink.sites;
  // Each writer may have had one record of this buffer in flight when the signal arrived.
  uint64_t damaged = sink.sites;
  uint64_t allowed = static_cast<uint64_t>(options.threads);
  if (stats.rejected + sink.mixed > 0) ++totals.damaged_files;
  if (damaged > allowed) totals.beyond_in_flight += damaged - allowed;
  if (header.signal != kill.signo) return "termination reason " + std::to_string(header.signal);
  if (kill.from_driver && header.signaling_pid != getpid()) return "wrong sender";
  if (kill.signo == SIGABRT && header.signaling_pid != host) return "wrong sender";
  if (!data.problems.empty()) return data.problems.front();
  if (stats.records == 0) return "no records";
  return damaged > allowed ? std::to_string(damaged) + " damage sites" : "";
}

// ---- The driver -----------------------------------------------------------------------------

bool run_once(const Options& options, const std::string& work, int index, Totals& totals) {
  std::mt19937_64 random(options.seed * 1000003u + static_cast<uint64_t>(index));
  const Kill& kill = kKills[index % (sizeof kKills / sizeof kKills[0])];
  uint32_t delay_us =
      static_cast<uint32_t>(random() % (static_cast<uint64_t>(options.max_delay_ms) * 1000 + 1));
  const std::string dir = work + "run" + std::to_string(index) + "/";
  mkdir(dir.c_str(), 0700);
  int ready[2];
  if (pipe(ready) != 0) return false;
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    close(ready[0]);
    setenv("QUARRY_PATH", dir.c_str(), 1);
    // The library's own reports (a dump's failure lines) stay in the run's directory.
    freopen((dir + "host.out").c_str(), "w", stdout);
    run_host(options, kill, delay_us, ready[1]);
  }
  close(ready[1]);
  if (kill.from_driver) {
    char byte;
    if (read(ready[0], &byte, 1) == 1) {
      usleep(delay_us);
      ::kill(pid, kill.signo);
    }
  }
  close(ready[0]);
  // A host that outlives its signal by far is a failure of its own (killed, then reported).
  int status = 0;
  for (int waited_ms = 0; waitpid(pid, &status, WNOHANG) == 0; ++waited_ms) {
    if (waited_ms == 20000) ::kill(pid, SIGKILL);
    usleep(1000);
  }
  ++totals.runs;

  std::vector<std::string> problems;
  if (!WIFSIGNALED(status) || WTERMSIG(status) != kill.signo) {
    problems.push_back("exit status " + std::to_string(status));
  }
  for (int b = 0; b < options.buffers; ++b) {
    std::string path = dir + "soak/b" + std::to_string(b) + "/quarry_0.trc";
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
      problems.push_back(path + ": missing");
      continue;
    }
    std::string problem = check_file(options, path, work, kill, pid, totals);
    if (!problem.empty()) problems.push_back(path + ": " + problem);
  }
  if (!problems.empty()) ++totals.failed_runs;
  if (!problems.empty() || options.verbose) {
    printf("run %d (%s, %u us):%s\n", index, kill.name, delay_us, problems.empty() ? " ok" : "");
    for (const auto& p : problems) printf("  %s\n", p.c_str());
  }
  if (problems.empty() && !options.keep) {
    std::string command = "rm -rf '" + dir + "'";
    if (system(command.c_str()) != 0) return false;
  }
  return problems.empty();
}

int usage() {
  fputs(
      "usage: quarry-soak [--runs N] [--seed S] [--buffers N] [--threads N] [--max-delay-ms N]\n"
      "                   [--keep] [--verbose]\n",
      stderr);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    auto value = [&]() -> long long { return i + 1 < argc ? atoll(argv[++i]) : -1; };
    if (arg == "--runs")
      options.runs = static_cast<int>(value());
    else if (arg == "--seed")
      options.seed = static_cast<uint64_t>(value());
    else if (arg == "--buffers")
      options.buffers = static_cast<int>(value());
    else if (arg == "--threads")
      options.threads = static_cast<int>(value());
    else if (arg == "--max-delay-ms")
      options.max_delay_ms = static_cast<int>(value());
    else if (arg == "--keep")
      options.keep = true;
    else if (arg == "--verbose")
      options.verbose = true;
    else
      return usage();
  }
  if (options.runs < 1 || options.buffers < 1 || options.threads < 1 || options.max_delay_ms < 0) {
    return usage();
  }
  const char* tmp = getenv("TMPDIR");
  std::string pattern = std::string(tmp != nullptr && *tmp ? tmp : "/tmp") + "/quarry-soak-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) {
    perror("mkdtemp");
    return 1;
  }
  const std::string work = pattern + "/";
  FILE* dec = fopen((work + "soak.dec").c_str(), "w");
  if (dec == nullptr || fputs(kDecodeFile, dec) < 0 || fclose(dec) != 0) return 1;

  Totals totals;
  for (int i = 0; i < options.runs; ++i) run_once(options, work, i, totals);
  printf(
      "quarry-soak: seed %llu: %d runs, %d failed; %d files, %d with damaged records; %llu "
      "records, %llu rejected, %llu mixed; %llu damage sites, %llu beyond those in flight; %llu "
      "words skipped outside the seam\n",
      static_cast<unsigned long long>(options.seed), totals.runs, totals.failed_runs, totals.files,
      totals.damaged_files, static_cast<unsigned long long>(totals.records),
      static_cast<unsigned long long>(totals.rejected),
      static_cast<unsigned long long>(totals.mixed), static_cast<unsigned long long>(totals.sites),
      static_cast<unsigned long long>(totals.beyond_in_flight),
      static_cast<unsigned long long>(totals.skipped_words));
  if (!options.keep && totals.failed_runs == 0) {
    std::string command = "rm -rf '" + work + "'";
    if (system(command.c_str()) != 0) return 1;
  } else {
    printf("quarry-soak: runs kept in %s\n", work.c_str());
  }
  return totals.failed_runs == 0 ? 0 : 1;
}
