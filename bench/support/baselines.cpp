#include "bench/support/baselines.h"

#include <benchmark/benchmark.h>
#include <signal.h>

#include <chrono>
#include <string>
#include <vector>

#include "bench/support/measure.h"
#include "bench/support/rawtls.h"

namespace apm {
namespace bench {

namespace {

void RawTlsBulk(benchmark::State& state, const std::string& name, size_t bytes, size_t record, size_t header) {
  RawTlsPair pair;
  const double cpu_started = ProcessCpuMicroseconds();
  const auto started = std::chrono::steady_clock::now();
  for (auto _ : state) {
    if (!pair.Bulk(bytes, record, header)) state.SkipWithError("transfer failed");
  }
  ReportBulkFigures(state, name, bytes, MicrosecondsSince(started) / 1e6, cpu_started);
  state.SetLabel(pair.Cipher());
}

void RawTlsPingPong(benchmark::State& state, const std::string& name,
                    std::vector<double> (RawTlsPair::*ping_pong)(size_t, int), size_t bytes, int count) {
  RawTlsPair pair;
  const double cpu_started = ProcessCpuMicroseconds();
  std::vector<double> times;
  for (auto _ : state) times = (pair.*ping_pong)(bytes, count);
  if (times.size() != static_cast<size_t>(count)) state.SkipWithError("ping-pong failed");
  ReportRoundTripFigures(state, name, times, cpu_started);
  state.SetLabel(pair.Cipher());
}

void RegisterRawTlsBulk(size_t bytes, int iterations, bool frame_records) {
  benchmark::RegisterBenchmark("BM_RawTlsBulk/record:16384/header:0", RawTlsBulk, "raw_bulk_16k", bytes, 16384, 0)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime()
      ->Iterations(iterations);
  if (!frame_records) return;
  benchmark::RegisterBenchmark("BM_RawTlsBulk/record:8192/header:8", RawTlsBulk, "raw_bulk_frames", bytes, 8192, 8)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime()
      ->Iterations(iterations);
}

void RegisterRawTlsPingPong(size_t bytes, int count) {
  benchmark::RegisterBenchmark("BM_RawTlsPingPong", RawTlsPingPong, "raw_pingpong", &RawTlsPair::PingPong, bytes,
                               count)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime()
      ->Iterations(1);
  benchmark::RegisterBenchmark("BM_RawTlsHandOffPingPong", RawTlsPingPong, "handoff_pingpong",
                               &RawTlsPair::HandOffPingPong, bytes, count)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime()
      ->Iterations(1);
}

}  // namespace

int RunBenchmarksWithBaselines(int argc, char** argv, const RawTlsBaselines& baselines,
                               void (*add_goals)(RunSummary& summary)) {
  signal(SIGPIPE, SIG_IGN);
  benchmark::Initialize(&argc, argv);
  RegisterRawTlsBulk(baselines.bulk_bytes, baselines.bulk_iterations, baselines.frame_records);
  RegisterRawTlsPingPong(baselines.round_trip_bytes, baselines.round_trips);
  add_goals(RunSummary::Get());
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  RunSummary::Get().Print(stdout);
  return 0;
}

}  // namespace bench
}  // namespace apm
