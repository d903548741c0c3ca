// Throughput of JsonParser::parseimpl and serializeCtx on three documents of about
// 1 MB (bench/data, made by generate_json.py), and of nlohmann-json doing the same
// work on the same text in the same run. Throughput counts the document's bytes.
// After the benchmarks a table gives MB/s of both and the ratio ours / baseline.
// Serialization is measured twice: into a std::string, the same sink as dump, and
// into a std::ostringstream, as the daemon's callers do; the latter pays for the
// string stream's own growth and copy.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "base/jsonparser.h"
#include "base/jsonvalue.h"

namespace {

using apm::base::CRefPtr;
using apm::base::JsonParser;
using apm::base::JsonSerializationContext;
using apm::base::JsonValue;

const char* const kDocuments[] = {"records", "config", "strings"};

const std::string& Document(const std::string& name) {
  static std::map<std::string, std::string> cache;
  auto found = cache.find(name);
  if (found != cache.end()) return found->second;
  std::ifstream in(std::string(ECOMM_BENCH_DATA_DIR) + "/" + name + ".json", std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  if (text.str().empty()) {
    fprintf(stderr, "missing document %s\n", name.c_str());
    std::exit(1);
  }
  return cache[name] = text.str();
}

void ParseOurs(benchmark::State& state, const std::string& name) {
  const std::string& text = Document(name);
  for (auto _ : state) {
    CRefPtr<JsonValue> value;
    if (!JsonParser::parseimpl(text, value)) state.SkipWithError("parse failed");
    benchmark::DoNotOptimize(value.get());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void ParseBaseline(benchmark::State& state, const std::string& name) {
  const std::string& text = Document(name);
  for (auto _ : state) {
    nlohmann::json value = nlohmann::json::parse(text);
    benchmark::DoNotOptimize(value);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void SerializeOurs(benchmark::State& state, const std::string& name) {
  const std::string& text = Document(name);
  CRefPtr<JsonValue> value;
  if (!JsonParser::parseimpl(text, value)) {
    state.SkipWithError("parse failed");
    return;
  }
  size_t written = 0;
  for (auto _ : state) {
    std::ostringstream out;
    JsonSerializationContext context;
    value->serializeCtx(out, context);
    written = static_cast<size_t>(out.tellp());
    benchmark::DoNotOptimize(written);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
  state.counters["output_bytes"] = static_cast<double>(written);
}

// A stream buffer that appends to a std::string, growing it as nlohmann-json's dump
// grows its result: the same sink for both libraries.
class StringSink : public std::streambuf {
 public:
  std::string text;

 protected:
  int_type overflow(int_type c) override {
    if (c != traits_type::eof()) text.push_back(static_cast<char>(c));
    return traits_type::not_eof(c);
  }
  std::streamsize xsputn(const char* data, std::streamsize count) override {
    text.append(data, static_cast<size_t>(count));
    return count;
  }
};

// Serialization into a std::string, the result that dump gives.
void SerializeOursToString(benchmark::State& state, const std::string& name) {
  const std::string& text = Document(name);
  CRefPtr<JsonValue> value;
  if (!JsonParser::parseimpl(text, value)) {
    state.SkipWithError("parse failed");
    return;
  }
  size_t written = 0;
  for (auto _ : state) {
    StringSink sink;
    std::ostream out(&sink);
    JsonSerializationContext context;
    value->serializeCtx(out, context);
    written = sink.text.size();
    benchmark::DoNotOptimize(sink.text.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
  state.counters["output_bytes"] = static_cast<double>(written);
}

void SerializeBaseline(benchmark::State& state, const std::string& name) {
  const std::string& text = Document(name);
  const nlohmann::json value = nlohmann::json::parse(text);
  size_t written = 0;
  for (auto _ : state) {
    std::string out = value.dump();
    written = out.size();
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
  state.counters["output_bytes"] = static_cast<double>(written);
}

// Keeps the bytes per second of each run for the summary table.
class SummaryReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    // With --benchmark_repetitions the median stands for the benchmark.
    for (const Run& run : runs) {
      auto found = run.counters.find("bytes_per_second");
      if (found == run.counters.end() || run.error_occurred) continue;
      const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
      if (run.run_type == Run::RT_Iteration && run.repetitions <= 1) {
        rates[run.run_name.str()] = found->second.value / 1e6;
      } else if (median) {
        rates[run.run_name.str()] = found->second.value / 1e6;
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void PrintSummary() const {
    printf("\n%-10s %-12s %12s %12s %8s\n", "document", "operation", "ours MB/s", "nlohmann MB/s", "ratio");
    for (const char* document : kDocuments) {
      const struct {
        const char* label;
        const char* ours;
        const char* baseline;
      } rows[] = {{"parse", "Parse/ours/", "Parse/nlohmann/"},
                  {"ser-string", "Serialize/ours-string/", "Serialize/nlohmann/"},
                  {"ser-sstream", "Serialize/ours/", "Serialize/nlohmann/"}};
      for (const auto& row : rows) {
        const double ours = Rate(row.ours + std::string(document));
        const double baseline = Rate(row.baseline + std::string(document));
        printf("%-10s %-12s %12.1f %12.1f %8.2f\n", document, row.label, ours, baseline,
               baseline > 0 ? ours / baseline : 0.0);
      }
    }
  }

  std::map<std::string, double> rates;

 private:
  double Rate(const std::string& name) const {
    auto found = rates.find(name);
    return found == rates.end() ? 0.0 : found->second;
  }
};

}  // namespace

int main(int argc, char** argv) {
  for (const char* document : kDocuments) {
    const std::string name = document;
    benchmark::RegisterBenchmark(("Parse/ours/" + name).c_str(), ParseOurs, name)->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("Parse/nlohmann/" + name).c_str(), ParseBaseline, name)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("Serialize/ours/" + name).c_str(), SerializeOurs, name)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("Serialize/ours-string/" + name).c_str(), SerializeOursToString, name)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("Serialize/nlohmann/" + name).c_str(), SerializeBaseline, name)
        ->Unit(benchmark::kMillisecond);
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  SummaryReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintSummary();
  benchmark::Shutdown();
  return 0;
}
