// A console reporter that also keeps each benchmark's processor and wall time per iteration (in
// the benchmark's own unit), so that a program can print ratios against its anchors afterwards.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

class TimeReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const auto& run : runs)
            if (run.run_type == Run::RT_Iteration)
                times[run.benchmark_name()] = {run.GetAdjustedCPUTime(), run.GetAdjustedRealTime()};
    }
    // Processor time of a benchmark, 0 when it did not run.
    double cpu(const std::string& name) const {
        auto it = times.find(name);
        return it == times.end() ? 0.0 : it->second.first;
    }
    std::map<std::string, std::pair<double, double>> times; // processor, wall
};
