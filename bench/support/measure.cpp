#include "bench/support/measure.h"

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "base/famerror.h"

#include "bench/support/runsummary.h"

namespace apm {
namespace bench {

double ProcessCpuMicroseconds() {
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e6 + usage.ru_utime.tv_usec + usage.ru_stime.tv_usec;
}

double MicrosecondsSince(std::chrono::steady_clock::time_point started) {
  return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - started).count();
}

double Percentile(std::vector<double> values, double share) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  return values[std::min(values.size() - 1, static_cast<size_t>(share * static_cast<double>(values.size())))];
}

void ReportRoundTripFigures(benchmark::State& state, const std::string& name, const std::vector<double>& times,
                            double cpu_started) {
  const double median = Percentile(times, 0.5);
  const double p99 = Percentile(times, 0.99);
  state.counters["median_us"] = median;
  state.counters["p99_us"] = p99;
  if (!times.empty()) {
    const double cpu = (ProcessCpuMicroseconds() - cpu_started) / static_cast<double>(times.size());
    state.counters["cpu_us_per_call"] = cpu;
    RunSummary::Get().Set(name + "_cpu_us_per_call", cpu);
  }
  RunSummary::Get().Set(name + "_median_us", median);
  RunSummary::Get().Set(name + "_p99_us", p99);
}

void TimeRoundTrips(benchmark::State& state, const std::string& name, const std::function<bool()>& round_trip) {
  std::vector<double> times;
  times.reserve(static_cast<size_t>(state.max_iterations));
  const double cpu_started = ProcessCpuMicroseconds();
  for (auto _ : state) {
    const auto started = std::chrono::steady_clock::now();
    if (!round_trip()) {
      state.SkipWithError("round trip failed");
      break;
    }
    times.push_back(MicrosecondsSince(started));
  }
  ReportRoundTripFigures(state, name, times, cpu_started);
}

void MeasureConcurrentCalls(benchmark::State& state, const std::string& name, int workers, double seconds,
                            const std::function<bool()>& call) {
  for (auto _ : state) {
    std::atomic<int64_t> calls{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int worker = 0; worker < workers; ++worker) {
      threads.emplace_back([&]() {
        base::FamError record;
        while (!stop) {
          if (call()) ++calls;
        }
      });
    }
    const double cpu_started = ProcessCpuMicroseconds();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const int64_t done = calls.load();
    const double cpu_used = ProcessCpuMicroseconds() - cpu_started;
    stop = true;
    for (std::thread& thread : threads) thread.join();
    const double rate = static_cast<double>(done) / seconds;
    const double cpu_per_call = done > 0 ? cpu_used / static_cast<double>(done) : 0;
    state.counters["msgs_per_s"] = rate;
    state.counters["cpu_us_per_call"] = cpu_per_call;
    RunSummary::Get().Set(name + "_per_s", rate);
    RunSummary::Get().Set(name + "_cpu_us_per_call", cpu_per_call);
  }
}

void ReportBulkFigures(benchmark::State& state, const std::string& name, size_t bytes, double seconds,
                       double cpu_started) {
  const double total = static_cast<double>(state.iterations()) * static_cast<double>(bytes);
  state.SetBytesProcessed(static_cast<int64_t>(total));
  const double cpu = (ProcessCpuMicroseconds() - cpu_started) / (total / 1048576.0);
  state.counters["cpu_us_per_MiB"] = cpu;
  RunSummary::Get().Set(name + "_cpu_us_per_MiB", cpu);
  RunSummary::Get().Set(name + "_MBps", total / 1e6 / seconds);
}

}  // namespace bench
}  // namespace apm
