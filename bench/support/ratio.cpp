// The runner: Google Benchmark's own console output, then the ratios.
#include <bench/support/ratio.h>

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

    double at(double share) {
        std::sort(ns.begin(), ns.end());
        return ns[std::min(ns.size() - 1, static_cast<size_t>(share * static_cast<double>(ns.size())))];
    }
    double median() { return at(0.5); }
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

void print_times(Collector &collector) {
    printf("%-44s %12s %12s %12s\n", "benchmark", "median ns", "10% ns", "90% ns");
    for (auto &[name, times] : collector.times)
        printf("%-44s %12.1f %12.1f %12.1f\n", name.c_str(), times.median(), times.at(0.1), times.at(0.9));
}

void print_verdict(double value, double target) {
    if (target > 0)
        printf("   (target at most %.2f: %s)", target, value <= target ? "met" : "MISSED");
    printf("\n");
}

} // namespace

int run(int argc, char **argv, const std::vector<Ratio> &ratios, const std::vector<Limit> &limits) {
    std::vector<char *> arguments = {argv[0]};
    for (const char *argument : defaults)
        arguments.push_back(const_cast<char *>(argument));
    arguments.insert(arguments.end(), argv + 1, argv + argc);
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);
    print_times(collector);
    for (const auto &[measured, baseline, target] : ratios) {
        if (!collector.times.contains(measured) || !collector.times.contains(baseline))
            continue;
        const double ratio = collector.times[measured].median() / collector.times[baseline].median();
        printf("%s / %s = %.3f", measured.c_str(), baseline.c_str(), ratio);
        print_verdict(ratio, target);
    }
    for (const auto &[measured, most_ns] : limits) {
        if (!collector.times.contains(measured))
            continue;
        printf("%s = %.1f ns", measured.c_str(), collector.times[measured].median());
        print_verdict(collector.times[measured].median(), most_ns);
    }
    return 0;
}

} // namespace bench
