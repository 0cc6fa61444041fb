// Cost of a record into a persistent ring (a shared file mapping, QUARRY_PERSIST=1) against the
// same record into a ring in process memory, measured in the same run: the ratio should be 1.
//
//   build/bench/persist_bench [--benchmark_repetitions=5]
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <stdlib.h>

#include <map>
#include <string>

#include "persistent_ring.h"
#include "quarry/quarry.h"

namespace {

constexpr unsigned kBufferBytes = 65536;
quarry_handle* g_heap;
quarry_handle* g_persistent;

void open_handles() {
  static char dir[] = "/dev/shm/quarry-bench-XXXXXX";
  if (mkdtemp(dir) == nullptr) abort();
  setenv("QUARRY_PATH", dir, 1);
  quarry_set_process_name("persist_bench");
  set_persistent_mode_override(0);
  quarry_open_internal(&g_heap, "heap", kBufferBytes, 2, "bench.dec", "0", nullptr);
  set_persistent_mode_override(1);
  quarry_open_internal(&g_persistent, "persistent", kBufferBytes, 2, "bench.dec", "0", nullptr);
  if (g_heap == nullptr || g_persistent == nullptr || g_persistent->cb->persistent == nullptr) {
    fprintf(stderr, "persist_bench: no persistent ring\n");
    abort();
  }
  quarry_set_dump_on_exit(g_heap, false);
  quarry_set_dump_on_exit(g_persistent, false);
}

void BM_Record4(benchmark::State& state, quarry_handle* const* handle) {
  for (auto _ : state) QUARRY_TRACE(*handle, 0, "");
}

void BM_RecordDS(benchmark::State& state, quarry_handle* const* handle) {
  uint32_t i = 0;
  for (auto _ : state) QUARRY_TRACE(*handle, 1, "ds", i++, "GET /index");
}

BENCHMARK_CAPTURE(BM_Record4, heap, &g_heap)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK_CAPTURE(BM_Record4, persistent, &g_persistent)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK_CAPTURE(BM_RecordDS, heap, &g_heap)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK_CAPTURE(BM_RecordDS, persistent, &g_persistent)->Threads(1)->Threads(2)->UseRealTime();

// Collects ns per iteration by name and prints persistent / heap for each record and thread
// count.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration && run.aggregate_name != "median") continue;
      std::string name = run.benchmark_name();
      size_t agg = name.find("_median");
      if (agg != std::string::npos) name.erase(agg);
      ns_[name] = run.GetAdjustedRealTime();
    }
  }
  void PrintRatios() const {
    printf("\n%-40s %10s %10s %8s\n", "record (per thread)", "heap ns", "persist ns", "ratio");
    for (const auto& [name, ns] : ns_) {
      size_t at = name.find("/heap");
      if (at == std::string::npos) continue;
      std::string other = name.substr(0, at) + "/persistent" + name.substr(at + 5);
      auto persistent = ns_.find(other);
      if (persistent == ns_.end()) continue;
      printf("%-40s %10.2f %10.2f %8.3f\n", other.c_str(), ns, persistent->second,
             persistent->second / ns);
    }
  }

 private:
  std::map<std::string, double> ns_;
};

}  // namespace

int main(int argc, char** argv) {
  open_handles();
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatios();
  benchmark::Shutdown();
  return 0;
}
