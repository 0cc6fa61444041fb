// Decoding speed: a full 4 MiB trace file of mixed records (written through the library and
// dumped, so it has wrapped) decoded to text, JSON lines and Chrome JSON written to /dev/null,
// in records per second on one core. The floor is a pass over the same words that only finds
// the header words, the least any decoder must do.
//
//   build/bench/decode_bench [--benchmark_repetitions=5]
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "quarry/quarry.h"
#include "quarry_decode/inputs.h"
#include "quarry_decode/output.h"
#include "quarry_decode/trace_reader.h"

namespace {

using namespace quarry_decode;

TraceData* g_data;
FILE* g_null;

// Fills a 4 MiB buffer one and a half times with a mix of the record shapes a daemon writes,
// dumps it and reads the file back.
void make_trace() {
  static char dir[] = "/tmp/quarry-decode-bench-XXXXXX";
  if (mkdtemp(dir) == nullptr) abort();
  setenv("QUARRY_PATH", dir, 1);
  setenv("QUARRY_DEC_PATH", dir, 1);
  std::ofstream(std::string(dir) + "/bench.dec") << "0 request ds id path = request {} for {path}\n"
                                                    "1 reply dD status elapsed_ns:u\n"
                                                    "2 io dd fd bytes:x\n"
                                                    "3 tick d round\n"
                                                    "4 state s text = state {}\n"
                                                    "5 idle -\n"
                                                    "6 stats dddddd a b c d e f\n";
  quarry_set_process_name("decode_bench");
  quarry_set_current_thread_name("bench-main");
  quarry_handle* h = nullptr;
  if (quarry_open_internal(&h, "bench", 4u << 20, 7, "bench.dec", "1", nullptr) != 0) abort();
  quarry_set_dump_on_exit(h, false);
  static const char* const paths[] = {"/index.html", "/api/v1/items", "/health", "/static/app.js"};
  for (uint32_t i = 0; i < 260000; ++i) {
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
  }
  if (quarry_dump(h) != 0) abort();
  DecodeFileCache cache(decode_search_path({}));
  std::string file = newest_trace_file(std::string(dir) + "/decode_bench/bench");
  g_data = new TraceData(read_trace_file(file, cache));
  // Everything needed is in memory now (the decode file is held by the catalog).
  if (system(("rm -rf '" + std::string(dir) + "'").c_str()) != 0) abort();
  g_null = fopen("/dev/null", "w");
  if (g_null == nullptr) abort();
}

void BM_Floor(benchmark::State& state) {
  const std::vector<uint32_t>& words = g_data->words;
  size_t headers = 0;
  for (auto _ : state) {
    headers = 0;
    for (uint32_t w : words) headers += (w >> 24) == 0xFF;
    benchmark::DoNotOptimize(headers);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * headers));
}

class NullSink : public RecordSink {
 public:
  void on_record(const Record& r) override { benchmark::DoNotOptimize(r.timestamp); }
};

void BM_Walk(benchmark::State& state) {
  NullSink sink;
  for (auto _ : state) {
    g_data->source->stats = DecodeStats{};
    decode_trace(*g_data, sink);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * g_data->source->stats.records));
}

void decode_to(benchmark::State& state, OutputFormat format) {
  OutputOptions options;
  options.format = format;
  for (auto _ : state) {
    OutputBuffer out(g_null);
    auto formatter = make_formatter(options, out);
    g_data->source->stats = DecodeStats{};
    formatter->begin_source(*g_data->source);
    decode_trace(*g_data, *formatter);
    formatter->end();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * g_data->source->stats.records));
  state.counters["records"] = static_cast<double>(g_data->source->stats.records);
}

void BM_Text(benchmark::State& state) {
  decode_to(state, OutputFormat::kText);
}
void BM_Json(benchmark::State& state) {
  decode_to(state, OutputFormat::kJson);
}
void BM_Chrome(benchmark::State& state) {
  decode_to(state, OutputFormat::kChrome);
}

BENCHMARK(BM_Floor)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Walk)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Text)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Json)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Chrome)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  make_trace();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  printf("trace file: %zu data words, ENTRY_COUNT %u\n", g_data->words.size(),
         g_data->source->header.entry_count);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
