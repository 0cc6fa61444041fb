// Cost of quarry_internal against a floor measured in the same run: the clock read, the three
// atomic operations every record needs (reservation, entry count, timestamp index) and four
// word stores into a ring of the same size. Prints ns per record and the ratio to the floor.
//
//   build/bench/record_writer_bench [--benchmark_repetitions=5]
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <map>
#include <string>

#include "quarry/quarry.h"
#include "ring.h"

namespace {

constexpr unsigned kBufferBytes = 65536;
quarry_handle* g_handle;
quarry_handle* g_disabled;
quarry_handle* g_floor;  // a buffer of the same size whose counters the floor uses

void open_handles() {
  static char dir[] = "/dev/shm/quarry-bench-XXXXXX";
  if (mkdtemp(dir) == nullptr) abort();
  setenv("QUARRY_PATH", dir, 1);
  quarry_set_process_name("record_writer_bench");
  quarry_open_internal(&g_handle, "bench", kBufferBytes, 4, "bench.dec", "0", nullptr);
  quarry_open_internal(&g_disabled, "off", kBufferBytes, 1, "bench.dec", "0", nullptr);
  quarry_open_internal(&g_floor, "floor", kBufferBytes, 1, "bench.dec", "0", nullptr);
  if (g_handle == nullptr || g_disabled == nullptr || g_floor == nullptr) abort();
  quarry_set_enabled(g_disabled, false);
  quarry_set_dump_on_exit(g_handle, false);
  quarry_set_dump_on_exit(g_disabled, false);
  quarry_set_dump_on_exit(g_floor, false);
}

void BM_Floor(benchmark::State& state) {
  circular_buffer* cb = g_floor->cb;
  for (auto _ : state) {
    ring_view ring = load_ring(cb);
    uint32_t p = cb->word_count.fetch_add(4, std::memory_order_relaxed) & (ring.size_words - 1);
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    uint32_t index = ts_index.fetch_add(1, std::memory_order_relaxed);
    cb->entry_count.fetch_add(1, std::memory_order_relaxed);
    uint64_t t = static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + ts.tv_nsec + index;
    ring.buffer[(p + 1) & (ring.size_words - 1)].store(t >> 32, std::memory_order_relaxed);
    ring.buffer[(p + 2) & (ring.size_words - 1)].store(t, std::memory_order_relaxed);
    ring.buffer[(p + 3) & (ring.size_words - 1)].store(p, std::memory_order_relaxed);
    ring.buffer[p].store(0xFF000000u, std::memory_order_release);
  }
}

void BM_Record4(benchmark::State& state) {
  for (auto _ : state) QUARRY_TRACE(g_handle, 0, "");
}

void BM_RecordD(benchmark::State& state) {
  uint32_t i = 0;
  for (auto _ : state) QUARRY_TRACE(g_handle, 1, "d", i++);
}

void BM_RecordDS(benchmark::State& state) {
  uint32_t i = 0;
  for (auto _ : state) QUARRY_TRACE(g_handle, 2, "ds", i++, "GET /index");
}

void BM_Record11(benchmark::State& state) {
  uint32_t i = 0;
  for (auto _ : state) QUARRY_TRACE(g_handle, 3, "dddddd", i++, 2u, 3u, 4u, 5u, 6u);
}

void BM_Disabled(benchmark::State& state) {
  for (auto _ : state) QUARRY_TRACE(g_disabled, 0, "d", 1u);
}

BENCHMARK(BM_Floor)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_Record4)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_RecordD)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_RecordDS)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_Record11)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_Disabled)->Threads(1)->UseRealTime();

// Collects ns per iteration by name so that main can print ratios against the floor.
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
    printf("\n%-32s %10s %8s\n", "record (per thread)", "ns", "ratio");
    for (const auto& [name, ns] : ns_) {
      std::string threads = name.substr(name.rfind('/'));
      auto floor = ns_.find("BM_Floor/real_time" + threads);
      if (floor == ns_.end() || name.rfind("BM_Floor", 0) == 0) continue;
      printf("%-32s %10.2f %8.3f\n", name.c_str(), ns, ns / floor->second);
    }
    for (const auto& [name, ns] : ns_) {
      if (name.rfind("BM_Floor", 0) == 0) printf("%-32s %10.2f (floor)\n", name.c_str(), ns);
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
