// Throughput of JsonParser::parseimpl and serializeCtx on three documents of about
// 1 MB (bench/data, made by generate_json.py), and of nlohmann-json doing the same
// work on the same text in the same run. Throughput counts the document's bytes.
// After the benchmarks a table gives MB/s of both (the best of the repetitions, e.g.
// --benchmark_repetitions=5) and the ratio ours / baseline.
// Serialization is measured three ways: into one std::string reused across
// iterations by both libraries (the serializers' own speed); into a new std::string
// each time, as dump returns it; and ours into a std::ostringstream, as the daemon's
// callers do. The last two include growing the result, whose cost here depends on
// how the allocator and the kernel treat the sizes reached.
#include <benchmark/benchmark.h>

#include <algorithm>
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

// Serialization into one std::string kept across iterations (cleared, its memory
// kept): the serializer's own speed, without the cost of growing a new result,
// which on this kind of machine depends on the allocator's luck with sizes.
void SerializeOursReused(benchmark::State& state, const std::string& name) {
  const std::string& text = Document(name);
  CRefPtr<JsonValue> value;
  if (!JsonParser::parseimpl(text, value)) {
    state.SkipWithError("parse failed");
    return;
  }
  StringSink sink;
  std::ostream out(&sink);
  for (auto _ : state) {
    sink.text.clear();
    JsonSerializationContext context;
    value->serializeCtx(out, context);
    benchmark::DoNotOptimize(sink.text.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
  state.counters["output_bytes"] = static_cast<double>(sink.text.size());
}

void SerializeBaselineReused(benchmark::State& state, const std::string& name) {
  const std::string& text = Document(name);
  const nlohmann::json value = nlohmann::json::parse(text);
  std::string out;
  for (auto _ : state) {
    out.clear();
    nlohmann::detail::serializer<nlohmann::json> serializer(
        nlohmann::detail::output_adapter<char, std::string>(out), ' ');
    serializer.dump(value, false, false, 0);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
  state.counters["output_bytes"] = static_cast<double>(out.size());
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
    // The best repetition stands for the benchmark: on a shared machine the other
    // load only ever slows a run down.
    for (const Run& run : runs) {
      auto found = run.counters.find("bytes_per_second");
      if (found == run.counters.end() || run.error_occurred || run.run_type != Run::RT_Iteration) continue;
      double& best = rates[run.run_name.str()];
      best = std::max(best, found->second.value / 1e6);
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
                  {"ser-reused", "SerializeReused/ours/", "SerializeReused/nlohmann/"},
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
    benchmark::RegisterBenchmark(("SerializeReused/ours/" + name).c_str(), SerializeOursReused, name)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("SerializeReused/nlohmann/" + name).c_str(), SerializeBaselineReused, name)
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
