// Cost of a dump: a full 4 MiB buffer written as a trace file to /dev/shm, against the floor of
// a plain open + write(2) + close of the same 4 MiB from the same memory to the same
// directory, measured in the same run. Prints both medians and their ratio.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <map>
#include <string>

#include "ring.h"
#include "trace_file.h"

namespace {

constexpr uint32_t kBufferBytes = 4u << 20;

std::string g_dir;
circular_buffer* g_cb = nullptr;

circular_buffer* make_full_buffer(const std::string& dir) {
  circular_buffer* cb = new circular_buffer();
  cb->output_file_name = strdup((dir + "/quarry").c_str());
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&cb->mutex, &attr);
  cb->file_loop_count = 2;
  cb->min_wraparound_time = ~0ull;
  if (set_circular_buffer_size(cb, kBufferBytes) != 0) abort();
  ring_view ring = load_ring(cb);
  for (uint32_t i = 0; i < ring.size_words; ++i) ring.buffer[i].store(i * 2654435761u);
  cb->word_count = ring.size_words + 17;  // wrapped: the whole ring is written
  build_output_header(cb);
  auto* h = static_cast<quarry_handle*>(calloc(1, sizeof(quarry_handle) + 1));
  h->cb = cb;
  h->decode_ref = strdup("QUARRY_DECODE_REF bench \"bench.dec\" 0.99.b\n");
  cb->handle_list.store(new handle_node{h, {nullptr}});
  cb->handle_count.store(1);
  return cb;
}

void BM_DumpFullBuffer(benchmark::State& state) {
  for (auto _ : state) {
    take_time_sample(&time_omega);
    if (dump_circular_buffer(g_cb) != 0) state.SkipWithError("dump failed");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kBufferBytes);
}

void BM_PlainWriteFloor(benchmark::State& state) {
  const std::string path = g_dir + "/plain.bin";
  const char* data = reinterpret_cast<const char*>(load_ring(g_cb).buffer);
  for (auto _ : state) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    size_t done = 0;
    while (fd >= 0 && done < kBufferBytes) {
      ssize_t n = write(fd, data + done, kBufferBytes - done);
      if (n < 0) break;
      done += static_cast<size_t>(n);
    }
    if (fd < 0 || done != kBufferBytes) state.SkipWithError("write failed");
    close(fd);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kBufferBytes);
}

BENCHMARK(BM_DumpFullBuffer)->Unit(benchmark::kMicrosecond)->UseRealTime()->Repetitions(7);
BENCHMARK(BM_PlainWriteFloor)->Unit(benchmark::kMicrosecond)->UseRealTime()->Repetitions(7);

// Keeps the median of each benchmark while printing as usual.
class MedianReporter : public benchmark::ConsoleReporter {
 public:
  MedianReporter() : ConsoleReporter(OO_Tabular) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
        medians[run.run_name.function_name] = run.GetAdjustedRealTime();
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<std::string, double> medians;
};

}  // namespace

int main(int argc, char** argv) {
  char pattern[] = "/dev/shm/quarry-dump-bench-XXXXXX";
  if (mkdtemp(pattern) == nullptr) {
    perror("mkdtemp");
    return 1;
  }
  g_dir = pattern;
  g_cb = make_full_buffer(g_dir);

  benchmark::Initialize(&argc, argv);
  MedianReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  auto dump = reporter.medians.find("BM_DumpFullBuffer");
  auto floor = reporter.medians.find("BM_PlainWriteFloor");
  if (dump != reporter.medians.end() && floor != reporter.medians.end() && floor->second > 0) {
    printf(
        "dump of a full 4 MiB buffer: %.1f us, plain write(2) of 4 MiB: %.1f us, ratio %.3f "
        "(target at most 1.2)\n",
        dump->second, floor->second, dump->second / floor->second);
  }

  unlink((g_dir + "/quarry_0.trc").c_str());
  unlink((g_dir + "/plain.bin").c_str());
  rmdir(g_dir.c_str());
  return 0;
}
