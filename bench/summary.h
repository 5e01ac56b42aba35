// The comparison lines every benchmark ends with: bench/run gathers the lines
// starting with "= " from all of them into one table.
#ifndef DAXO_BENCH_SUMMARY_H
#define DAXO_BENCH_SUMMARY_H

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace bench {

// measure | library | raw | library / raw | target ("-" when there is none)
inline void PrintComparison(const char* measure, const std::string& library,
                            const std::string& raw, double ratio, const char* target) {
  std::printf("= %s|%s|%s|%.2f|%s\n", measure, library.c_str(), raw.c_str(), ratio, target);
}

inline std::string Figure(const char* format, double value) {
  char text[64];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

// The console report, keeping the median CPU time of each benchmark (in its
// display unit) for the comparison lines. No colours: the output goes to a log.
class MedianReporter : public benchmark::ConsoleReporter {
 public:
  MedianReporter() : ConsoleReporter(OO_Tabular) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs)
      if (run.aggregate_name == "median") medianCpu[run.run_name.function_name] = run.GetAdjustedCPUTime();
  }
  std::map<std::string, double> medianCpu;
};

}  // namespace bench

#endif
