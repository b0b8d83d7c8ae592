#include "bench_main.hpp"

#include <unistd.h>

#include <cstdio>
#include <vector>

namespace tkbench {
namespace {

// The console output, keeping every time on the way.
class Reporter : public benchmark::ConsoleReporter {
public:
    explicit Reporter(Results& results) : ConsoleReporter(isatty(1) ? OO_Color : OO_None), results_(results) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred) continue;
            const bool single = run.run_type == Run::RT_Iteration && run.repetitions <= 1;
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (!single && !median) continue;
            const std::string& name = run.run_name.function_name;
            results_.add(name, run.GetAdjustedCPUTime() / benchmark::GetTimeUnitMultiplier(run.time_unit) * 1e9);
            for (const auto& [counter, value] : run.counters) results_.addCounter(name, counter, value);
        }
    }

private:
    Results& results_;
};

std::string format(const char* fmt, double value) {
    char text[32];
    std::snprintf(text, sizeof text, fmt, value);
    return text;
}

}  // namespace

std::string ratio(std::optional<double> numerator, std::optional<double> denominator) {
    if (!numerator || !denominator || *denominator <= 0) return "-";
    return format("%.2fx", *numerator / *denominator);
}

std::string duration(std::optional<double> ns) {
    if (!ns) return "-";
    if (*ns >= 1e6) return format("%.4g ms", *ns / 1e6);
    if (*ns >= 1e4) return format("%.4g us", *ns / 1e3);
    return format("%.4g ns", *ns);
}

int run(int argc, char** argv, const std::function<void(const Results&)>& summary) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    Results results;
    Reporter reporter(results);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    std::printf("\n");
    summary(results);
    return 0;
}

}  // namespace tkbench
