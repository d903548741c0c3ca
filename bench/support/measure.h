// Measuring helpers of the benchmark programs: the processor time of the whole
// process, percentiles of a sample of times, and the timing and reporting of round
// trips and bulk transfers, as counters of the benchmark and as figures of the
// run's summary (bench/support/runsummary.h). Plain functions without state of
// their own; the reporting ones run on the benchmark's thread.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace apm {
namespace bench {

// Processor time of the whole process (all threads, user and system) in
// microseconds: what the work costs, which a busy machine disturbs less than the
// time it takes.
double ProcessCpuMicroseconds();

// Microseconds from `started` until now.
double MicrosecondsSince(std::chrono::steady_clock::time_point started);

// The value below which `share` (0 to 1) of `values` lie; 0 for no values.
double Percentile(std::vector<double> values, double share);

// Sets the counters "median_us", "p99_us" and "cpu_us_per_call" of `state` from the
// round-trip `times` in microseconds and the processor time since `cpu_started`,
// and the figures `name`_median_us, `name`_p99_us and `name`_cpu_us_per_call of the
// summary.
void ReportRoundTripFigures(benchmark::State& state, const std::string& name, const std::vector<double>& times,
                            double cpu_started);

// Times `round_trip` once per iteration of `state` and reports the times as
// ReportRoundTripFigures does; an iteration whose round trip fails ends the
// benchmark with an error.
void TimeRoundTrips(benchmark::State& state, const std::string& name, const std::function<bool()>& round_trip);

// Runs `call` over and over on `workers` threads of its own for `seconds`: the calls
// that succeeded within that time, per second, go to the counter "msgs_per_s" and
// the figure `name`_per_s, the processor time of the process per call to
// "cpu_us_per_call" and `name`_cpu_us_per_call. Each worker has an error record.
void MeasureConcurrentCalls(benchmark::State& state, const std::string& name, int workers, double seconds,
                            const std::function<bool()>& call);

// Sets the rate of the iterations of `state`, each `bytes` long, and the counter
// "cpu_us_per_MiB" from the processor time since `cpu_started`; puts the rate in
// MB/s down as the figure `name`_MBps of the summary, from the `seconds` that all
// iterations took, and the processor time as `name`_cpu_us_per_MiB.
void ReportBulkFigures(benchmark::State& state, const std::string& name, size_t bytes, double seconds,
                       double cpu_started);

}  // namespace bench
}  // namespace apm
