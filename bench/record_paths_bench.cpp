// The record paths as a host uses them, through the public headers only: the typed front-end
// (quarry.hpp, the non-variadic entries) and QUARRY_TRACE (quarry_internal), against a floor
// measured in the same run: the clock read, the three atomic operations every record needs and
// four word stores into a ring of the same size. Built twice: record_paths_bench links
// libquarry.so (calls go through the PLT, as in a host), record_paths_static_bench the archive.
// Prints, per benchmark, the median ns and the median and range of its ratio to the floor
// over the repetitions (run them interleaved; the machine may be shared):
//
//   build/bench/record_paths_bench --benchmark_repetitions=15
//       --benchmark_enable_random_interleaving=true --benchmark_min_time=0.2
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <string>
#include <vector>

#include "quarry/quarry.hpp"

#define BENCH_POINTS(POINT, SPAN)                                                              \
  POINT(0, none, "")                                                                           \
  POINT(1, one, "{}", (uint32_t, i))                                                           \
  POINT(2, request, "{} {}", (uint32_t, i), (const char*, path))                               \
  POINT(3, six, "", (uint32_t, a), (uint32_t, b), (uint32_t, c), (uint32_t, d), (uint32_t, e), \
        (uint32_t, f))                                                                         \
  POINT(4, wide, "", (uint64_t, a), (uint32_t, b))
QUARRY_PROVIDER(bench_points, "typed", "bench.dec", BENCH_POINTS);
QUARRY_PROVIDER(bench_off, "off", "bench.dec", BENCH_POINTS);

