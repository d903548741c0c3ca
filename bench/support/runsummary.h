// RunSummary: the figures that the benchmarks of one program put down by name as
// they run, and the ratios between them (or a figure against its goal), printed
// together at the end so that one run gives every comparison.
//
// One process-wide instance (Get). Set may be called from any thread; Print once
// the benchmarks are over. A ratio or figure whose inputs were not measured (a
// filtered-out benchmark) is printed as "not measured".
#pragma once

#include <boost/noncopyable.hpp>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace apm {
namespace bench {

class RunSummary : private boost::noncopyable {
 public:
  // Which way a goal bounds a value; kNoGoal for a comparison shown without one.
  enum Bound { kAtMost, kAtLeast, kNoGoal };

  static RunSummary& Get();

  void Set(const std::string& name, double value);

  // A line of the summary: figure `numerator` divided by figure `denominator`,
  // against the goal `bound` `goal` (not read for kNoGoal).
  void AddRatio(const std::string& label, const std::string& numerator, const std::string& denominator,
                Bound bound, double goal);
  // A line of the summary: figure `name` itself against the goal.
  void AddFigure(const std::string& label, const std::string& name, Bound bound, double goal);

  // The machine's load average, every figure, then every line, with "met" or
  // "missed" where it has a goal, to `out`.
  void Print(FILE* out) const;

 private:
  struct Line {
    std::string label, numerator, denominator;
    Bound bound;
    double goal;
  };

  RunSummary() = default;
  bool Find(const std::string& name, double& value) const;

  mutable std::mutex mutex_;
  std::map<std::string, double> figures_;
  std::vector<Line> lines_;
};

}  // namespace bench
}  // namespace apm
