// The runner: Google Benchmark's own console output, then the ratios.
#include <bench/support/ratio.h>

#include <bench/support/placement.h>

#include <algorithm>
#include <cstdio>
#include <map>

#include <benchmark/benchmark.h>

namespace bench {

namespace {

constexpr const char *defaults[] = {"--benchmark_repetitions=15", "--benchmark_min_time=0.1",
                                    "--benchmark_enable_random_interleaving=true"};

struct Times {
    std::vector<double> ns; // real time of one iteration, one for each repetition

    double at(double share) const {
        std::vector<double> sorted = ns;
        std::sort(sorted.begin(), sorted.end());
        return sorted[std::min(sorted.size() - 1, static_cast<size_t>(share * static_cast<double>(sorted.size())))];
    }
    double median() const { return at(0.5); }
    double spread_percent() const { return 100 * (at(0.75) - at(0.25)) / median(); }
};

class Collector : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context &) override { return true; }
    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &run : runs)
            if (run.run_type == Run::RT_Iteration && !run.error_occurred)
                times[run.run_name.function_name].ns.push_back(run.real_accumulated_time /
                                                               static_cast<double>(run.iterations) * 1e9);
    }

    std::map<std::string, Times> times;
};

// False for a target that is missed.
bool print_verdict(double value, double target) {
    const bool is_met = target <= 0 || value <= target;
    if (target > 0)
        printf("   (target at most %.2f: %s)", target, is_met ? "met" : "MISSED");
    printf("\n");
    return is_met;
}

// The spread is the distance of the quartiles in percent of the median.
void print_times(const Collector &collector) {
    printf("%-36s %14s %14s %14s %8s\n", "benchmark", "median ns", "25% ns", "75% ns", "spread");
    for (const auto &[name, times] : collector.times)
        printf("%-36s %14.1f %14.1f %14.1f %6.1f %%\n", name.c_str(), times.median(), times.at(0.25), times.at(0.75),
               times.spread_percent());
}

// Of repetition by repetition, what their quartiles are.
bool print_ratio(const Ratio &ratio, const Times &measured, const Times &baseline) {
    Times ratios;
    for (size_t i = 0; i < std::min(measured.ns.size(), baseline.ns.size()); ++i)
        ratios.ns.push_back(measured.ns[i] / baseline.ns[i]);
    const double value = measured.median() / baseline.median();
    printf("%s / %s = %.3f   (%.3f .. %.3f)", ratio.measured.c_str(), ratio.baseline.c_str(), value, ratios.at(0.25),
           ratios.at(0.75));
    return print_verdict(value, ratio.target);
}

} // namespace

int run(int argc, char **argv, const std::vector<Ratio> &ratios, const std::vector<Limit> &limits) {
    pin(End::client);
    std::vector<char *> arguments = {argv[0]};
    for (const char *argument : defaults)
        arguments.push_back(const_cast<char *>(argument));
    arguments.insert(arguments.end(), argv + 1, argv + argc);
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);
    print_times(collector);
    bool all_met = true;
    for (const Ratio &ratio : ratios)
        if (collector.times.contains(ratio.measured) && collector.times.contains(ratio.baseline))
            all_met = print_ratio(ratio, collector.times[ratio.measured], collector.times[ratio.baseline]) && all_met;
    for (const auto &[measured, most_ns] : limits) {
        if (!collector.times.contains(measured))
            continue;
        printf("%s = %.1f ns", measured.c_str(), collector.times[measured].median());
        all_met = print_verdict(collector.times[measured].median(), most_ns) && all_met;
    }
    return all_met ? 0 : 1;
}

} // namespace bench
