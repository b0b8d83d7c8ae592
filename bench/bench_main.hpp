// The main of every benchmark program: runs the benchmarks selected on the
// command line with Google Benchmark's console output, keeps the time of
// each, and ends with the program's table of ratios.
#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <map>
#include <optional>
#include <string>

namespace tkbench {

// CPU time per iteration in nanoseconds of every benchmark that ran, by
// name, and its counters; the median when it ran with repetitions.
class Results {
public:
    void add(const std::string& name, double ns) { ns_[name] = ns; }
    void addCounter(const std::string& name, const std::string& counter, double value) {
        counters_[name + "\n" + counter] = value;
    }
    std::optional<double> ns(const std::string& name) const { return find(ns_, name); }
    // A user counter of the benchmark, as reported.
    std::optional<double> counter(const std::string& name, const std::string& counter) const {
        return find(counters_, name + "\n" + counter);
    }

private:
    static std::optional<double> find(const std::map<std::string, double>& values, const std::string& key) {
        auto found = values.find(key);
        if (found == values.end()) return std::nullopt;
        return found->second;
    }
    std::map<std::string, double> ns_, counters_;
};

// "3.21x"; "-" when either side is missing.
std::string ratio(std::optional<double> numerator, std::optional<double> denominator);
// A time in ns, us or ms with four significant digits; "-" when missing.
std::string duration(std::optional<double> ns);

// Runs the benchmarks, then prints `summary`. The exit status for main.
int run(int argc, char** argv, const std::function<void(const Results&)>& summary);

}  // namespace tkbench
