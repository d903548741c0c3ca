// The plain TLS baselines as benchmarks, registered and run beside a program's own
// by its main function: bulk transfer and ping-pong over a RawTlsPair,
// whose figures go to the run's summary (bench/support/runsummary.h) under fixed
// names, so that every program compares with the same figures:
//   raw_bulk_16k_MBps, raw_bulk_16k_cpu_us_per_MiB        (16 KiB records)
//   raw_bulk_frames_MBps, raw_bulk_frames_cpu_us_per_MiB  (8-byte and 8192-byte records)
//   raw_pingpong_median_us, raw_pingpong_p99_us, raw_pingpong_cpu_us_per_call
//   handoff_pingpong_median_us, ... (the ping-pong with a thread hand-off on each end)
// To be called once, from main.
#pragma once

#include <cstddef>

#include "bench/support/runsummary.h"

namespace apm {
namespace bench {

// What the baselines of a program do: "BM_RawTlsBulk/record:16384/header:0" sends
// `bulk_bytes` in 16 KiB records, `bulk_iterations` times; with `frame_records`
// also "BM_RawTlsBulk/record:8192/header:8", the records a frame-per-write engine
// would write (an 8-byte frame header and its 8192-byte payload as two records);
// "BM_RawTlsPingPong" makes `round_trips` round trips of `round_trip_bytes`, and
// "BM_RawTlsHandOffPingPong" as many with RawTlsPair::HandOffPingPong.
struct RawTlsBaselines {
  size_t bulk_bytes;
  int bulk_iterations;
  bool frame_records;
  size_t round_trip_bytes;
  int round_trips;
};

// The main function of a benchmark program, after it has made BenchTlsSettings:
// ignores SIGPIPE, registers `baselines` behind the program's own benchmarks,
// lets `add_goals` enter the goals into the summary, runs what the command line
// selects and prints the summary. Returns the exit status.
int RunBenchmarksWithBaselines(int argc, char** argv, const RawTlsBaselines& baselines,
                               void (*add_goals)(RunSummary& summary));

}  // namespace bench
}  // namespace apm
