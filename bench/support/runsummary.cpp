#include "bench/support/runsummary.h"

#include <fstream>

namespace apm {
namespace bench {

RunSummary& RunSummary::Get() {
  static RunSummary summary;
  return summary;
}

void RunSummary::Set(const std::string& name, double value) {
  std::lock_guard<std::mutex> lock(mutex_);
  figures_[name] = value;
}

void RunSummary::AddRatio(const std::string& label, const std::string& numerator, const std::string& denominator,
                          Bound bound, double goal) {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.push_back(Line{label, numerator, denominator, bound, goal});
}

void RunSummary::AddFigure(const std::string& label, const std::string& name, Bound bound, double goal) {
  AddRatio(label, name, std::string(), bound, goal);
}

bool RunSummary::Find(const std::string& name, double& value) const {
  std::map<std::string, double>::const_iterator entry = figures_.find(name);
  if (entry == figures_.end()) return false;
  value = entry->second;
  return true;
}

void RunSummary::Print(FILE* out) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::string load;
  std::getline(std::ifstream("/proc/loadavg"), load);
  std::fprintf(out, "\nLoad average: %s\nFigures:\n", load.c_str());
  for (const auto& figure : figures_) std::fprintf(out, "  %-40s %12.2f\n", figure.first.c_str(), figure.second);
  std::fprintf(out, "Comparisons:\n");
  for (const Line& line : lines_) {
    double value = 0, denominator = 1;
    const char* relation = line.bound == kAtMost ? "<=" : ">=";
    if (!Find(line.numerator, value) || (!line.denominator.empty() && !Find(line.denominator, denominator)) ||
        denominator == 0) {
      std::fprintf(out, "  %-44s not measured\n", line.label.c_str());
      continue;
    }
    value /= denominator;
    if (line.bound == kNoGoal) {
      std::fprintf(out, "  %-44s %10.3f\n", line.label.c_str(), value);
      continue;
    }
    const bool met = line.bound == kAtMost ? value <= line.goal : value >= line.goal;
    std::fprintf(out, "  %-44s %10.3f  (goal %s %g: %s)\n", line.label.c_str(), value, relation, line.goal,
                 met ? "met" : "missed");
  }
}

}  // namespace bench
}  // namespace apm
