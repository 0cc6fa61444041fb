// Decoding speed, in records per second on one core: quarry-decode run in this process on a
// 64 MiB trace file of `d` records and on a 16 MiB file of mixed records (both written through
// the library and dumped), to text, JSON lines and Chrome JSON written to /dev/null. The
// reference, measured in the same run on the same file, is the pure walk: every record
// decoded and handed to a sink that does nothing.
//
//   build/bench/decode_bench [--benchmark_repetitions=3] [--benchmark_filter=D/]
//
// QUARRY_BENCH_KEEP=DIR keeps the two trace files in DIR (d.trc, mixed.trc) for timing the
// command itself (time quarry-decode -d DIR -o /dev/null DIR/d.trc).
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "buffer.h"
#include "ring.h"
#include "quarry/quarry.h"
#include "quarry_decode/cli.h"
#include "quarry_decode/inputs.h"
#include "quarry_decode/trace_reader.h"

namespace {

using namespace quarry_decode;

std::string g_dir;
struct Input {
  std::string path;
  uint64_t records = 0;
  double walk_ns = 0;  // CPU time of the pure walk over the file, the best of three
};

double cpu_ns() {
  struct timespec t;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) * 1e9 + static_cast<double>(t.tv_nsec);
}
Input g_d, g_mixed;

// Writes records into a fresh buffer of `bytes` until it is full (and a little beyond, so that
// it has wrapped as a long-running process's buffer has), dumps it and moves the file.
template <typename Write>
Input make_file(const char* name, uint32_t bytes, Write write) {
  quarry_handle* h = nullptr;
  if (quarry_open_internal(&h, name, 4096, 7, "bench.dec", "1", nullptr) != 0) abort();
  quarry_set_dump_on_exit(h, false);
  // Opening caps the size; a control file's MAX_SIZE grows a buffer beyond it.
  if (set_circular_buffer_size(h->cb, bytes) != 0) abort();
  for (uint32_t i = 0; h->cb->word_count.load() < bytes / 4 + 64; ++i) write(h, i);
  if (quarry_dump(h) != 0) abort();
  Input input;
  input.path = g_dir + "/" + name + ".trc";
  const std::string dumped = newest_trace_file(g_dir + "/decode_bench/" + name);
  if (rename(dumped.c_str(), input.path.c_str()) != 0) abort();
  DecodeFileCache cache({g_dir + "/"});
  struct Null : RecordSink {
    void on_record(const Record&) override {}
  } sink;
  for (int pass = 0; pass < 3; ++pass) {
    const double start = cpu_ns();
    TraceData data = read_trace_file(input.path, cache);
    decode_trace(data, sink);
    const double spent = cpu_ns() - start;
    if (pass == 0 || spent < input.walk_ns) input.walk_ns = spent;
    input.records = data.source->stats.records;
  }
  return input;
}

void make_traces() {
  const char* keep = getenv("QUARRY_BENCH_KEEP");
  static char temp[] = "/tmp/quarry-decode-bench-XXXXXX";
  if (keep == nullptr && mkdtemp(temp) == nullptr) abort();
  g_dir = keep != nullptr ? keep : temp;
  setenv("QUARRY_PATH", g_dir.c_str(), 1);
  setenv("QUARRY_DEC_PATH", g_dir.c_str(), 1);
  std::ofstream(g_dir + "/bench.dec") << "0 request ds id path = request {} for {path}\n"
                                         "1 reply dD status elapsed_ns:u\n"
                                         "2 io dd fd bytes:x\n"
                                         "3 tick d round\n"
                                         "4 state s text = state {}\n"
                                         "5 idle -\n"
                                         "6 stats dddddd a b c d e f\n";
  quarry_set_process_name("decode_bench");
  quarry_set_current_thread_name("bench-main");
  g_d = make_file("d", 64u << 20, [](quarry_handle* h, uint32_t i) { QUARRY_TRACE(h, 3, "d", i); });
  static const char* const paths[] = {"/index.html", "/api/v1/items", "/health", "/static/app.js"};
  g_mixed = make_file("mixed", 16u << 20, [](quarry_handle* h, uint32_t i) {
    switch (i % 8) {
      case 0:
        QUARRY_TRACE(h, 0, "ds", i, paths[i % 4]);
        break;
      case 1:
        QUARRY_TRACE(h, 2, "dd", 7u, 512 + i % 1024);
        break;
      case 2:
        QUARRY_TRACE(h, 1, "dD", i % 7 ? 200u : 404u, 1000000ull * i);
        break;
      case 3:
        QUARRY_TRACE(h, 2, "dd", 7u, 2048u);
        break;
      case 4:
        QUARRY_TRACE(h, 3, "d", i);
        break;
      case 5:
        QUARRY_TRACE(h, 4, "s", i % 2 ? "running" : "checkpoint");
        break;
      case 6:
        QUARRY_TRACE(h, 5, "");
        break;
      default:
        QUARRY_TRACE(h, 6, "dddddd", i, 2u, 3u, 0xFFFFFFFFu, 5u, 6u);
        break;
    }
  });
}

const Input& input_of(const benchmark::State& state) {
  return state.range(0) == 0 ? g_d : g_mixed;
}

// The reference: the file read and every record decoded, nothing shown.
void BM_Walk(benchmark::State& state) {
  const Input& input = input_of(state);
  DecodeFileCache cache({g_dir + "/"});
  struct Null : RecordSink {
    void on_record(const Record& r) override { benchmark::DoNotOptimize(r.timestamp); }
  } sink;
  for (auto _ : state) {
    TraceData data = read_trace_file(input.path, cache);
    decode_trace(data, sink);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * input.records));
}

// quarry-decode as a user runs it, output to /dev/null.
void run_format(benchmark::State& state, const char* format) {
  const Input& input = input_of(state);
  const char* argv[] = {"quarry-decode", "-f", format, "-o", "/dev/null", input.path.c_str()};
  FILE* err = fopen("/dev/null", "w");
  const double start = cpu_ns();
  for (auto _ : state) {
    if (run_cli(6, argv, stdout, err) != 0) state.SkipWithError("quarry-decode failed");
  }
  fclose(err);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * input.records));
  // How many times the pure walk's CPU time one run takes (formatting and writing cost).
  state.counters["x_walk"] =
      (cpu_ns() - start) / static_cast<double>(state.iterations()) / input.walk_ns;
}

void BM_Text(benchmark::State& state) {
  run_format(state, "text");
}
void BM_Json(benchmark::State& state) {
  run_format(state, "json");
}
void BM_Chrome(benchmark::State& state) {
  run_format(state, "chrome");
}

// Argument 0: the file of `d` records; 1: the mixed file.
BENCHMARK(BM_Walk)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Text)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Json)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Chrome)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  make_traces();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  printf("d file: %llu records; mixed file: %llu records\n",
         static_cast<unsigned long long>(g_d.records),
         static_cast<unsigned long long>(g_mixed.records));
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  if (getenv("QUARRY_BENCH_KEEP") == nullptr) {
    if (system(("rm -rf '" + g_dir + "'").c_str()) != 0) return 1;
  }
  return 0;
}