namespace {

constexpr unsigned kBufferBytes = 65536;
quarry_handle* g_variadic;
quarry_handle* g_disabled;
// Not a constant: the string's length is measured at run time, as for most strings.
const char* g_path = "GET /idx";

// The floor's own counters and ring, shaped like a buffer's.
struct floor_buffer {
  alignas(64) std::atomic<uint32_t> word_count{0};
  std::atomic<uint32_t> entry_count{0};
  std::atomic<uint32_t> ts_index{0};
  std::atomic<uint32_t>* ring = nullptr;
  uint32_t mask = kBufferBytes / 4 - 1;
};
floor_buffer g_floor;

void open_handles() {
  static char dir[] = "/dev/shm/quarry-bench-XXXXXX";
  if (mkdtemp(dir) == nullptr) abort();
  setenv("QUARRY_PATH", dir, 1);
  quarry_set_process_name("record_paths_bench");
  static quarry::provider<bench_points> typed(kBufferBytes);
  static quarry::provider<bench_off> off(kBufferBytes);
  quarry_open_internal(&g_variadic, "variadic", kBufferBytes, 5, "bench.dec", "0", nullptr);
  quarry_open_internal(&g_disabled, "variadic_off", kBufferBytes, 5, "bench.dec", "0", nullptr);
  if (typed.result() != 0 || off.result() != 0 || g_variadic == nullptr || !g_disabled) abort();
  quarry_set_enabled(off.handle(), false);
  quarry_set_enabled(g_disabled, false);
  for (quarry_handle* h : {typed.handle(), off.handle(), g_variadic, g_disabled})
    quarry_set_dump_on_exit(h, false);
  g_floor.ring = static_cast<std::atomic<uint32_t>*>(aligned_alloc(64, kBufferBytes));
  for (uint32_t i = 0; i <= g_floor.mask; ++i) g_floor.ring[i].store(0);
}

void BM_Floor(benchmark::State& state) {
  floor_buffer& f = g_floor;
  for (auto _ : state) {
    uint32_t p = f.word_count.fetch_add(4, std::memory_order_relaxed) & f.mask;
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    uint32_t index = f.ts_index.fetch_add(1, std::memory_order_relaxed);
    f.entry_count.fetch_add(1, std::memory_order_relaxed);
    uint64_t t = static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + ts.tv_nsec + index;
    f.ring[(p + 1) & f.mask].store(t >> 32, std::memory_order_relaxed);
    f.ring[(p + 2) & f.mask].store(t, std::memory_order_relaxed);
    f.ring[(p + 3) & f.mask].store(p, std::memory_order_relaxed);
    f.ring[p].store(0xFF000000u, std::memory_order_release);
  }
}

void BM_Typed4(benchmark::State& state) {
  for (auto _ : state) bench_points::none();
}
void BM_Variadic4(benchmark::State& state) {
  for (auto _ : state) QUARRY_TRACE(g_variadic, 0, "");
}
void BM_TypedD(benchmark::State& state) {
  uint32_t i = 0;
  for (auto _ : state) bench_points::one(i++);
}
void BM_VariadicD(benchmark::State& state) {
  uint32_t i = 0;
  for (auto _ : state) QUARRY_TRACE(g_variadic, 1, "d", i++);
}
void BM_TypedDS(benchmark::State& state) {
  uint32_t i = 0;
  for (auto _ : state) bench_points::request(i++, g_path);
}
void BM_VariadicDS(benchmark::State& state) {
  uint32_t i = 0;
  for (auto _ : state) QUARRY_TRACE(g_variadic, 2, "ds", i++, g_path);
}
void BM_Typed11(benchmark::State& state) {
  uint32_t i = 0;
  for (auto _ : state) bench_points::six(i++, 2u, 3u, 4u, 5u, 6u);
}
void BM_Variadic11(benchmark::State& state) {
  uint32_t i = 0;
  for (auto _ : state) QUARRY_TRACE(g_variadic, 3, "dddddd", i++, 2u, 3u, 4u, 5u, 6u);
}
void BM_TypedDisabled(benchmark::State& state) {
  uint32_t i = 0;
  for (auto _ : state) bench_off::one(i++);
}
void BM_VariadicDisabled(benchmark::State& state) {
  for (auto _ : state) QUARRY_TRACE(g_disabled, 1, "d", 1u);
}

BENCHMARK(BM_Floor);
BENCHMARK(BM_Typed4);
BENCHMARK(BM_Variadic4);
BENCHMARK(BM_TypedD);
BENCHMARK(BM_VariadicD);
BENCHMARK(BM_TypedDS);
BENCHMARK(BM_VariadicDS);
BENCHMARK(BM_Typed11);
BENCHMARK(BM_Variadic11);
BENCHMARK(BM_TypedDisabled);
BENCHMARK(BM_VariadicDisabled);

// Keeps every repetition's ns per record by name, in the order run, so that main can print each
// benchmark's ratio to the floor of the same repetition.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration)
        ns_[run.benchmark_name()].push_back(run.GetAdjustedRealTime());
    }
  }
  void PrintRatios() const {
    auto floor = ns_.find("BM_Floor");
    if (floor == ns_.end()) return;
    // ratio: median over repetitions of (ns / floor ns of the same repetition), with its range;
    // best: the fastest repetition against the fastest floor, the least disturbed pair on a
    // shared machine.
    printf("\n%-22s %9s %8s %17s %8s  (%zu repetitions)\n", "record", "ns", "ratio", "ratio range",
           "best", floor->second.size());
    for (const auto& [name, ns] : ns_) {
      std::vector<double> ratios;
      for (size_t i = 0; i < ns.size() && i < floor->second.size(); ++i)
        ratios.push_back(ns[i] / floor->second[i]);
      std::sort(ratios.begin(), ratios.end());
      const double best = *std::min_element(ns.begin(), ns.end()) /
                          *std::min_element(floor->second.begin(), floor->second.end());
      printf("%-22s %9.2f %8.3f %8.3f..%-8.3f %8.3f\n", name.c_str(), median(ns),
             ratios[ratios.size() / 2], ratios.front(), ratios.back(), best);
    }
  }

 private:
  static double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
  }
  std::map<std::string, std::vector<double>> ns_;
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
